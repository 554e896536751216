#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "support/program_process.hpp"

namespace devnodetest {

using testsupport::ExitStatus;

// The orvik-devnode program running as a child of the test, with everything a
// testsupport::ProgramProcess offers: its log read for as long as the object
// lives, and the child killed and reaped at the end.
class DevNodeProcess : public testsupport::ProgramProcess {
public:
    explicit DevNodeProcess(const std::vector<std::string>& arguments);

    // Waits at most `timeout` for the ready line and takes the ports from it.
    bool waitUntilReady(std::chrono::milliseconds timeout);
    int listenerPort() const { return _listener_port; }
    int dispenserPort() const { return _dispenser_port; }

private:
    int _listener_port = 0;
    int _dispenser_port = 0;
};

}  // namespace devnodetest
