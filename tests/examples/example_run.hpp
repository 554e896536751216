#pragma once

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "devnode_fixture.hpp"

// What the tests of the examples share: the node's ports as an example's
// arguments, and a bounded wait for the node's log.
namespace exampletest {

using namespace std::chrono_literals;

// How long an example may take to end, its own deadline included.
constexpr auto kExitLimit = 30s;
// The deadline given to an example (--timeout, in seconds): shorter than
// kExitLimit, so that an example that misses it still exits in time.
const std::string kExampleTimeout = "20";

class ExampleTest : public devnodetest::DevNodeTest {
protected:
    std::vector<std::string> portArguments() const {
        return {"--listener-port", std::to_string(listenerPort()), "--dispenser-port",
                std::to_string(dispenserPort())};
    }

    // Waits at most `limit` until `count` lines of the node's log contain
    // `fragment`: the node may log a request after the example has exited.
    bool waitForLogLines(const std::string& fragment, std::size_t count,
                         std::chrono::milliseconds limit) const {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (logLinesContaining(fragment) < count) {
            if (std::chrono::steady_clock::now() >= end) {
                return false;
            }
            std::this_thread::sleep_for(10ms);
        }
        return true;
    }
};

}  // namespace exampletest
