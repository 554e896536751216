#include <orvikm/client.hpp>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/errors.hpp>
#include <orvikm/message.hpp>
#include <orvikm/payload.hpp>
#include <orvikm/registry.hpp>
#include <orviku/exception.hpp>
#include <wxblt/exception.hpp>

#include "support/child_process.hpp"
#include "support/loop_thread.hpp"
#include "support/payload_helpers.hpp"
#include "support/test_node.hpp"

// The I/O loop: passes of writing and reading, the end of a loop by
// terminate(), by error or by shutdown, the two socket handlers and the
// dispatch of what they read to the application's callbacks.
namespace {

using namespace std::chrono_literals;
using orvikm::Client;
using orvikm::Message;
using orvikm::Payload;
using orvikm::Registry;
using testsupport::bytesOf;
using testsupport::ErrorHandler;
using testsupport::Frame;
using testsupport::LoopThread;
using testsupport::TestNode;
using testsupport::WrittenRequest;

const std::string kAppId = "loop-app";
const std::string kDispenserIdentity = "loop-app|disp";
const std::string kTopic = "loop-topic";
const std::string kSenderAppId = "sender-app";
const std::string kReceivedId = "6b1e4c2a-9d3f-4a58-b7e0-21c5f8d94a36";
const std::string kLaterReceivedId = "0c7d5e3b-1a2f-4869-9b4d-e3f6a1c2b507";
const std::string kUnknownId = "9e8d7c6b-5a49-4382-a1f0-e9d8c7b6a594";
const std::string kBody = "hello";
const std::string kPayloadType = "text/plain";
const std::string kRouteOne = "r1";
const std::string kRouteTwo = "r2";
const std::string kRegistryBody = "{\"nodes\":[\"n1\"]}";
const std::string kRegistryType = "application/json";
const std::string kBadHeaderLine = "msg_id-without-separator";
const std::string kDelimiter(1, '\0');

const std::string kAckCommand = "ACK";
const std::string kInboxCommand = "BOX";
const std::string kRegistryCommand = "REG";
const std::string kRegistryRequestCommand = "GREG";

const std::string kListenerContext = "While trying to read request on Client listener";
const std::string kDispenserContext = "While trying to read request on Client dispenser";
const std::string kWrongRequestOnListener =
    "Don't expect other types of requests on listener other than Message. Received a request "
    "with wire name: ";
const std::string kTopicWithoutRequest = "Expected more frames. Next section: Routes or delimiter";
const std::string kHeaderWithoutSeparator =
    "Headers formatted incorrectly in request. No \"|\" found in \"msg_id-without-separator\"";
const std::string kHeadersContext = "While trying to receive headers";
const std::string kProtocolHeadersContext = "While trying to receive protocol headers of request";
const std::string kDecodeAckContext = "While trying to decode a received request (ACK)";
const std::string kUnknownError = "An unknown error occured. We do not know how to handle it";
const std::string kCallbackFailure = "the application's callback failed";

constexpr auto kValidity = 30s;
constexpr auto kLoopTimeout = 20ms;
constexpr auto kEventLimit = 5s;
constexpr auto kQuietTime = 300ms;
constexpr auto kChildLimit = 20s;
// 2^32 + 20 ms: the low 32 bits that the selector gets are 20 ms.
constexpr std::chrono::milliseconds kWrappingTimeout((std::int64_t{1} << 32) + 20);

// What an error handler was given.
struct ReportedError {
    bool protocolError = false;
    bool generalException = false;
    std::string what;
    std::vector<std::string> context;
};

// An error handler that keeps every error it is given. Read it once the loop
// has ended: the loop's end orders the handler's writes before the reads.
struct ErrorRecorder {
    std::vector<ReportedError> reports;

    ErrorHandler handler() {
        return [this](orviku::Exception& error) {
            reports.push_back(
                ReportedError{dynamic_cast<const orvikm::ProtocolError*>(&error) != nullptr,
                              dynamic_cast<const orviku::GeneralException*>(&error) != nullptr,
                              error.what(), error.context()});
        };
    }
};

std::vector<std::string> published(std::vector<std::string> frames) {
    frames.insert(frames.begin(), kTopic);
    return frames;
}

Message outgoing() {
    Payload payload(static_cast<unsigned>(kBody.size()), kPayloadType);
    std::memcpy(payload.getBuffer(), kBody.data(), kBody.size());
    return Message(std::move(payload),
                   Message::Config(kAppId, {}, kValidity, Message::AckMode::ByNode));
}

// Delivers frames on the client's dispenser once it is connected.
void sendToDispenser(TestNode& node, const std::vector<std::string>& frames) {
    ASSERT_TRUE(node.waitForDispenserPeer());
    node.sendTo(kDispenserIdentity, frames);
}

TEST(ClientIoLoopTest, TerminateFromAnotherThreadEndsLoopWithoutCallingErrorHandler) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    ErrorRecorder errors;
    LoopThread loop(client, errors.handler());
    ASSERT_TRUE(node.receiveCommand(kInboxCommand));

    client.terminate();

    ASSERT_TRUE(loop.endsWithin(kEventLimit));
    EXPECT_TRUE(errors.reports.empty());
}

TEST(ClientIoLoopTest, TerminateBeforeLoopDoesNotStopTheLoopThatFollows) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});

    client.terminate();
    LoopThread loop(client, nullptr);

    EXPECT_TRUE(node.receiveCommand(kInboxCommand));
    EXPECT_FALSE(loop.endsWithin(kQuietTime));
}

TEST(ClientIoLoopTest, MessageOnListenerReachesCallbackWithItsFields) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {kTopic});
    ASSERT_TRUE(node.waitForSubscription(kTopic));
    std::promise<std::unique_ptr<Message>> delivered;
    client.onMessage(
        [&](std::unique_ptr<Message> message) { delivered.set_value(std::move(message)); });
    LoopThread loop(client, nullptr);

    node.publish(published(
        testsupport::messageFrames(kReceivedId, kBody, {kRouteOne, kRouteTwo}, kPayloadType)));

    auto future = delivered.get_future();
    ASSERT_EQ(future.wait_for(kEventLimit), std::future_status::ready);
    const std::unique_ptr<Message> message = future.get();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->msgId(), kReceivedId);
    EXPECT_EQ(message->appId(), kSenderAppId);
    EXPECT_EQ(message->pushRoutes(), (std::list<std::string>{kRouteOne, kRouteTwo}));
    EXPECT_EQ(message->validFor(), kValidity);
    EXPECT_EQ(message->ackMode(), Message::AckMode::ByNode);
    EXPECT_TRUE(message->originNodes().empty());
    EXPECT_EQ(bytesOf(message->payload()), kBody);
    EXPECT_EQ(message->payload().type(), kPayloadType);
}

TEST(ClientIoLoopTest, MessageOnDispenserReachesCallback) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::promise<std::unique_ptr<Message>> delivered;
    client.onMessage(
        [&](std::unique_ptr<Message> message) { delivered.set_value(std::move(message)); });
    LoopThread loop(client, nullptr);

    sendToDispenser(node, testsupport::messageFrames(kReceivedId, kBody));

    auto future = delivered.get_future();
    ASSERT_EQ(future.wait_for(kEventLimit), std::future_status::ready);
    const std::unique_ptr<Message> message = future.get();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->msgId(), kReceivedId);
    EXPECT_EQ(bytesOf(message->payload()), kBody);
}

TEST(ClientIoLoopTest, MessageWithoutCallbackIsDroppedAndNotAcknowledged) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Message marker = outgoing();
    const std::string markerId = marker.msgId();
    std::promise<void> markerAcknowledged;
    client.send(std::move(marker), [&] { markerAcknowledged.set_value(); });
    LoopThread loop(client, nullptr);

    // One socket's requests are read in order: once the marker's ACK has
    // been handled, so has the message before it.
    sendToDispenser(node, testsupport::messageFrames(kReceivedId, kBody));
    node.sendTo(kDispenserIdentity, testsupport::ackFrames(markerId));

    ASSERT_EQ(markerAcknowledged.get_future().wait_for(kEventLimit), std::future_status::ready);
    EXPECT_FALSE(node.receiveCommand(kAckCommand, kQuietTime));
}

TEST(ClientIoLoopTest, AckForUnknownIdIsIgnoredAndLoopGoesOn) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Message marker = outgoing();
    const std::string markerId = marker.msgId();
    std::promise<void> markerAcknowledged;
    client.send(std::move(marker), [&] { markerAcknowledged.set_value(); });
    ErrorRecorder errors;
    LoopThread loop(client, errors.handler());

    sendToDispenser(node, testsupport::ackFrames(kUnknownId));
    node.sendTo(kDispenserIdentity, testsupport::ackFrames(markerId));

    ASSERT_EQ(markerAcknowledged.get_future().wait_for(kEventLimit), std::future_status::ready);
    ASSERT_TRUE(loop.stop());
    EXPECT_TRUE(errors.reports.empty());
}

TEST(ClientIoLoopTest, ObtainRegistryRequestsRegistryAtOnce) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    client.obtainRegistry([](std::shared_ptr<Registry>) {}, 60s);

    LoopThread loop(client, nullptr);
    const std::optional<WrittenRequest> request = node.receiveCommand(kRegistryRequestCommand);

    ASSERT_TRUE(request);
    const std::vector<Frame> expected = {{kDelimiter, true},
                                         {kRegistryRequestCommand, true},
                                         {kDelimiter, true},
                                         {kDelimiter, false}};
    EXPECT_EQ(request->frames, expected);
}

TEST(ClientIoLoopTest, RegistryReachesCallbackWithPayloadAndType) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::promise<std::shared_ptr<Registry>> delivered;
    client.obtainRegistry(
        [&](std::shared_ptr<Registry> registry) { delivered.set_value(std::move(registry)); }, 60s);
    LoopThread loop(client, nullptr);
    const std::optional<WrittenRequest> request = node.receiveCommand(kRegistryRequestCommand);
    ASSERT_TRUE(request);

    node.sendTo(request->identity, testsupport::registryFrames(kRegistryBody, kRegistryType));

    auto future = delivered.get_future();
    ASSERT_EQ(future.wait_for(kEventLimit), std::future_status::ready);
    const std::shared_ptr<Registry> registry = future.get();
    ASSERT_TRUE(registry);
    EXPECT_EQ(bytesOf(registry->payload()), kRegistryBody);
    EXPECT_EQ(registry->payload().type(), kRegistryType);
}

TEST(ClientIoLoopTest, EveryRegistryReachesTheCallback) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    int calls = 0;
    std::promise<void> secondDelivered;
    client.obtainRegistry(
        [&](std::shared_ptr<Registry>) {
            if (++calls == 2) {
                secondDelivered.set_value();
            }
        },
        60s);
    LoopThread loop(client, nullptr);
    const std::optional<WrittenRequest> request = node.receiveCommand(kRegistryRequestCommand);
    ASSERT_TRUE(request);

    node.sendTo(request->identity, testsupport::registryFrames(kRegistryBody, kRegistryType));
    node.sendTo(request->identity, testsupport::registryFrames(kRegistryBody, kRegistryType));

    ASSERT_EQ(secondDelivered.get_future().wait_for(kEventLimit), std::future_status::ready);
    ASSERT_TRUE(loop.stop());
    EXPECT_EQ(calls, 2);
}

TEST(ClientIoLoopTest, RegistryOnListenerReachesErrorHandlerAndEndsLoop) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {kTopic});
    ASSERT_TRUE(node.waitForSubscription(kTopic));
    ErrorRecorder errors;
    LoopThread loop(client, errors.handler());

    node.publish(published(testsupport::registryFrames(kRegistryBody, kRegistryType)));

    ASSERT_TRUE(loop.endsWithin(kEventLimit));
    ASSERT_EQ(errors.reports.size(), 1u);
    EXPECT_TRUE(errors.reports[0].protocolError);
    EXPECT_EQ(errors.reports[0].what, kWrongRequestOnListener + kRegistryCommand);
    EXPECT_EQ(errors.reports[0].context, std::vector<std::string>{kListenerContext});
}

TEST(ClientIoLoopTest, AckOnListenerReachesErrorHandlerAndEndsLoop) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {kTopic});
    ASSERT_TRUE(node.waitForSubscription(kTopic));
    ErrorRecorder errors;
    LoopThread loop(client, errors.handler());

    node.publish(published(testsupport::ackFrames(kReceivedId)));

    ASSERT_TRUE(loop.endsWithin(kEventLimit));
    ASSERT_EQ(errors.reports.size(), 1u);
    EXPECT_TRUE(errors.reports[0].protocolError);
    EXPECT_EQ(errors.reports[0].what, kWrongRequestOnListener + kAckCommand);
    EXPECT_EQ(errors.reports[0].context, std::vector<std::string>{kListenerContext});
}

TEST(ClientIoLoopTest, TopicOnlyPublicationReachesErrorHandlerAndEndsLoop) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {kTopic});
    ASSERT_TRUE(node.waitForSubscription(kTopic));
    ErrorRecorder errors;
    LoopThread loop(client, errors.handler());

    node.publish({kTopic});

    ASSERT_TRUE(loop.endsWithin(kEventLimit));
    ASSERT_EQ(errors.reports.size(), 1u);
    EXPECT_TRUE(errors.reports[0].protocolError);
    EXPECT_EQ(errors.reports[0].what, kTopicWithoutRequest);
    EXPECT_EQ(errors.reports[0].context, std::vector<std::string>{kListenerContext});
}

TEST(ClientIoLoopTest, HeaderWithoutSeparatorOnDispenserReachesErrorHandlerAndEndsLoop) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    ErrorRecorder errors;
    LoopThread loop(client, errors.handler());

    sendToDispenser(node, {kDelimiter, kAckCommand, kBadHeaderLine, kDelimiter, kDelimiter});

    ASSERT_TRUE(loop.endsWithin(kEventLimit));
    ASSERT_EQ(errors.reports.size(), 1u);
    EXPECT_TRUE(errors.reports[0].protocolError);
    EXPECT_EQ(errors.reports[0].what, kHeaderWithoutSeparator);
    const std::vector<std::string> expected = {kHeadersContext, kProtocolHeadersContext,
                                               kDecodeAckContext, kDispenserContext};
    EXPECT_EQ(errors.reports[0].context, expected);
}

TEST(ClientIoLoopTest, LoopRunsAgainAfterMalformedRequestOnListener) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {kTopic});
    ASSERT_TRUE(node.waitForSubscription(kTopic));
    std::promise<std::string> delivered;
    client.onMessage(
        [&](std::unique_ptr<Message> message) { delivered.set_value(message->msgId()); });
    node.publish(published(testsupport::registryFrames(kRegistryBody, kRegistryType)));
    node.publish(published(testsupport::messageFrames(kReceivedId, kBody)));
    {
        ErrorRecorder errors;
        LoopThread failing(client, errors.handler());
        ASSERT_TRUE(failing.endsWithin(kEventLimit));
        ASSERT_EQ(errors.reports.size(), 1u);
    }

    LoopThread loop(client, nullptr);

    auto future = delivered.get_future();
    ASSERT_EQ(future.wait_for(kEventLimit), std::future_status::ready);
    EXPECT_EQ(future.get(), kReceivedId);
}

TEST(ClientIoLoopTest, LoopRunsAgainAfterMalformedRequestOnDispenser) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::promise<std::string> delivered;
    client.onMessage(
        [&](std::unique_ptr<Message> message) { delivered.set_value(message->msgId()); });
    sendToDispenser(node, {kDelimiter, kAckCommand, kBadHeaderLine, kDelimiter, kDelimiter});
    node.sendTo(kDispenserIdentity, testsupport::messageFrames(kReceivedId, kBody));
    {
        ErrorRecorder errors;
        LoopThread failing(client, errors.handler());
        ASSERT_TRUE(failing.endsWithin(kEventLimit));
        ASSERT_EQ(errors.reports.size(), 1u);
    }

    LoopThread loop(client, nullptr);

    auto future = delivered.get_future();
    ASSERT_EQ(future.wait_for(kEventLimit), std::future_status::ready);
    EXPECT_EQ(future.get(), kReceivedId);
}

TEST(ClientIoLoopTest, OrvikErrorWithoutErrorHandlerEndsLoopNormally) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    LoopThread loop(client, nullptr);

    sendToDispenser(node, {kDelimiter, kAckCommand, kBadHeaderLine, kDelimiter, kDelimiter});

    ASSERT_TRUE(loop.endsWithin(kEventLimit));
    EXPECT_NO_THROW(loop.result());
}

TEST(ClientIoLoopTest, RuntimeErrorFromMessageCallbackReachesHandlerAsUnknownErrorThenLeavesLoop) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    client.onMessage([](std::unique_ptr<Message>) { throw std::runtime_error(kCallbackFailure); });
    ErrorRecorder errors;
    LoopThread loop(client, errors.handler());

    sendToDispenser(node, testsupport::messageFrames(kReceivedId, kBody));

    ASSERT_TRUE(loop.endsWithin(kEventLimit));
    ASSERT_EQ(errors.reports.size(), 1u);
    EXPECT_TRUE(errors.reports[0].generalException);
    EXPECT_EQ(errors.reports[0].what, kUnknownError);
    EXPECT_TRUE(errors.reports[0].context.empty());
    std::optional<std::string> escaped;
    try {
        loop.result();
    } catch (const std::runtime_error& error) {
        escaped = error.what();
    }
    EXPECT_EQ(escaped, kCallbackFailure);
}

TEST(ClientIoLoopTest, RuntimeErrorFromAckCallbackReachesHandlerAsUnknownErrorThenLeavesLoop) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Message message = outgoing();
    const std::string id = message.msgId();
    client.send(std::move(message), [] { throw std::runtime_error(kCallbackFailure); });
    ErrorRecorder errors;
    LoopThread loop(client, errors.handler());

    sendToDispenser(node, testsupport::ackFrames(id));

    ASSERT_TRUE(loop.endsWithin(kEventLimit));
    ASSERT_EQ(errors.reports.size(), 1u);
    EXPECT_TRUE(errors.reports[0].generalException);
    EXPECT_EQ(errors.reports[0].what, kUnknownError);
    EXPECT_TRUE(errors.reports[0].context.empty());
    std::optional<std::string> escaped;
    try {
        loop.result();
    } catch (const std::runtime_error& error) {
        escaped = error.what();
    }
    EXPECT_EQ(escaped, kCallbackFailure);
}

TEST(ClientIoLoopTest, RuntimeErrorFromCallbackWithoutErrorHandlerEndsLoopNormally) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::promise<void> called;
    client.onMessage([&](std::unique_ptr<Message>) {
        called.set_value();
        throw std::runtime_error(kCallbackFailure);
    });
    LoopThread loop(client, nullptr);

    sendToDispenser(node, testsupport::messageFrames(kReceivedId, kBody));

    ASSERT_EQ(called.get_future().wait_for(kEventLimit), std::future_status::ready);
    ASSERT_TRUE(loop.endsWithin(kEventLimit));
    EXPECT_NO_THROW(loop.result());
}

TEST(ClientIoLoopTest, OrvikErrorFromMessageCallbackReachesHandlerWithReceiveContext) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    client.onMessage(
        [](std::unique_ptr<Message>) { throw orviku::GeneralException(kCallbackFailure); });
    ErrorRecorder errors;
    LoopThread loop(client, errors.handler());

    sendToDispenser(node, testsupport::messageFrames(kReceivedId, kBody));

    ASSERT_TRUE(loop.endsWithin(kEventLimit));
    EXPECT_NO_THROW(loop.result());
    ASSERT_EQ(errors.reports.size(), 1u);
    EXPECT_TRUE(errors.reports[0].generalException);
    EXPECT_EQ(errors.reports[0].what, kCallbackFailure);
    EXPECT_EQ(errors.reports[0].context, std::vector<std::string>{kDispenserContext});
}

TEST(ClientIoLoopTest, OrvikErrorFromAckCallbackReachesHandlerWithReceiveContext) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Message message = outgoing();
    const std::string id = message.msgId();
    client.send(std::move(message), [] { throw orviku::GeneralException(kCallbackFailure); });
    ErrorRecorder errors;
    LoopThread loop(client, errors.handler());

    sendToDispenser(node, testsupport::ackFrames(id));

    ASSERT_TRUE(loop.endsWithin(kEventLimit));
    EXPECT_NO_THROW(loop.result());
    ASSERT_EQ(errors.reports.size(), 1u);
    EXPECT_TRUE(errors.reports[0].generalException);
    EXPECT_EQ(errors.reports[0].what, kCallbackFailure);
    EXPECT_EQ(errors.reports[0].context, std::vector<std::string>{kDispenserContext});
}

TEST(ClientIoLoopTest, OrvikErrorFromCallbackOnListenerGetsListenerContext) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {kTopic});
    ASSERT_TRUE(node.waitForSubscription(kTopic));
    client.onMessage(
        [](std::unique_ptr<Message>) { throw orviku::GeneralException(kCallbackFailure); });
    ErrorRecorder errors;
    LoopThread loop(client, errors.handler());

    node.publish(published(testsupport::messageFrames(kReceivedId, kBody)));

    ASSERT_TRUE(loop.endsWithin(kEventLimit));
    ASSERT_EQ(errors.reports.size(), 1u);
    EXPECT_EQ(errors.reports[0].what, kCallbackFailure);
    EXPECT_EQ(errors.reports[0].context, std::vector<std::string>{kListenerContext});
}

TEST(ClientIoLoopTest, ThrowingMessageCallbackReleasesClientLock) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::promise<std::string> laterDelivered;
    client.onMessage([&](std::unique_ptr<Message> message) {
        if (message->msgId() == kReceivedId) {
            throw orviku::GeneralException(kCallbackFailure);
        }
        laterDelivered.set_value(message->msgId());
    });
    {
        ErrorRecorder errors;
        LoopThread failing(client, errors.handler());
        sendToDispenser(node, testsupport::messageFrames(kReceivedId, kBody));
        ASSERT_TRUE(failing.endsWithin(kEventLimit));
        ASSERT_EQ(errors.reports.size(), 1u);
    }

    LoopThread loop(client, nullptr);
    node.sendTo(kDispenserIdentity, testsupport::messageFrames(kLaterReceivedId, kBody));

    auto future = laterDelivered.get_future();
    ASSERT_EQ(future.wait_for(kEventLimit), std::future_status::ready);
    EXPECT_EQ(future.get(), kLaterReceivedId);
}

// How the loop ended in the child process, as its exit code.
enum ShutdownOutcome : int {
    kEndedSilently = 0,
    kNoInboxCheck = 1,
    kStillRunning = 2,
    kThrew = 3,
    kHandlerCalled = 4,
};

// In the child: shuts the socket context down while the loop waits for input
// and exits with how the loop ended. Exits without unwinding, so that a loop
// that still runs cannot hold the child up.
[[noreturn]] void shutDownWhileLooping() {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    int handlerCalls = 0;
    auto loop = std::async(std::launch::async, [&] {
        client.blockThreadForIO([&](orviku::Exception&) { ++handlerCalls; }, kLoopTimeout);
    });
    if (!node.receiveCommand(kInboxCommand)) {
        std::_Exit(kNoInboxCheck);
    }
    wxblt::shutdown();
    if (loop.wait_for(kEventLimit) != std::future_status::ready) {
        std::_Exit(kStillRunning);
    }
    try {
        loop.get();
    } catch (...) {
        std::_Exit(kThrew);
    }
    std::_Exit(handlerCalls == 0 ? kEndedSilently : kHandlerCalled);
}

TEST(ClientIoLoopTest, ContextShutdownEndsLoopWithoutCallingErrorHandler) {
    if (testsupport::inChild()) {
        shutDownWhileLooping();
    }

    const testsupport::ChildResult child = testsupport::runCurrentTestInChild(kChildLimit);

    ASSERT_FALSE(child.timedOut);
    ASSERT_TRUE(child.exited);
    EXPECT_EQ(child.exitCode, kEndedSilently);
}

TEST(ClientIoLoopTest, CheckReturnsFalseWhenNothingArrives) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});

    EXPECT_FALSE(client.check(kLoopTimeout));
}

TEST(ClientIoLoopTest, CheckDispatchesWhatArrivesAndReturnsTrue) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::string deliveredId;
    client.onMessage([&](std::unique_ptr<Message> message) { deliveredId = message->msgId(); });
    sendToDispenser(node, testsupport::messageFrames(kReceivedId, kBody));

    const bool hadInput = client.check(kEventLimit);

    EXPECT_TRUE(hadInput);
    EXPECT_EQ(deliveredId, kReceivedId);
}

TEST(ClientIoLoopTest, CheckWritesNothingQueued) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    client.send(outgoing(), nullptr);
    ASSERT_TRUE(node.waitForDispenserPeer());

    EXPECT_FALSE(client.check(kLoopTimeout));

    EXPECT_TRUE(node.quietFor(kQuietTime));
}

TEST(ClientIoLoopTest, CheckTimeoutKeepsOnlyItsLow32Bits) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    ASSERT_TRUE(node.waitForDispenserPeer());

    auto checked = std::async(std::launch::async, [&] { return client.check(kWrappingTimeout); });

    const bool endedInTime = checked.wait_for(kEventLimit) == std::future_status::ready;
    if (!endedInTime) {
        // Wakes the check up: it must not outlive the client.
        node.sendTo(kDispenserIdentity, testsupport::inboxFrames(kAppId));
        if (checked.wait_for(kEventLimit) != std::future_status::ready) {
            std::fputs("check() did not return after input arrived\n", stderr);
            std::abort();
        }
    }
    EXPECT_TRUE(endedInTime);
    EXPECT_FALSE(checked.get());
}

}  // namespace
