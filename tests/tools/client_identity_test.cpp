#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/client.hpp>

#include "client_harness.hpp"
#include "devnode_fixture.hpp"

// Two running clients with one app id share the routing identity of their
// dealers. What each application observes against orvik-devnode, which hands
// the identity over to the newer connection: the newer client is served, the
// earlier one's writes still succeed but are never acknowledged, and neither
// loop reports an error. The node's log names the clash.
namespace devnodetest {
namespace {

using orvikm::Client;

const std::string kSharedId = "shared-app";

bool acknowledges(Recorder<std::string>& acks, const std::string& id,
                  std::chrono::milliseconds timeout) {
    return acks.waitUntil(
        [&id](const std::vector<std::string>& got) {
            return std::find(got.begin(), got.end(), id) != got.end();
        },
        timeout);
}

TEST_F(DevNodeTest, SecondClientWithTheSameIdTakesTheIdentityAndTheFirstIsNoLongerHeard) {
    Recorder<std::string> firstAcks;
    Recorder<std::string> secondAcks;
    Client first(kSharedId, listenerPort(), dispenserPort(), {});
    ClientLoop firstLoop(first);
    ASSERT_TRUE(
        acknowledges(firstAcks, sendMessage(first, "before", {"t"}, &firstAcks), kEventLimit));

    Client second(kSharedId, listenerPort(), dispenserPort(), {});
    ClientLoop secondLoop(second);
    ASSERT_TRUE(
        acknowledges(secondAcks, sendMessage(second, "newer", {"t"}, &secondAcks), kEventLimit));
    const std::string lost = sendMessage(first, "after", {"t"}, &firstAcks);

    EXPECT_FALSE(acknowledges(firstAcks, lost, 1500ms));
    EXPECT_EQ(first.stats().written, 2u);
    EXPECT_EQ(first.stats().awaitingAck, 1u);
    EXPECT_TRUE(firstLoop.errors().empty());
    EXPECT_TRUE(secondLoop.errors().empty());
    EXPECT_TRUE(
        node()
            .waitForLine("identity " + kSharedId + "|disp is used by two connections at once",
                         kEventLimit)
            .has_value())
        << node().standardOutput();
}

}  // namespace
}  // namespace devnodetest
