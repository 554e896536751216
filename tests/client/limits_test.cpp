#include <orvikm/client.hpp>

#include <chrono>
#include <future>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/errors.hpp>
#include <orvikm/message.hpp>
#include <orvikm/payload.hpp>

#include "support/error_capture.hpp"
#include "support/loop_thread.hpp"
#include "support/payload_helpers.hpp"
#include "support/test_node.hpp"

// What the node would refuse is refused by the client first: a route or a
// header line that does not fit the node's 100-byte frames, a route that reads
// as the route delimiter, an application id too long for its header, a port
// that is not one. The values at the limits are accepted.
namespace {

using namespace std::chrono_literals;
using orvikm::Client;
using orvikm::Message;
using orvikm::Payload;
using testsupport::contextOf;
using testsupport::isA;
using testsupport::LoopThread;
using testsupport::TestNode;
using testsupport::thrownBy;
using testsupport::whatOf;

const std::string kAppId = "limits-app";
const std::string kDispenserIdentity = "limits-app|disp";
const std::string kType = "text/plain";
const std::string kMessageCommand = "MSG";
const std::string kInboxCommand = "BOX";
const std::string kSubscriberContext = "While trying to connect subscriber to tcp:://localhost:";
const std::string kTwoWayContext = "While trying to connect two way comms to tcp:://localhost:";

constexpr std::size_t kFrameLimit = 100;
// "app_id|" takes 7 of a header frame's 100 bytes, "p_type|" as many.
constexpr std::size_t kLongestAppId = 93;
constexpr std::size_t kLongestType = 93;
constexpr auto kValidity = 30s;
constexpr auto kEventLimit = 5s;
constexpr auto kQuietTime = 300ms;

class ClientLimitsTest : public ::testing::Test {
protected:
    // Sends one message with these routes and this type through the payload
    // form of send.
    std::exception_ptr refusalOfSend(std::list<std::string> routes, std::string type = kType) {
        return thrownBy([&] {
            client.send(testsupport::payloadOf("body", std::move(type)), std::move(routes),
                        kValidity, nullptr, Message::AckMode::ByNode);
        });
    }

    // True when a pass of the loop writes no message: its inbox check comes
    // alone.
    bool nothingQueued() {
        LoopThread loop(client, nullptr);
        return node.receiveCommand(kInboxCommand).has_value() &&
               !node.receiveCommand(kMessageCommand, kQuietTime).has_value();
    }

    TestNode node;
    Client client{kAppId, node.listenerPort(), node.dispenserPort(), {}};
};

bool mentions(const std::exception_ptr& thrown, const std::string& fragment) {
    return whatOf(thrown).find(fragment) != std::string::npos;
}

TEST_F(ClientLimitsTest, RouteLongerThanAFrameIsRefusedBeforeItIsQueued) {
    const std::string route(kFrameLimit + 1, 'r');

    const std::exception_ptr thrown = refusalOfSend({"ok", route});

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::Exception>(thrown));
    EXPECT_TRUE(mentions(thrown, "101 bytes")) << whatOf(thrown);
    EXPECT_TRUE(mentions(thrown, "100")) << whatOf(thrown);
    EXPECT_TRUE(nothingQueued());
}

TEST_F(ClientLimitsTest, RouteOfALoneZeroByteIsRefused) {
    const std::exception_ptr thrown = refusalOfSend({std::string(1, '\0')});

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::Exception>(thrown));
    EXPECT_TRUE(mentions(thrown, "delimiter")) << whatOf(thrown);
    EXPECT_TRUE(nothingQueued());
}

TEST_F(ClientLimitsTest, PayloadTypeTooLongForItsHeaderIsRefused) {
    const std::exception_ptr thrown = refusalOfSend({}, std::string(kLongestType + 1, 't'));

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::Exception>(thrown));
    EXPECT_TRUE(mentions(thrown, "p_type|")) << whatOf(thrown);
    EXPECT_TRUE(mentions(thrown, "101 bytes")) << whatOf(thrown);
    EXPECT_TRUE(nothingQueued());
}

TEST_F(ClientLimitsTest, RawBufferFormRefusesTooLongRouteAndReleasesTheBuffer) {
    const std::string route(kFrameLimit + 1, 'r');
    char* buffer = new char[4]{'b', 'o', 'd', 'y'};

    // The buffer passed into the library's hands: LeakSanitizer tells if it
    // is not released.
    const std::exception_ptr thrown = thrownBy([&] {
        client.send(buffer, 4, kType, {route}, kValidity, nullptr, Message::AckMode::ByNode);
    });

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::Exception>(thrown));
    EXPECT_TRUE(nothingQueued());
}

TEST_F(ClientLimitsTest, RefusedMessageLeavesNoAcknowledgementCallback) {
    Message message(testsupport::payloadOf("body", kType),
                    Message::Config(std::string(kLongestAppId + 1, 'a'), {}, kValidity,
                                    Message::AckMode::ByNode));
    const std::string id = message.msgId();
    bool called = false;
    Message marker(testsupport::payloadOf("marker", kType),
                   Message::Config(kAppId, {}, kValidity, Message::AckMode::ByNode));
    const std::string markerId = marker.msgId();
    std::promise<void> markerAcknowledged;

    const std::exception_ptr thrown =
        thrownBy([&] { client.send(std::move(message), [&] { called = true; }); });
    client.send(std::move(marker), [&] { markerAcknowledged.set_value(); });
    LoopThread loop(client, nullptr);
    ASSERT_TRUE(node.receiveCommand(kMessageCommand));
    node.sendTo(kDispenserIdentity, testsupport::ackFrames(id));
    node.sendTo(kDispenserIdentity, testsupport::ackFrames(markerId));

    ASSERT_EQ(markerAcknowledged.get_future().wait_for(kEventLimit), std::future_status::ready);
    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::Exception>(thrown));
    EXPECT_TRUE(mentions(thrown, "app_id|")) << whatOf(thrown);
    EXPECT_FALSE(called);
}

TEST_F(ClientLimitsTest, ValuesAtTheLimitsAreWritten) {
    const std::string route(kFrameLimit, 'r');
    const std::string type(kLongestType, 't');

    EXPECT_FALSE(refusalOfSend({route}, type));

    LoopThread loop(client, nullptr);
    const std::optional<testsupport::WrittenRequest> written = node.receiveCommand(kMessageCommand);
    ASSERT_TRUE(written);
    EXPECT_EQ(written->routes, std::vector<std::string>{route});
    EXPECT_EQ(written->headers.at("p_type"), type);
}

std::exception_ptr constructionError(const std::string& appId, int listenerPort,
                                     int dispenserPort) {
    return thrownBy([&] { Client client(appId, listenerPort, dispenserPort, {}); });
}

TEST(ClientArgumentsTest, ApplicationIdTooLongForItsHeaderIsRefused) {
    TestNode node;

    const std::exception_ptr thrown = constructionError(std::string(kLongestAppId + 1, 'a'),
                                                        node.listenerPort(), node.dispenserPort());

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::Exception>(thrown));
    EXPECT_TRUE(mentions(thrown, "94 bytes")) << whatOf(thrown);
    EXPECT_TRUE(mentions(thrown, "93")) << whatOf(thrown);
}

TEST(ClientArgumentsTest, ApplicationIdAtTheLimitConnects) {
    TestNode node;
    Client client(std::string(kLongestAppId, 'a'), node.listenerPort(), node.dispenserPort(), {});

    EXPECT_TRUE(node.waitForDispenserPeer());
}

class ClientPortTest : public ::testing::TestWithParam<int> {};

TEST_P(ClientPortTest, ListenerPortOutsideTheTcpRangeIsRefusedByNumber) {
    TestNode node;

    const std::exception_ptr thrown = constructionError(kAppId, GetParam(), node.dispenserPort());

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::Exception>(thrown));
    EXPECT_TRUE(mentions(thrown, "port " + std::to_string(GetParam()) + " ")) << whatOf(thrown);
    EXPECT_EQ(contextOf(thrown),
              std::vector<std::string>{kSubscriberContext + std::to_string(GetParam())});
}

TEST_P(ClientPortTest, DispenserPortOutsideTheTcpRangeIsRefusedByNumber) {
    TestNode node;

    const std::exception_ptr thrown = constructionError(kAppId, node.listenerPort(), GetParam());

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(isA<orvikm::Exception>(thrown));
    EXPECT_TRUE(mentions(thrown, "port " + std::to_string(GetParam()) + " ")) << whatOf(thrown);
    EXPECT_EQ(contextOf(thrown),
              std::vector<std::string>{kTwoWayContext + std::to_string(node.listenerPort())});
}

INSTANTIATE_TEST_SUITE_P(OutsideTheRange, ClientPortTest, ::testing::Values(-1, 0, 65536));

TEST(ClientArgumentsTest, PortsAtTheEndsOfTheRangeAreAccepted) {
    EXPECT_FALSE(constructionError(kAppId, 1, 65535));
}

}  // namespace
