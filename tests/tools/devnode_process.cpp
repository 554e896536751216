#include "devnode_process.hpp"

#include <optional>
#include <regex>

namespace devnodetest {

namespace {

const std::regex kReadyLine(R"(orvik-devnode ready: listener-port=(\d+) dispenser-port=(\d+))");

}  // namespace

DevNodeProcess::DevNodeProcess(const std::vector<std::string>& arguments)
    : ProgramProcess(ORVIK_DEVNODE_PATH, arguments) {}

bool DevNodeProcess::waitUntilReady(std::chrono::milliseconds timeout) {
    const std::optional<std::string> line = waitForLine("orvik-devnode ready: ", timeout);
    std::smatch match;
    if (!line || !std::regex_search(*line, match, kReadyLine)) {
        return false;
    }
    _listener_port = std::stoi(match[1]);
    _dispenser_port = std::stoi(match[2]);
    return true;
}

}  // namespace devnodetest
