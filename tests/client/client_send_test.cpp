#include <orvikm/client.hpp>

#include <zmq.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/message.hpp>
#include <orvikm/payload.hpp>
#include <orviku/exception.hpp>
#include <wxblt/exception.hpp>

#include "support/loop_thread.hpp"
#include "support/reserved_port.hpp"
#include "support/test_node.hpp"

// The send interface: the three forms of send only queue, the I/O loop drains
// the queue onto the dispenser, and sendAck writes at once.
namespace {

using namespace std::chrono_literals;
using orvikm::Client;
using orvikm::Message;
using orvikm::Payload;
using testsupport::ErrorHandler;
using testsupport::Frame;
using testsupport::LoopThread;
using testsupport::TestNode;
using testsupport::WrittenRequest;

const std::string kAppId = "send-app";
const std::string kDispenserIdentity = "send-app|disp";
const std::string kTopic = "send-topic";
const std::string kBody = "hello";
const std::string kPayloadType = "text/plain";
const std::string kRouteOne = "r1";
const std::string kRouteTwo = "r2";
const std::string kReceivedId = "3f2a9c1e-5b7d-4e60-8a91-0c4d2e6f8b13";
const std::string kDelimiter(1, '\0');

const std::string kMessageCommand = "MSG";
const std::string kAckCommand = "ACK";
const std::string kInboxCommand = "BOX";
const std::string kRegistryRequestCommand = "GREG";
const std::string kIdHeader = "id";
const std::string kMessageIdHeader = "msg_id";

const std::string kPayloadFramesContext = "While trying to send frames of payload request";
const std::string kQueuedNodeUnavailable = "Orvik Node is not available";
const std::string kQueuedMessageContext = "While trying to send queued message id=";
const std::string kAllQueuedContext = "While trying to send all queued messages";
const std::string kRequestFramesContext = "While trying to send frames of request";
const std::string kAckNodeUnavailable = "OrVik Node is not available!";
const std::string kAckContext = "While trying to acknowledge message with id: ";
constexpr int kAgain = 11;

constexpr auto kValidity = 30s;
constexpr auto kEventLimit = 5s;
constexpr auto kQuietTime = 300ms;

// What an error handler was given.
struct ReportedError {
    int errorNumber = -1;  // only for a wxblt::Exception
    std::string what;
    std::vector<std::string> context;
};

// An error handler that keeps every error it is given. Read it once the loop
// has ended: the loop's end orders the handler's writes before the reads.
struct ErrorRecorder {
    std::vector<ReportedError> reports;

    ErrorHandler handler() {
        return [this](orviku::Exception& error) {
            const auto* socketError = dynamic_cast<const wxblt::Exception*>(&error);
            reports.push_back(ReportedError{socketError ? socketError->errorNumber() : -1,
                                            error.what(), error.context()});
        };
    }
};

Payload payloadOf(const std::string& bytes, const std::string& type = kPayloadType) {
    Payload payload(static_cast<unsigned>(bytes.size()), type);
    std::memcpy(payload.getBuffer(), bytes.data(), bytes.size());
    return payload;
}

Message outgoing(std::chrono::seconds validFor = kValidity) {
    return Message(payloadOf(kBody),
                   Message::Config(kAppId, {}, validFor, Message::AckMode::ByNode));
}

Frame moreFrame(std::string bytes) {
    return Frame{std::move(bytes), true};
}

Frame lastFrame(std::string bytes) {
    return Frame{std::move(bytes), false};
}

// The ids of the first `count` messages that the node receives.
std::vector<std::string> writtenMessageIds(TestNode& node, std::size_t count) {
    std::vector<std::string> ids;
    while (ids.size() < count) {
        const std::optional<WrittenRequest> written = node.receiveCommand(kMessageCommand);
        if (!written) {
            break;
        }
        ids.push_back(written->headers.at(kIdHeader));
    }
    return ids;
}

// The commands of the first `count` requests that the node receives.
std::vector<std::string> writtenCommands(TestNode& node, std::size_t count) {
    std::vector<std::string> commands;
    while (commands.size() < count) {
        const std::optional<WrittenRequest> written = node.receive();
        if (!written) {
            break;
        }
        commands.push_back(written->command);
    }
    return commands;
}

// Two loopback ports held (bound, never listening): connections to them are
// refused, and no other test can take them meanwhile.
struct RefusingPorts {
    testsupport::ReservedPort listener;
    testsupport::ReservedPort dispenser;

    // Frees both for a node that is to bind them.
    void release() {
        listener.release();
        dispenser.release();
    }
};

TEST(ClientSendTest, AckSentTwiceCallsTheCallbackExactlyOnce) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Message acknowledged = outgoing();
    const std::string acknowledgedId = acknowledged.msgId();
    Message marker = outgoing();
    const std::string markerId = marker.msgId();
    int calls = 0;
    std::promise<void> markerAcknowledged;
    client.send(std::move(acknowledged), [&] { ++calls; });
    client.send(std::move(marker), [&] { markerAcknowledged.set_value(); });
    ErrorRecorder errors;
    LoopThread loop(client, errors.handler());
    ASSERT_TRUE(node.receiveCommand(kMessageCommand));

    node.sendTo(kDispenserIdentity, testsupport::ackFrames(acknowledgedId));
    node.sendTo(kDispenserIdentity, testsupport::ackFrames(acknowledgedId));
    node.sendTo(kDispenserIdentity, testsupport::ackFrames(markerId));

    ASSERT_EQ(markerAcknowledged.get_future().wait_for(kEventLimit), std::future_status::ready);
    EXPECT_EQ(calls, 1);
}

TEST(ClientSendTest, PayloadSendWritesRoutesHeadersAndBodyAsOneMessage) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    client.send(payloadOf(kBody), {kRouteOne, kRouteTwo}, kValidity, nullptr,
                Message::AckMode::ByReceivers);

    LoopThread loop(client, nullptr);
    const std::optional<WrittenRequest> written = node.receiveCommand(kMessageCommand);

    ASSERT_TRUE(written);
    const std::vector<Frame> expected = {moreFrame(kRouteOne),
                                         moreFrame(kRouteTwo),
                                         moreFrame(kDelimiter),
                                         moreFrame(kMessageCommand),
                                         moreFrame("ack_mode|2"),
                                         moreFrame("app_id|" + kAppId),
                                         moreFrame("id|" + written->headers.at(kIdHeader)),
                                         moreFrame("origin|,"),
                                         moreFrame("p_size|5"),
                                         moreFrame("p_type|" + kPayloadType),
                                         moreFrame("valid_for|30"),
                                         moreFrame(kDelimiter),
                                         lastFrame(kBody)};
    EXPECT_EQ(written->frames, expected);
    EXPECT_EQ(written->identity, kDispenserIdentity);
}

TEST(ClientSendTest, MessageSendWritesTheMessageWithItsOwnId) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Message message = outgoing();
    const std::string id = message.msgId();
    client.send(std::move(message), nullptr);

    LoopThread loop(client, nullptr);
    const std::optional<WrittenRequest> written = node.receiveCommand(kMessageCommand);

    ASSERT_TRUE(written);
    EXPECT_EQ(written->headers.at(kIdHeader), id);
}

TEST(ClientSendTest, RawBufferSendWritesTheBufferBytesWithItsType) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    char* buffer = new char[kBody.size()];
    std::memcpy(buffer, kBody.data(), kBody.size());
    client.send(buffer, static_cast<unsigned>(kBody.size()), kPayloadType, {kRouteOne}, kValidity,
                nullptr, Message::AckMode::ByNode);

    LoopThread loop(client, nullptr);
    const std::optional<WrittenRequest> written = node.receiveCommand(kMessageCommand);

    ASSERT_TRUE(written);
    EXPECT_EQ(written->payload, kBody);
    EXPECT_EQ(written->headers.at("p_type"), kPayloadType);
    EXPECT_EQ(written->routes, std::vector<std::string>{kRouteOne});
}

TEST(ClientSendTest, SendWithoutAckCallbackStillQueuesTheMessage) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Message message = outgoing();
    const std::string id = message.msgId();
    client.send(std::move(message), std::function<void()>());

    LoopThread loop(client, nullptr);

    EXPECT_EQ(writtenMessageIds(node, 1), std::vector<std::string>{id});
}

TEST(ClientSendTest, SendWritesNothingBeforeTheLoopRuns) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    ASSERT_TRUE(node.waitForDispenserPeer());

    client.send(
        payloadOf(kBody), {}, kValidity, [] {}, Message::AckMode::ByNode);

    EXPECT_TRUE(node.quietFor(kQuietTime));
}

TEST(ClientSendTest, QueuedMessagesAreWrittenShortestValidityFirst) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Message thirty = outgoing(30s);
    Message five = outgoing(5s);
    Message sixty = outgoing(60s);
    const std::vector<std::string> expected = {five.msgId(), thirty.msgId(), sixty.msgId()};
    client.send(std::move(thirty), nullptr);
    client.send(std::move(five), nullptr);
    client.send(std::move(sixty), nullptr);

    LoopThread loop(client, nullptr);

    EXPECT_EQ(writtenMessageIds(node, 3), expected);
}

TEST(ClientSendTest, PassWithEmptyQueueStartsWithInboxCheck) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});

    LoopThread loop(client, nullptr);

    EXPECT_EQ(writtenCommands(node, 1), std::vector<std::string>{kInboxCommand});
}

TEST(ClientSendTest, PassWithEmptyQueueRequestsRegistryThenChecksInbox) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    client.obtainRegistry([](std::shared_ptr<orvikm::Registry>) {}, 60s);

    LoopThread loop(client, nullptr);

    const std::vector<std::string> expected = {kRegistryRequestCommand, kInboxCommand};
    EXPECT_EQ(writtenCommands(node, 2), expected);
}

TEST(ClientSendTest, QueuedMessagesPrecedeRegistryRequestAndInboxCheck) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    client.obtainRegistry([](std::shared_ptr<orvikm::Registry>) {}, 60s);
    client.send(payloadOf(kBody), {}, kValidity, nullptr, Message::AckMode::ByNode);

    LoopThread loop(client, nullptr);

    const std::vector<std::string> expected = {kMessageCommand, kRegistryRequestCommand,
                                               kInboxCommand};
    EXPECT_EQ(writtenCommands(node, 3), expected);
}

TEST(ClientSendTest, UnreachableNodeReportsFirstQueuedMessageWithItsContext) {
    RefusingPorts ports;
    const int listenerPort = ports.listener.port();
    const int dispenserPort = ports.dispenser.port();
    Client client(kAppId, listenerPort, dispenserPort, {});
    Message thirty = outgoing(30s);
    Message five = outgoing(5s);
    Message sixty = outgoing(60s);
    const std::string firstId = five.msgId();
    client.send(std::move(thirty), nullptr);
    client.send(std::move(five), nullptr);
    client.send(std::move(sixty), nullptr);
    ErrorRecorder errors;

    {
        LoopThread loop(client, errors.handler());
        ASSERT_TRUE(loop.endsWithin(kEventLimit));
    }

    ASSERT_EQ(errors.reports.size(), 1u);
    const ReportedError& error = errors.reports.front();
    EXPECT_EQ(error.errorNumber, kAgain);
    EXPECT_EQ(error.what, zmq_strerror(kAgain));
    const std::vector<std::string> expected = {kPayloadFramesContext, kQueuedNodeUnavailable,
                                               kQueuedMessageContext + firstId, kAllQueuedContext};
    EXPECT_EQ(error.context, expected);
}

TEST(ClientSendTest, UnsentMessagesStayQueuedAndLeaveFirstFailedFirstOnceNodeRuns) {
    RefusingPorts ports;
    const int listenerPort = ports.listener.port();
    const int dispenserPort = ports.dispenser.port();
    Client client(kAppId, listenerPort, dispenserPort, {});
    Message thirty = outgoing(30s);
    Message five = outgoing(5s);
    Message sixty = outgoing(60s);
    const std::vector<std::string> expected = {five.msgId(), thirty.msgId(), sixty.msgId()};
    client.send(std::move(thirty), nullptr);
    client.send(std::move(five), nullptr);
    client.send(std::move(sixty), nullptr);
    ErrorRecorder errors;
    {
        LoopThread failing(client, errors.handler());
        ASSERT_TRUE(failing.endsWithin(kEventLimit));
    }
    ASSERT_EQ(errors.reports.size(), 1u);

    ports.release();
    TestNode node(listenerPort, dispenserPort);
    ASSERT_TRUE(node.waitForDispenserPeer());

    LoopThread loop(client, errors.handler());
    const std::vector<std::string> written = writtenMessageIds(node, 3);

    ASSERT_TRUE(loop.stop());
    EXPECT_EQ(written, expected);
    EXPECT_EQ(errors.reports.size(), 1u);
}

// A write batch bound changes how much one pass writes, nothing else: the
// failed write's message stays at the head with the same error context, and
// once the node runs the queue leaves in its order, batch after batch.
TEST(ClientSendTest, WithAWriteBatchUnsentMessagesKeepTheirContextAndOrder) {
    RefusingPorts ports;
    const int listenerPort = ports.listener.port();
    const int dispenserPort = ports.dispenser.port();
    Client::Options options;
    options.maxWriteBatch = 2;
    Client client(kAppId, listenerPort, dispenserPort, {}, options);
    std::vector<Message> messages;
    for (const std::chrono::seconds validity : {40s, 10s, 50s, 20s, 30s}) {
        messages.push_back(outgoing(validity));
    }
    std::vector<std::string> expected;
    for (const int shortestFirst : {1, 3, 4, 0, 2}) {
        expected.push_back(messages[static_cast<std::size_t>(shortestFirst)].msgId());
    }
    for (Message& message : messages) {
        client.send(std::move(message), nullptr);
    }
    ErrorRecorder errors;
    {
        LoopThread failing(client, errors.handler());
        ASSERT_TRUE(failing.endsWithin(kEventLimit));
    }
    ASSERT_EQ(errors.reports.size(), 1u);
    const std::vector<std::string> context = {kPayloadFramesContext, kQueuedNodeUnavailable,
                                              kQueuedMessageContext + expected.front(),
                                              kAllQueuedContext};
    EXPECT_EQ(errors.reports.front().errorNumber, kAgain);
    EXPECT_EQ(errors.reports.front().context, context);
    EXPECT_EQ(client.stats().queued, expected.size());

    ports.release();
    TestNode node(listenerPort, dispenserPort);
    ASSERT_TRUE(node.waitForDispenserPeer());
    LoopThread loop(client, errors.handler());
    const std::vector<std::string> written = writtenMessageIds(node, expected.size());

    ASSERT_TRUE(loop.stop());
    EXPECT_EQ(written, expected);
    EXPECT_EQ(errors.reports.size(), 1u);
}

TEST(ClientSendTest, AckFromMessageCallbackWritesAckWithTheMessageId) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {kTopic});
    ASSERT_TRUE(node.waitForSubscription(kTopic));
    client.onMessage([&client](std::unique_ptr<Message> message) { client.sendAck(*message); });
    LoopThread loop(client, nullptr);
    std::vector<std::string> publication = {kTopic};
    for (const std::string& frame : testsupport::messageFrames(kReceivedId, kBody)) {
        publication.push_back(frame);
    }

    node.publish(publication);
    const std::optional<WrittenRequest> ack = node.receiveCommand(kAckCommand);

    ASSERT_TRUE(ack);
    const std::vector<Frame> expected = {moreFrame(kDelimiter), moreFrame(kAckCommand),
                                         moreFrame(kMessageIdHeader + "|" + kReceivedId),
                                         moreFrame(kDelimiter), lastFrame(kDelimiter)};
    EXPECT_EQ(ack->frames, expected);
}

TEST(ClientSendTest, AckToUnreachableNodeReportsMessageIdWithItsContext) {
    RefusingPorts ports;
    const int listenerPort = ports.listener.port();
    const int dispenserPort = ports.dispenser.port();
    Client client(kAppId, listenerPort, dispenserPort, {});
    const Message message = outgoing();

    std::optional<ReportedError> error;
    try {
        client.sendAck(message);
    } catch (const wxblt::Exception& thrown) {
        error = ReportedError{thrown.errorNumber(), thrown.what(), thrown.context()};
    }

    ASSERT_TRUE(error);
    EXPECT_EQ(error->errorNumber, kAgain);
    EXPECT_EQ(error->what, zmq_strerror(kAgain));
    const std::vector<std::string> expected = {kRequestFramesContext, kAckNodeUnavailable,
                                               kAckContext + message.msgId()};
    EXPECT_EQ(error->context, expected);
}

TEST(ClientSendTest, FailedAckIsNeitherQueuedNorRetried) {
    RefusingPorts ports;
    const int listenerPort = ports.listener.port();
    const int dispenserPort = ports.dispenser.port();
    Client client(kAppId, listenerPort, dispenserPort, {});
    const Message message = outgoing();
    EXPECT_THROW(client.sendAck(message), wxblt::Exception);
    ports.release();
    TestNode node(listenerPort, dispenserPort);
    ASSERT_TRUE(node.waitForDispenserPeer());

    LoopThread loop(client, nullptr);

    EXPECT_EQ(writtenCommands(node, 1), std::vector<std::string>{kInboxCommand});
    EXPECT_TRUE(node.quietFor(kQuietTime));
}

}  // namespace
