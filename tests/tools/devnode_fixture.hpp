#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client_harness.hpp"
#include "devnode_process.hpp"
#include "support/raw_peer.hpp"

namespace devnodetest {

constexpr auto kStartLimit = 10s;
constexpr auto kEventLimit = 10s;

// The bytes of frames a raw peer received, without their more flags.
inline std::vector<std::string> frameBytes(const std::vector<testsupport::Frame>& frames) {
    std::vector<std::string> bytes;
    for (const testsupport::Frame& frame : frames) {
        bytes.push_back(frame.bytes);
    }
    return bytes;
}

// A running orvik-devnode on free loopback ports, started with --verbose so
// that every request leaves a line in its log.
class DevNodeTest : public ::testing::Test {
protected:
    void SetUp() override { startNode({"--verbose"}); }

    void startNode(std::vector<std::string> extra) {
        std::vector<std::string> arguments{"--listener-port", "0", "--dispenser-port", "0"};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        _node = std::make_unique<DevNodeProcess>(arguments);
        ASSERT_TRUE(_node->waitUntilReady(kStartLimit)) << "stdout:\n"
                                                        << _node->standardOutput() << "stderr:\n"
                                                        << _node->standardError();
    }

    DevNodeProcess& node() { return *_node; }
    int listenerPort() const { return _node->listenerPort(); }
    int dispenserPort() const { return _node->dispenserPort(); }

    // How many lines of the log so far contain `fragment`.
    std::size_t logLinesContaining(const std::string& fragment) const {
        std::size_t count = 0;
        for (const std::string& line : _node->outputLines()) {
            if (line.find(fragment) != std::string::npos) {
                ++count;
            }
        }
        return count;
    }

private:
    std::unique_ptr<DevNodeProcess> _node;
};

}  // namespace devnodetest
