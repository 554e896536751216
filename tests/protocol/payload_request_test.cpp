#include <orvikm/payload_request.hpp>

#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <orvikm/errors.hpp>
#include <orvikm/payload.hpp>

#include "support/payload_helpers.hpp"

namespace {

using orvikm::Payload;
using orvikm::internal_objects::HeaderMap;
using orvikm::internal_objects::PayloadRequest;
using testsupport::bufferWith;
using testsupport::FreeLog;

const std::string kSizeKey = "p_size";
const std::string kTypeKey = "p_type";
const char* const kBodyName = "BODY";
const std::string kType = "text/plain";
const std::string kTypeWithOddCharacters = "a|b c\n\xc3\xa9";
const std::string kBody = "hello";
const std::string kZeroSizeText = "0";
const std::string kFiveSizeText = "5";
const std::string kThousandSizeText = "1000";
const std::string kLargestSizeText = "4294967295";
const std::string kLeftoverPType =
    "Did not expect more headers for request \"BODY\". Unexpected headers are: (p_type|text/plain)";
const std::string kLeftoverBoth =
    "Did not expect more headers for request \"BODY\". Unexpected headers are: "
    "(p_size|5)(p_type|text/plain)";

// The smallest concrete payload request: named "BODY", no headers of its own.
class BodyRequest : public PayloadRequest {
public:
    using PayloadRequest::PayloadRequest;

    const char* wireName() const override { return kBodyName; }
};

// A payload that claims size bytes without having any: for sizes too large to
// allocate, in tests that never touch the body.
Payload bodilessPayload(unsigned size, const std::string& type) {
    return Payload(nullptr, size, type, Payload::FreeCallback());
}

std::string leftoverMessage(PayloadRequest& request, HeaderMap& headers) {
    try {
        request.handle_protocol_headers(headers);
    } catch (const orvikm::ProtocolError& error) {
        return error.what();
    }
    return std::string();
}

}  // namespace

TEST(PayloadRequestTest, SizeHeaderKeyIsPSize) {
    EXPECT_EQ(std::string(PayloadRequest::_payload_sz_hdr_key), kSizeKey);
}

TEST(PayloadRequestTest, TypeHeaderKeyIsPType) {
    EXPECT_EQ(std::string(PayloadRequest::_payload_type_hdr_key), kTypeKey);
}

TEST(PayloadRequestTest, CreateProtocolHeadersHoldsExactlySizeAndType) {
    const BodyRequest request(Payload(5, kType));

    const HeaderMap headers = request.create_protocol_headers();

    EXPECT_EQ(headers, (HeaderMap{{kSizeKey, kFiveSizeText}, {kTypeKey, kType}}));
}

TEST(PayloadRequestTest, EmptyBodyWithEmptyTypeGivesSizeZeroAndAnEmptyType) {
    const BodyRequest request(Payload(0, ""));

    const HeaderMap headers = request.create_protocol_headers();

    EXPECT_EQ(headers, (HeaderMap{{kSizeKey, kZeroSizeText}, {kTypeKey, ""}}));
}

TEST(PayloadRequestTest, LargestSizeIsWrittenInFullAsUnsignedDecimal) {
    const BodyRequest request(bodilessPayload(std::numeric_limits<unsigned>::max(), kType));

    const HeaderMap headers = request.create_protocol_headers();

    EXPECT_EQ(headers.at(kSizeKey), kLargestSizeText);
}

TEST(PayloadRequestTest, SizeIsWrittenWithoutLeadingZerosOrPadding) {
    const BodyRequest request(Payload(1000, kType));

    const HeaderMap headers = request.create_protocol_headers();

    EXPECT_EQ(headers.at(kSizeKey), kThousandSizeText);
}

TEST(PayloadRequestTest, TypeIsWrittenVerbatim) {
    const BodyRequest request(Payload(5, kTypeWithOddCharacters));

    const HeaderMap headers = request.create_protocol_headers();

    EXPECT_EQ(headers.at(kTypeKey), kTypeWithOddCharacters);
}

TEST(PayloadRequestTest, HeadersFollowAPayloadReplacedAfterConstruction) {
    BodyRequest request(bodilessPayload(5, kType));
    request.payload() = Payload(0, "");

    const HeaderMap headers = request.create_protocol_headers();

    EXPECT_EQ(headers, (HeaderMap{{kSizeKey, kZeroSizeText}, {kTypeKey, ""}}));
}

TEST(PayloadRequestTest, HandleProtocolHeadersOnAnEmptyMapReturnsNormally) {
    BodyRequest request(Payload(5, kType));
    HeaderMap headers;

    EXPECT_NO_THROW(request.handle_protocol_headers(headers));
}

TEST(PayloadRequestTest, HandleProtocolHeadersRejectsALeftoverTypeHeader) {
    BodyRequest request(Payload(5, kType));
    HeaderMap headers{{kTypeKey, kType}};

    const std::string message = leftoverMessage(request, headers);

    EXPECT_EQ(message, kLeftoverPType);
}

TEST(PayloadRequestTest, HandleProtocolHeadersConsumesNoKey) {
    BodyRequest request(Payload(5, kType));
    HeaderMap headers = request.create_protocol_headers();

    const std::string message = leftoverMessage(request, headers);

    EXPECT_EQ(message, kLeftoverBoth);
}

TEST(PayloadRequestTest, HandleProtocolHeadersClearsARejectedMap) {
    BodyRequest request(Payload(5, kType));
    HeaderMap headers{{kTypeKey, kType}};

    leftoverMessage(request, headers);

    EXPECT_TRUE(headers.empty());
}

TEST(PayloadRequestTest, ConstructorTakesTheBufferWithoutCopying) {
    auto buffer = bufferWith(kBody);
    Payload payload(buffer.get(), kBody.size(), kType, Payload::FreeCallback());

    const BodyRequest request(std::move(payload));

    EXPECT_EQ(request.payload().getBuffer(), buffer.get());
}

TEST(PayloadRequestTest, ConstructorKeepsTheSizeAndType) {
    auto buffer = bufferWith(kBody);
    Payload payload(buffer.get(), kBody.size(), kType, Payload::FreeCallback());

    const BodyRequest request(std::move(payload));

    EXPECT_EQ(request.payload().size(), kBody.size());
    EXPECT_EQ(request.payload().type(), kType);
}

TEST(PayloadRequestTest, DestroyingTheRequestCallsTheMovedInFreeCallbackOnce) {
    auto buffer = bufferWith(kBody);
    FreeLog frees;
    Payload payload(buffer.get(), kBody.size(), kType, frees.callback());

    { const BodyRequest request(std::move(payload)); }

    EXPECT_EQ(frees.calls, std::vector<char*>{buffer.get()});
}

TEST(PayloadRequestTest, DestroyingThePayloadMovedIntoARequestCallsNothing) {
    auto buffer = bufferWith(kBody);
    FreeLog frees;
    auto payload = std::make_unique<Payload>(buffer.get(), kBody.size(), kType, frees.callback());
    const BodyRequest request(std::move(*payload));

    payload.reset();

    EXPECT_TRUE(frees.calls.empty());
}

TEST(PayloadRequestTest, ConstPayloadIsTheSameMember) {
    BodyRequest request(Payload(5, kType));

    const BodyRequest& constRequest = request;

    EXPECT_EQ(&constRequest.payload(), &request.payload());
}

TEST(PayloadRequestTest, ReleasingThePayloadKeepsTheRequestFromFreeingIt) {
    auto buffer = bufferWith(kBody);
    FreeLog frees;

    {
        BodyRequest request(Payload(buffer.get(), kBody.size(), kType, frees.callback()));
        request.payload().release();
    }

    EXPECT_TRUE(frees.calls.empty());
}

TEST(PayloadRequestTest, DeletingThroughARequestPointerFreesThePayload) {
    auto buffer = bufferWith(kBody);
    FreeLog frees;
    std::unique_ptr<orvikm::internal_objects::Request> request =
        std::make_unique<BodyRequest>(Payload(buffer.get(), kBody.size(), kType, frees.callback()));

    request.reset();

    EXPECT_EQ(frees.calls, std::vector<char*>{buffer.get()});
}
