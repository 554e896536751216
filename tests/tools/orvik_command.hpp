#pragma once

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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

#include "support/program_process.hpp"

extern char** environ;

namespace orviktest {

using testsupport::ExitStatus;

// What the child's standard input and standard error are.
struct OrvikStreams {
    // Written to standard input from a thread of the test; without it
    // standard input is /dev/null.
    std::optional<std::string> input;
    // Standard input stays open after `input` until the command is destroyed,
    // as when a person has not finished typing.
    bool inputStaysOpen = false;
    // Standard error is a pseudo-terminal instead of a pipe; the test reads it
    // all the same (its line ends come as "\r\n").
    bool errorOnTerminal = false;
    // The test closes its end of standard output once it has read this many
    // lines (0: at once), as `orvik ... | head -N` would.
    std::optional<std::size_t> outputReadForLines;
    // The test never reads standard output, but keeps it open: the child's
    // writes wait once the pipe is full, as for a reader that has stalled.
    bool outputStalls = false;
    // The child's address space is limited to this many bytes (RLIMIT_AS),
    // so that a run that grows without bound fails soon.
    std::optional<rlim_t> addressSpaceLimit;
};

inline OrvikStreams inputLeftOpen(std::string input) {
    OrvikStreams streams;
    streams.input = std::move(input);
    streams.inputStaysOpen = true;
    return streams;
}

inline OrvikStreams errorOnTerminal() {
    OrvikStreams streams;
    streams.errorOnTerminal = true;
    return streams;
}

inline OrvikStreams outputReadFor(std::size_t lines) {
    OrvikStreams streams;
    streams.outputReadForLines = lines;
    return streams;
}

inline OrvikStreams outputStalled() {
    OrvikStreams streams;
    streams.outputStalls = true;
    return streams;
}

inline OrvikStreams addressSpaceOf(rlim_t bytes) {
    OrvikStreams streams;
    streams.addressSpaceLimit = bytes;
    return streams;
}

inline OrvikStreams inputOnly(std::optional<std::string> input) {
    OrvikStreams streams;
    streams.input = std::move(input);
    return streams;
}

// The orvik program running as a child of the test, with an environment and
// standard input of the test's choosing. The ORVIK_* port variables of the
// test's own environment are never passed on: only those in `environment`
// reach the child. Standard output and standard error are read on a thread of
// their own; the destructor kills and reaps a child still running.
class OrvikCommand {
public:
    OrvikCommand(const std::vector<std::string>& arguments,
                 const std::vector<std::string>& environment = {},
                 std::optional<std::string> input = std::nullopt)
        : OrvikCommand(arguments, environment, inputOnly(std::move(input))) {}
    OrvikCommand(const std::vector<std::string>& arguments,
                 const std::vector<std::string>& environment, OrvikStreams streams);
    OrvikCommand(const OrvikCommand&) = delete;
    OrvikCommand& operator=(const OrvikCommand&) = delete;
    ~OrvikCommand();

    pid_t pid() const { return _pid; }

    // The first line of standard output that contains `fragment`; nothing when
    // none came within `timeout`.
    std::optional<std::string> waitForLine(const std::string& fragment,
                                           std::chrono::milliseconds timeout);
    // Whether standard error contains `fragment` within `timeout`.
    bool waitForErrorText(const std::string& fragment, std::chrono::milliseconds timeout);
    std::vector<std::string> outputLines() const;
    std::string standardOutput() const;
    std::string standardError() const;

    void sendSignal(int signal);
    // Reaps the child and waits for the end of its output; nothing when it is
    // still running after `timeout`.
    std::optional<ExitStatus> waitForExit(std::chrono::milliseconds timeout);

private:
    void readOutput(int outputFd, int errorFd, std::optional<std::size_t> outputLines,
                    bool outputStalls);

    pid_t _pid = -1;
    bool _reaped = false;
    ExitStatus _status;
    mutable std::mutex _mutex;
    std::condition_variable _output_changed;
    std::string _output;
    std::string _error;
    bool _output_closed = false;
    std::thread _reader;
    std::thread _writer;
    int _open_input = -1;  // the test's end of an input that stays open
};

// A pseudo-terminal: the test's end and the end for the child, both
// close-on-exec; false when none can be had.
inline bool openTerminal(int& testEnd, int& childEnd) {
    testEnd = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (testEnd < 0 || grantpt(testEnd) != 0 || unlockpt(testEnd) != 0) {
        return false;
    }
    const char* name = ptsname(testEnd);
    childEnd = name == nullptr ? -1 : open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    return childEnd >= 0;
}

inline OrvikCommand::OrvikCommand(const std::vector<std::string>& arguments,
                                  const std::vector<std::string>& environment,
                                  OrvikStreams streams) {
    using testsupport::program_process_detail::closeQuietly;
    std::optional<std::string>& input = streams.input;
    std::vector<std::string> words{ORVIK_PATH};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);

    // ThreadSanitizer pauses a second at exit by default; the tests time how
    // long orvik takes, not the sanitizer.
    std::string tsanOptions = "TSAN_OPTIONS=atexit_sleep_ms=0";
    std::vector<std::string> variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string variable = *entry;
        if (variable.rfind("TSAN_OPTIONS=", 0) == 0) {
            tsanOptions = variable + ":atexit_sleep_ms=0";
        } else if (variable.rfind("ORVIK_LISTENER_PORT=", 0) != 0 &&
                   variable.rfind("ORVIK_DISPENSER_PORT=", 0) != 0) {
            variables.push_back(variable);
        }
    }
    variables.push_back(tsanOptions);
    variables.insert(variables.end(), environment.begin(), environment.end());
    std::vector<char*> envp;
    for (std::string& variable : variables) {
        envp.push_back(variable.data());
    }
    envp.push_back(nullptr);

    int in[2] = {-1, -1};
    int out[2] = {-1, -1};
    int err[2] = {-1, -1};
    if ((input && pipe2(in, O_CLOEXEC) != 0) || pipe2(out, O_CLOEXEC) != 0 ||
        (streams.errorOnTerminal ? !openTerminal(err[0], err[1]) : pipe2(err, O_CLOEXEC) != 0)) {
        for (int* fd : {&in[0], &in[1], &out[0], &out[1], &err[0], &err[1]}) {
            closeQuietly(*fd);
        }
        throw std::runtime_error(streams.errorOnTerminal ? "no pseudo-terminal" : "pipe2 failed");
    }
    const pid_t parent = getpid();
    _pid = fork();
    if (_pid == 0) {
        // Only async-signal-safe calls between fork() and exec().
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(127);
        }
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        signal(SIGPIPE, SIG_DFL);
        if (streams.addressSpaceLimit) {
            const rlimit limit{*streams.addressSpaceLimit, *streams.addressSpaceLimit};
            setrlimit(RLIMIT_AS, &limit);
        }
        const int source = input ? in[0] : open("/dev/null", O_RDONLY);
        if (source >= 0) {
            dup2(source, STDIN_FILENO);
        }
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    closeQuietly(in[0]);
    closeQuietly(out[1]);
    closeQuietly(err[1]);
    if (_pid < 0) {
        for (int* fd : {&in[1], &out[0], &err[0]}) {
            closeQuietly(*fd);
        }
        throw std::runtime_error("fork failed");
    }
    _reader = std::thread(&OrvikCommand::readOutput, this, out[0], err[0],
                          streams.outputReadForLines, streams.outputStalls);
    if (input) {
        // Written from a thread of its own, so that a child that does not read
        // cannot block the test; a child that ended without reading ends the
        // writing with EPIPE instead of a SIGPIPE for the test.
        std::signal(SIGPIPE, SIG_IGN);
        if (streams.inputStaysOpen) {
            _open_input = in[1];
        }
        _writer = std::thread(
            [fd = in[1], bytes = std::move(*input), closeAfter = !streams.inputStaysOpen] {
                std::size_t done = 0;
                while (done < bytes.size()) {
                    const ssize_t wrote = ::write(fd, bytes.data() + done, bytes.size() - done);
                    if (wrote < 0 && errno == EINTR) {
                        continue;
                    }
                    if (wrote <= 0) {
                        break;
                    }
                    done += static_cast<std::size_t>(wrote);
                }
                if (closeAfter) {
                    ::close(fd);
                }
            });
    }
}

inline OrvikCommand::~OrvikCommand() {
    if (_pid > 0 && !_reaped) {
        kill(_pid, SIGKILL);
        int status = 0;
        waitpid(_pid, &status, 0);
        _reaped = true;
    }
    // The child's ends of the pipes are closed now: both threads finish.
    if (_writer.joinable()) {
        _writer.join();
    }
    if (_reader.joinable()) {
        _reader.join();
    }
    if (_open_input >= 0) {
        ::close(_open_input);
    }
}

inline void OrvikCommand::readOutput(int outputFd, int errorFd,
                                     std::optional<std::size_t> outputLines, bool outputStalls) {
    constexpr int kReadPollMs = 100;
    pollfd fds[2] = {{outputStalls ? -1 : outputFd, POLLIN, 0}, {errorFd, POLLIN, 0}};
    std::string* sinks[2] = {&_output, &_error};
    int open = outputStalls ? 1 : 2;
    const auto closeOutputWhenRead = [&] {
        std::lock_guard<std::mutex> guard(_mutex);
        if (fds[0].fd >= 0 && outputLines &&
            static_cast<std::size_t>(std::count(_output.begin(), _output.end(), '\n')) >=
                *outputLines) {
            ::close(fds[0].fd);
            fds[0].fd = -1;
            --open;
        }
    };
    closeOutputWhenRead();
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
            {
                std::lock_guard<std::mutex> guard(_mutex);
                sinks[i]->append(buffer, static_cast<std::size_t>(got));
                _output_changed.notify_all();
            }
            closeOutputWhenRead();
        }
    }
    for (pollfd& fd : fds) {
        if (fd.fd >= 0) {
            ::close(fd.fd);
        }
    }
    if (outputStalls) {
        ::close(outputFd);
    }
    std::lock_guard<std::mutex> guard(_mutex);
    _output_closed = true;
    _output_changed.notify_all();
}

inline std::optional<std::string> OrvikCommand::waitForLine(const std::string& fragment,
                                                            std::chrono::milliseconds timeout) {
    std::optional<std::string> found;
    std::unique_lock<std::mutex> lock(_mutex);
    _output_changed.wait_for(lock, timeout, [&] {
        for (const std::string& line : testsupport::program_process_detail::splitLines(_output)) {
            if (line.find(fragment) != std::string::npos) {
                found = line;
                return true;
            }
        }
        return _output_closed;
    });
    return found;
}

inline bool OrvikCommand::waitForErrorText(const std::string& fragment,
                                           std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(_mutex);
    return _output_changed.wait_for(lock, timeout, [&] {
        return _error.find(fragment) != std::string::npos || _output_closed;
    }) && _error.find(fragment) != std::string::npos;
}

inline std::vector<std::string> OrvikCommand::outputLines() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return testsupport::program_process_detail::splitLines(_output);
}

inline std::string OrvikCommand::standardOutput() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return _output;
}

inline std::string OrvikCommand::standardError() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return _error;
}

inline void OrvikCommand::sendSignal(int signal) {
    if (_pid > 0 && !_reaped) {
        kill(_pid, signal);
    }
}

inline std::optional<ExitStatus> OrvikCommand::waitForExit(std::chrono::milliseconds timeout) {
    constexpr auto kReapPollInterval = std::chrono::milliseconds(10);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!_reaped) {
        int status = 0;
        const pid_t done = waitpid(_pid, &status, WNOHANG);
        if (done == _pid) {
            _reaped = true;
            _status = testsupport::program_process_detail::decode(status);
            break;
        }
        if (done < 0 || std::chrono::steady_clock::now() >= deadline) {
            return std::nullopt;
        }
        std::this_thread::sleep_for(kReapPollInterval);
    }
    std::unique_lock<std::mutex> lock(_mutex);
    _output_changed.wait_until(lock, deadline + timeout, [this] { return _output_closed; });
    return _status;
}

}  // namespace orviktest
