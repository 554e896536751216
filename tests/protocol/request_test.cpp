#include <orvikm/request.hpp>

#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>
#include <orvikm/errors.hpp>
#include <orviku/exception.hpp>

namespace {

using orvikm::internal_objects::HeaderMap;
using orvikm::internal_objects::Request;

const char kSeparator = '|';
const char* const kBoxName = "BOX";
const char* const kInnerName = "INNER";
const std::string kIdKey = "id";
const std::string kMissingKey = "key";
const std::string kValue = "v1";

const std::string kLeftoverTwoEntries =
    "Did not expect more headers for request \"BOX\". Unexpected headers are: (a|1)(b|2)";
const std::string kLeftoverEmptyValue =
    "Did not expect more headers for request \"BOX\". Unexpected headers are: (key|)";
const std::string kLeftoverKeyWithSeparator =
    "Did not expect more headers for request \"BOX\". Unexpected headers are: (a|b|v)";
const std::string kLeftoverAfterId =
    "Did not expect more headers for request \"BOX\". Unexpected headers are: (extra|x)";
const std::string kMissingKeyMessage = "Expected \"key\" header.";

// A request without fields of its own, named "BOX" on the wire.
class BoxRequest : public Request {
public:
    const char* wireName() const override { return kBoxName; }
    HeaderMap create_protocol_headers() const override { return HeaderMap(); }
};

// A request named "INNER" whose subclass renames it: the leftover check must
// name the most derived class.
class InnerRequest : public Request {
public:
    const char* wireName() const override { return kInnerName; }
    HeaderMap create_protocol_headers() const override { return HeaderMap(); }
};

class OuterBoxRequest : public InnerRequest {
public:
    const char* wireName() const override { return kBoxName; }
};

// A request that claims one key, "id", and leaves the rest to the base, the
// way every concrete request decodes.
class IdRequest : public Request {
public:
    const char* wireName() const override { return kBoxName; }
    HeaderMap create_protocol_headers() const override { return HeaderMap(); }
    void handle_protocol_headers(HeaderMap& headers) override {
        move_from_headers(headers, kIdKey);
        Request::handle_protocol_headers(headers);
    }
};

// A request that requires "id" and then "key", to show what a missing second
// key leaves behind.
class IdThenKeyRequest : public BoxRequest {
public:
    void handle_protocol_headers(HeaderMap& headers) override {
        move_from_headers(headers, kIdKey);
        move_from_headers(headers, kMissingKey);
        Request::handle_protocol_headers(headers);
    }
};

// Sets a flag when its own destructor runs.
class TracingRequest : public BoxRequest {
public:
    explicit TracingRequest(bool& destroyed) : _destroyed(destroyed) {}
    ~TracingRequest() override { _destroyed = true; }

private:
    bool& _destroyed;
};

// Runs the leftover check of request on headers and returns the message of
// the ProtocolError it throws, or an empty string when it throws none.
std::string leftoverMessage(Request& request, HeaderMap& headers) {
    try {
        request.handle_protocol_headers(headers);
    } catch (const orvikm::ProtocolError& error) {
        return error.what();
    }
    return std::string();
}

std::string missingKeyMessage(HeaderMap& headers, const std::string& key) {
    try {
        Request::move_from_headers(headers, key);
    } catch (const orvikm::ProtocolError& error) {
        return error.what();
    }
    return std::string();
}

}  // namespace

TEST(RequestTest, HeaderMapIsAnOrderedMapOfStrings) {
    const bool isStdMap = std::is_same_v<HeaderMap, std::map<std::string, std::string>>;

    EXPECT_TRUE(isStdMap);
}

TEST(RequestTest, HeaderMapIteratesInByteWiseKeyOrder) {
    const HeaderMap headers{{"a", ""}, {"\xc3\xa9", ""}, {"B", ""}, {"_", ""}, {"ab", ""}};
    std::vector<std::string> keys;

    for (const auto& entry : headers) {
        keys.push_back(entry.first);
    }

    EXPECT_EQ(keys, (std::vector<std::string>{"B", "_", "a", "ab", "\xc3\xa9"}));
}

TEST(RequestTest, HeaderSeparatorIsThePipeCharacter) {
    EXPECT_EQ(Request::_hdr_sep, kSeparator);
}

TEST(RequestTest, LeftoverCheckOnAnEmptyMapReturnsNormally) {
    BoxRequest request;
    HeaderMap headers;

    EXPECT_NO_THROW(request.handle_protocol_headers(headers));
}

TEST(RequestTest, LeftoverCheckThrowsProtocolErrorWhenAKeyIsLeft) {
    BoxRequest request;
    HeaderMap headers{{"a", "1"}};

    EXPECT_THROW(request.handle_protocol_headers(headers), orvikm::ProtocolError);
}

TEST(RequestTest, LeftoverErrorIsCaughtAsAnOrvikuException) {
    BoxRequest request;
    HeaderMap headers{{"a", "1"}};

    EXPECT_THROW(request.handle_protocol_headers(headers), orviku::Exception);
}

TEST(RequestTest, LeftoverCheckListsEveryEntryInKeyOrder) {
    BoxRequest request;
    HeaderMap headers{{"b", "2"}, {"a", "1"}};

    const std::string message = leftoverMessage(request, headers);

    EXPECT_EQ(message, kLeftoverTwoEntries);
}

TEST(RequestTest, LeftoverCheckClearsTheMap) {
    BoxRequest request;
    HeaderMap headers{{"b", "2"}, {"a", "1"}};

    leftoverMessage(request, headers);

    EXPECT_TRUE(headers.empty());
}

TEST(RequestTest, LeftoverCheckListsAnEmptyValueAsKeyAndSeparator) {
    BoxRequest request;
    HeaderMap headers{{"key", ""}};

    const std::string message = leftoverMessage(request, headers);

    EXPECT_EQ(message, kLeftoverEmptyValue);
}

TEST(RequestTest, LeftoverCheckListsAKeyContainingTheSeparatorUnchanged) {
    BoxRequest request;
    HeaderMap headers{{"a|b", "v"}};

    const std::string message = leftoverMessage(request, headers);

    EXPECT_EQ(message, kLeftoverKeyWithSeparator);
}

TEST(RequestTest, LeftoverCheckNamesTheMostDerivedClass) {
    OuterBoxRequest request;
    HeaderMap headers{{"b", "2"}, {"a", "1"}};

    const std::string message = leftoverMessage(request, headers);

    EXPECT_EQ(message, kLeftoverTwoEntries);
}

TEST(RequestTest, LeftoverCheckThroughABaseReferenceNamesTheMostDerivedClass) {
    OuterBoxRequest outer;
    Request& request = outer;
    HeaderMap headers{{"b", "2"}, {"a", "1"}};

    const std::string message = leftoverMessage(request, headers);

    EXPECT_EQ(message, kLeftoverTwoEntries);
}

TEST(RequestTest, LeftoverErrorHasNoContextOfItsOwn) {
    BoxRequest request;
    HeaderMap headers{{"a", "1"}};
    std::vector<std::string> context{"not caught"};

    try {
        request.handle_protocol_headers(headers);
    } catch (const orvikm::ProtocolError& error) {
        context = error.context();
    }

    EXPECT_TRUE(context.empty());
}

TEST(RequestTest, MoveFromHeadersReturnsTheValue) {
    HeaderMap headers{{kIdKey, kValue}, {"other", "x"}};

    const std::string value = Request::move_from_headers(headers, kIdKey);

    EXPECT_EQ(value, kValue);
}

TEST(RequestTest, MoveFromHeadersTakesTheEntryOutOfTheMap) {
    HeaderMap headers{{kIdKey, kValue}, {"other", "x"}};

    Request::move_from_headers(headers, kIdKey);

    EXPECT_EQ(headers, (HeaderMap{{"other", "x"}}));
}

TEST(RequestTest, MoveFromHeadersAcceptsAnEmptyValue) {
    HeaderMap headers{{kIdKey, ""}};

    const std::string value = Request::move_from_headers(headers, kIdKey);

    EXPECT_EQ(value, "");
    EXPECT_TRUE(headers.empty());
}

TEST(RequestTest, MoveFromHeadersOnAMissingKeyThrowsProtocolError) {
    HeaderMap headers{{kIdKey, kValue}};

    EXPECT_THROW(Request::move_from_headers(headers, kMissingKey), orvikm::ProtocolError);
}

TEST(RequestTest, MoveFromHeadersOnAMissingKeyNamesTheKey) {
    HeaderMap headers{{kIdKey, kValue}};

    const std::string message = missingKeyMessage(headers, kMissingKey);

    EXPECT_EQ(message, kMissingKeyMessage);
}

TEST(RequestTest, MoveFromHeadersOnAMissingKeyLeavesTheMapUntouched) {
    HeaderMap headers{{kIdKey, kValue}, {"other", "x"}};

    missingKeyMessage(headers, kMissingKey);

    EXPECT_EQ(headers, (HeaderMap{{kIdKey, kValue}, {"other", "x"}}));
}

TEST(RequestTest, MoveFromHeadersOnAnEmptyMapThrowsProtocolError) {
    HeaderMap headers;

    EXPECT_THROW(Request::move_from_headers(headers, kMissingKey), orvikm::ProtocolError);
}

TEST(RequestTest, KeysClaimedByASubclassAreNotLeftOver) {
    IdRequest request;
    HeaderMap headers{{kIdKey, kValue}};

    EXPECT_NO_THROW(request.handle_protocol_headers(headers));
}

TEST(RequestTest, KeysNobodyClaimedAreRejectedAfterTheSubclassTookItsOwn) {
    IdRequest request;
    HeaderMap headers{{kIdKey, kValue}, {"extra", "x"}};

    const std::string message = leftoverMessage(request, headers);

    EXPECT_EQ(message, kLeftoverAfterId);
}

TEST(RequestTest, KeysTakenOutBeforeAMissingKeyStayTakenOut) {
    IdThenKeyRequest request;
    HeaderMap headers{{kIdKey, kValue}, {"other", "x"}};

    try {
        request.handle_protocol_headers(headers);
    } catch (const orvikm::ProtocolError&) {
    }

    EXPECT_EQ(headers, (HeaderMap{{"other", "x"}}));
}

TEST(RequestTest, DeletingThroughARequestPointerRunsTheDerivedDestructor) {
    bool destroyed = false;
    std::unique_ptr<Request> request = std::make_unique<TracingRequest>(destroyed);

    request.reset();

    EXPECT_TRUE(destroyed);
}
