#include <gtest/gtest.h>
#include <zmq.h>

#include <wxblt/frame.hpp>
#include <wxblt/socket.hpp>

#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "socket_helpers.hpp"
#include "support/raw_peer.hpp"

namespace {

using wxblt::Frame;
using wxblt::Socket;
using wxblt::SocketType;
using wxblttest::arrival_timeout;
using wxblttest::waitForInput;

const std::string loopback_any_port = "tcp://127.0.0.1:0";
const std::string first_frame("first\0frame", 11);
const std::string second_frame = "second frame";

static_assert(!std::is_copy_constructible_v<Frame>);
static_assert(!std::is_copy_assignable_v<Frame>);
static_assert(std::is_nothrow_move_constructible_v<Frame>);
static_assert(std::is_nothrow_move_assignable_v<Frame>);

std::string bytesOf(const Frame& frame) {
    return std::string(frame.data(), frame.size());
}

// A socket under test that has received first_frame and second_frame, as
// two messages, from a raw peer.
struct Received {
    Received() : socket(SocketType::Dealer), feeder(ZMQ_DEALER) {
        socket.bind(loopback_any_port);
        feeder.connect(testsupport::localhostEndpoint(wxblttest::portOf(socket.lastEndpoint())));
        feeder.sendFrame(first_frame, false);
        feeder.sendFrame(second_frame, false);
    }

    // The next frame, or nothing when none arrived in time.
    std::optional<Frame> next() {
        if (!waitForInput(socket, arrival_timeout)) {
            return std::nullopt;
        }
        return socket.recvFrame();
    }

    Socket socket;
    testsupport::RawPeer feeder;
};

TEST(FrameTest, DefaultFrameIsEmpty) {
    const Frame frame;

    EXPECT_EQ(frame.size(), 0u);
}

TEST(FrameTest, MoveConstructedFrameKeepsTheBytes) {
    Received received;
    std::optional<Frame> frame = received.next();
    ASSERT_TRUE(frame.has_value());

    const Frame moved(std::move(*frame));

    EXPECT_EQ(bytesOf(moved), first_frame);
}

TEST(FrameTest, MoveAssignedFrameKeepsTheBytes) {
    Received received;
    std::optional<Frame> frame = received.next();
    ASSERT_TRUE(frame.has_value());
    Frame target;

    target = std::move(*frame);

    EXPECT_EQ(bytesOf(target), first_frame);
}

TEST(FrameTest, MoveAssignmentOverAReceivedFrameTakesTheNewBytes) {
    Received received;
    std::optional<Frame> first = received.next();
    std::optional<Frame> second = received.next();
    ASSERT_TRUE(first.has_value() && second.has_value());

    *first = std::move(*second);

    EXPECT_EQ(bytesOf(*first), second_frame);
}

TEST(FrameTest, FrameKeepsItsBytesWhenTheNextFrameIsReceived) {
    Received received;
    std::optional<Frame> first = received.next();
    ASSERT_TRUE(first.has_value());

    const std::optional<Frame> second = received.next();

    ASSERT_TRUE(second.has_value());
    EXPECT_EQ(bytesOf(*first), first_frame);
}

TEST(FrameTest, FrameKeepsItsBytesAfterItsSocketIsGone) {
    std::optional<Received> received(std::in_place);
    std::optional<Frame> frame = received->next();
    ASSERT_TRUE(frame.has_value());

    received.reset();

    EXPECT_EQ(bytesOf(*frame), first_frame);
}

}  // namespace
