#include <orvikm/receiver.hpp>
#include <orvikm/sender.hpp>

#include <chrono>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/control_requests.hpp>
#include <orvikm/message.hpp>
#include <orvikm/registry.hpp>

#include "wire_fixture.hpp"

// Requests written by the Sender on one socket of the library and read by the
// Receiver on another come back as equal objects.
namespace {

using namespace std::chrono_literals;
using orvikm::Message;
using orvikm::Receiver;
using orvikm::Registry;
using orvikm::Sender;
using orvikm::internal_objects::Ack;
using orvikm::internal_objects::GetRegistry;
using orvikm::internal_objects::Inbox;
using orvikm::internal_objects::InboxType;
using orvikm::internal_objects::Request;
using wiretest::bytesOf;
using wiretest::payloadOf;

const std::string kAppId = "weather-app";
const std::string kPayloadType = "application/octet-stream";
const std::string kBody = "sunny, 21 degrees";
const std::string kIdentity = "weather-app|disp";

Message messageOf(std::list<std::string> routes, const std::string& body,
                  Message::AckMode ackMode = Message::AckMode::ByNode,
                  std::chrono::seconds validFor = 30s) {
    return Message(payloadOf(body, kPayloadType),
                   Message::Config(kAppId, std::move(routes), validFor, ackMode));
}

class RoundTripTest : public ::testing::Test {
protected:
    std::unique_ptr<Request> receive() {
        return wiretest::receiveArrived(receiver, link.receiving);
    }

    // Same class, same fields, same payload bytes and type.
    static void expectSameMessage(const Request* received, const Message& sent) {
        const auto* message = dynamic_cast<const Message*>(received);
        ASSERT_NE(message, nullptr) << "not a Message";
        EXPECT_EQ(message->msgId(), sent.msgId());
        EXPECT_EQ(message->appId(), sent.appId());
        EXPECT_EQ(message->pushRoutes(), sent.pushRoutes());
        EXPECT_EQ(message->validFor(), sent.validFor());
        EXPECT_EQ(message->ackMode(), sent.ackMode());
        EXPECT_EQ(message->originNodes(), sent.originNodes());
        EXPECT_EQ(message->payload().size(), sent.payload().size());
        EXPECT_EQ(bytesOf(message->payload()), bytesOf(sent.payload()));
        EXPECT_EQ(message->payload().type(), sent.payload().type());
    }

    wiretest::SocketLink link;
    Sender sender{&link.sending};
    Receiver receiver{&link.receiving};
};

TEST_F(RoundTripTest, MessageWithRoutesComesBackEqual) {
    const Message sent = messageOf({"r1", "r2", "r3"}, kBody);

    sender.send(sent);
    const std::unique_ptr<Request> received = receive();

    expectSameMessage(received.get(), sent);
}

TEST_F(RoundTripTest, MessageWithoutRoutesComesBackEqual) {
    const Message sent = messageOf({}, kBody);

    sender.send(sent);
    const std::unique_ptr<Request> received = receive();

    expectSameMessage(received.get(), sent);
}

TEST_F(RoundTripTest, MessageWithAnEmptyRouteComesBackEqual) {
    const Message sent = messageOf({"", "r2"}, kBody);

    sender.send(sent);
    const std::unique_ptr<Request> received = receive();

    expectSameMessage(received.get(), sent);
}

TEST_F(RoundTripTest, MessageWithOriginNodesComesBackEqual) {
    Message sent = messageOf({"r1"}, kBody);
    sent.appendOriginNode("alpha");
    sent.appendOriginNode("beta");

    sender.send(sent);
    const std::unique_ptr<Request> received = receive();

    expectSameMessage(received.get(), sent);
}

TEST_F(RoundTripTest, MessageWithEmptyPayloadComesBackEqual) {
    const Message sent = messageOf({"r1"}, "");

    sender.send(sent);
    const std::unique_ptr<Request> received = receive();

    expectSameMessage(received.get(), sent);
}

TEST_F(RoundTripTest, MessageWithBinaryPayloadComesBackEqual) {
    const Message sent = messageOf({"r1"}, std::string("\0a\0\xff\x01|\0", 7));

    sender.send(sent);
    const std::unique_ptr<Request> received = receive();

    expectSameMessage(received.get(), sent);
}

TEST_F(RoundTripTest, MessageWithOneMebibytePayloadComesBackEqual) {
    const Message sent = messageOf({"r1"}, wiretest::binaryBytes(1024 * 1024));

    sender.send(sent);
    const std::unique_ptr<Request> received = receive();

    expectSameMessage(received.get(), sent);
}

TEST_F(RoundTripTest, MessageWithAnyAckModeValueComesBackEqual) {
    const Message sent = messageOf({}, kBody, static_cast<Message::AckMode>(-99));

    sender.send(sent);
    const std::unique_ptr<Request> received = receive();

    expectSameMessage(received.get(), sent);
}

TEST_F(RoundTripTest, MessageWithNegativeValidityComesBackEqual) {
    const Message sent = messageOf({}, kBody, Message::AckMode::Unacknowledged, -5s);

    sender.send(sent);
    const std::unique_ptr<Request> received = receive();

    expectSameMessage(received.get(), sent);
}

TEST_F(RoundTripTest, MessageWhoseHeaderValueHoldsTheSeparatorComesBackEqual) {
    const Message sent(payloadOf(kBody, "a|b"),
                       Message::Config("app|x|y", {}, 30s, Message::AckMode::ByReceivers));

    sender.send(sent);
    const std::unique_ptr<Request> received = receive();

    expectSameMessage(received.get(), sent);
}

TEST_F(RoundTripTest, RegistryComesBackEqual) {
    const Registry sent(payloadOf(wiretest::binaryBytes(4096), "registry/v1"));

    sender.send(sent);
    const std::unique_ptr<Request> received = receive();

    const auto* registry = dynamic_cast<const Registry*>(received.get());
    ASSERT_NE(registry, nullptr);
    EXPECT_EQ(bytesOf(registry->payload()), bytesOf(sent.payload()));
    EXPECT_EQ(registry->payload().type(), sent.payload().type());
}

TEST_F(RoundTripTest, RegistryWithEmptyPayloadAndTypeComesBackEqual) {
    const Registry sent(payloadOf("", ""));

    sender.send(sent);
    const std::unique_ptr<Request> received = receive();

    const auto* registry = dynamic_cast<const Registry*>(received.get());
    ASSERT_NE(registry, nullptr);
    EXPECT_EQ(registry->payload().size(), 0u);
    EXPECT_EQ(registry->payload().type(), "");
}

TEST_F(RoundTripTest, ClientInboxComesBackEqual) {
    const Inbox sent(kAppId, InboxType::Client);

    sender.send(sent);
    const std::unique_ptr<Request> received = receive();

    const auto* inbox = dynamic_cast<const Inbox*>(received.get());
    ASSERT_NE(inbox, nullptr);
    EXPECT_EQ(inbox->appId(), kAppId);
    EXPECT_EQ(inbox->type(), InboxType::Client);
}

TEST_F(RoundTripTest, NodeInboxComesBackEqual) {
    const Inbox sent(kAppId, InboxType::Node);

    sender.send(sent);
    const std::unique_ptr<Request> received = receive();

    const auto* inbox = dynamic_cast<const Inbox*>(received.get());
    ASSERT_NE(inbox, nullptr);
    EXPECT_EQ(inbox->appId(), kAppId);
    EXPECT_EQ(inbox->type(), InboxType::Node);
}

TEST_F(RoundTripTest, AckComesBackEqual) {
    const Message acknowledged = messageOf({}, kBody);
    const Ack sent = acknowledged.generate_ack();

    sender.send(sent);
    const std::unique_ptr<Request> received = receive();

    const auto* ack = dynamic_cast<const Ack*>(received.get());
    ASSERT_NE(ack, nullptr);
    EXPECT_EQ(ack->messageId(), acknowledged.msgId());
}

TEST_F(RoundTripTest, AckWithEmptyIdComesBackEqual) {
    const Ack sent("");

    sender.send(sent);
    const std::unique_ptr<Request> received = receive();

    const auto* ack = dynamic_cast<const Ack*>(received.get());
    ASSERT_NE(ack, nullptr);
    EXPECT_EQ(ack->messageId(), "");
}

TEST_F(RoundTripTest, GetRegistryComesBackAsGetRegistry) {
    const GetRegistry sent;

    sender.send(sent);
    const std::unique_ptr<Request> received = receive();

    EXPECT_NE(dynamic_cast<const GetRegistry*>(received.get()), nullptr);
}

TEST_F(RoundTripTest, RequestsSentInARowComeBackInOrder) {
    const Ack ack("first");
    const Message message = messageOf({"r1"}, kBody);
    const GetRegistry getRegistry;

    sender.send(ack);
    sender.send(message);
    sender.send(getRegistry);
    const std::unique_ptr<Request> first = receive();
    const std::unique_ptr<Request> second = receive();
    const std::unique_ptr<Request> third = receive();

    const auto* receivedAck = dynamic_cast<const Ack*>(first.get());
    ASSERT_NE(receivedAck, nullptr);
    EXPECT_EQ(receivedAck->messageId(), "first");
    expectSameMessage(second.get(), message);
    EXPECT_NE(dynamic_cast<const GetRegistry*>(third.get()), nullptr);
}

TEST_F(RoundTripTest, IdentityFrameArrivesAsTheFirstRoute) {
    const Message sent = messageOf({"r1"}, kBody);

    sender.send(sent, &kIdentity);
    const std::unique_ptr<Request> received = receive();

    const auto* message = dynamic_cast<const Message*>(received.get());
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->pushRoutes(), (std::list<std::string>{kIdentity, "r1"}));
}

}  // namespace
