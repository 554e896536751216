#include <zmq.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/message.hpp>
#include <orvikm/receiver.hpp>
#include <orvikm/request.hpp>
#include <orviku/exception.hpp>
#include <wxblt/socket.hpp>

#include "devnode_fixture.hpp"
#include "devnode_raw_peers.hpp"

// What the node writes for a message, byte for byte: the acknowledgement, and
// one publication per distinct route, each what the library's decoding makes
// of the request and its encoding writes again. A request the decoding
// refuses is refused with the decoding's own error.
namespace devnodetest {
namespace {

using Frames = std::vector<std::string>;

const std::string kIdentity = "frames-peer";
const std::string kDelimiter = testsupport::delimiter();
const std::string kProbeRoute = "probe";
const std::string kMalformedLog = "malformed request from " + kIdentity + ": ";
const std::string kSentinelId = "sentinel";

// The headers a client writes for a message, in the order it writes them.
Frames clientHeaders(const std::string& id, std::size_t payloadBytes,
                     const std::string& type = "text") {
    return {"ack_mode|1",
            "app_id|frames-app",
            "id|" + id,
            "origin|,",
            "p_size|" + std::to_string(payloadBytes),
            "p_type|" + type,
            "valid_for|30"};
}

Frames messageRequest(const Frames& routes, const Frames& headers, const std::string& payload) {
    Frames frames = routes;
    frames.push_back(kDelimiter);
    frames.push_back("MSG");
    frames.insert(frames.end(), headers.begin(), headers.end());
    frames.push_back(kDelimiter);
    frames.push_back(payload);
    return frames;
}

// A message a client writes, with these routes and payload.
Frames clientMessage(const std::string& id, const Frames& routes, const std::string& payload) {
    return messageRequest(routes, clientHeaders(id, payload.size()), payload);
}

// The request as the library's Receiver reads it from a socket.
std::unique_ptr<orvikm::internal_objects::Request> decode(const Frames& request) {
    static int pairs = 0;
    const std::string endpoint = "inproc://devnode-frames-test-" + std::to_string(++pairs);
    wxblt::Socket writer(wxblt::SocketType::Pair);
    wxblt::Socket reader(wxblt::SocketType::Pair);
    writer.bind(endpoint);
    reader.connect(endpoint);
    for (std::size_t i = 0; i < request.size(); ++i) {
        writer.send(request[i], i + 1 < request.size());
    }
    orvikm::Receiver receiver(&reader);
    return receiver.receive();
}

std::unique_ptr<orvikm::Message> decodeMessage(const Frames& request) {
    std::unique_ptr<orvikm::internal_objects::Request> decoded = decode(request);
    auto* message = dynamic_cast<orvikm::Message*>(decoded.get());
    if (message == nullptr) {
        return nullptr;
    }
    decoded.release();
    return std::unique_ptr<orvikm::Message>(message);
}

// The acknowledgement of `message` as the node answers it: the library's
// acknowledgement, then an empty body.
Frames acknowledgement(const orvikm::Message& message) {
    const orvikm::internal_objects::Ack ack = message.generate_ack();
    Frames frames{kDelimiter, ack.wireName()};
    for (const auto& [key, value] : ack.create_protocol_headers()) {
        frames.push_back(key + orvikm::internal_objects::Request::_hdr_sep + value);
    }
    frames.push_back(kDelimiter);
    frames.push_back(kDelimiter);
    return frames;
}

// One publication of `message` along `topic`: the topic, then the message as
// the library encodes it.
Frames publication(const orvikm::Message& message, const std::string& topic) {
    Frames frames{topic};
    frames.insert(frames.end(), message.pushRoutes().begin(), message.pushRoutes().end());
    frames.push_back(kDelimiter);
    frames.push_back(message.wireName());
    message.visit_protocol_headers([&frames](std::string_view key, std::string_view value) {
        std::string frame(key);
        frame += orvikm::internal_objects::Request::_hdr_sep;
        frame += value;
        frames.push_back(std::move(frame));
    });
    frames.push_back(kDelimiter);
    frames.emplace_back(message.payload().getBuffer(), message.payload().size());
    return frames;
}

Frames expectedPublications(const orvikm::Message& message) {
    Frames all;
    std::unordered_set<std::string> published;
    for (const std::string& route : message.pushRoutes()) {
        if (published.insert(route).second) {
            const Frames one = publication(message, route);
            all.insert(all.end(), one.begin(), one.end());
        }
    }
    return all;
}

struct Request {
    std::string name;
    Frames frames;
};

void PrintTo(const Request& request, std::ostream* out) {
    *out << request.name;
}

// A node, a dealer and a subscriber to every topic, which the node is known
// to have.
class DevNodeFramesTest : public DevNodeTest {
protected:
    void SetUp() override {
        DevNodeTest::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        _dealer = connectDealer(dispenserPort(), kIdentity);
        _subscriber = connectSubscriber(listenerPort(), {""});
        ASSERT_TRUE(waitUntilSubscribed(*_dealer, *_subscriber, kProbeRoute, kEventLimit));
    }

    RawPeer& dealer() { return *_dealer; }

    // Sends the request and then a sentinel message; the answers that came
    // before the sentinel's acknowledgement, probes' left out.
    std::vector<Frames> answersTo(const Frames& request) {
        dealer().sendMessage(request);
        dealer().sendMessage(clientMessage(kSentinelId, {kProbeRoute}, "s"));
        std::vector<Frames> answers;
        while (true) {
            const auto answer = receiveMatching(
                dealer(),
                [](const std::vector<Frame>& frames) {
                    return frames.size() < 3 ||
                           frames[2].bytes.rfind("msg_id|subscription-probe-", 0) != 0;
                },
                kEventLimit);
            if (!answer || isAckOf(*answer, kSentinelId)) {
                return answers;
            }
            answers.push_back(frameBytes(*answer));
        }
    }

    // The frames of every publication before the sentinel's, probes' left
    // out, one after the other.
    Frames publicationsBeforeSentinel() {
        Frames frames;
        while (true) {
            const auto published = receiveMatching(
                *_subscriber,
                [](const std::vector<Frame>& got) {
                    return publishedId(got).rfind("subscription-probe-", 0) != 0;
                },
                kEventLimit);
            if (!published || publishedId(*published) == kSentinelId) {
                return frames;
            }
            const Frames bytes = frameBytes(*published);
            frames.insert(frames.end(), bytes.begin(), bytes.end());
        }
    }

private:
    std::unique_ptr<RawPeer> _dealer;
    std::unique_ptr<RawPeer> _subscriber;
};

class DevNodeMessageFramesTest : public DevNodeFramesTest,
                                 public ::testing::WithParamInterface<Request> {};

TEST_P(DevNodeMessageFramesTest, IsAcknowledgedAsTheLibraryWritesTheAcknowledgement) {
    const std::unique_ptr<orvikm::Message> message = decodeMessage(GetParam().frames);
    ASSERT_NE(message, nullptr);

    const std::vector<Frames> answers = answersTo(GetParam().frames);

    EXPECT_EQ(answers, std::vector<Frames>{acknowledgement(*message)});
}

TEST_P(DevNodeMessageFramesTest, IsPublishedOncePerDistinctRouteAsTheLibraryEncodesIt) {
    const std::unique_ptr<orvikm::Message> message = decodeMessage(GetParam().frames);
    ASSERT_NE(message, nullptr);

    answersTo(GetParam().frames);

    const Frames published = publicationsBeforeSentinel();
    const Frames expected = expectedPublications(*message);
    ASSERT_EQ(published.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        // One at a time: a megabyte of payload makes a poor failure message.
        EXPECT_TRUE(published[i] == expected[i])
            << "frame " << i << ": " << published[i].substr(0, 80) << " instead of "
            << expected[i].substr(0, 80);
    }
}

std::string bytesOf(std::size_t count) {
    std::string bytes(count, '\0');
    for (std::size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<char>(i * 7 + 3);
    }
    return bytes;
}

Frames withHeader(Frames headers, std::size_t index, const std::string& header) {
    headers[index] = header;
    return headers;
}

const Frames kUsual = clientHeaders("usual", 5);

// What clients write, and what else the library's encoding writes alike.
INSTANTIATE_TEST_SUITE_P(
    AsClientsWriteThem, DevNodeMessageFramesTest,
    ::testing::Values(
        Request{"OneRoute", clientMessage("one-route", {"r"}, "hello")},
        Request{"SeveralRoutes", clientMessage("several", {"r1", "r2", "r3"}, "hello")},
        Request{"RepeatedRoutes",
                clientMessage("repeated", {"r1", "r2", "r1", "r3", "r2"}, "hello")},
        Request{"EmptyRoute", clientMessage("empty-route", {"", "r"}, "hello")},
        Request{"LongestRoute", clientMessage("longest-route", {std::string(100, 'r')}, "x")},
        Request{"EmptyPayload", clientMessage("empty-payload", {"r"}, "")},
        Request{"MegabytePayload", clientMessage("megabyte", {"r1", "r2"}, bytesOf(1 << 20))},
        Request{
            "BytesOfEveryKind",
            messageRequest({std::string("r\0|\xff", 4)},
                           {"ack_mode|-7", std::string("app_id|a|b\0c", 12),
                            std::string("id|\x01|\0id", 8), "origin|n1,,n2,", "p_size|6",
                            std::string("p_type|t|\0\xfe", 11), "valid_for|-9223372036854775808"},
                           std::string("\0\xff|\n\r\\", 6))},
        Request{"LargestNumbers",
                messageRequest({"r"},
                               {"ack_mode|2147483647", "app_id|a", "id|largest", "origin|,",
                                "p_size|3", "p_type|t", "valid_for|9223372036854775807"},
                               "abc")}),
    [](const ::testing::TestParamInfo<Request>& info) { return info.param.name; });

// Requests the library's decoding accepts but that its encoding writes
// otherwise: published as it writes them.
INSTANTIATE_TEST_SUITE_P(
    AsTheLibraryRewritesThem, DevNodeMessageFramesTest,
    ::testing::Values(
        Request{"ValidityWithLeadingZeros",
                messageRequest({"r"}, withHeader(kUsual, 6, "valid_for|007"), "hello")},
        Request{"ValidityWithTrailingBytes",
                messageRequest({"r"}, withHeader(kUsual, 6, "valid_for|30s"), "hello")},
        Request{"AckModeWithPlusSign",
                messageRequest({"r"}, withHeader(kUsual, 0, "ack_mode|+1"), "hello")},
        Request{"NegativeZeroAckMode",
                messageRequest({"r"}, withHeader(kUsual, 0, "ack_mode|-0"), "hello")},
        Request{"SizeWithLeadingZero",
                messageRequest({"r"}, withHeader(kUsual, 4, "p_size|05"), "hello")},
        Request{"PayloadLongerThanDeclared", messageRequest({"r"}, kUsual, "hello, and more")},
        Request{"SizeBeyond32Bits",
                messageRequest({"r"}, withHeader(kUsual, 4, "p_size|4294967298"), "hello")},
        Request{"OriginWithoutTrailingComma",
                messageRequest({"r"}, withHeader(kUsual, 3, "origin|n1,n2"), "hello")},
        Request{"EmptyOrigin", messageRequest({"r"}, withHeader(kUsual, 3, "origin|"), "hello")},
        Request{"HeadersOutOfOrder",
                messageRequest({"r"},
                               {"valid_for|30", "p_type|text", "p_size|5", "origin|,", "id|usual",
                                "app_id|frames-app", "ack_mode|1"},
                               "hello")},
        Request{"RepeatedHeader",
                messageRequest({"r"},
                               {"ack_mode|1", "app_id|frames-app", "id|first", "id|second",
                                "origin|,", "p_size|5", "p_type|text", "valid_for|30"},
                               "hello")}),
    [](const ::testing::TestParamInfo<Request>& info) { return info.param.name; });

class DevNodeRefusedFramesTest : public DevNodeFramesTest,
                                 public ::testing::WithParamInterface<Request> {};

// The error the library's decoding gives for the request, the innermost.
std::string decodingError(const Frames& request) {
    try {
        decode(request);
    } catch (const orviku::Exception& error) {
        return error.what();
    }
    return "";
}

TEST_P(DevNodeRefusedFramesTest, IsNeitherAcknowledgedNorPublished) {
    ASSERT_NE(decodingError(GetParam().frames), "");

    const std::vector<Frames> answers = answersTo(GetParam().frames);

    EXPECT_TRUE(answers.empty()) << answers.size() << " answers";
    EXPECT_TRUE(publicationsBeforeSentinel().empty());
}

TEST_P(DevNodeRefusedFramesTest, IsLoggedWithTheErrorOfTheLibrarysDecoding) {
    const std::string error = decodingError(GetParam().frames);
    ASSERT_NE(error, "");

    answersTo(GetParam().frames);

    const auto line = node().waitForLine(kMalformedLog, kEventLimit);
    ASSERT_TRUE(line.has_value()) << node().standardOutput();
    EXPECT_NE(line->find(error), std::string::npos) << *line << "\nexpected: " << error;
}

// Requests of a message that the library's decoding refuses, some of them
// one byte away from what a client writes.
INSTANTIATE_TEST_SUITE_P(
    NearlyMessages, DevNodeRefusedFramesTest,
    ::testing::Values(
        Request{"UnknownHeader",
                messageRequest({"r"},
                               {"ack_mode|1", "app_id|frames-app", "colour|blue", "id|usual",
                                "origin|,", "p_size|5", "p_type|text", "valid_for|30"},
                               "hello")},
        Request{"MissingHeader",
                messageRequest({"r"},
                               {"ack_mode|1", "app_id|frames-app", "id|usual", "p_size|5",
                                "p_type|text", "valid_for|30"},
                               "hello")},
        Request{"AckModeBeyondItsRange",
                messageRequest({"r"}, withHeader(kUsual, 0, "ack_mode|2147483648"), "hello")},
        Request{"HeaderFrameTooLong",
                messageRequest({"r"}, withHeader(kUsual, 1, "app_id|" + std::string(94, 'a')),
                               "hello")},
        Request{"RouteTooLong",
                messageRequest({std::string(101, 'r')}, kUsual, "hello")},
        Request{"PayloadShorterThanDeclared", messageRequest({"r"}, kUsual, "hell")},
        Request{"FrameAfterThePayload",
                [] {
                    Frames frames = messageRequest({"r"}, kUsual, "hello");
                    frames.push_back("more");
                    return frames;
                }()},
        Request{"HeaderWithoutSeparator",
                messageRequest({"r"}, withHeader(kUsual, 3, "origin"), "hello")},
        Request{"NoPayload", [] {
                    Frames frames = messageRequest({"r"}, kUsual, "hello");
                    frames.pop_back();
                    return frames;
                }()}),
    [](const ::testing::TestParamInfo<Request>& info) { return info.param.name; });

TEST_F(DevNodeFramesTest, MessageWithRepeatedRoutesIsLoggedWithItsDistinctRoutes) {
    answersTo(clientMessage("logged", {"r1", "r2", "r1"}, "hello"));

    const auto line = node().waitForLine("MSG logged from " + kIdentity, kEventLimit);

    ASSERT_TRUE(line.has_value()) << node().standardOutput();
    EXPECT_NE(line->find("(5 bytes, 3 routes, 2 distinct) acknowledged and published"),
              std::string::npos)
        << *line;
}

}  // namespace
}  // namespace devnodetest
