#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace testsupport {

// How a program ended.
struct ExitStatus {
    bool exited = false;  // by exit(), not by a signal
    int code = -1;
    int signal = 0;
};

// A program running as a child of the test. Its standard output and standard
// error are read on a thread of their own for as long as the object lives. The
// destructor kills and reaps the child if it is still running, so that no test
// leaves one behind, not even a failing one; should the test process itself
// die, the child is killed with it.
class ProgramProcess {
public:
    ProgramProcess(const std::string& program, const std::vector<std::string>& arguments);
    ProgramProcess(const ProgramProcess&) = delete;
    ProgramProcess& operator=(const ProgramProcess&) = delete;
    ~ProgramProcess();

    pid_t pid() const { return _pid; }

    // The first line of standard output, from the start, that contains
    // `fragment`; nothing when none came within `timeout`.
    std::optional<std::string> waitForLine(const std::string& fragment,
                                           std::chrono::milliseconds timeout);
    // Every complete line of standard output so far.
    std::vector<std::string> outputLines() const;
    std::string standardOutput() const;
    std::string standardError() const;

    void sendSignal(int signal);
    // Reaps the child once it has ended; nothing when it is still running
    // after `timeout`.
    std::optional<ExitStatus> waitForExit(std::chrono::milliseconds timeout);
    bool running();

private:
    void readOutput(int outputFd, int errorFd);

    pid_t _pid = -1;
    bool _reaped = false;
    ExitStatus _status;

    mutable std::mutex _mutex;
    std::condition_variable _output_changed;
    std::string _output;
    std::string _error;
    bool _output_closed = false;
    std::thread _reader;
};

namespace program_process_detail {

inline void closeQuietly(int& fd) {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

inline std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (std::size_t end = text.find('\n'); end != std::string::npos;
         end = text.find('\n', start)) {
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

inline ExitStatus decode(int status) {
    ExitStatus result;
    if (WIFEXITED(status)) {
        result.exited = true;
        result.code = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
    return result;
}

}  // namespace program_process_detail

inline ProgramProcess::ProgramProcess(const std::string& program,
                                      const std::vector<std::string>& arguments) {
    using program_process_detail::closeQuietly;
    // Everything the child needs is prepared before fork(): between fork() and
    // exec() a child of a threaded process may only make async-signal-safe
    // calls.
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);

    int output[2] = {-1, -1};
    int error[2] = {-1, -1};
    if (pipe2(output, O_CLOEXEC) != 0 || pipe2(error, O_CLOEXEC) != 0) {
        closeQuietly(output[0]);
        closeQuietly(output[1]);
        throw std::runtime_error("pipe2 failed");
    }
    const pid_t parent = getpid();
    _pid = fork();
    if (_pid == 0) {
        // A test process that dies takes its children with it.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(127);
        }
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        const int nothing = open("/dev/null", O_RDONLY);
        if (nothing >= 0) {
            dup2(nothing, STDIN_FILENO);
        }
        dup2(output[1], STDOUT_FILENO);
        dup2(error[1], STDERR_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    closeQuietly(output[1]);
    closeQuietly(error[1]);
    if (_pid < 0) {
        closeQuietly(output[0]);
        closeQuietly(error[0]);
        throw std::runtime_error("fork failed");
    }
    _reader = std::thread(&ProgramProcess::readOutput, this, output[0], error[0]);
}

inline ProgramProcess::~ProgramProcess() {
    if (_pid > 0 && !_reaped) {
        // SIGKILL also ends a child that was stopped with SIGSTOP.
        kill(_pid, SIGKILL);
        int status = 0;
        // A killed child ends at once, so this wait is short.
        waitpid(_pid, &status, 0);
        _reaped = true;
    }
    // The child's end of both pipes is closed now: the reader sees their end.
    if (_reader.joinable()) {
        _reader.join();
    }
}

inline void ProgramProcess::readOutput(int outputFd, int errorFd) {
    constexpr int kReadPollMs = 100;
    pollfd fds[2] = {{outputFd, POLLIN, 0}, {errorFd, POLLIN, 0}};
    std::string* sinks[2] = {&_output, &_error};
    int open = 2;
    while (open > 0) {
        if (poll(fds, 2, kReadPollMs) < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) {
                continue;
            }
            char buffer[4096];
            const ssize_t got = ::read(fds[i].fd, buffer, sizeof buffer);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                ::close(fds[i].fd);
                fds[i].fd = -1;
                --open;
                continue;
            }
            std::lock_guard<std::mutex> guard(_mutex);
            sinks[i]->append(buffer, static_cast<std::size_t>(got));
            _output_changed.notify_all();
        }
    }
    for (pollfd& fd : fds) {
        if (fd.fd >= 0) {
            ::close(fd.fd);
        }
    }
    std::lock_guard<std::mutex> guard(_mutex);
    _output_closed = true;
    _output_changed.notify_all();
}

inline std::optional<std::string> ProgramProcess::waitForLine(const std::string& fragment,
                                                              std::chrono::milliseconds timeout) {
    std::optional<std::string> found;
    std::unique_lock<std::mutex> lock(_mutex);
    _output_changed.wait_for(lock, timeout, [&] {
        for (const std::string& line : program_process_detail::splitLines(_output)) {
            if (line.find(fragment) != std::string::npos) {
                found = line;
                return true;
            }
        }
        return _output_closed;
    });
    return found;
}

inline std::vector<std::string> ProgramProcess::outputLines() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return program_process_detail::splitLines(_output);
}

inline std::string ProgramProcess::standardOutput() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return _output;
}

inline std::string ProgramProcess::standardError() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return _error;
}

inline void ProgramProcess::sendSignal(int signal) {
    if (_pid > 0 && !_reaped) {
        kill(_pid, signal);
    }
}

inline std::optional<ExitStatus> ProgramProcess::waitForExit(std::chrono::milliseconds timeout) {
    constexpr auto kReapPollInterval = std::chrono::milliseconds(10);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!_reaped) {
        int status = 0;
        const pid_t done = waitpid(_pid, &status, WNOHANG);
        if (done == _pid) {
            _reaped = true;
            _status = program_process_detail::decode(status);
            break;
        }
        if (done < 0 || std::chrono::steady_clock::now() >= deadline) {
            return std::nullopt;
        }
        std::this_thread::sleep_for(kReapPollInterval);
    }
    // Whatever the child wrote before it ended is still in the pipes.
    std::unique_lock<std::mutex> lock(_mutex);
    _output_changed.wait_until(lock, deadline + timeout, [this] { return _output_closed; });
    return _status;
}

inline bool ProgramProcess::running() {
    return !waitForExit(std::chrono::milliseconds(0)).has_value();
}

}  // namespace testsupport
