#include <algorithm>
#include <atomic>
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

// A node that holds a few megabytes of answers for a client that is not
// reading: a client which stopped reading its answers during a burst of
// 100 000 messages would lose acknowledgements there, beyond what the
// connection's buffers hold.
class SmallAnswerQueueTest : public DevNodeTest {
protected:
    static constexpr int kBurst = 100000;
    static constexpr int kPeerQueueBytes = 4 * 1024 * 1024;

    void SetUp() override { startNode({"--peer-queue-bytes", std::to_string(kPeerQueueBytes)}); }

    // Queues the burst, each message with a callback that counts, and lends
    // the thread to the client until all are acknowledged; returns how many
    // were.
    int acknowledgedOfBurst(const Client::Options& options) {
        Client client("burst-sender", listenerPort(), dispenserPort(), {}, options);
        std::atomic<int> acknowledged{0};
        for (int i = 0; i < kBurst; ++i) {
            client.send(Message(orvikm::Payload(0, "text/plain"),
                                Message::Config(client.id(), {"burst"}, std::chrono::seconds(60),
                                                Message::AckMode::ByNode)),
                        [&acknowledged] { ++acknowledged; });
        }
        const Client::FlushResult result = client.flush(60s);
        EXPECT_TRUE(result.complete);
        return acknowledged.load();
    }
};

// The dispenser's input is the node's answers to what the client itself
// wrote: the receive limit, which bounds publications, loses none of them.
TEST_F(SmallAnswerQueueTest, AReceiveLimitLosesNoAcknowledgementOfABurst) {
    Client::Options options;
    options.receiveLimit = 10;

    EXPECT_EQ(acknowledgedOfBurst(options), kBurst);
    EXPECT_EQ(logLinesContaining("dropped"), 0u);
}

TEST_F(SmallAnswerQueueTest, AReceiveLimitLosesNoAcknowledgementOfABurstWrittenInBatches) {
    Client::Options options;
    options.receiveLimit = 10;
    options.maxWriteBatch = 1024;

    EXPECT_EQ(acknowledgedOfBurst(options), kBurst);
    EXPECT_EQ(logLinesContaining("dropped"), 0u);
}

}  // namespace
}  // namespace devnodetest
