#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace devnodetest {

// How the program ended.
struct ExitStatus {
    bool exited = false;  // by exit(), not by a signal
    int code = -1;
    int signal = 0;
};

// The orvik-devnode program running as a child of the test. Its standard
// output (the log) and standard error are read on a thread of their own for as
// long as the object lives. The destructor kills and reaps the child if it is
// still running, so that no test leaves one behind, not even a failing one;
// should the test process itself die, the child is killed with it.
class DevNodeProcess {
public:
    explicit DevNodeProcess(const std::vector<std::string>& arguments);
    DevNodeProcess(const DevNodeProcess&) = delete;
    DevNodeProcess& operator=(const DevNodeProcess&) = delete;
    ~DevNodeProcess();

    // Waits at most `timeout` for the ready line and takes the ports from it.
    bool waitUntilReady(std::chrono::milliseconds timeout);
    int listenerPort() const { return _listener_port; }
    int dispenserPort() const { return _dispenser_port; }

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
    int _listener_port = 0;
    int _dispenser_port = 0;

    mutable std::mutex _mutex;
    std::condition_variable _output_changed;
    std::string _output;
    std::string _error;
    bool _output_closed = false;
    std::thread _reader;
};

}  // namespace devnodetest
