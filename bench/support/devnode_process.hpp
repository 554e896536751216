#pragma once

#include <string>

// orvik-devnode as a child process of a benchmark: started on free ports, its
// log written to a temporary file (nothing needs to read it while it runs),
// stopped with SIGTERM at the end.
namespace orvikbench {

class DevNodeProcess {
public:
    // Starts `program` and waits up to ten seconds for its ready line; ends
    // the benchmark when it does not come.
    explicit DevNodeProcess(const std::string& program);
    DevNodeProcess(const DevNodeProcess&) = delete;
    DevNodeProcess& operator=(const DevNodeProcess&) = delete;
    ~DevNodeProcess();

    int listenerPort() const { return _listener_port; }
    int dispenserPort() const { return _dispenser_port; }
    // User plus system time the node's serving thread (its main thread) has
    // used so far, in seconds (the kernel counts it in clock ticks, 10 ms
    // here): comparable with BenchNode::cpuSeconds().
    double cpuSeconds() const;
    // The same for the whole process, libzmq's I/O thread included.
    double processCpuSeconds() const;
    // Context switches (voluntary and not) of all the node's threads so far.
    unsigned long long contextSwitches() const;

private:
    int _pid = -1;
    int _listener_port = 0;
    int _dispenser_port = 0;
    std::string _log_path;
};

}  // namespace orvikbench
