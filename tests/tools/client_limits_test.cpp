#include <algorithm>
#include <list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/client.hpp>
#include <orvikm/message.hpp>

#include "client_harness.hpp"
#include "devnode_fixture.hpp"

// The values at the limits the client enforces pass through the node: the
// client refuses only what the node would refuse.
namespace devnodetest {
namespace {

using orvikm::Client;
using orvikm::Message;

// A route fills a whole 100-byte frame; "app_id|" and "p_type|" leave 93
// bytes of their header frames.
const std::string kLongestRoute(100, 'r');
const std::string kLongestSenderId(93, 's');
const std::string kLongestType(93, 't');
const std::string kBody = "at the limits";

TEST_F(DevNodeTest, MessageWithTheLongestRouteTypeAndIdIsAcknowledgedAndDelivered) {
    Recorder<ReceivedMessage> inbox;
    Recorder<std::string> acks;
    Client sender(kLongestSenderId, listenerPort(), dispenserPort(), {});
    Client receiver("limits-receiver", listenerPort(), dispenserPort(), {kLongestRoute});
    recordMessages(receiver, inbox);
    ClientLoop senderLoop(sender);
    ClientLoop receiverLoop(receiver);
    ASSERT_TRUE(probeUntilDelivered(sender, inbox, kLongestRoute, kEventLimit));

    const std::string id = sendMessage(sender, kBody, {kLongestRoute}, &acks, kLongestType);

    ASSERT_TRUE(acks.waitUntil(
        [&id](const std::vector<std::string>& got) {
            return std::find(got.begin(), got.end(), id) != got.end();
        },
        kEventLimit));
    ASSERT_TRUE(inbox.waitUntil(
        [&id](const std::vector<ReceivedMessage>& got) {
            return std::any_of(got.begin(), got.end(),
                               [&id](const ReceivedMessage& message) { return message.id == id; });
        },
        kEventLimit));
    for (const ReceivedMessage& message : inbox.values()) {
        if (message.id == id) {
            EXPECT_EQ(message.appId, kLongestSenderId);
            EXPECT_EQ(message.type, kLongestType);
            EXPECT_EQ(message.routes, std::list<std::string>{kLongestRoute});
            EXPECT_EQ(message.payload, kBody);
        }
    }
    EXPECT_TRUE(senderLoop.errors().empty());
}

}  // namespace
}  // namespace devnodetest
