#include <orvikm/client.hpp>

#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <orvikm/registry.hpp>

#include "support/child_process.hpp"
#include "support/loop_thread.hpp"
#include "support/payload_helpers.hpp"
#include "support/test_node.hpp"

// Durations at the edges of their range: an interval meant as "once", and
// loop timeouts that do not fit the selector's 32-bit count. Neither may
// overflow, and the loop stays stoppable whatever timeout it is given.
namespace {

using namespace std::chrono_literals;
using orvikm::Client;
using orvikm::Registry;
using testsupport::LoopThread;
using testsupport::TestNode;

const std::string kAppId = "timing-app";
const std::string kRegistryRequestCommand = "GREG";
const std::string kInboxCommand = "BOX";
const std::string kMessageCommand = "MSG";

constexpr auto kEventLimit = 5s;
// Dozens of passes of a 20 ms loop.
constexpr auto kManyPasses = 600ms;
constexpr auto kChildLimit = 20s;
// Loop timeouts whose low 32 bits are negative.
constexpr std::chrono::milliseconds kThousandHours = std::chrono::hours(1000);
constexpr std::chrono::milliseconds kMinusOne(-1);

int registryRequestsWithin(TestNode& node, std::chrono::milliseconds period) {
    int requests = 0;
    const auto end = std::chrono::steady_clock::now() + period;
    while (node.receiveCommand(kRegistryRequestCommand,
                               std::chrono::duration_cast<std::chrono::milliseconds>(
                                   end - std::chrono::steady_clock::now()))) {
        ++requests;
    }
    return requests;
}

TEST(ClientIntervalTest, LargestRegistryIntervalRequestsTheRegistryOnce) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    client.obtainRegistry([](std::shared_ptr<Registry>) {}, std::chrono::seconds::max());

    LoopThread loop(client, nullptr);

    EXPECT_EQ(registryRequestsWithin(node, kManyPasses), 1);
}

TEST(ClientIntervalTest, MostNegativeRegistryIntervalRequestsTheRegistryEveryPass) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    client.obtainRegistry([](std::shared_ptr<Registry>) {}, std::chrono::seconds::min());

    LoopThread loop(client, nullptr);

    EXPECT_GT(registryRequestsWithin(node, kManyPasses), 3);
}

// A loop that would never end is run where it can be killed.
void expectChildEndsCleanly() {
    const testsupport::ChildResult child = testsupport::runCurrentTestInChild(kChildLimit);
    EXPECT_FALSE(child.timedOut);
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.exitCode, 0);
}

// A loop that polls without waiting still writes what is queued while it
// runs, and still ends when asked.
bool writesAndStopsWithTimeout(std::chrono::milliseconds timeout) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    LoopThread loop(client, nullptr, timeout);
    if (!node.receiveCommand(kInboxCommand)) {
        return false;
    }
    client.send(testsupport::payloadOf("queued while polling", "text/plain"), {"route"}, 30s,
                nullptr, orvikm::Message::AckMode::ByNode);
    const bool written = node.receiveCommand(kMessageCommand).has_value();
    client.terminate();
    return loop.endsWithin(kEventLimit) && written;
}

TEST(ClientLoopTimeoutTest, LoopWithATimeoutWhoseLow32BitsAreNegativeWritesAndStaysStoppable) {
    if (testsupport::inChild()) {
        std::_Exit(writesAndStopsWithTimeout(kThousandHours) ? 0 : 1);
    }
    expectChildEndsCleanly();
}

TEST(ClientLoopTimeoutTest, LoopWithANegativeTimeoutWritesAndStaysStoppable) {
    if (testsupport::inChild()) {
        std::_Exit(writesAndStopsWithTimeout(kMinusOne) ? 0 : 1);
    }
    expectChildEndsCleanly();
}

TEST(ClientLoopTimeoutTest, CheckWithANegativeTimeoutReturnsAtOnceWithoutInput) {
    if (testsupport::inChild()) {
        TestNode node;
        Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
        auto checked = std::async(std::launch::async, [&] { return client.check(kMinusOne); });
        const bool returned = checked.wait_for(kEventLimit) == std::future_status::ready;
        std::_Exit(returned && !checked.get() ? 0 : 1);
    }
    expectChildEndsCleanly();
}

}  // namespace
