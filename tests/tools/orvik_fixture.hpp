#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <orvikm/client.hpp>

#include "client_harness.hpp"
#include "devnode_process.hpp"
#include "orvik_command.hpp"

namespace orviktest {

using namespace std::chrono_literals;

constexpr auto kStartLimit = 10s;
// How long any orvik run that is to end by itself may take on a loaded
// machine; the runs themselves take a fraction of a second.
constexpr auto kRunLimit = 20s;
constexpr auto kEventLimit = 10s;

// An orvik run that has ended.
struct Finished {
    ExitStatus status;
    std::string output;
    std::string error;
    std::vector<std::string> lines;
};

// Runs orvik to its end (at most kRunLimit) and collects what it wrote.
inline Finished runOrvik(const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment = {},
                         std::optional<std::string> input = std::nullopt) {
    OrvikCommand command(arguments, environment, std::move(input));
    const std::optional<ExitStatus> status = command.waitForExit(kRunLimit);
    EXPECT_TRUE(status.has_value()) << "orvik did not end within the limit";
    return Finished{status.value_or(ExitStatus{}), command.standardOutput(),
                    command.standardError(), command.outputLines()};
}

inline std::string lastLine(const Finished& finished) {
    return finished.lines.empty() ? "" : finished.lines.back();
}

// The ids that `orvik send -v` reports as queued, in order.
inline std::vector<std::string> queuedIds(const std::string& error) {
    static const std::regex queued("orvik send: queued ([0-9a-f-]{36})");
    std::vector<std::string> ids;
    for (auto match = std::sregex_iterator(error.begin(), error.end(), queued);
         match != std::sregex_iterator(); ++match) {
        ids.push_back((*match)[1]);
    }
    return ids;
}

// A running orvik-devnode (with --verbose, so that every request is logged) on
// free loopback ports.
class OrvikTest : public ::testing::Test {
protected:
    void SetUp() override { startNode({"--verbose"}); }

    void startNode(std::vector<std::string> extra) {
        std::vector<std::string> arguments{"--listener-port", "0", "--dispenser-port", "0"};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        _node = std::make_unique<devnodetest::DevNodeProcess>(arguments);
        ASSERT_TRUE(_node->waitUntilReady(kStartLimit)) << _node->standardError();
    }

    devnodetest::DevNodeProcess& node() { return *_node; }

    // Kills the node; a new one starts on the same ports at restartNode().
    void killNode() {
        _listener_port = _node->listenerPort();
        _dispenser_port = _node->dispenserPort();
        _node->sendSignal(SIGKILL);
        ASSERT_TRUE(_node->waitForExit(kStartLimit));
    }
    void restartNode(std::vector<std::string> extra = {"--verbose"}) {
        extra.insert(extra.end(), {"--listener-port", std::to_string(_listener_port),
                                   "--dispenser-port", std::to_string(_dispenser_port)});
        startNode(extra);
    }
    std::string listenerPort() const { return std::to_string(_node->listenerPort()); }
    std::string dispenserPort() const { return std::to_string(_node->dispenserPort()); }

    // The arguments with the node's ports before them.
    std::vector<std::string> withPorts(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {"-l", listenerPort(), "-d", dispenserPort()});
        return arguments;
    }

    std::size_t logLinesContaining(const std::string& fragment) const {
        std::size_t count = 0;
        for (const std::string& line : _node->outputLines()) {
            count += line.find(fragment) != std::string::npos ? 1 : 0;
        }
        return count;
    }

    // Sends messages with the payload "probe" along `route`, one every 100 ms,
    // until `listener` has printed a line with "probe" (at most `timeout`): a
    // subscription reaches the node some time after the listener connects.
    bool probeUntilListening(OrvikCommand& listener, const std::string& route,
                             std::chrono::milliseconds timeout) {
        orvikm::Client prober("orvik-test-prober", _node->listenerPort(), _node->dispenserPort(),
                              {});
        const devnodetest::ClientLoop loop(prober);
        const auto end = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < end) {
            devnodetest::sendMessage(prober, "probe", {route}, nullptr);
            if (listener.waitForLine("probe", 100ms)) {
                return true;
            }
        }
        return false;
    }

private:
    std::unique_ptr<devnodetest::DevNodeProcess> _node;
    int _listener_port = 0;
    int _dispenser_port = 0;
};

}  // namespace orviktest
