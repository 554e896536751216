#include <orvikm/message.hpp>

#include <chrono>
#include <cstdint>
#include <exception>
#include <limits>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/errors.hpp>
#include <orvikm/payload.hpp>
#include <orviku/exception.hpp>

#include "support/error_capture.hpp"
#include "support/payload_helpers.hpp"

namespace {

using orvikm::Message;
using orvikm::Payload;
using orvikm::internal_objects::HeaderMap;
using orvikm::internal_objects::Request;
using namespace std::chrono_literals;

using testsupport::Address;
using testsupport::addressOf;
using testsupport::bytesOf;
using testsupport::contextOf;
using testsupport::FreeRecorder;
using testsupport::isA;
using testsupport::payloadOf;
using testsupport::thrownBy;
using testsupport::whatOf;

using Context = std::vector<std::string>;
using Routes = std::list<std::string>;
using Nodes = std::vector<std::string>;

const std::string kWireName = "MSG";
const std::string kAppId = "weather-station";
const std::string kOtherAppId = "rain-gauge";
const Routes kRoutes = {"route-north", "route-south"};
const Routes kReceivedRoutes = {"frame-one", "frame-two", "frame-three"};
const std::chrono::seconds kValidFor = 30s;
const Message::AckMode kAckMode = Message::AckMode::ByReceivers;
const std::string kBody = "temperature=21.5";
const std::string kType = "text/plain";
const std::string kAlpha = "alpha";
const std::string kBeta = "beta";
const std::string kGamma = "gamma";

const std::string kIdKey = "id";
const std::string kAppIdKey = "app_id";
const std::string kValidForKey = "valid_for";
const std::string kAckModeKey = "ack_mode";
const std::string kOriginKey = "origin";
const std::string kSizeKey = "p_size";
const std::string kTypeKey = "p_type";
const std::string kExtraKey = "colour";
const std::string kExtraValue = "blue";

const std::string kReceivedId = "3f0c5a0e-8d21-4c43-9a9e-0d6b7c1e2f44";
const std::string kValidForText = "30";
const std::string kAckModeText = "2";
const std::string kEmptyOrigin = ",";
const std::string kAlphaBetaOrigin = "alpha,beta,";
const std::string kAlphaBetaUnterminated = "alpha,beta";
const std::string kOneCharacterOrigin = "x";
const std::string kTwoCommas = ",,";
const std::string kBodySizeText = "16";
const std::string kValidForWithUnit = "30s";
const std::string kValidForWithSpaceAndSign = "  -12";
const std::string kLargestCountText = "9223372036854775807";
const std::string kSmallestCountText = "-9223372036854775808";
const std::string kCountOverflowText = "9223372036854775808";
const std::string kNoDigits = "abc";
const std::string kUnreadableAckMode = "x";
const std::string kAckModeOverflowText = "2147483648";
const std::string kAckMode99Text = "99";
const std::string kAckModeMinus7Text = "-7";

const std::string kMessageContext = "While trying to decode protocol headers for Message";
const std::string kAckModeError = "Ack mode is incorrect for Message. Logic error: stoi";
const std::string kStoll = "stoll";
const std::string kMissingId = "Expected \"id\" header.";
const std::string kMissingAppId = "Expected \"app_id\" header.";
const std::string kMissingValidFor = "Expected \"valid_for\" header.";
const std::string kMissingAckMode = "Expected \"ack_mode\" header.";
const std::string kMissingOrigin = "Expected \"origin\" header.";
const std::string kLeftoverExtra =
    "Did not expect more headers for request \"MSG\". Unexpected headers are: (colour|blue)";
const std::string kLeftoverPayloadHeaders =
    "Did not expect more headers for request \"MSG\". Unexpected headers are: "
    "(p_size|16)(p_type|text/plain)";

Payload emptyPayload() {
    return Payload(nullptr, 0, "", Payload::FreeCallback());
}

Message::Config configWith(std::chrono::seconds validFor, Message::AckMode ackMode) {
    return Message::Config(kAppId, kRoutes, validFor, ackMode);
}

Message messageWith(std::chrono::seconds validFor, Message::AckMode ackMode) {
    return Message(payloadOf(kBody, kType), configWith(validFor, ackMode));
}

Message plainMessage() {
    return messageWith(kValidFor, kAckMode);
}

// The headers of a well-formed received message once the receiver has taken
// "p_size" and "p_type" out.
HeaderMap receivedHeaders() {
    return HeaderMap{{kIdKey, kReceivedId},
                     {kAppIdKey, kAppId},
                     {kValidForKey, kValidForText},
                     {kAckModeKey, kAckModeText},
                     {kOriginKey, kAlphaBetaOrigin}};
}

HeaderMap receivedHeadersWith(const std::string& key, const std::string& value) {
    HeaderMap headers = receivedHeaders();
    headers[key] = value;
    return headers;
}

HeaderMap receivedHeadersWithout(const std::vector<std::string>& keys) {
    HeaderMap headers = receivedHeaders();
    for (const std::string& key : keys) {
        headers.erase(key);
    }
    return headers;
}

Message receive(HeaderMap headers) {
    return Message(payloadOf(kBody, kType), kReceivedRoutes, headers);
}

std::string headerOf(const HeaderMap& headers, const std::string& key) {
    const auto entry = headers.find(key);
    return entry == headers.end() ? "<absent>" : entry->second;
}

std::exception_ptr decodingErrorOf(HeaderMap headers) {
    return thrownBy([&headers] { receive(std::move(headers)); });
}

TEST(MessageTest, WireNameIsMSG) {
    EXPECT_EQ(kWireName, Message::_wire_name);
}

TEST(MessageTest, WireNameThroughTheRequestBaseIsMSG) {
    const Message message = plainMessage();
    const Request& request = message;

    const std::string name = request.wireName();

    EXPECT_EQ(kWireName, name);
}

TEST(MessageConfigTest, ConstructorTakesAppIdRoutesValidityAndAckModeInThatOrder) {
    const Message::Config config(kAppId, kRoutes, kValidFor, kAckMode);

    EXPECT_EQ(kAppId, config.app_id);
    EXPECT_EQ(kRoutes, config.push_routes);
    EXPECT_EQ(kValidFor, config.valid_for);
    EXPECT_EQ(kAckMode, config.ack_mode);
}

TEST(MessageConfigTest, DefaultConfigHasAnEmptyAppIdAndNoRoutes) {
    const Message::Config config;

    EXPECT_TRUE(config.app_id.empty());
    EXPECT_TRUE(config.push_routes.empty());
}

TEST(MessageTest, NewMessageHasANonEmptyId) {
    const Message message = plainMessage();

    EXPECT_FALSE(message.msgId().empty());
}

TEST(MessageTest, TwoMessagesCreatedAlikeHaveDifferentIds) {
    const Message first = plainMessage();
    const Message second = plainMessage();

    EXPECT_NE(first.msgId(), second.msgId());
}

TEST(MessageTest, GenerateNewIdChangesTheId) {
    Message message = plainMessage();
    const std::string before = message.msgId();

    message.generate_new_id();

    EXPECT_NE(before, message.msgId());
    EXPECT_FALSE(message.msgId().empty());
}

TEST(MessageTest, NewMessageHasNoOriginNodes) {
    const Message message = plainMessage();

    EXPECT_TRUE(message.originNodes().empty());
}

TEST(MessageTest, NewMessageKeepsTheConfiguration) {
    const Message message(payloadOf(kBody, kType),
                          Message::Config(kAppId, kRoutes, kValidFor, Message::AckMode::ByNode));

    EXPECT_EQ(kAppId, message.appId());
    EXPECT_EQ(kRoutes, message.pushRoutes());
    EXPECT_EQ(kValidFor, message.validFor());
    EXPECT_EQ(Message::AckMode::ByNode, message.ackMode());
}

TEST(MessageTest, NewMessageTakesThePayloadBufferWithoutCopyingIt) {
    FreeRecorder recorder;
    Payload payload = payloadOf(kBody, kType, recorder.callback());
    const Address buffer = addressOf(payload);

    const Message message(std::move(payload), configWith(kValidFor, kAckMode));

    EXPECT_EQ(buffer, addressOf(message.payload()));
    EXPECT_EQ(kType, message.payload().type());
    EXPECT_TRUE(recorder.freed().empty());
}

TEST(MessageTest, DestroyingAMessageFreesItsPayloadOnce) {
    FreeRecorder recorder;
    auto message = std::make_unique<Message>(payloadOf(kBody, kType, recorder.callback()),
                                             configWith(kValidFor, kAckMode));
    const Address buffer = addressOf(message->payload());

    message.reset();

    EXPECT_EQ(std::vector<Address>{buffer}, recorder.freed());
}

TEST(MessageTest, AppendOriginNodeKeepsTheOrderOfAppending) {
    Message message = plainMessage();

    message.appendOriginNode(kBeta);
    message.appendOriginNode(kAlpha);
    message.appendOriginNode(kGamma);

    EXPECT_EQ((Nodes{kBeta, kAlpha, kGamma}), message.originNodes());
}

TEST(MessageTest, GenerateAckCarriesTheMessageId) {
    const Message message = plainMessage();

    const orvikm::internal_objects::Ack ack = message.generate_ack();

    EXPECT_EQ(message.msgId(), ack.messageId());
}

TEST(MessageTest, CopyGetsANewIdAndNoOriginNodes) {
    Message original = plainMessage();
    original.appendOriginNode(kAlpha);

    const Message copy(original);

    EXPECT_NE(original.msgId(), copy.msgId());
    EXPECT_FALSE(copy.msgId().empty());
    EXPECT_TRUE(copy.originNodes().empty());
}

TEST(MessageTest, CopyKeepsAppIdValidityRoutesAndAckMode) {
    Message original = plainMessage();
    original.appendOriginNode(kAlpha);

    const Message copy(original);

    EXPECT_EQ(original.appId(), copy.appId());
    EXPECT_EQ(original.validFor(), copy.validFor());
    EXPECT_EQ(original.pushRoutes(), copy.pushRoutes());
    EXPECT_EQ(original.ackMode(), copy.ackMode());
}

TEST(MessageTest, CopyHasEqualPayloadBytesAndType) {
    const Message original = plainMessage();

    const Message copy(original);

    EXPECT_EQ(kBody, bytesOf(copy.payload()));
    EXPECT_EQ(kType, copy.payload().type());
}

TEST(MessageTest, CopyLeavesTheOriginalUnchanged) {
    Message original = plainMessage();
    original.appendOriginNode(kAlpha);
    const std::string id = original.msgId();

    const Message copy(original);

    EXPECT_EQ(id, original.msgId());
    EXPECT_EQ(Nodes{kAlpha}, original.originNodes());
    EXPECT_EQ(kBody, bytesOf(original.payload()));
}

TEST(MessageTest, CopyPayloadOwnsABufferOfItsOwn) {
    FreeRecorder recorder;
    auto original = std::make_unique<Message>(payloadOf(kBody, kType, recorder.callback()),
                                              configWith(kValidFor, kAckMode));
    const Address originalBuffer = addressOf(original->payload());
    auto copy = std::make_unique<Message>(*original);
    const Address copyBuffer = addressOf(copy->payload());

    copy.reset();
    original.reset();

    EXPECT_NE(originalBuffer, copyBuffer);
    EXPECT_EQ(std::vector<Address>{originalBuffer}, recorder.freed());
}

TEST(MessageTest, MoveConstructionKeepsIdOriginNodesAndConfig) {
    Message source = messageWith(kValidFor, Message::AckMode::ByNode);
    source.appendOriginNode(kAlpha);
    source.appendOriginNode(kBeta);
    const std::string id = source.msgId();

    const Message moved(std::move(source));

    EXPECT_EQ(id, moved.msgId());
    EXPECT_EQ((Nodes{kAlpha, kBeta}), moved.originNodes());
    EXPECT_EQ(kAppId, moved.appId());
    EXPECT_EQ(kRoutes, moved.pushRoutes());
    EXPECT_EQ(kValidFor, moved.validFor());
    EXPECT_EQ(Message::AckMode::ByNode, moved.ackMode());
}

TEST(MessageTest, MoveConstructionKeepsThePayloadBufferWithoutFreeingIt) {
    FreeRecorder recorder;
    Message source(payloadOf(kBody, kType, recorder.callback()), configWith(kValidFor, kAckMode));
    const Address buffer = addressOf(source.payload());

    const Message moved(std::move(source));

    EXPECT_EQ(buffer, addressOf(moved.payload()));
    EXPECT_TRUE(recorder.freed().empty());
}

TEST(MessageTest, MoveConstructionPassesBufferOwnershipToTheNewMessage) {
    FreeRecorder recorder;
    auto source = std::make_unique<Message>(payloadOf(kBody, kType, recorder.callback()),
                                            configWith(kValidFor, kAckMode));
    const Address buffer = addressOf(source->payload());
    auto moved = std::make_unique<Message>(std::move(*source));

    source.reset();
    moved.reset();

    EXPECT_EQ(std::vector<Address>{buffer}, recorder.freed());
}

TEST(MessageTest, MoveAssignmentKeepsIdOriginNodesAndConfig) {
    Message source = messageWith(kValidFor, Message::AckMode::ByNode);
    source.appendOriginNode(kAlpha);
    source.appendOriginNode(kBeta);
    const std::string id = source.msgId();
    Message target(emptyPayload(),
                   Message::Config(kOtherAppId, Routes{}, 5s, Message::AckMode::Unacknowledged));

    target = std::move(source);

    EXPECT_EQ(id, target.msgId());
    EXPECT_EQ((Nodes{kAlpha, kBeta}), target.originNodes());
    EXPECT_EQ(kAppId, target.appId());
    EXPECT_EQ(kRoutes, target.pushRoutes());
    EXPECT_EQ(kValidFor, target.validFor());
    EXPECT_EQ(Message::AckMode::ByNode, target.ackMode());
}

TEST(MessageTest, MoveAssignmentKeepsThePayloadBufferWithoutFreeingIt) {
    FreeRecorder recorder;
    Message source(payloadOf(kBody, kType, recorder.callback()), configWith(kValidFor, kAckMode));
    const Address buffer = addressOf(source.payload());
    Message target(emptyPayload(), configWith(kValidFor, kAckMode));

    target = std::move(source);

    EXPECT_EQ(buffer, addressOf(target.payload()));
    EXPECT_TRUE(recorder.freed().empty());
}

TEST(MessageTest, MoveAssignmentPassesBufferOwnershipToTheTarget) {
    FreeRecorder recorder;
    auto source = std::make_unique<Message>(payloadOf(kBody, kType, recorder.callback()),
                                            configWith(kValidFor, kAckMode));
    const Address buffer = addressOf(source->payload());
    auto target = std::make_unique<Message>(emptyPayload(), configWith(kValidFor, kAckMode));
    *target = std::move(*source);

    source.reset();
    target.reset();

    EXPECT_EQ(std::vector<Address>{buffer}, recorder.freed());
}

TEST(MessageTest, MoveAssignmentReleasesThePayloadItOverwrites) {
    FreeRecorder recorder;
    Message source = messageWith(kValidFor, kAckMode);
    Message target(payloadOf(kBody, kType, recorder.callback()), configWith(kValidFor, kAckMode));
    const Address overwritten = addressOf(target.payload());

    target = std::move(source);

    EXPECT_EQ(std::vector<Address>{overwritten}, recorder.freed());
}

TEST(MessageTest, MoveAssignmentOntoAMovedFromMessageReleasesNothing) {
    FreeRecorder recorder;
    Message source(payloadOf(kBody, kType, recorder.callback()), configWith(kValidFor, kAckMode));
    Message target(payloadOf(kBody, kType, recorder.callback()), configWith(kValidFor, kAckMode));
    const Address targetBuffer = addressOf(target.payload());
    Message holder(std::move(target));

    target = std::move(source);

    EXPECT_TRUE(recorder.freed().empty());
    EXPECT_EQ(targetBuffer, addressOf(holder.payload()));
}

TEST(MessageTest, MoveAssignmentOntoAPayloadWithoutBufferStillCallsItsFreeCallback) {
    FreeRecorder recorder;
    Message source = messageWith(kValidFor, kAckMode);
    Message target(orvikm::Payload(nullptr, 0, kType, recorder.callback()),
                   configWith(kValidFor, kAckMode));

    target = std::move(source);

    EXPECT_EQ(std::vector<Address>{0}, recorder.freed());
}

TEST(MessageTest, SelfMoveAssignmentKeepsThePayload) {
    FreeRecorder recorder;
    Message message(payloadOf(kBody, kType, recorder.callback()), configWith(kValidFor, kAckMode));
    const Address buffer = addressOf(message.payload());
    Message& alias = message;

    message = std::move(alias);

    EXPECT_TRUE(recorder.freed().empty());
    EXPECT_EQ(buffer, addressOf(message.payload()));
    EXPECT_EQ(kBody, bytesOf(message.payload()));
}

TEST(MessageTest, HeadersAreTheFiveMessageKeysAndThePayloadKeysInKeyOrder) {
    const Message message = plainMessage();

    const HeaderMap headers = message.create_protocol_headers();

    std::vector<std::string> keys;
    for (const auto& entry : headers) {
        keys.push_back(entry.first);
    }
    EXPECT_EQ((std::vector<std::string>{kAckModeKey, kAppIdKey, kIdKey, kOriginKey, kSizeKey,
                                        kTypeKey, kValidForKey}),
              keys);
}

TEST(MessageTest, HeadersCarryTheIdAndAppIdVerbatim) {
    const Message message = plainMessage();

    const HeaderMap headers = message.create_protocol_headers();

    EXPECT_EQ(message.msgId(), headerOf(headers, kIdKey));
    EXPECT_EQ(kAppId, headerOf(headers, kAppIdKey));
}

TEST(MessageTest, HeadersCarryThePayloadSizeAndType) {
    const Message message = plainMessage();

    const HeaderMap headers = message.create_protocol_headers();

    EXPECT_EQ(kBodySizeText, headerOf(headers, kSizeKey));
    EXPECT_EQ(kType, headerOf(headers, kTypeKey));
}

TEST(MessageTest, ValidForIsEncodedAsSignedDecimalSeconds) {
    struct Case {
        std::chrono::seconds validFor;
        std::string text;
    };
    const std::vector<Case> cases = {
        {0s, "0"},
        {30s, kValidForText},
        {-30s, "-30"},
        {std::chrono::seconds(std::numeric_limits<std::int64_t>::max()), kLargestCountText},
        {std::chrono::seconds(std::numeric_limits<std::int64_t>::min()), kSmallestCountText},
    };

    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        const Message message = messageWith(c.validFor, kAckMode);

        const HeaderMap headers = message.create_protocol_headers();

        EXPECT_EQ(c.text, headerOf(headers, kValidForKey));
    }
}

TEST(MessageTest, AckModeIsEncodedAsSignedDecimalWhetherOrNotItNamesAnEnumerator) {
    struct Case {
        Message::AckMode ackMode;
        std::string text;
    };
    const std::vector<Case> cases = {
        {Message::AckMode::Unacknowledged, "0"},
        {Message::AckMode::ByNode, "1"},
        {Message::AckMode::ByReceivers, kAckModeText},
        {static_cast<Message::AckMode>(-7), kAckModeMinus7Text},
        {static_cast<Message::AckMode>(99), kAckMode99Text},
        {static_cast<Message::AckMode>(std::numeric_limits<std::int32_t>::min()), "-2147483648"},
    };

    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        const Message message = messageWith(kValidFor, c.ackMode);

        const HeaderMap headers = message.create_protocol_headers();

        EXPECT_EQ(c.text, headerOf(headers, kAckModeKey));
    }
}

TEST(MessageTest, NoOriginNodesAreEncodedAsALoneComma) {
    const Message message = plainMessage();

    const HeaderMap headers = message.create_protocol_headers();

    EXPECT_EQ(kEmptyOrigin, headerOf(headers, kOriginKey));
}

TEST(MessageTest, EveryOriginNodeIsEncodedFollowedByAComma) {
    Message message = plainMessage();
    message.appendOriginNode(kAlpha);
    message.appendOriginNode(kBeta);

    const HeaderMap headers = message.create_protocol_headers();

    EXPECT_EQ(kAlphaBetaOrigin, headerOf(headers, kOriginKey));
}

TEST(MessageTest, ReceivedMessageTakesItsFieldsFromTheHeaders) {
    HeaderMap headers = receivedHeaders();

    const Message message(payloadOf(kBody, kType), kReceivedRoutes, headers);

    EXPECT_EQ(kAppId, message.appId());
    EXPECT_EQ(kValidFor, message.validFor());
    EXPECT_EQ(Message::AckMode::ByReceivers, message.ackMode());
    EXPECT_EQ((Nodes{kAlpha, kBeta}), message.originNodes());
}

TEST(MessageTest, ReceivedMessageKeepsTheIdFromTheHeaders) {
    HeaderMap headers = receivedHeaders();

    const Message message(payloadOf(kBody, kType), kReceivedRoutes, headers);

    EXPECT_EQ(kReceivedId, message.msgId());
}

TEST(MessageTest, ReceivedMessagePushRoutesAreExactlyTheGivenRoutes) {
    HeaderMap headers = receivedHeaders();

    const Message message(payloadOf(kBody, kType), kReceivedRoutes, headers);

    EXPECT_EQ(kReceivedRoutes, message.pushRoutes());
}

TEST(MessageTest, ReceivedMessageWithoutRoutesHasNoPushRoutes) {
    HeaderMap headers = receivedHeaders();

    const Message message(payloadOf(kBody, kType), Routes{}, headers);

    EXPECT_TRUE(message.pushRoutes().empty());
}

TEST(MessageTest, ReceivedMessageKeepsThePayloadBuffer) {
    FreeRecorder recorder;
    Payload payload = payloadOf(kBody, kType, recorder.callback());
    const Address buffer = addressOf(payload);
    HeaderMap headers = receivedHeaders();

    const Message message(std::move(payload), kReceivedRoutes, headers);

    EXPECT_EQ(buffer, addressOf(message.payload()));
    EXPECT_TRUE(recorder.freed().empty());
}

TEST(MessageTest, DecodingTakesEveryKeyOutOfTheMap) {
    HeaderMap headers = receivedHeaders();

    const Message message(payloadOf(kBody, kType), kReceivedRoutes, headers);

    EXPECT_TRUE(headers.empty());
}

TEST(MessageTest, LoneCommaOriginDecodesToNoNodes) {
    const Message message = receive(receivedHeadersWith(kOriginKey, kEmptyOrigin));

    EXPECT_TRUE(message.originNodes().empty());
}

TEST(MessageTest, OneCharacterOriginDecodesToNoNodes) {
    const Message message = receive(receivedHeadersWith(kOriginKey, kOneCharacterOrigin));

    EXPECT_TRUE(message.originNodes().empty());
}

TEST(MessageTest, EmptyOriginDecodesToNoNodes) {
    const Message message = receive(receivedHeadersWith(kOriginKey, ""));

    EXPECT_TRUE(message.originNodes().empty());
}

TEST(MessageTest, OriginWithATrailingCommaDecodesToEveryNode) {
    const Message message = receive(receivedHeadersWith(kOriginKey, kAlphaBetaOrigin));

    EXPECT_EQ((Nodes{kAlpha, kBeta}), message.originNodes());
}

TEST(MessageTest, OriginTextAfterTheLastCommaIsDiscarded) {
    const Message message = receive(receivedHeadersWith(kOriginKey, kAlphaBetaUnterminated));

    EXPECT_EQ(Nodes{kAlpha}, message.originNodes());
}

TEST(MessageTest, TwoCommasDecodeToTwoEmptyNodes) {
    const Message message = receive(receivedHeadersWith(kOriginKey, kTwoCommas));

    EXPECT_EQ((Nodes{"", ""}), message.originNodes());
}

TEST(MessageTest, DecodedOriginNodesComeAfterThoseAlreadyInTheList) {
    Message message = plainMessage();
    message.appendOriginNode(kGamma);
    HeaderMap headers = receivedHeaders();

    message.handle_protocol_headers(headers);

    EXPECT_EQ((Nodes{kGamma, kAlpha, kBeta}), message.originNodes());
}

TEST(MessageTest, ValidForWithTrailingCharactersDecodesItsDigits) {
    const Message message = receive(receivedHeadersWith(kValidForKey, kValidForWithUnit));

    EXPECT_EQ(30s, message.validFor());
}

TEST(MessageTest, ValidForAcceptsLeadingSpaceAndASign) {
    const Message message = receive(receivedHeadersWith(kValidForKey, kValidForWithSpaceAndSign));

    EXPECT_EQ(-12s, message.validFor());
}

TEST(MessageTest, ValidForDecodesTheLargestSignedCount) {
    const Message message = receive(receivedHeadersWith(kValidForKey, kLargestCountText));

    EXPECT_EQ(std::chrono::seconds(std::numeric_limits<std::int64_t>::max()), message.validFor());
}

TEST(MessageTest, ValidForWithoutDigitsThrowsInvalidArgumentWithoutContext) {
    const std::exception_ptr thrown = decodingErrorOf(receivedHeadersWith(kValidForKey, kNoDigits));

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<std::invalid_argument>(thrown));
    EXPECT_FALSE(isA<orviku::Exception>(thrown));
    EXPECT_EQ(kStoll, whatOf(thrown));
}

TEST(MessageTest, ValidForOverflowThrowsOutOfRangeWithoutContext) {
    const std::exception_ptr thrown =
        decodingErrorOf(receivedHeadersWith(kValidForKey, kCountOverflowText));

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<std::out_of_range>(thrown));
    EXPECT_FALSE(isA<orviku::Exception>(thrown));
    EXPECT_EQ(kStoll, whatOf(thrown));
}

TEST(MessageTest, ValidForIsReadBeforeAckMode) {
    HeaderMap headers = receivedHeadersWith(kValidForKey, kNoDigits);
    headers[kAckModeKey] = kUnreadableAckMode;

    const std::exception_ptr thrown = decodingErrorOf(headers);

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<std::invalid_argument>(thrown));
    EXPECT_EQ(kStoll, whatOf(thrown));
}

TEST(MessageTest, UnreadableAckModeIsAProtocolErrorWithContext) {
    const std::exception_ptr thrown =
        decodingErrorOf(receivedHeadersWith(kAckModeKey, kUnreadableAckMode));

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kAckModeError, whatOf(thrown));
    EXPECT_EQ(Context{kMessageContext}, contextOf(thrown));
}

TEST(MessageTest, AckModeOutOfIntRangeIsAProtocolErrorWithContext) {
    const std::exception_ptr thrown =
        decodingErrorOf(receivedHeadersWith(kAckModeKey, kAckModeOverflowText));

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kAckModeError, whatOf(thrown));
    EXPECT_EQ(Context{kMessageContext}, contextOf(thrown));
}

TEST(MessageTest, AckModeOutsideTheEnumeratorsIsAccepted) {
    const Message message = receive(receivedHeadersWith(kAckModeKey, kAckMode99Text));

    EXPECT_EQ(static_cast<Message::AckMode>(99), message.ackMode());
}

TEST(MessageTest, NegativeAckModeIsAccepted) {
    const Message message = receive(receivedHeadersWith(kAckModeKey, kAckModeMinus7Text));

    EXPECT_EQ(static_cast<Message::AckMode>(-7), message.ackMode());
}

TEST(MessageTest, MissingIdIsReportedEvenWhenAppIdIsMissingToo) {
    const std::exception_ptr thrown = decodingErrorOf(receivedHeadersWithout({kIdKey, kAppIdKey}));

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kMissingId, whatOf(thrown));
    EXPECT_EQ(Context{kMessageContext}, contextOf(thrown));
}

TEST(MessageTest, MissingAppIdIsReportedBeforeMissingValidFor) {
    const std::exception_ptr thrown =
        decodingErrorOf(receivedHeadersWithout({kAppIdKey, kValidForKey}));

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kMissingAppId, whatOf(thrown));
    EXPECT_EQ(Context{kMessageContext}, contextOf(thrown));
}

TEST(MessageTest, MissingValidForIsReportedBeforeMissingAckMode) {
    const std::exception_ptr thrown =
        decodingErrorOf(receivedHeadersWithout({kValidForKey, kAckModeKey}));

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kMissingValidFor, whatOf(thrown));
    EXPECT_EQ(Context{kMessageContext}, contextOf(thrown));
}

TEST(MessageTest, MissingAckModeIsReportedBeforeMissingOrigin) {
    const std::exception_ptr thrown =
        decodingErrorOf(receivedHeadersWithout({kAckModeKey, kOriginKey}));

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kMissingAckMode, whatOf(thrown));
    EXPECT_EQ(Context{kMessageContext}, contextOf(thrown));
}

TEST(MessageTest, MissingOriginIsReported) {
    const std::exception_ptr thrown = decodingErrorOf(receivedHeadersWithout({kOriginKey}));

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kMissingOrigin, whatOf(thrown));
    EXPECT_EQ(Context{kMessageContext}, contextOf(thrown));
}

TEST(MessageTest, MissingKeyIsReportedBeforeLeftoverHeaders) {
    HeaderMap headers = receivedHeadersWithout({kOriginKey});
    headers[kExtraKey] = kExtraValue;

    const std::exception_ptr thrown = decodingErrorOf(headers);

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kMissingOrigin, whatOf(thrown));
    EXPECT_EQ(Context{kMessageContext}, contextOf(thrown));
}

TEST(MessageTest, LeftoverHeadersAreListedWithContext) {
    const std::exception_ptr thrown = decodingErrorOf(receivedHeadersWith(kExtraKey, kExtraValue));

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kLeftoverExtra, whatOf(thrown));
    EXPECT_EQ(Context{kMessageContext}, contextOf(thrown));
}

TEST(MessageTest, PayloadHeadersLeftInTheMapAreRejectedAsLeftovers) {
    HeaderMap headers = receivedHeaders();
    headers[kSizeKey] = kBodySizeText;
    headers[kTypeKey] = kType;

    const std::exception_ptr thrown = decodingErrorOf(headers);

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kLeftoverPayloadHeaders, whatOf(thrown));
    EXPECT_EQ(Context{kMessageContext}, contextOf(thrown));
}

TEST(MessageTest, ReceivingConstructorThatFailsReleasesThePayloadOnce) {
    FreeRecorder recorder;
    Payload payload = payloadOf(kBody, kType, recorder.callback());
    const Address buffer = addressOf(payload);
    HeaderMap headers = receivedHeadersWithout({kOriginKey});

    const std::exception_ptr thrown =
        thrownBy([&] { const Message message(std::move(payload), kReceivedRoutes, headers); });

    ASSERT_TRUE(thrown);
    EXPECT_EQ(std::vector<Address>{buffer}, recorder.freed());
}

TEST(MessageTest, RoundTripThroughHeadersYieldsAnEqualMessage) {
    Message sent(payloadOf(kBody, kType),
                 Message::Config(kAppId, kRoutes, -45s, static_cast<Message::AckMode>(-7)));
    sent.appendOriginNode(kAlpha);
    sent.appendOriginNode(kBeta);
    HeaderMap headers = sent.create_protocol_headers();
    headers.erase(kSizeKey);
    headers.erase(kTypeKey);

    const Message received(Payload(sent.payload()), sent.pushRoutes(), headers);

    EXPECT_EQ(sent.msgId(), received.msgId());
    EXPECT_EQ(sent.appId(), received.appId());
    EXPECT_EQ(sent.validFor(), received.validFor());
    EXPECT_EQ(sent.ackMode(), received.ackMode());
    EXPECT_EQ(sent.originNodes(), received.originNodes());
    EXPECT_EQ(sent.pushRoutes(), received.pushRoutes());
    EXPECT_EQ(bytesOf(sent.payload()), bytesOf(received.payload()));
    EXPECT_EQ(sent.payload().type(), received.payload().type());
}

TEST(MessageTest, RoundTripOfAMessageWithoutOriginNodesKeepsTheListEmpty) {
    const Message sent = plainMessage();
    HeaderMap headers = sent.create_protocol_headers();
    headers.erase(kSizeKey);
    headers.erase(kTypeKey);

    const Message received(Payload(sent.payload()), sent.pushRoutes(), headers);

    EXPECT_TRUE(received.originNodes().empty());
}

// The queue moves messages while it reorders them; a move that could throw
// would make containers copy, and a copy gets a new id.
TEST(MessageTest, MovesNeverThrow) {
    EXPECT_TRUE(std::is_nothrow_move_constructible_v<Message>);
    EXPECT_TRUE(std::is_nothrow_move_assignable_v<Message>);
}

}  // namespace
