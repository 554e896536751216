#include <orvikm/control_requests.hpp>
#include <orvikm/registry.hpp>

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/errors.hpp>
#include <orvikm/payload.hpp>
#include <orviku/exception.hpp>

#include "support/error_capture.hpp"
#include "support/payload_helpers.hpp"

namespace {

using orvikm::Payload;
using orvikm::Registry;
using orvikm::internal_objects::Ack;
using orvikm::internal_objects::GetRegistry;
using orvikm::internal_objects::HeaderMap;
using orvikm::internal_objects::Inbox;
using orvikm::internal_objects::InboxType;
using orvikm::internal_objects::Request;

using testsupport::Address;
using testsupport::addressOf;
using testsupport::contextOf;
using testsupport::FreeRecorder;
using testsupport::isA;
using testsupport::payloadOf;
using testsupport::thrownBy;
using testsupport::whatOf;

using Context = std::vector<std::string>;

const std::string kInboxWireName = "BOX";
const std::string kGetRegistryWireName = "GREG";
const std::string kAckWireName = "ACK";
const std::string kRegistryWireName = "REG";

const std::string kAppIdKey = "app_id";
const std::string kBoxTypeKey = "box_type";
const std::string kClientValue = "clnt";
const std::string kNodeValue = "node";
const std::string kCapitalisedNode = "Node";
const std::string kMsgIdKey = "msg_id";
const std::string kSizeKey = "p_size";
const std::string kTypeKey = "p_type";

const std::string kAppId = "weather-station";
const std::string kOtherAppId = "rain-gauge";
const std::string kMessageId = "3f0c5a0e-8d21-4c43-9a9e-0d6b7c1e2f44";
const std::string kOtherMessageId = "an older id";
const std::string kBody = "node-a=5555;node-b=5556";
const std::string kBodySizeText = "23";
const std::string kType = "registry/v1";
const std::string kSurplusKeyA = "a";
const std::string kSurplusValueA = "1";
const std::string kSurplusKeyB = "b";
const std::string kSurplusValueB = "2";

const std::string kInboxContext = "While trying to decode headers for Inbox";
const std::string kGetRegistryContext = "While trying to decode headers for GetRegistry request";
const std::string kAckContext = "While trying to decode headers for Ack";
const std::string kRegistryContext = "While trying to decode headers for Registry request";

const std::string kMissingAppId = "Expected \"app_id\" header.";
const std::string kMissingBoxType = "Expected \"box_type\" header.";
const std::string kMissingMsgId = "Expected \"msg_id\" header.";
const std::string kUnknownCapitalisedNode = "Unknown inbox type specified in headers... Node";
const std::string kUnknownEmptyType = "Unknown inbox type specified in headers... ";
const std::string kInboxLeftovers =
    "Did not expect more headers for request \"BOX\". Unexpected headers are: (a|1)(b|2)";
const std::string kGetRegistryLeftovers =
    "Did not expect more headers for request \"GREG\". Unexpected headers are: (a|1)(b|2)";
const std::string kAckLeftovers =
    "Did not expect more headers for request \"ACK\". Unexpected headers are: (a|1)";
const std::string kRegistryTypeLeftover =
    "Did not expect more headers for request \"REG\". Unexpected headers are: "
    "(p_type|registry/v1)";

HeaderMap inboxHeaders(const std::string& boxType) {
    return HeaderMap{{kAppIdKey, kAppId}, {kBoxTypeKey, boxType}};
}

HeaderMap surplusHeaders() {
    return HeaderMap{{kSurplusKeyA, kSurplusValueA}, {kSurplusKeyB, kSurplusValueB}};
}

std::exception_ptr inboxErrorOf(HeaderMap headers) {
    return thrownBy([&headers] { const Inbox inbox(headers); });
}

std::exception_ptr ackErrorOf(HeaderMap headers) {
    return thrownBy([&headers] { const Ack ack(headers); });
}

std::string wireNameThroughRequest(const Request& request) {
    return request.wireName();
}

}  // namespace

// Inbox

TEST(InboxTest, WireNameIsBOX) {
    EXPECT_EQ(kInboxWireName, Inbox::_wire_name);
}

TEST(InboxTest, WireNameThroughTheRequestBaseIsBOX) {
    const Inbox inbox(kAppId, InboxType::Client);

    const std::string name = wireNameThroughRequest(inbox);

    EXPECT_EQ(kInboxWireName, name);
}

TEST(InboxTest, ConstructorKeepsAppIdAndType) {
    const Inbox inbox(kAppId, InboxType::Node);

    EXPECT_EQ(kAppId, inbox.appId());
    EXPECT_EQ(InboxType::Node, inbox.type());
}

TEST(InboxTest, InboxTypeValuesAreZeroForClientAndOneForNode) {
    EXPECT_EQ(0, static_cast<std::int32_t>(InboxType::Client));
    EXPECT_EQ(1, static_cast<std::int32_t>(InboxType::Node));
}

TEST(InboxTest, ClientInboxEncodesTheAppIdAndClnt) {
    const Inbox inbox(kAppId, InboxType::Client);

    const HeaderMap headers = inbox.create_protocol_headers();

    EXPECT_EQ(inboxHeaders(kClientValue), headers);
}

TEST(InboxTest, NodeInboxEncodesNode) {
    const Inbox inbox(kAppId, InboxType::Node);

    const HeaderMap headers = inbox.create_protocol_headers();

    EXPECT_EQ(inboxHeaders(kNodeValue), headers);
}

TEST(InboxTest, TypeOutsideTheEnumeratorsEncodesAsNode) {
    const Inbox inbox(kAppId, static_cast<InboxType>(7));

    const HeaderMap headers = inbox.create_protocol_headers();

    EXPECT_EQ(inboxHeaders(kNodeValue), headers);
}

TEST(InboxTest, DecodingClientHeadersYieldsAnEqualInbox) {
    const Inbox sent(kAppId, InboxType::Client);
    HeaderMap headers = sent.create_protocol_headers();

    const Inbox received(headers);

    EXPECT_EQ(sent.appId(), received.appId());
    EXPECT_EQ(sent.type(), received.type());
}

TEST(InboxTest, DecodingNodeHeadersYieldsTheNodeType) {
    HeaderMap headers = inboxHeaders(kNodeValue);

    const Inbox received(headers);

    EXPECT_EQ(kAppId, received.appId());
    EXPECT_EQ(InboxType::Node, received.type());
}

TEST(InboxTest, DecodingLeavesTheMapEmpty) {
    HeaderMap headers = inboxHeaders(kClientValue);

    const Inbox received(headers);

    EXPECT_TRUE(headers.empty());
}

TEST(InboxTest, MissingAppIdIsReportedWithContext) {
    const std::exception_ptr thrown = inboxErrorOf(HeaderMap{{kBoxTypeKey, kClientValue}});

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kMissingAppId, whatOf(thrown));
    EXPECT_EQ(Context{kInboxContext}, contextOf(thrown));
}

TEST(InboxTest, MissingAppIdIsReportedEvenWhenBoxTypeIsMissingToo) {
    const std::exception_ptr thrown = inboxErrorOf(surplusHeaders());

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kMissingAppId, whatOf(thrown));
    EXPECT_EQ(Context{kInboxContext}, contextOf(thrown));
}

TEST(InboxTest, MissingBoxTypeIsReportedWithContext) {
    const std::exception_ptr thrown = inboxErrorOf(HeaderMap{{kAppIdKey, kAppId}});

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kMissingBoxType, whatOf(thrown));
    EXPECT_EQ(Context{kInboxContext}, contextOf(thrown));
}

TEST(InboxTest, MissingBoxTypeIsReportedBeforeSurplusKeys) {
    HeaderMap headers = surplusHeaders();
    headers[kAppIdKey] = kAppId;

    const std::exception_ptr thrown = inboxErrorOf(headers);

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kMissingBoxType, whatOf(thrown));
    EXPECT_EQ(Context{kInboxContext}, contextOf(thrown));
}

TEST(InboxTest, CapitalisedNodeIsAnUnknownInboxType) {
    const std::exception_ptr thrown = inboxErrorOf(inboxHeaders(kCapitalisedNode));

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kUnknownCapitalisedNode, whatOf(thrown));
    EXPECT_EQ(Context{kInboxContext}, contextOf(thrown));
}

TEST(InboxTest, EmptyTypeIsAnUnknownInboxType) {
    const std::exception_ptr thrown = inboxErrorOf(inboxHeaders(""));

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kUnknownEmptyType, whatOf(thrown));
    EXPECT_EQ(Context{kInboxContext}, contextOf(thrown));
}

TEST(InboxTest, UnknownTypeIsReportedBeforeSurplusKeys) {
    HeaderMap headers = surplusHeaders();
    headers.merge(inboxHeaders(kCapitalisedNode));

    const std::exception_ptr thrown = inboxErrorOf(headers);

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kUnknownCapitalisedNode, whatOf(thrown));
    EXPECT_EQ(Context{kInboxContext}, contextOf(thrown));
}

TEST(InboxTest, SurplusKeysAreListedWithContext) {
    HeaderMap headers = surplusHeaders();
    headers.merge(inboxHeaders(kClientValue));

    const std::exception_ptr thrown = inboxErrorOf(headers);

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kInboxLeftovers, whatOf(thrown));
    EXPECT_EQ(Context{kInboxContext}, contextOf(thrown));
}

TEST(InboxTest, FailedDecodingKeepsTheMembersAssignedBeforeTheFailure) {
    Inbox inbox(kOtherAppId, InboxType::Node);
    HeaderMap headers{{kAppIdKey, kAppId}, {kBoxTypeKey, kCapitalisedNode}};

    const std::exception_ptr thrown = thrownBy([&] { inbox.handle_protocol_headers(headers); });

    ASSERT_TRUE(thrown);
    EXPECT_EQ(kAppId, inbox.appId());
    EXPECT_EQ(InboxType::Node, inbox.type());
}

// GetRegistry

TEST(GetRegistryTest, WireNameIsGREG) {
    EXPECT_EQ(kGetRegistryWireName, GetRegistry::_wire_name);
}

TEST(GetRegistryTest, WireNameThroughTheRequestBaseIsGREG) {
    const GetRegistry request;

    const std::string name = wireNameThroughRequest(request);

    EXPECT_EQ(kGetRegistryWireName, name);
}

TEST(GetRegistryTest, HasNoHeaders) {
    const GetRegistry request;

    const HeaderMap headers = request.create_protocol_headers();

    EXPECT_TRUE(headers.empty());
}

TEST(GetRegistryTest, DecodingAnEmptyMapSucceeds) {
    const HeaderMap headers;

    const std::exception_ptr thrown = thrownBy([&] { const GetRegistry request(headers); });

    EXPECT_FALSE(thrown);
}

TEST(GetRegistryTest, AnyHeaderIsRejectedWithContext) {
    const HeaderMap headers = surplusHeaders();

    const std::exception_ptr thrown = thrownBy([&] { const GetRegistry request(headers); });

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kGetRegistryLeftovers, whatOf(thrown));
    EXPECT_EQ(Context{kGetRegistryContext}, contextOf(thrown));
}

TEST(GetRegistryTest, RejectingHeadersLeavesTheCallersMapUnchanged) {
    HeaderMap headers = surplusHeaders();

    const std::exception_ptr thrown = thrownBy([&] { const GetRegistry request(headers); });

    ASSERT_TRUE(thrown);
    EXPECT_EQ(surplusHeaders(), headers);
}

TEST(GetRegistryTest, HandleProtocolHeadersAddsNoContext) {
    GetRegistry request;
    HeaderMap headers = surplusHeaders();

    const std::exception_ptr thrown = thrownBy([&] { request.handle_protocol_headers(headers); });

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kGetRegistryLeftovers, whatOf(thrown));
    EXPECT_TRUE(contextOf(thrown).empty());
}

// Ack

TEST(AckTest, WireNameIsACK) {
    EXPECT_EQ(kAckWireName, Ack::_wire_name);
}

TEST(AckTest, WireNameThroughTheRequestBaseIsACK) {
    const Ack ack(kMessageId);

    const std::string name = wireNameThroughRequest(ack);

    EXPECT_EQ(kAckWireName, name);
}

TEST(AckTest, ConstructorKeepsTheMessageId) {
    const Ack ack(kMessageId);

    EXPECT_EQ(kMessageId, ack.messageId());
}

TEST(AckTest, EncodesExactlyTheMessageIdAsMsgId) {
    const Ack ack(kMessageId);

    const HeaderMap headers = ack.create_protocol_headers();

    EXPECT_EQ((HeaderMap{{kMsgIdKey, kMessageId}}), headers);
}

TEST(AckTest, EmptyIdEncodesAnEmptyMsgId) {
    const Ack ack(std::string{});

    const HeaderMap headers = ack.create_protocol_headers();

    EXPECT_EQ((HeaderMap{{kMsgIdKey, ""}}), headers);
}

TEST(AckTest, EmptyMsgIdDecodesToAnEmptyId) {
    HeaderMap headers{{kMsgIdKey, ""}};

    const Ack ack(headers);

    EXPECT_TRUE(ack.messageId().empty());
}

TEST(AckTest, DecodingYieldsTheMessageId) {
    HeaderMap headers = Ack(kMessageId).create_protocol_headers();

    const Ack ack(headers);

    EXPECT_EQ(kMessageId, ack.messageId());
}

TEST(AckTest, DecodingLeavesTheMapEmpty) {
    HeaderMap headers{{kMsgIdKey, kMessageId}};

    const Ack ack(headers);

    EXPECT_TRUE(headers.empty());
}

TEST(AckTest, MissingMsgIdIsReportedWithContext) {
    const std::exception_ptr thrown = ackErrorOf(surplusHeaders());

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kMissingMsgId, whatOf(thrown));
    EXPECT_EQ(Context{kAckContext}, contextOf(thrown));
}

TEST(AckTest, SurplusKeysAreListedWithContext) {
    const std::exception_ptr thrown =
        ackErrorOf(HeaderMap{{kMsgIdKey, kMessageId}, {kSurplusKeyA, kSurplusValueA}});

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kAckLeftovers, whatOf(thrown));
    EXPECT_EQ(Context{kAckContext}, contextOf(thrown));
}

TEST(AckTest, FailedDecodingKeepsTheIdTakenBeforeTheFailure) {
    Ack ack(kOtherMessageId);
    HeaderMap headers{{kMsgIdKey, kMessageId}, {kSurplusKeyA, kSurplusValueA}};

    const std::exception_ptr thrown = thrownBy([&] { ack.handle_protocol_headers(headers); });

    ASSERT_TRUE(thrown);
    EXPECT_EQ(kMessageId, ack.messageId());
}

// Registry

TEST(RegistryTest, WireNameIsREG) {
    EXPECT_EQ(kRegistryWireName, Registry::_wire_name);
}

TEST(RegistryTest, WireNameThroughTheRequestBaseIsREG) {
    const Registry registry(payloadOf(kBody, kType));

    const std::string name = wireNameThroughRequest(registry);

    EXPECT_EQ(kRegistryWireName, name);
}

TEST(RegistryTest, HeadersAreExactlyThePayloadSizeAndType) {
    const Registry registry(payloadOf(kBody, kType));

    const HeaderMap headers = registry.create_protocol_headers();

    EXPECT_EQ((HeaderMap{{kSizeKey, kBodySizeText}, {kTypeKey, kType}}), headers);
}

TEST(RegistryTest, RegistryKeepsThePayloadBufferWithoutCopyingIt) {
    FreeRecorder recorder;
    Payload payload = payloadOf(kBody, kType, recorder.callback());
    const Address buffer = addressOf(payload);

    const Registry registry(std::move(payload));

    EXPECT_EQ(buffer, addressOf(registry.payload()));
    EXPECT_TRUE(recorder.freed().empty());
}

TEST(RegistryTest, DecodingAnEmptyMapKeepsThePayload) {
    FreeRecorder recorder;
    Payload payload = payloadOf(kBody, kType, recorder.callback());
    const Address buffer = addressOf(payload);
    HeaderMap headers;

    const Registry registry(std::move(payload), headers);

    EXPECT_EQ(buffer, addressOf(registry.payload()));
    EXPECT_EQ(kType, registry.payload().type());
    EXPECT_TRUE(recorder.freed().empty());
}

TEST(RegistryTest, MapStillHoldingPayloadTypeIsRejectedWithContext) {
    HeaderMap headers{{kTypeKey, kType}};

    const std::exception_ptr thrown =
        thrownBy([&] { const Registry registry(payloadOf(kBody, kType), headers); });

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kRegistryTypeLeftover, whatOf(thrown));
    EXPECT_EQ(Context{kRegistryContext}, contextOf(thrown));
}

TEST(RegistryTest, HandleProtocolHeadersAddsTheRegistryContext) {
    Registry registry(payloadOf(kBody, kType));
    HeaderMap headers{{kTypeKey, kType}};

    const std::exception_ptr thrown = thrownBy([&] { registry.handle_protocol_headers(headers); });

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::ProtocolError>(thrown));
    EXPECT_EQ(kRegistryTypeLeftover, whatOf(thrown));
    EXPECT_EQ(Context{kRegistryContext}, contextOf(thrown));
}

TEST(RegistryTest, FailingConstructorReleasesThePayloadOnce) {
    FreeRecorder recorder;
    Payload payload = payloadOf(kBody, kType, recorder.callback());
    const Address buffer = addressOf(payload);
    HeaderMap headers{{kTypeKey, kType}};

    const std::exception_ptr thrown =
        thrownBy([&] { const Registry registry(std::move(payload), headers); });

    ASSERT_TRUE(thrown);
    EXPECT_EQ(std::vector<Address>{buffer}, recorder.freed());
}

TEST(RegistryTest, DestroyingARegistryFreesItsPayloadOnce) {
    FreeRecorder recorder;
    auto registry = std::make_unique<Registry>(payloadOf(kBody, kType, recorder.callback()));
    const Address buffer = addressOf(registry->payload());

    registry.reset();

    EXPECT_EQ(std::vector<Address>{buffer}, recorder.freed());
}
