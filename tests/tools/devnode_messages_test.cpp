#include <zmq.h>

#include <chrono>
#include <list>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/client.hpp>
#include <orvikm/message.hpp>

#include "client_harness.hpp"
#include "devnode_fixture.hpp"
#include "support/raw_peer.hpp"
#include "support/test_node.hpp"

// What the node does with "MSG": it acknowledges every message to its sender
// and publishes it once per push route, the route as topic.
namespace devnodetest {
namespace {

using orvikm::Client;
using orvikm::Message;
using testsupport::RawPeer;

const std::string kTopic = "t";
const std::string kSecondTopic = "u";
const std::string kOtherTopic = "other";
const std::string kBody("\x00\x01 body \xff\xfe\n", 11);
const std::string kBodyType = "application/x-devnode-test";
constexpr auto kBodyValidity = std::chrono::seconds(42);
constexpr std::size_t kBurstSize = 2000;
constexpr auto kBurstLimit = 60s;

const std::string kNoRoutesLog = "no push routes";
const std::string kPublishedLog = "acknowledged and published";

bool containsId(const std::vector<ReceivedMessage>& messages, const std::string& id) {
    for (const ReceivedMessage& message : messages) {
        if (message.id == id) {
            return true;
        }
    }
    return false;
}

std::size_t countId(const std::vector<ReceivedMessage>& messages, const std::string& id) {
    std::size_t count = 0;
    for (const ReceivedMessage& message : messages) {
        count += message.id == id ? 1 : 0;
    }
    return count;
}

std::size_t countId(const std::vector<std::string>& ids, const std::string& id) {
    std::size_t count = 0;
    for (const std::string& each : ids) {
        count += each == id ? 1 : 0;
    }
    return count;
}

bool hasId(Recorder<std::string>& acks, const std::string& id, std::chrono::milliseconds limit) {
    return acks.waitUntil(
        [&id](const std::vector<std::string>& ids) { return countId(ids, id) > 0; }, limit);
}

TEST_F(DevNodeTest, EachMessageIsAnsweredWithOneAckCarryingItsId) {
    RawPeer peer(ZMQ_DEALER);
    peer.connect(testsupport::localhostEndpoint(dispenserPort()));

    peer.sendMessage(testsupport::messageFrames("first-id", "one", {kTopic}));
    peer.sendMessage(testsupport::messageFrames("second-id", "two", {kTopic}));

    // A second acknowledgement of the first message would come before the
    // acknowledgement of the second.
    const auto first = peer.receiveMessage(kEventLimit);
    const auto second = peer.receiveMessage(kEventLimit);
    ASSERT_TRUE(first.has_value());
    ASSERT_TRUE(second.has_value());
    const std::vector<std::string> expectedFirst = testsupport::ackFrames("first-id");
    const std::vector<std::string> expectedSecond = testsupport::ackFrames("second-id");
    EXPECT_EQ(frameBytes(*first), expectedFirst);
    EXPECT_EQ(frameBytes(*second), expectedSecond);
}

TEST_F(DevNodeTest, EveryMessageOfABurstQueuedBeforeTheLoopStartsIsAcknowledgedOnce) {
    Recorder<std::string> acks;
    Client sender("burst-sender", listenerPort(), dispenserPort(), {});
    std::vector<std::string> ids;
    for (std::size_t i = 0; i < kBurstSize; ++i) {
        ids.push_back(sendMessage(sender, "burst #" + std::to_string(i), {kTopic}, &acks));
    }

    ClientLoop loop(sender);
    ASSERT_TRUE(acks.waitForCount(kBurstSize, kBurstLimit))
        << acks.values().size() << " of " << kBurstSize << " acknowledged";
    // Anything still on its way for the burst arrives before this one's ack.
    const std::string sentinel = sendMessage(sender, "sentinel", {kTopic}, &acks);
    ASSERT_TRUE(hasId(acks, sentinel, kEventLimit));

    const std::vector<std::string> acknowledged = acks.values();
    EXPECT_EQ(acknowledged.size(), kBurstSize + 1);
    std::map<std::string, int> perId;
    for (const std::string& id : acknowledged) {
        ++perId[id];
    }
    for (const std::string& id : ids) {
        EXPECT_EQ(perId[id], 1) << id;
    }
    EXPECT_TRUE(loop.errors().empty()) << loop.errors().front();
}

TEST_F(DevNodeTest, BurstOfRoutedMessagesReachesASubscriberInFull) {
    Recorder<ReceivedMessage> inbox;
    Client sender("flood-sender", listenerPort(), dispenserPort(), {});
    Client receiver("flood-receiver", listenerPort(), dispenserPort(), {kTopic});
    recordMessages(receiver, inbox);
    ClientLoop senderLoop(sender);
    ClientLoop receiverLoop(receiver);
    ASSERT_TRUE(probeUntilDelivered(sender, inbox, kTopic, kEventLimit));

    std::vector<std::string> ids;
    for (std::size_t i = 0; i < kBurstSize; ++i) {
        ids.push_back(
            sendMessage(sender, "flood #" + std::to_string(i), {kTopic}, nullptr, kBodyType));
    }

    const auto burstArrived = [](const std::vector<ReceivedMessage>& got) {
        std::size_t count = 0;
        for (const ReceivedMessage& message : got) {
            count += message.type == kBodyType ? 1 : 0;
        }
        return count >= kBurstSize;
    };
    EXPECT_TRUE(inbox.waitUntil(burstArrived, kBurstLimit));
    std::map<std::string, int> perId;
    for (const ReceivedMessage& message : inbox.values()) {
        ++perId[message.id];
    }
    for (const std::string& id : ids) {
        EXPECT_EQ(perId[id], 1) << id;
    }
}

TEST_F(DevNodeTest, RoutedMessageReachesSubscriberWithItsIdAndContentUnchanged) {
    Recorder<ReceivedMessage> inbox;
    Client sender("route-sender", listenerPort(), dispenserPort(), {});
    Client receiver("route-receiver", listenerPort(), dispenserPort(), {kTopic});
    recordMessages(receiver, inbox);
    ClientLoop senderLoop(sender);
    ClientLoop receiverLoop(receiver);
    ASSERT_TRUE(probeUntilDelivered(sender, inbox, kTopic, kEventLimit));

    const std::string id = sendMessage(sender, kBody, {kTopic}, nullptr, kBodyType, kBodyValidity,
                                       Message::AckMode::ByReceivers);

    ASSERT_TRUE(inbox.waitUntil(
        [&id](const std::vector<ReceivedMessage>& got) { return containsId(got, id); },
        kEventLimit));
    for (const ReceivedMessage& message : inbox.values()) {
        if (message.id != id) {
            continue;
        }
        EXPECT_EQ(message.appId, "route-sender");
        EXPECT_EQ(message.payload, kBody);
        EXPECT_EQ(message.type, kBodyType);
        EXPECT_EQ(message.validFor, kBodyValidity);
        EXPECT_EQ(message.routes, std::list<std::string>{kTopic});
        EXPECT_EQ(message.ackMode, Message::AckMode::ByReceivers);
    }
}

TEST_F(DevNodeTest, MessageRoutedAlongTwoSubscribedRoutesArrivesOncePerRoute) {
    Recorder<ReceivedMessage> inbox;
    Recorder<std::string> acks;
    Client sender("twice-sender", listenerPort(), dispenserPort(), {});
    Client receiver("twice-receiver", listenerPort(), dispenserPort(), {kTopic, kSecondTopic});
    recordMessages(receiver, inbox);
    ClientLoop senderLoop(sender);
    ClientLoop receiverLoop(receiver);
    ASSERT_TRUE(probeUntilDelivered(sender, inbox, kTopic, kEventLimit));
    ASSERT_TRUE(probeUntilDelivered(sender, inbox, kSecondTopic, kEventLimit));

    const std::string id = sendMessage(sender, kBody, {kTopic, kSecondTopic}, &acks);
    ASSERT_TRUE(hasId(acks, id, kEventLimit));
    // Published after every copy of the first, on the same connection: once
    // it is there, every copy is.
    const std::string sentinel = sendMessage(sender, "sentinel", {kTopic}, nullptr);
    ASSERT_TRUE(inbox.waitUntil(
        [&sentinel](const std::vector<ReceivedMessage>& got) { return containsId(got, sentinel); },
        kEventLimit));

    const std::vector<ReceivedMessage> received = inbox.values();
    EXPECT_EQ(countId(received, id), 2u);
    for (const ReceivedMessage& message : received) {
        if (message.id == id) {
            EXPECT_EQ(message.routes, (std::list<std::string>{kTopic, kSecondTopic}));
            EXPECT_EQ(message.payload, kBody);
        }
    }
}

TEST_F(DevNodeTest, ClientSubscribedToAnotherTopicReceivesNothing) {
    Recorder<ReceivedMessage> inbox;
    Recorder<std::string> acks;
    Client sender("topic-sender", listenerPort(), dispenserPort(), {});
    Client bystander("topic-bystander", listenerPort(), dispenserPort(), {kOtherTopic});
    recordMessages(bystander, inbox);
    ClientLoop senderLoop(sender);
    ClientLoop bystanderLoop(bystander);
    ASSERT_TRUE(probeUntilDelivered(sender, inbox, kOtherTopic, kEventLimit));

    const std::string id = sendMessage(sender, kBody, {kTopic}, &acks);
    ASSERT_TRUE(hasId(acks, id, kEventLimit));
    const std::string sentinel = sendMessage(sender, "sentinel", {kOtherTopic}, nullptr);
    ASSERT_TRUE(inbox.waitUntil(
        [&sentinel](const std::vector<ReceivedMessage>& got) { return containsId(got, sentinel); },
        kEventLimit));

    EXPECT_EQ(countId(inbox.values(), id), 0u);
}

TEST_F(DevNodeTest, MessageWithoutRoutesIsAcknowledgedAndDropped) {
    Recorder<ReceivedMessage> inbox;
    Recorder<std::string> acks;
    Client sender("drop-sender", listenerPort(), dispenserPort(), {});
    // The empty topic takes everything the node publishes.
    Client receiver("drop-receiver", listenerPort(), dispenserPort(), {""});
    recordMessages(receiver, inbox);
    ClientLoop senderLoop(sender);
    ClientLoop receiverLoop(receiver);
    ASSERT_TRUE(probeUntilDelivered(sender, inbox, kTopic, kEventLimit));

    const std::string id = sendMessage(sender, kBody, {}, &acks);

    ASSERT_TRUE(hasId(acks, id, kEventLimit));
    const std::string sentinel = sendMessage(sender, "sentinel", {kTopic}, nullptr);
    ASSERT_TRUE(inbox.waitUntil(
        [&sentinel](const std::vector<ReceivedMessage>& got) { return containsId(got, sentinel); },
        kEventLimit));
    EXPECT_EQ(countId(inbox.values(), id), 0u);
}

TEST_F(DevNodeTest, DroppedMessageIsLoggedOnceWithItsIdAndSender) {
    Recorder<std::string> acks;
    Client sender("log-sender", listenerPort(), dispenserPort(), {});
    ClientLoop loop(sender);

    const std::string id = sendMessage(sender, kBody, {}, &acks);
    ASSERT_TRUE(hasId(acks, id, kEventLimit));
    // Logged after the dropped one's line, if that is there at all.
    const std::string sentinel = sendMessage(sender, "sentinel", {kTopic}, &acks);
    ASSERT_TRUE(node().waitForLine("MSG " + sentinel, kEventLimit).has_value());

    ASSERT_EQ(logLinesContaining(kNoRoutesLog), 1u) << node().standardOutput();
    const auto line = node().waitForLine(kNoRoutesLog, kEventLimit);
    ASSERT_TRUE(line.has_value());
    EXPECT_NE(line->find(id), std::string::npos) << *line;
    EXPECT_NE(line->find("log-sender|disp"), std::string::npos) << *line;
}

TEST_F(DevNodeTest, PublishedMessageIsLoggedWithItsRouteCount) {
    Recorder<std::string> acks;
    Client sender("count-sender", listenerPort(), dispenserPort(), {});
    ClientLoop loop(sender);

    const std::string id = sendMessage(sender, kBody, {kTopic, kSecondTopic}, &acks);
    ASSERT_TRUE(hasId(acks, id, kEventLimit));

    const auto line = node().waitForLine("MSG " + id, kEventLimit);
    ASSERT_TRUE(line.has_value()) << node().standardOutput();
    EXPECT_NE(line->find("(" + std::to_string(kBody.size()) + " bytes, 2 routes) " + kPublishedLog),
              std::string::npos)
        << *line;
}

}  // namespace
}  // namespace devnodetest
