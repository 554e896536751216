#include <orvikm/sender.hpp>

#include <zmq.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/control_requests.hpp>
#include <orvikm/message.hpp>
#include <orvikm/payload_request.hpp>
#include <orvikm/registry.hpp>
#include <wxblt/exception.hpp>
#include <wxblt/socket.hpp>

#include "wire_fixture.hpp"

namespace {

using namespace std::chrono_literals;
using orvikm::Message;
using orvikm::Registry;
using orvikm::Sender;
using orvikm::internal_objects::Ack;
using orvikm::internal_objects::GetRegistry;
using orvikm::internal_objects::Inbox;
using orvikm::internal_objects::InboxType;
using orvikm::internal_objects::PayloadRequest;
using orvikm::internal_objects::Request;
using testsupport::Frame;
using wiretest::kArrivalTimeout;
using wiretest::kDelimiter;
using wiretest::lastFrame;
using wiretest::moreFrame;
using wiretest::payloadOf;
using wiretest::thrownBy;

const std::string kPayloadRequestContext = "While trying to send frames of payload request";
const std::string kRequestContext = "While trying to send frames of request";

const std::string kAppId = "weather-app";
const std::string kPayloadType = "text/plain";
const std::string kBody = "hello";
const std::string kRouteOne = "r1";
const std::string kRouteTwo = "r2";
const std::string kIdentity = "weather-app|disp";
const std::string kAckId = "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0";

Message messageWithRoutes(std::list<std::string> routes, const std::string& body = kBody) {
    return Message(payloadOf(body, kPayloadType),
                   Message::Config(kAppId, std::move(routes), 30s, Message::AckMode::ByNode));
}

// The seven header frames of a message made by messageWithRoutes, in key order.
std::vector<Frame> messageHeaderFrames(const Message& message, const std::string& body = kBody) {
    return {moreFrame("ack_mode|1"),
            moreFrame("app_id|" + kAppId),
            moreFrame("id|" + message.msgId()),
            moreFrame("origin|,"),
            moreFrame("p_size|" + std::to_string(body.size())),
            moreFrame("p_type|" + kPayloadType),
            moreFrame("valid_for|30")};
}

std::vector<Frame> concat(std::vector<std::vector<Frame>> parts) {
    std::vector<Frame> frames;
    for (auto& part : parts) {
        frames.insert(frames.end(), part.begin(), part.end());
    }
    return frames;
}

std::vector<std::string> keysOf(const std::vector<Frame>& headerFrames) {
    std::vector<std::string> keys;
    for (const Frame& frame : headerFrames) {
        keys.push_back(frame.bytes.substr(0, frame.bytes.find('|')));
    }
    return keys;
}

class SenderTest : public ::testing::Test {
protected:
    std::vector<Frame> received() {
        auto frames = link.peer.receiveMessage(kArrivalTimeout);
        if (!frames) {
            ADD_FAILURE() << "nothing arrived at the peer in time";
            return {};
        }
        return *frames;
    }

    wiretest::PeerLink link;
    Sender sender{&link.socket};
};

TEST_F(SenderTest, MessageWithTwoRoutesIsWrittenAsThirteenFrames) {
    const Message message = messageWithRoutes({kRouteOne, kRouteTwo});

    sender.send(message);

    const std::vector<Frame> expected = concat(
        {{moreFrame(kRouteOne), moreFrame(kRouteTwo), moreFrame(kDelimiter), moreFrame("MSG")},
         messageHeaderFrames(message),
         {moreFrame(kDelimiter), lastFrame(kBody)}});
    ASSERT_EQ(expected.size(), 13u);
    EXPECT_EQ(received(), expected);
}

TEST_F(SenderTest, MessageWithoutRoutesStartsWithTheDelimiterThenMsg) {
    const Message message = messageWithRoutes({});

    sender.send(message);

    const std::vector<Frame> frames = received();
    ASSERT_GE(frames.size(), 2u);
    EXPECT_EQ(frames[0], moreFrame(kDelimiter));
    EXPECT_EQ(frames[1], moreFrame("MSG"));
}

TEST_F(SenderTest, MessageHeaderFramesComeInKeyOrder) {
    Message message = messageWithRoutes({});
    message.appendOriginNode("alpha");

    sender.send(message);

    const std::vector<Frame> frames = received();
    ASSERT_EQ(frames.size(), 11u);
    const std::vector<Frame> headerFrames(frames.begin() + 2, frames.begin() + 9);
    EXPECT_EQ(keysOf(headerFrames), (std::vector<std::string>{"ack_mode", "app_id", "id", "origin",
                                                              "p_size", "p_type", "valid_for"}));
}

TEST_F(SenderTest, MessagePayloadIsTheOnlyFrameWithoutTheMoreFlag) {
    const std::string body = wiretest::binaryBytes(1000);
    const Message message = messageWithRoutes({kRouteOne}, body);

    sender.send(message);

    const std::vector<Frame> frames = received();
    ASSERT_FALSE(frames.empty());
    EXPECT_EQ(frames.back(), lastFrame(body));
    for (std::size_t i = 0; i + 1 < frames.size(); ++i) {
        EXPECT_TRUE(frames[i].more) << "frame " << i;
    }
}

TEST_F(SenderTest, EmptyPayloadIsWrittenAsAnEmptyLastFrame) {
    const Message message = messageWithRoutes({}, "");

    sender.send(message);

    const std::vector<Frame> frames = received();
    ASSERT_EQ(frames.size(), 11u);
    EXPECT_EQ(frames[6], moreFrame("p_size|0"));
    EXPECT_EQ(frames.back(), lastFrame(""));
}

TEST_F(SenderTest, EmptyRouteIsWrittenAsAnEmptyFrame) {
    const Message message = messageWithRoutes({""});

    sender.send(message);

    const std::vector<Frame> frames = received();
    ASSERT_GE(frames.size(), 3u);
    EXPECT_EQ(frames[0], moreFrame(""));
    EXPECT_EQ(frames[1], moreFrame(kDelimiter));
    EXPECT_EQ(frames[2], moreFrame("MSG"));
}

TEST_F(SenderTest, RouteOfOneZeroByteIsWrittenUnchanged) {
    const Message message = messageWithRoutes({kDelimiter});

    sender.send(message);

    const std::vector<Frame> frames = received();
    ASSERT_GE(frames.size(), 3u);
    EXPECT_EQ(frames[0], moreFrame(kDelimiter));
    EXPECT_EQ(frames[1], moreFrame(kDelimiter));
    EXPECT_EQ(frames[2], moreFrame("MSG"));
}

TEST_F(SenderTest, AckIsDelimiterCommandIdHeaderAndTwoDelimiters) {
    const Ack ack(kAckId);

    sender.send(ack);

    EXPECT_EQ(received(), (std::vector<Frame>{moreFrame(kDelimiter), moreFrame("ACK"),
                                              moreFrame("msg_id|" + kAckId), moreFrame(kDelimiter),
                                              lastFrame(kDelimiter)}));
}

TEST_F(SenderTest, HeaderWithEmptyValueIsWrittenAsKeyAndSeparator) {
    const Ack ack("");

    sender.send(ack);

    const std::vector<Frame> frames = received();
    ASSERT_EQ(frames.size(), 5u);
    EXPECT_EQ(frames[2], moreFrame("msg_id|"));
}

TEST_F(SenderTest, GetRegistryIsExactlyFourFrames) {
    const GetRegistry request;

    sender.send(request);

    EXPECT_EQ(received(), (std::vector<Frame>{moreFrame(kDelimiter), moreFrame("GREG"),
                                              moreFrame(kDelimiter), lastFrame(kDelimiter)}));
}

TEST_F(SenderTest, InboxIsWrittenWithItsTwoHeaderFrames) {
    const Inbox inbox(kAppId, InboxType::Node);

    sender.send(inbox);

    EXPECT_EQ(received(),
              (std::vector<Frame>{moreFrame(kDelimiter), moreFrame("BOX"),
                                  moreFrame("app_id|" + kAppId), moreFrame("box_type|node"),
                                  moreFrame(kDelimiter), lastFrame(kDelimiter)}));
}

TEST_F(SenderTest, HeaderValueHoldingTheSeparatorIsWrittenUnchanged) {
    const Inbox inbox("a|b", InboxType::Client);

    sender.send(inbox);

    const std::vector<Frame> frames = received();
    ASSERT_EQ(frames.size(), 6u);
    EXPECT_EQ(frames[2], moreFrame("app_id|a|b"));
}

TEST_F(SenderTest, RegistryIsWrittenThroughThePayloadRequestOverload) {
    const std::string body = wiretest::binaryBytes(300);
    const Registry registry(payloadOf(body, "registry/v1"));

    sender.send(registry);

    EXPECT_EQ(received(),
              (std::vector<Frame>{moreFrame(kDelimiter), moreFrame("REG"), moreFrame("p_size|300"),
                                  moreFrame("p_type|registry/v1"), moreFrame(kDelimiter),
                                  lastFrame(body)}));
}

TEST_F(SenderTest, MessagePassedAsPayloadRequestIsWrittenWithoutRouteFrames) {
    const Message message = messageWithRoutes({kRouteOne, kRouteTwo});
    const PayloadRequest& asPayloadRequest = message;

    sender.send(asPayloadRequest);

    EXPECT_EQ(received(), concat({{moreFrame(kDelimiter), moreFrame("MSG")},
                                  messageHeaderFrames(message),
                                  {moreFrame(kDelimiter), lastFrame(kBody)}}));
}

TEST_F(SenderTest, PayloadRequestPassedAsRequestEndsWithTheTerminationDelimiter) {
    const Registry registry(payloadOf(kBody, kPayloadType));
    const Request& asRequest = registry;

    sender.send(asRequest);

    EXPECT_EQ(received(),
              (std::vector<Frame>{moreFrame(kDelimiter), moreFrame("REG"), moreFrame("p_size|5"),
                                  moreFrame("p_type|" + kPayloadType), moreFrame(kDelimiter),
                                  lastFrame(kDelimiter)}));
}

TEST_F(SenderTest, IdentityFrameComesBeforeTheRoutesOfAMessage) {
    const Message message = messageWithRoutes({kRouteOne});

    sender.send(message, &kIdentity);

    const std::vector<Frame> frames = received();
    ASSERT_GE(frames.size(), 3u);
    EXPECT_EQ(frames[0], moreFrame(kIdentity));
    EXPECT_EQ(frames[1], moreFrame(kRouteOne));
    EXPECT_EQ(frames[2], moreFrame(kDelimiter));
}

TEST_F(SenderTest, IdentityFrameComesFirstForAPayloadRequest) {
    const Registry registry(payloadOf(kBody, kPayloadType));

    sender.send(registry, &kIdentity);

    const std::vector<Frame> frames = received();
    ASSERT_EQ(frames.size(), 7u);
    EXPECT_EQ(frames[0], moreFrame(kIdentity));
    EXPECT_EQ(frames[1], moreFrame(kDelimiter));
    EXPECT_EQ(frames[2], moreFrame("REG"));
}

TEST_F(SenderTest, IdentityFrameComesFirstForARequest) {
    const GetRegistry request;

    sender.send(request, &kIdentity);

    EXPECT_EQ(received(),
              (std::vector<Frame>{moreFrame(kIdentity), moreFrame(kDelimiter), moreFrame("GREG"),
                                  moreFrame(kDelimiter), lastFrame(kDelimiter)}));
}

TEST_F(SenderTest, MovedSenderWritesToTheSameSocket) {
    Sender moved(std::move(sender));
    const GetRegistry request;

    moved.send(request);

    EXPECT_EQ(received(), (std::vector<Frame>{moreFrame(kDelimiter), moreFrame("GREG"),
                                              moreFrame(kDelimiter), lastFrame(kDelimiter)}));
}

// A dealer connected where nothing listens: every send fails with EAGAIN
// after the socket's send timeout.
class SenderFailureTest : public ::testing::Test {
protected:
    SenderFailureTest() : socket(wxblt::SocketType::Dealer), sender(&socket) {
        socket.connect(deadPort.endpoint());
    }

    static void expectUnavailable(const wxblt::Exception& error) {
        EXPECT_EQ(error.errorNumber(), EAGAIN);
        EXPECT_STREQ(error.what(), zmq_strerror(EAGAIN));
    }

    wiretest::DeadPort deadPort;
    wxblt::Socket socket;
    Sender sender;
};

TEST_F(SenderFailureTest, SocketFailureOnAMessageAddsThePayloadRequestContext) {
    const Message message = messageWithRoutes({kRouteOne});

    const auto error = thrownBy<wxblt::Exception>([&] { sender.send(message); });

    ASSERT_TRUE(error.has_value());
    expectUnavailable(*error);
    EXPECT_EQ(error->context(), std::vector<std::string>{kPayloadRequestContext});
}

TEST_F(SenderFailureTest, SocketFailureOnAPayloadRequestAddsThePayloadRequestContext) {
    const Registry registry(payloadOf(kBody, kPayloadType));

    const auto error = thrownBy<wxblt::Exception>([&] { sender.send(registry); });

    ASSERT_TRUE(error.has_value());
    expectUnavailable(*error);
    EXPECT_EQ(error->context(), std::vector<std::string>{kPayloadRequestContext});
}

TEST_F(SenderFailureTest, SocketFailureOnTheIdentityFrameAddsTheContext) {
    const Message message = messageWithRoutes({});

    const auto error = thrownBy<wxblt::Exception>([&] { sender.send(message, &kIdentity); });

    ASSERT_TRUE(error.has_value());
    expectUnavailable(*error);
    EXPECT_EQ(error->context(), std::vector<std::string>{kPayloadRequestContext});
}

TEST_F(SenderFailureTest, SenderStaysUsableAfterASocketFailure) {
    const Ack ack(kAckId);
    ASSERT_TRUE(thrownBy<wxblt::Exception>([&] { sender.send(ack); }).has_value());
    testsupport::RawPeer peer(ZMQ_DEALER);
    socket.connect(wiretest::loopbackEndpoint(peer.bindLoopback()));

    // Retried while the new connection is being set up.
    const auto deadline = std::chrono::steady_clock::now() + kArrivalTimeout;
    bool sent = false;
    while (!sent && std::chrono::steady_clock::now() < deadline) {
        sent = !thrownBy<wxblt::Exception>([&] { sender.send(ack); }).has_value();
    }

    ASSERT_TRUE(sent);
    const auto frames = peer.receiveMessage(kArrivalTimeout);
    ASSERT_TRUE(frames.has_value());
    EXPECT_EQ(*frames, (std::vector<Frame>{moreFrame(kDelimiter), moreFrame("ACK"),
                                           moreFrame("msg_id|" + kAckId), moreFrame(kDelimiter),
                                           lastFrame(kDelimiter)}));
}

// The requests without payload, each sent through send(const Request&).
struct PlainRequestCase {
    std::string name;
    std::function<std::unique_ptr<Request>()> make;
};

void PrintTo(const PlainRequestCase& request, std::ostream* out) {
    *out << request.name;
}

class SenderPlainRequestFailureTest : public SenderFailureTest,
                                      public ::testing::WithParamInterface<PlainRequestCase> {};

TEST_P(SenderPlainRequestFailureTest, SocketFailureAddsTheRequestContext) {
    const std::unique_ptr<Request> request = GetParam().make();

    const auto error = thrownBy<wxblt::Exception>([&] { sender.send(*request); });

    ASSERT_TRUE(error.has_value());
    expectUnavailable(*error);
    EXPECT_EQ(error->context(), std::vector<std::string>{kRequestContext});
}

INSTANTIATE_TEST_SUITE_P(
    PlainRequests, SenderPlainRequestFailureTest,
    ::testing::Values(
        PlainRequestCase{"Ack", [] { return std::make_unique<Ack>(kAckId); }},
        PlainRequestCase{"Inbox",
                         [] { return std::make_unique<Inbox>(kAppId, InboxType::Client); }},
        PlainRequestCase{"GetRegistry", [] { return std::make_unique<GetRegistry>(); }}),
    [](const ::testing::TestParamInfo<PlainRequestCase>& info) { return info.param.name; });

}  // namespace
