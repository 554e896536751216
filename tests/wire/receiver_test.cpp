#include <orvikm/receiver.hpp>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <list>
#include <memory>
#include <new>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/control_requests.hpp>
#include <orvikm/errors.hpp>
#include <orvikm/message.hpp>
#include <orvikm/registry.hpp>
#include <orviku/exception.hpp>

#include "wire_fixture.hpp"

// The array form of new is replaced for this test program so that a test can
// see the largest buffer the library asks for while it is watched (payload
// buffers are allocated with new char[]).
namespace {

std::atomic<bool> gWatchArrays{false};
std::atomic<std::size_t> gLargestArray{0};

}  // namespace

void* operator new[](std::size_t size) {
    if (gWatchArrays.load() && size > gLargestArray.load()) {
        gLargestArray.store(size);
    }
    void* pointer = std::malloc(size == 0 ? 1 : size);
    if (pointer == nullptr) {
        throw std::bad_alloc();
    }
    return pointer;
}

void operator delete[](void* pointer) noexcept {
    std::free(pointer);
}

void operator delete[](void* pointer, std::size_t) noexcept {
    std::free(pointer);
}

namespace {

using namespace std::chrono_literals;
using orvikm::Message;
using orvikm::ProtocolError;
using orvikm::Receiver;
using orvikm::Registry;
using orvikm::internal_objects::Ack;
using orvikm::internal_objects::GetRegistry;
using orvikm::internal_objects::HeaderMap;
using orvikm::internal_objects::Inbox;
using orvikm::internal_objects::InboxType;
using orvikm::internal_objects::Request;
using wiretest::kDelimiter;
using wiretest::thrownBy;

using Frames = std::vector<std::string>;
using Context = std::vector<std::string>;

// Error messages.
const std::string kNoRouteDelimiterMessage =
    "Expected more frames. Next section: Route delimiter frame";
const std::string kNoCommandMessage = "Expected more frames. Next section: Request/Command name";
const std::string kNoHeadersMessage = "Expected more frames. Next section: Headers";
const std::string kNoHeaderDelimiterMessage =
    "Expected more frames. Next section: Header delimiter";
const std::string kNoPayloadMessage = "Expected more frames. Next section: Payload";
const std::string kNoTerminationMessage = "Expected more frames. Next section: Termination frame";
const std::string kNoSeparatorInNovalueMessage =
    "Headers formatted incorrectly in request. No \"|\" found in \"novalue\"";
const std::string kNoSeparatorInShortMessage =
    "Headers formatted incorrectly in request. No \"|\" found in \"short\"";
// what() is a C string: it ends at the zero byte the frame holds.
const std::string kNoSeparatorBeforeZeroMessage =
    "Headers formatted incorrectly in request. No \"|\" found in \"ab";
const std::string kLowerCaseCommandMessage = "Unrecognised command name: msg";
const std::string kEmptyCommandMessage = "Unrecognised command name: ";
const std::string kMissingPSizeMessage =
    "Payload detected but provided protocol headers have missing key. Missing key is: p_size";
const std::string kMissingPTypeMessage =
    "Payload detected but provided protocol headers have missing key. Missing key is: p_type";
const std::string kFrameAfterPayloadMessage = "We don't expect more frames after the payload";
const std::string kBadTerminationMessage = "Expected a delimiter frame for termination";
const std::string kShortPayloadMessage = "Payload frame holds 3 bytes but \"p_size\" declares 5";
const std::string kHugePSizeMessage =
    "Payload frame holds 3 bytes but \"p_size\" declares 4294967295";
const std::string kRouteTooLongMessage =
    "Frame too long in section Routes: 101 bytes, at most 100 are allowed outside the payload";
const std::string kRouteFarTooLongMessage =
    "Frame too long in section Routes: 70000 bytes, at most 100 are allowed outside the payload";
const std::string kCommandTooLongMessage =
    "Frame too long in section Request/Command name: 101 bytes, at most 100 are allowed outside "
    "the payload";
const std::string kHeaderTooLongMessage =
    "Frame too long in section Headers: 101 bytes, at most 100 are allowed outside the payload";
const std::string kTerminationTooLongMessage =
    "Frame too long in section Termination frame: 101 bytes, at most 100 are allowed outside the "
    "payload";
const std::string kReadFrameTooLongMessage =
    "Frame too long: 101 bytes, at most 100 are allowed outside the payload";
const std::string kMissingIdMessage = "Expected \"id\" header.";
const std::string kMissingMsgIdMessage = "Expected \"msg_id\" header.";
const std::string kUnknownInboxTypeMessage = "Unknown inbox type specified in headers... Node";
const std::string kGetRegistryLeftoverMessage =
    "Did not expect more headers for request \"GREG\". Unexpected headers are: (x|1)";
const std::string kRegistryLeftoverMessage =
    "Did not expect more headers for request \"REG\". Unexpected headers are: (x|1)";
const std::string kStoullText = "stoull";
const std::string kStollText = "stoll";

// Context lines.
const std::string kRoutesContext = "While trying to receive routes of request";
const std::string kHeadersContext = "While trying to receive headers";
const std::string kProtocolHeadersContext = "While trying to receive protocol headers of request";
const std::string kPayloadContext = "While trying to receive payload";
const std::string kTerminationContext = "While trying to receive termination delimiter";
const std::string kDecodeContext = "While trying to decode a received request";
const std::string kDecodeMsgContext = "While trying to decode a received request (MSG)";
const std::string kDecodeRegContext = "While trying to decode a received request (REG)";
const std::string kDecodeBoxContext = "While trying to decode a received request (BOX)";
const std::string kDecodeAckContext = "While trying to decode a received request (ACK)";
const std::string kDecodeGregContext = "While trying to decode a received request (GREG)";
const std::string kDecodeLowerCaseMsgContext = "While trying to decode a received request (msg)";
const std::string kMessageDecodingContext = "While trying to decode protocol headers for Message";
const std::string kInboxDecodingContext = "While trying to decode headers for Inbox";
const std::string kAckDecodingContext = "While trying to decode headers for Ack";
const std::string kGetRegistryDecodingContext =
    "While trying to decode headers for GetRegistry request";
const std::string kRegistryDecodingContext = "While trying to decode headers for Registry request";

// Request contents.
const std::string kAppId = "weather-app";
const std::string kMessageId = "6b1f7a52-33c4-4d0e-9a41-0c2f5e8d9b17";
const std::string kPayloadType = "text/plain";
const std::string kBody = "hello";
const std::string kNextAckId = "next-ack";
const std::string kHundredBytes(100, 'h');
// Far above anything a three-byte payload needs, far below its declared size.
constexpr std::size_t kLargestExpectedAllocation = 1024 * 1024;
const std::string kHundredOneBytes(101, 'l');
const std::string kNoSeparatorInHundredBytesMessage =
    "Headers formatted incorrectly in request. No \"|\" found in \"" + kHundredBytes + "\"";
const std::string kHundredByteCommandMessage = "Unrecognised command name: " + kHundredBytes;
const std::string kDecodeHundredByteCommandContext =
    "While trying to decode a received request (" + kHundredBytes + ")";

// routes..., delimiter, command, headers..., delimiter, last
Frames requestFrames(const Frames& routes, const std::string& command, const Frames& headers,
                     const std::string& last) {
    Frames frames = routes;
    frames.push_back(kDelimiter);
    frames.push_back(command);
    frames.insert(frames.end(), headers.begin(), headers.end());
    frames.push_back(kDelimiter);
    frames.push_back(last);
    return frames;
}

// The seven header frames of a message with the given body, in key order.
Frames messageHeaders(const std::string& body = kBody) {
    return {"ack_mode|2",
            "app_id|" + kAppId,
            "id|" + kMessageId,
            "origin|alpha,beta,",
            "p_size|" + std::to_string(body.size()),
            "p_type|" + kPayloadType,
            "valid_for|45"};
}

// The headers with the frame of `key` replaced by key|value.
Frames withHeader(Frames headers, const std::string& key, const std::string& value) {
    for (std::string& header : headers) {
        if (header.compare(0, key.size() + 1, key + "|") == 0) {
            header = key + "|" + value;
        }
    }
    return headers;
}

Frames withoutHeader(Frames headers, const std::string& key) {
    Frames kept;
    for (std::string& header : headers) {
        if (header.compare(0, key.size() + 1, key + "|") != 0) {
            kept.push_back(std::move(header));
        }
    }
    return kept;
}

Frames messageFrames(const Frames& routes = {}, const std::string& body = kBody) {
    return requestFrames(routes, "MSG", messageHeaders(body), body);
}

Frames ackFrames(const std::string& id) {
    return requestFrames({}, "ACK", {"msg_id|" + id}, kDelimiter);
}

Frames appended(Frames frames, const Frames& more) {
    frames.insert(frames.end(), more.begin(), more.end());
    return frames;
}

class ReceiverTest : public ::testing::Test {
protected:
    void send(const Frames& frames) { link.peer.sendMessage(frames); }

    std::unique_ptr<Request> receive() { return wiretest::receiveArrived(receiver, link.socket); }

    template <typename Error>
    std::optional<Error> errorOfReceive() {
        return thrownBy<Error>([&] { receive(); });
    }

    static void expectProtocolError(const std::optional<ProtocolError>& error,
                                    const std::string& message, const Context& context) {
        ASSERT_TRUE(error.has_value()) << "no ProtocolError thrown";
        EXPECT_EQ(std::string(error->what()), message);
        EXPECT_EQ(error->context(), context);
    }

    // Sends an acknowledgement whose id header is followed by `header`|1 and
    // expects it refused for that leftover key.
    void expectAckIdFollowedByLeftover(const std::string& header);

    // Reads the frame that precedes the headers, so that receive_headers()
    // can be called on its own.
    void readFrameBeforeHeaders() {
        ASSERT_TRUE(wiretest::waitForInput(link.socket));
        receiver.readFrame();
    }

    wiretest::PeerLink link;
    Receiver receiver{&link.socket};
};

// --- Dispatch by command name ----------------------------------------------

TEST_F(ReceiverTest, CommandMsgBuildsAMessageFromRoutesHeadersAndPayload) {
    send(messageFrames({"r1", "r2"}));

    const std::unique_ptr<Request> request = receive();

    const auto* message = dynamic_cast<const Message*>(request.get());
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->pushRoutes(), (std::list<std::string>{"r1", "r2"}));
    EXPECT_EQ(message->msgId(), kMessageId);
    EXPECT_EQ(message->appId(), kAppId);
    EXPECT_EQ(message->validFor(), 45s);
    EXPECT_EQ(message->ackMode(), Message::AckMode::ByReceivers);
    EXPECT_EQ(message->originNodes(), (std::vector<std::string>{"alpha", "beta"}));
    EXPECT_EQ(wiretest::bytesOf(message->payload()), kBody);
    EXPECT_EQ(message->payload().type(), kPayloadType);
}

// A message's headers as every sender writes them are read without a map;
// anything else about them is read as it always was.
const Message* messageOf(const std::unique_ptr<Request>& request) {
    return dynamic_cast<const Message*>(request.get());
}

TEST_F(ReceiverTest, UsualHeadersInAnotherOrderDecodeTheSameMessage) {
    Frames headers = messageHeaders();
    std::reverse(headers.begin(), headers.end());
    send(requestFrames({"r1"}, "MSG", headers, kBody));

    const std::unique_ptr<Request> request = receive();

    const Message* message = messageOf(request);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->msgId(), kMessageId);
    EXPECT_EQ(message->appId(), kAppId);
    EXPECT_EQ(message->validFor(), 45s);
    EXPECT_EQ(message->ackMode(), Message::AckMode::ByReceivers);
    EXPECT_EQ(message->originNodes(), (std::vector<std::string>{"alpha", "beta"}));
    EXPECT_EQ(wiretest::bytesOf(message->payload()), kBody);
}

TEST_F(ReceiverTest, NumbersInOtherFormsAreReadAsTheStandardConversionsReadThem) {
    Frames headers = withHeader(messageHeaders(), "valid_for", "+7");
    headers = withHeader(headers, "ack_mode", " 1");
    headers = withHeader(headers, "p_size", "5 and more");
    send(requestFrames({}, "MSG", headers, kBody));

    const std::unique_ptr<Request> request = receive();

    const Message* message = messageOf(request);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->validFor(), 7s);
    EXPECT_EQ(message->ackMode(), Message::AckMode::ByNode);
    EXPECT_EQ(wiretest::bytesOf(message->payload()), kBody);
}

TEST_F(ReceiverTest, NegativeValidityAndAckModeAreRead) {
    Frames headers = withHeader(messageHeaders(), "valid_for", "-3");
    headers = withHeader(headers, "ack_mode", "-1");
    send(requestFrames({}, "MSG", headers, kBody));

    const std::unique_ptr<Request> request = receive();

    const Message* message = messageOf(request);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->validFor(), -3s);
    EXPECT_EQ(static_cast<int>(message->ackMode()), -1);
}

TEST_F(ReceiverTest, LargestValidityIsRead) {
    send(requestFrames({}, "MSG", withHeader(messageHeaders(), "valid_for", "9223372036854775807"),
                       kBody));

    const std::unique_ptr<Request> request = receive();

    const Message* message = messageOf(request);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->validFor(), std::chrono::seconds::max());
}

TEST_F(ReceiverTest, NineteenDigitPayloadSizeIsCutTo32BitsAsAnyOther) {
    const unsigned long long declared = 9999999999999999999ULL;
    send(requestFrames({}, "MSG", withHeader(messageHeaders(), "p_size", std::to_string(declared)),
                       kBody));

    const auto error = errorOfReceive<ProtocolError>();

    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(std::string(error->what()), "Payload frame holds 5 bytes but \"p_size\" declares " +
                                              std::to_string(static_cast<unsigned>(declared)));
}

TEST_F(ReceiverTest, HeaderBeyondTheUsualOnesIsRefusedAsLeftOver) {
    Frames headers = messageHeaders();
    headers.insert(headers.begin() + 2, "b|1");
    send(requestFrames({}, "MSG", headers, kBody));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(
        error, "Did not expect more headers for request \"MSG\". Unexpected headers are: (b|1)",
        {kMessageDecodingContext, kDecodeMsgContext});
}

TEST_F(ReceiverTest, UsualHeaderRepeatedKeepsItsLastValue) {
    Frames headers = messageHeaders();
    headers.push_back("valid_for|46");
    send(requestFrames({}, "MSG", headers, kBody));

    const std::unique_ptr<Request> request = receive();

    const Message* message = messageOf(request);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->validFor(), 46s);
}

TEST_F(ReceiverTest, CommandRegBuildsARegistryWithThePayload) {
    send(requestFrames({}, "REG", {"p_size|3", "p_type|registry/v1"}, "abc"));

    const std::unique_ptr<Request> request = receive();

    const auto* registry = dynamic_cast<const Registry*>(request.get());
    ASSERT_NE(registry, nullptr);
    EXPECT_EQ(wiretest::bytesOf(registry->payload()), "abc");
    EXPECT_EQ(registry->payload().type(), "registry/v1");
}

TEST_F(ReceiverTest, CommandBoxBuildsAnInbox) {
    send(requestFrames({}, "BOX", {"app_id|" + kAppId, "box_type|node"}, kDelimiter));

    const std::unique_ptr<Request> request = receive();

    const auto* inbox = dynamic_cast<const Inbox*>(request.get());
    ASSERT_NE(inbox, nullptr);
    EXPECT_EQ(inbox->appId(), kAppId);
    EXPECT_EQ(inbox->type(), InboxType::Node);
}

TEST_F(ReceiverTest, CommandAckBuildsAnAck) {
    send(ackFrames(kMessageId));

    const std::unique_ptr<Request> request = receive();

    const auto* ack = dynamic_cast<const Ack*>(request.get());
    ASSERT_NE(ack, nullptr);
    EXPECT_EQ(ack->messageId(), kMessageId);
}

TEST_F(ReceiverTest, CommandGregBuildsAGetRegistry) {
    send(requestFrames({}, "GREG", {}, kDelimiter));

    const std::unique_ptr<Request> request = receive();

    EXPECT_NE(dynamic_cast<const GetRegistry*>(request.get()), nullptr);
}

TEST_F(ReceiverTest, RoutesBeforeARequestOtherThanAMessageAreDropped) {
    send(requestFrames({"r1", "r2"}, "ACK", {"msg_id|" + kMessageId}, kDelimiter));

    const std::unique_ptr<Request> request = receive();

    const auto* ack = dynamic_cast<const Ack*>(request.get());
    ASSERT_NE(ack, nullptr);
    EXPECT_EQ(ack->messageId(), kMessageId);
}

TEST_F(ReceiverTest, LowerCaseCommandIsUnrecognised) {
    send(requestFrames({}, "msg", messageHeaders(), kBody));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kLowerCaseCommandMessage, {kDecodeLowerCaseMsgContext});
}

TEST_F(ReceiverTest, EmptyCommandIsUnrecognisedAndTheContextNamesNoCommand) {
    send(requestFrames({}, "", {"msg_id|1"}, kDelimiter));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kEmptyCommandMessage, {kDecodeContext});
}

// --- Routes ----------------------------------------------------------------

TEST_F(ReceiverTest, FirstFrameDelimiterMeansNoRoutes) {
    send(messageFrames({}));

    const std::unique_ptr<Request> request = receive();

    const auto* message = dynamic_cast<const Message*>(request.get());
    ASSERT_NE(message, nullptr);
    EXPECT_TRUE(message->pushRoutes().empty());
}

TEST_F(ReceiverTest, RouteFrameOfOneNonZeroByteIsARoute) {
    send(messageFrames({"\x01"}));

    const std::unique_ptr<Request> request = receive();

    const auto* message = dynamic_cast<const Message*>(request.get());
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->pushRoutes(), std::list<std::string>{"\x01"});
}

TEST_F(ReceiverTest, EmptyFrameIsARouteNotADelimiter) {
    send(messageFrames({""}));

    const std::unique_ptr<Request> request = receive();

    const auto* message = dynamic_cast<const Message*>(request.get());
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->pushRoutes(), std::list<std::string>{""});
}

TEST_F(ReceiverTest, RouteFrameWithZeroBytesBeyondItsFirstIsARoute) {
    const std::string route("\0\0", 2);
    send(messageFrames({route}));

    const std::unique_ptr<Request> request = receive();

    const auto* message = dynamic_cast<const Message*>(request.get());
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->pushRoutes(), std::list<std::string>{route});
}

TEST_F(ReceiverTest, MessageEndingInRoutesFailsExpectingTheRouteDelimiter) {
    send({"r1"});

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kNoRouteDelimiterMessage, {kRoutesContext, kDecodeContext});
}

TEST_F(ReceiverTest, MessageEndingAfterTheRouteDelimiterFailsExpectingTheCommand) {
    send({"r1", kDelimiter});

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kNoCommandMessage, {kDecodeContext});
}

// --- Headers ---------------------------------------------------------------

TEST_F(ReceiverTest, MessageEndingAfterTheCommandFailsExpectingHeaders) {
    send({kDelimiter, "MSG"});

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kNoHeadersMessage,
                        {kHeadersContext, kProtocolHeadersContext, kDecodeMsgContext});
}

TEST_F(ReceiverTest, MessageEndingInHeadersFailsExpectingTheHeaderDelimiter) {
    send({kDelimiter, "ACK", "msg_id|1"});

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kNoHeaderDelimiterMessage,
                        {kHeadersContext, kProtocolHeadersContext, kDecodeAckContext});
}

TEST_F(ReceiverTest, HeaderSplitsAtTheFirstSeparator) {
    send({"ACK", "a|b|c", kDelimiter, kDelimiter});
    readFrameBeforeHeaders();

    const HeaderMap headers = receiver.receive_headers();

    EXPECT_EQ(headers, (HeaderMap{{"a", "b|c"}}));
}

TEST_F(ReceiverTest, HeaderStartingWithTheSeparatorHasAnEmptyKey) {
    send({"ACK", "|x", kDelimiter, kDelimiter});
    readFrameBeforeHeaders();

    const HeaderMap headers = receiver.receive_headers();

    EXPECT_EQ(headers, (HeaderMap{{"", "x"}}));
}

TEST_F(ReceiverTest, HeaderEndingWithTheSeparatorHasAnEmptyValue) {
    send({"ACK", "x|", kDelimiter, kDelimiter});
    readFrameBeforeHeaders();

    const HeaderMap headers = receiver.receive_headers();

    EXPECT_EQ(headers, (HeaderMap{{"x", ""}}));
}

TEST_F(ReceiverTest, HeaderValueKeepsZeroBytesAfterTheSeparator) {
    const std::string value("v\0w", 3);
    send({"ACK", "k|" + value, kDelimiter, kDelimiter});
    readFrameBeforeHeaders();

    const HeaderMap headers = receiver.receive_headers();

    EXPECT_EQ(headers, (HeaderMap{{"k", value}}));
}

TEST_F(ReceiverTest, RequestWithoutHeadersHasTheDelimiterRightAfterTheCommand) {
    send({"GREG", kDelimiter, kDelimiter});
    readFrameBeforeHeaders();

    const HeaderMap headers = receiver.receive_headers();

    EXPECT_TRUE(headers.empty());
}

TEST_F(ReceiverTest, RepeatedHeaderKeyKeepsTheLastValue) {
    send(requestFrames({}, "ACK", {"msg_id|first", "msg_id|second"}, kDelimiter));

    const std::unique_ptr<Request> request = receive();

    const auto* ack = dynamic_cast<const Ack*>(request.get());
    ASSERT_NE(ack, nullptr);
    EXPECT_EQ(ack->messageId(), "second");
}

TEST_F(ReceiverTest, HeaderWithoutSeparatorIsRefused) {
    send(requestFrames({}, "MSG", appended({"novalue"}, messageHeaders()), kBody));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kNoSeparatorInNovalueMessage,
                        {kHeadersContext, kProtocolHeadersContext, kDecodeMsgContext});
}

TEST_F(ReceiverTest, HeaderWithAZeroByteBeforeTheSeparatorHasNoSeparator) {
    send(requestFrames({}, "ACK", {std::string("ab\0c|d", 6)}, kDelimiter));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kNoSeparatorBeforeZeroMessage,
                        {kHeadersContext, kProtocolHeadersContext, kDecodeAckContext});
}

TEST_F(ReceiverTest, SeparatorSearchStopsAtTheEndOfAFullFrame) {
    send(requestFrames({}, "ACK", {kHundredBytes}, kDelimiter));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kNoSeparatorInHundredBytesMessage,
                        {kHeadersContext, kProtocolHeadersContext, kDecodeAckContext});
}

TEST_F(ReceiverTest, SeparatorLeftInTheBufferByAnEarlierFrameIsNotFound) {
    send(requestFrames({"a-long-route|with|bars"}, "ACK", {"short"}, kDelimiter));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kNoSeparatorInShortMessage,
                        {kHeadersContext, kProtocolHeadersContext, kDecodeAckContext});
}

// --- Payload ---------------------------------------------------------------

TEST_F(ReceiverTest, MessageEndingAfterTheHeaderDelimiterFailsExpectingThePayload) {
    Frames frames = messageFrames();
    frames.pop_back();
    send(frames);

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kNoPayloadMessage, {kPayloadContext, kDecodeMsgContext});
}

TEST_F(ReceiverTest, MessageWithoutPayloadHeadersFailsNamingPSize) {
    send(requestFrames({}, "MSG",
                       withoutHeader(withoutHeader(messageHeaders(), "p_size"), "p_type"), kBody));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kMissingPSizeMessage, {kPayloadContext, kDecodeMsgContext});
}

TEST_F(ReceiverTest, MessageWithPSizeButWithoutPTypeFailsNamingPType) {
    send(requestFrames({}, "MSG", withoutHeader(messageHeaders(), "p_type"), kBody));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kMissingPTypeMessage, {kPayloadContext, kDecodeMsgContext});
}

TEST_F(ReceiverTest, RegistryWithoutPTypeFailsNamingPType) {
    send(requestFrames({}, "REG", {"p_size|3"}, "abc"));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kMissingPTypeMessage, {kPayloadContext, kDecodeRegContext});
}

TEST_F(ReceiverTest, PSizeWithoutDigitsThrowsInvalidArgumentWithoutContext) {
    send(requestFrames({}, "MSG", withHeader(messageHeaders(), "p_size", "abc"), kBody));

    const auto error = errorOfReceive<std::invalid_argument>();

    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(std::string(error->what()), kStoullText);
}

TEST_F(ReceiverTest, PSizeWithoutDigitsLeavesTheRestOfTheMessageUnread) {
    send(requestFrames({}, "MSG", withHeader(messageHeaders(), "p_size", "abc"), kBody));
    ASSERT_TRUE(errorOfReceive<std::invalid_argument>().has_value());

    const bool more = link.socket.checkMore();
    const std::string next = wiretest::readRawFrame(link.socket);

    EXPECT_TRUE(more);
    EXPECT_EQ(next, kBody);
    EXPECT_FALSE(link.socket.checkMore());
}

TEST_F(ReceiverTest, FrameAfterThePayloadIsRefused) {
    send(appended(messageFrames(), {"extra"}));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kFrameAfterPayloadMessage, {kPayloadContext, kDecodeMsgContext});
}

TEST_F(ReceiverTest, PayloadFrameShorterThanPSizeIsRefused) {
    send(requestFrames({}, "MSG", withHeader(messageHeaders(), "p_size", "5"), "abc"));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kShortPayloadMessage, {kPayloadContext, kDecodeMsgContext});
}

TEST_F(ReceiverTest, PayloadFrameFarShorterThanAHugePSizeIsRefused) {
    send(requestFrames({}, "MSG", withHeader(messageHeaders(), "p_size", "4294967295"), "abc"));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kHugePSizeMessage, {kPayloadContext, kDecodeMsgContext});
}

TEST_F(ReceiverTest, HugePSizeIsNotAllocatedBeforeThePayloadArrives) {
    send(requestFrames({}, "MSG", withHeader(messageHeaders(), "p_size", "4294967295"), "abc"));
    ASSERT_TRUE(wiretest::waitForInput(link.socket));
    gLargestArray = 0;
    gWatchArrays = true;

    const auto error = errorOfReceive<ProtocolError>();

    gWatchArrays = false;
    EXPECT_TRUE(error.has_value());
    EXPECT_LT(gLargestArray.load(), kLargestExpectedAllocation);
}

TEST_F(ReceiverTest, PayloadFrameLongerThanPSizeIsCutToPSize) {
    send(requestFrames({}, "MSG", withHeader(messageHeaders(), "p_size", "3"), "abcdef"));

    const std::unique_ptr<Request> request = receive();

    const auto* message = dynamic_cast<const Message*>(request.get());
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(wiretest::bytesOf(message->payload()), "abc");
}

TEST_F(ReceiverTest, PayloadLongerThanTheFrameBufferIsReadWhole) {
    const std::string body = wiretest::binaryBytes(100000);
    send(messageFrames({}, body));

    const std::unique_ptr<Request> request = receive();

    const auto* message = dynamic_cast<const Message*>(request.get());
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(wiretest::bytesOf(message->payload()), body);
}

// --- Termination -----------------------------------------------------------

TEST_F(ReceiverTest, EmptyTerminationFrameIsNotADelimiter) {
    send(requestFrames({}, "ACK", {"msg_id|1"}, ""));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kBadTerminationMessage, {kTerminationContext, kDecodeAckContext});
}

TEST_F(ReceiverTest, TwoZeroBytesAreNotATerminationDelimiter) {
    send(requestFrames({}, "ACK", {"msg_id|1"}, std::string(2, '\0')));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kBadTerminationMessage, {kTerminationContext, kDecodeAckContext});
}

TEST_F(ReceiverTest, FramesAfterTheTerminationDelimiterAreDroppedUnread) {
    send(appended(ackFrames(kMessageId), {"extra", kDelimiter}));
    send(ackFrames(kNextAckId));

    const std::unique_ptr<Request> first = receive();
    const std::unique_ptr<Request> next = receive();

    const auto* firstAck = dynamic_cast<const Ack*>(first.get());
    ASSERT_NE(firstAck, nullptr);
    EXPECT_EQ(firstAck->messageId(), kMessageId);
    const auto* nextAck = dynamic_cast<const Ack*>(next.get());
    ASSERT_NE(nextAck, nullptr);
    EXPECT_EQ(nextAck->messageId(), kNextAckId);
}

// The requests without payload: their headers, and the outer context that
// names them.
struct PlainRequestCase {
    std::string command;
    Frames headers;
    std::string decodeContext;
};

void PrintTo(const PlainRequestCase& request, std::ostream* out) {
    *out << request.command;
}

class ReceiverTerminationTest : public ReceiverTest,
                                public ::testing::WithParamInterface<PlainRequestCase> {};

TEST_P(ReceiverTerminationTest, LastFrameOtherThanOneZeroByteIsABadTermination) {
    send(requestFrames({}, GetParam().command, GetParam().headers, "x"));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kBadTerminationMessage,
                        {kTerminationContext, GetParam().decodeContext});
}

TEST_P(ReceiverTerminationTest, RequestEndingBeforeTheTerminationFailsExpectingIt) {
    Frames frames = requestFrames({}, GetParam().command, GetParam().headers, kDelimiter);
    frames.pop_back();
    send(frames);

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kNoTerminationMessage,
                        {kTerminationContext, GetParam().decodeContext});
}

INSTANTIATE_TEST_SUITE_P(
    PlainRequests, ReceiverTerminationTest,
    ::testing::Values(
        PlainRequestCase{"BOX", {"app_id|" + kAppId, "box_type|clnt"}, kDecodeBoxContext},
        PlainRequestCase{"ACK", {"msg_id|" + kMessageId}, kDecodeAckContext},
        PlainRequestCase{"GREG", {}, kDecodeGregContext}),
    [](const ::testing::TestParamInfo<PlainRequestCase>& info) { return info.param.command; });

// --- Errors of the request constructors --------------------------------------

TEST_F(ReceiverTest, MessageDecodingErrorCarriesOnlyItsOwnAndTheOuterContext) {
    send(requestFrames({}, "MSG", withoutHeader(messageHeaders(), "id"), kBody));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kMissingIdMessage, {kMessageDecodingContext, kDecodeMsgContext});
}

TEST_F(ReceiverTest, RegistryDecodingErrorCarriesOnlyItsOwnAndTheOuterContext) {
    send(requestFrames({}, "REG", {"p_size|3", "p_type|registry/v1", "x|1"}, "abc"));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kRegistryLeftoverMessage,
                        {kRegistryDecodingContext, kDecodeRegContext});
}

TEST_F(ReceiverTest, InboxDecodingErrorCarriesOnlyItsOwnAndTheOuterContext) {
    send(requestFrames({}, "BOX", {"app_id|" + kAppId, "box_type|Node"}, kDelimiter));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kUnknownInboxTypeMessage,
                        {kInboxDecodingContext, kDecodeBoxContext});
}

TEST_F(ReceiverTest, AckDecodingErrorCarriesOnlyItsOwnAndTheOuterContext) {
    send(requestFrames({}, "ACK", {"id|" + kMessageId}, kDelimiter));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kMissingMsgIdMessage, {kAckDecodingContext, kDecodeAckContext});
}

// An acknowledgement whose one header is its id is read without a header
// map; whatever follows the id is read as any header section is.
void ReceiverTest::expectAckIdFollowedByLeftover(const std::string& header) {
    send(requestFrames({}, "ACK", {"msg_id|" + kMessageId, header + "|1"}, kDelimiter));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error,
                        "Did not expect more headers for request \"ACK\". Unexpected headers "
                        "are: (" +
                            header + "|1)",
                        {kAckDecodingContext, kDecodeAckContext});
}

TEST_F(ReceiverTest, AckIdFollowedByAnotherHeaderIsRefusedForTheLeftoverKey) {
    expectAckIdFollowedByLeftover("x");
}

TEST_F(ReceiverTest, AckIdFollowedByAHeaderThatSortsBeforeItKeepsTheId) {
    expectAckIdFollowedByLeftover("a");
}

TEST_F(ReceiverTest, AckIdFollowedByAFrameWithoutSeparatorIsRefused) {
    send(requestFrames({}, "ACK", {"msg_id|" + kMessageId, "novalue"}, kDelimiter));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error,
                        "Headers formatted incorrectly in request. No \"|\" found in \"novalue\"",
                        {kHeadersContext, kProtocolHeadersContext, kDecodeAckContext});
}

TEST_F(ReceiverTest, AckHeaderWhoseKeyOnlyBeginsWithTheIdKeyIsNoId) {
    send(requestFrames({}, "ACK", {"msg_idx|" + kMessageId}, kDelimiter));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kMissingMsgIdMessage, {kAckDecodingContext, kDecodeAckContext});
}

TEST_F(ReceiverTest, AckWithAnEmptyIdIsAnAckWithAnEmptyId) {
    send(requestFrames({}, "ACK", {"msg_id|"}, kDelimiter));

    const std::unique_ptr<Request> request = receive();

    const auto* ack = dynamic_cast<const Ack*>(request.get());
    ASSERT_NE(ack, nullptr);
    EXPECT_EQ(ack->messageId(), "");
}

TEST_F(ReceiverTest, GetRegistryDecodingErrorCarriesOnlyItsOwnAndTheOuterContext) {
    send(requestFrames({}, "GREG", {"x|1"}, kDelimiter));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kGetRegistryLeftoverMessage,
                        {kGetRegistryDecodingContext, kDecodeGregContext});
}

TEST_F(ReceiverTest, UnreadableValidForPassesOutAsInvalidArgument) {
    send(requestFrames({}, "MSG", withHeader(messageHeaders(), "valid_for", "abc"), kBody));

    const auto error = errorOfReceive<std::invalid_argument>();

    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(std::string(error->what()), kStollText);
}

// --- A header key that is almost a usual one ------------------------------------

// A usual header whose key is changed a little: the key, how it was changed,
// and what the message is then refused for.
struct NearKeyCase {
    std::string key;
    std::string nearKey;
    std::string message;
    Context context;
};

void PrintTo(const NearKeyCase& near, std::ostream* out) {
    *out << near.nearKey;
}

// The headers in key order are read without a map; in any other order they are
// read through it. A key that is only a prefix of a usual one, or a usual one
// with more after it, or differs from it in its last byte or its case, is no
// usual key in either, and both refuse the message alike: as one without that
// header.
class ReceiverNearKeyTest : public ReceiverTest, public ::testing::WithParamInterface<NearKeyCase> {
protected:
    Frames headersWithNearKey() const {
        Frames headers = messageHeaders();
        for (std::string& header : headers) {
            const std::string& key = GetParam().key;
            if (header.compare(0, key.size() + 1, key + "|") == 0) {
                header = GetParam().nearKey + header.substr(key.size());
            }
        }
        return headers;
    }
};

TEST_P(ReceiverNearKeyTest, InKeyOrderTheMessageIsRefusedAsWithoutThatHeader) {
    send(requestFrames({}, "MSG", headersWithNearKey(), kBody));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, GetParam().message, GetParam().context);
}

TEST_P(ReceiverNearKeyTest, InKeyOrderTheRefusalIsTheOneOfAnyOtherOrder) {
    Frames reversed = headersWithNearKey();
    std::reverse(reversed.begin(), reversed.end());
    send(requestFrames({}, "MSG", reversed, kBody));
    const auto throughTheMap = errorOfReceive<ProtocolError>();
    ASSERT_TRUE(throughTheMap.has_value());
    send(requestFrames({}, "MSG", headersWithNearKey(), kBody));

    const auto inKeyOrder = errorOfReceive<ProtocolError>();

    expectProtocolError(inKeyOrder, throughTheMap->what(), throughTheMap->context());
}

// Each usual key of a message, changed in each of four ways.
std::vector<NearKeyCase> nearKeyCases() {
    const Context headerContext{kMessageDecodingContext, kDecodeMsgContext};
    const Context payloadContext{kPayloadContext, kDecodeMsgContext};
    std::vector<NearKeyCase> cases;
    for (const std::string key :
         {"ack_mode", "app_id", "id", "origin", "p_size", "p_type", "valid_for"}) {
        std::string message = "Expected \"" + key + "\" header.";
        Context context = headerContext;
        if (key == "p_size") {
            message = kMissingPSizeMessage;
            context = payloadContext;
        } else if (key == "p_type") {
            message = kMissingPTypeMessage;
            context = payloadContext;
        }
        std::string lastChanged = key;
        lastChanged.back() = static_cast<char>(lastChanged.back() + 1);
        std::string upperFirst = key;
        upperFirst.front() = static_cast<char>(upperFirst.front() - 'a' + 'A');
        for (const std::string& nearKey :
             {key.substr(0, key.size() - 1), key + "x", lastChanged, upperFirst}) {
            cases.push_back(NearKeyCase{key, nearKey, message, context});
        }
    }
    return cases;
}

INSTANTIATE_TEST_SUITE_P(UsualMessageKeys, ReceiverNearKeyTest, ::testing::ValuesIn(nearKeyCases()),
                         [](const ::testing::TestParamInfo<NearKeyCase>& info) {
                             std::string name;
                             for (const char c : info.param.nearKey) {
                                 name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
                             }
                             return name + "_for_" + std::to_string(info.index);
                         });

TEST_F(ReceiverTest, AckHeaderWhoseKeyIsOnlyAPrefixOfTheIdKeyIsNoId) {
    send(requestFrames({}, "ACK", {"msg_i|" + kMessageId}, kDelimiter));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kMissingMsgIdMessage, {kAckDecodingContext, kDecodeAckContext});
}

// --- Frame length limit --------------------------------------------------------

TEST_F(ReceiverTest, RouteFrameOf100BytesIsAccepted) {
    send(messageFrames({kHundredBytes}));

    const std::unique_ptr<Request> request = receive();

    const auto* message = dynamic_cast<const Message*>(request.get());
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->pushRoutes(), std::list<std::string>{kHundredBytes});
}

TEST_F(ReceiverTest, HeaderFrameOf100BytesIsAccepted) {
    const std::string id(100 - std::string("msg_id|").size(), 'i');
    send(ackFrames(id));

    const std::unique_ptr<Request> request = receive();

    const auto* ack = dynamic_cast<const Ack*>(request.get());
    ASSERT_NE(ack, nullptr);
    EXPECT_EQ(ack->messageId(), id);
}

TEST_F(ReceiverTest, CommandFrameOf100BytesIsReadWhole) {
    send(requestFrames({}, kHundredBytes, {"msg_id|1"}, kDelimiter));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kHundredByteCommandMessage, {kDecodeHundredByteCommandContext});
}

TEST_F(ReceiverTest, RouteFrameLongerThan100BytesIsRefused) {
    send(messageFrames({kHundredOneBytes}));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kRouteTooLongMessage, {kRoutesContext, kDecodeContext});
}

TEST_F(ReceiverTest, SecondRouteFrameLongerThan100BytesIsRefused) {
    send(messageFrames({"r1", kHundredOneBytes}));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kRouteTooLongMessage, {kRoutesContext, kDecodeContext});
}

TEST_F(ReceiverTest, FrameFarLongerThanTheBufferIsRefusedWithItsLength) {
    send(messageFrames({std::string(70000, 'r')}));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kRouteFarTooLongMessage, {kRoutesContext, kDecodeContext});
}

TEST_F(ReceiverTest, CommandFrameLongerThan100BytesIsRefused) {
    send(requestFrames({}, kHundredOneBytes, {"msg_id|1"}, kDelimiter));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kCommandTooLongMessage, {kDecodeContext});
}

TEST_F(ReceiverTest, HeaderFrameLongerThan100BytesIsRefused) {
    send(
        requestFrames({}, "MSG", appended(messageHeaders(), {"x|" + std::string(99, 'v')}), kBody));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kHeaderTooLongMessage,
                        {kHeadersContext, kProtocolHeadersContext, kDecodeMsgContext});
}

TEST_F(ReceiverTest, TerminationFrameLongerThan100BytesIsRefused) {
    send(requestFrames({}, "ACK", {"msg_id|1"}, kHundredOneBytes));

    const auto error = errorOfReceive<ProtocolError>();

    expectProtocolError(error, kTerminationTooLongMessage,
                        {kTerminationContext, kDecodeAckContext});
}

TEST_F(ReceiverTest, ReadFrameRefusesAFrameLongerThan100Bytes) {
    send({kHundredOneBytes});
    ASSERT_TRUE(wiretest::waitForInput(link.socket));

    const auto error = thrownBy<ProtocolError>([&] { receiver.readFrame(); });

    expectProtocolError(error, kReadFrameTooLongMessage, {});
}

// --- Moving ------------------------------------------------------------------

TEST_F(ReceiverTest, MovedReceiverReadsFromTheSameSocket) {
    Receiver moved(std::move(receiver));
    send(ackFrames(kMessageId));

    const std::unique_ptr<Request> request = wiretest::receiveArrived(moved, link.socket);

    const auto* ack = dynamic_cast<const Ack*>(request.get());
    ASSERT_NE(ack, nullptr);
    EXPECT_EQ(ack->messageId(), kMessageId);
}

// --- Flushing after a malformed request ----------------------------------------

struct MalformedCase {
    std::string name;
    Frames frames;
};

void PrintTo(const MalformedCase& malformed, std::ostream* out) {
    *out << malformed.name;
}

class ReceiverFlushTest : public ReceiverTest,
                          public ::testing::WithParamInterface<MalformedCase> {};

TEST_P(ReceiverFlushTest, RequestAfterAMalformedOneIsReadWhole) {
    send(GetParam().frames);
    send(ackFrames(kNextAckId));

    bool failed = false;
    try {
        receive();
    } catch (const orviku::Exception&) {
        failed = true;
    }
    const std::unique_ptr<Request> next = receive();

    EXPECT_TRUE(failed);
    const auto* ack = dynamic_cast<const Ack*>(next.get());
    ASSERT_NE(ack, nullptr);
    EXPECT_EQ(ack->messageId(), kNextAckId);
}

INSTANTIATE_TEST_SUITE_P(
    EveryMalformedKind, ReceiverFlushTest,
    ::testing::Values(
        MalformedCase{"EndsInRoutes", {"r1"}},
        MalformedCase{"EndsAfterRouteDelimiter", {kDelimiter}},
        MalformedCase{"EndsAfterCommand", {kDelimiter, "MSG"}},
        MalformedCase{"EndsInHeaders", {kDelimiter, "ACK", "msg_id|1"}},
        MalformedCase{"EndsBeforePayload", {kDelimiter, "MSG", "p_size|1", "p_type|", kDelimiter}},
        MalformedCase{"EndsBeforeTermination", {kDelimiter, "ACK", "msg_id|1", kDelimiter}},
        MalformedCase{"HeaderWithoutSeparator",
                      requestFrames({}, "MSG", appended({"novalue"}, messageHeaders()), kBody)},
        MalformedCase{"HeaderWithZeroBeforeSeparator",
                      requestFrames({}, "ACK", {std::string("ab\0c|d", 6), "k|v"}, kDelimiter)},
        MalformedCase{"LowerCaseCommand", requestFrames({}, "msg", messageHeaders(), kBody)},
        MalformedCase{"EmptyCommand", requestFrames({}, "", {"msg_id|1"}, kDelimiter)},
        MalformedCase{"MissingPSize",
                      requestFrames({}, "MSG", withoutHeader(messageHeaders(), "p_size"), kBody)},
        MalformedCase{"MissingPType",
                      requestFrames({}, "MSG", withoutHeader(messageHeaders(), "p_type"), kBody)},
        MalformedCase{
            "ShortPayload",
            appended(requestFrames({}, "MSG", withHeader(messageHeaders(), "p_size", "5"), "abc"),
                     {"extra"})},
        MalformedCase{"FramesAfterPayload", appended(messageFrames(), {"extra", "more"})},
        MalformedCase{"BadTermination",
                      appended(requestFrames({}, "ACK", {"msg_id|1"}, "x"), {"extra"})},
        MalformedCase{"RouteTooLong", messageFrames({kHundredOneBytes, "r2"})},
        MalformedCase{"CommandTooLong", requestFrames({}, kHundredOneBytes, {"k|v"}, kDelimiter)},
        MalformedCase{"HeaderTooLong",
                      requestFrames({}, "ACK", {"x|" + std::string(99, 'v'), "k|v"}, kDelimiter)},
        MalformedCase{
            "TerminationTooLong",
            appended(requestFrames({}, "ACK", {"msg_id|1"}, kHundredOneBytes), {"extra"})},
        MalformedCase{"MessageHeadersRejected",
                      requestFrames({}, "MSG", withoutHeader(messageHeaders(), "id"), kBody)},
        MalformedCase{"RegistryHeadersRejected",
                      requestFrames({}, "REG", {"p_size|3", "p_type|t", "x|1"}, "abc")},
        MalformedCase{"InboxHeadersRejected",
                      requestFrames({}, "BOX", {"app_id|a", "box_type|Node"}, kDelimiter)},
        MalformedCase{"AckHeadersRejected", requestFrames({}, "ACK", {"id|1"}, kDelimiter)},
        MalformedCase{"GetRegistryHeadersRejected",
                      requestFrames({}, "GREG", {"x|1"}, kDelimiter)}),
    [](const ::testing::TestParamInfo<MalformedCase>& info) { return info.param.name; });

}  // namespace
