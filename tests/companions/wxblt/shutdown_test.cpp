#include <gtest/gtest.h>

#include <wxblt/exception.hpp>
#include <wxblt/input_selector.hpp>
#include <wxblt/socket.hpp>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "socket_helpers.hpp"
#include "support/child_process.hpp"

// Shutting the context down is for the whole process and cannot be undone, so
// every test does it in a child process and reports through its exit code.
namespace {

using namespace std::chrono_literals;
using wxblt::InputSelector;
using wxblt::Socket;
using wxblt::SocketType;

const std::string loopback_any_port = "tcp://127.0.0.1:0";
const std::string unused_endpoint = "tcp://127.0.0.1:1";
const std::string identity = "after-shutdown";
const std::string frame = "frame";
constexpr auto child_timeout = 20s;

// How the call under test ended, as the child's exit code.
enum Outcome : int {
    threw_zmq_termination = 0,
    returned_normally = 1,
    threw_something_else = 2,
    not_blocked_in_time = 3,
};

template <typename Call>
Outcome outcomeOf(Call&& call) {
    try {
        call();
    } catch (const wxblt::ZmqTermination&) {
        return threw_zmq_termination;
    } catch (...) {
        return threw_something_else;
    }
    return returned_normally;
}

// In the child: shuts the context down, makes the call on a socket of `type`
// made before, and exits with the outcome. In the parent: the child's result.
template <typename Call>
testsupport::ChildResult callAfterShutdown(SocketType type, Call&& call) {
    if (testsupport::inChild()) {
        Socket socket(type);
        wxblt::shutdown();
        std::_Exit(outcomeOf([&] { call(socket); }));
    }
    return testsupport::runCurrentTestInChild(child_timeout);
}

// In the child: makes the blocking call on a bound socket in this thread while
// another thread shuts the context down once this one is blocked, and exits
// with the outcome. In the parent: the child's result.
template <typename Call>
testsupport::ChildResult callBlockedAtShutdown(Call&& call) {
    if (testsupport::inChild()) {
        Socket socket(SocketType::Dealer);
        socket.bind(loopback_any_port);
        const pid_t blocked = wxblttest::currentThreadId();
        bool blockedInTime = false;
        std::thread stopper([&] {
            blockedInTime = wxblttest::waitUntilAsleep(blocked, wxblttest::arrival_timeout);
            wxblt::shutdown();
        });
        const Outcome outcome = outcomeOf([&] { call(socket); });
        stopper.join();
        std::_Exit(blockedInTime ? outcome : not_blocked_in_time);
    }
    return testsupport::runCurrentTestInChild(child_timeout);
}

void expectZmqTermination(const testsupport::ChildResult& result) {
    EXPECT_FALSE(result.timedOut);
    EXPECT_TRUE(result.exited) << "signal " << result.signal;
    EXPECT_EQ(result.exitCode, threw_zmq_termination)
        << "1: returned normally, 2: threw something else, 3: never blocked";
}

TEST(ShutdownTest, EndsABlockedRunWithZmqTermination) {
    const auto result = callBlockedAtShutdown([](Socket& socket) {
        InputSelector selector({{&socket, [](Socket*) {}}});
        selector.run(std::chrono::hours(1));
    });

    expectZmqTermination(result);
}

TEST(ShutdownTest, EndsABlockedRecvWithZmqTermination) {
    const auto result = callBlockedAtShutdown([](Socket& socket) {
        char buffer[16];
        socket.recv(buffer, sizeof buffer);
    });

    expectZmqTermination(result);
}

TEST(ShutdownTest, EndsABlockedRecvFrameWithZmqTermination) {
    const auto result = callBlockedAtShutdown([](Socket& socket) { socket.recvFrame(); });

    expectZmqTermination(result);
}

TEST(ShutdownTest, SocketCreatedAfterShutdownThrowsZmqTermination) {
    if (testsupport::inChild()) {
        wxblt::shutdown();
        std::_Exit(outcomeOf([] { Socket socket(SocketType::Dealer); }));
    }

    expectZmqTermination(testsupport::runCurrentTestInChild(child_timeout));
}

TEST(ShutdownTest, SocketCreatedAfterShutdownWhileOthersStayOpenThrowsZmqTermination) {
    const auto result =
        callAfterShutdown(SocketType::Dealer, [](Socket&) { Socket another(SocketType::Router); });

    expectZmqTermination(result);
}

TEST(ShutdownTest, SendAfterShutdownThrowsZmqTermination) {
    const auto result =
        callAfterShutdown(SocketType::Dealer, [](Socket& socket) { socket.send(frame, false); });

    expectZmqTermination(result);
}

TEST(ShutdownTest, RecvAfterShutdownThrowsZmqTermination) {
    const auto result = callAfterShutdown(SocketType::Dealer, [](Socket& socket) {
        char buffer[16];
        socket.recv(buffer, sizeof buffer);
    });

    expectZmqTermination(result);
}

TEST(ShutdownTest, RecvFrameAfterShutdownThrowsZmqTermination) {
    const auto result =
        callAfterShutdown(SocketType::Dealer, [](Socket& socket) { socket.recvFrame(); });

    expectZmqTermination(result);
}

TEST(ShutdownTest, ConnectAfterShutdownThrowsZmqTermination) {
    const auto result = callAfterShutdown(SocketType::Dealer,
                                          [](Socket& socket) { socket.connect(unused_endpoint); });

    expectZmqTermination(result);
}

TEST(ShutdownTest, BindAfterShutdownThrowsZmqTermination) {
    const auto result = callAfterShutdown(SocketType::Dealer,
                                          [](Socket& socket) { socket.bind(loopback_any_port); });

    expectZmqTermination(result);
}

TEST(ShutdownTest, SetIdentityAfterShutdownThrowsZmqTermination) {
    const auto result =
        callAfterShutdown(SocketType::Dealer, [](Socket& socket) { socket.setIdentity(identity); });

    expectZmqTermination(result);
}

TEST(ShutdownTest, SubscribeAfterShutdownThrowsZmqTermination) {
    const auto result =
        callAfterShutdown(SocketType::Sub, [](Socket& socket) { socket.subscribe(frame); });

    expectZmqTermination(result);
}

TEST(ShutdownTest, SetSendHighWaterMarkAfterShutdownThrowsZmqTermination) {
    const auto result = callAfterShutdown(SocketType::Dealer,
                                          [](Socket& socket) { socket.setSendHighWaterMark(1); });

    expectZmqTermination(result);
}

TEST(ShutdownTest, SetReceiveHighWaterMarkAfterShutdownThrowsZmqTermination) {
    const auto result = callAfterShutdown(
        SocketType::Dealer, [](Socket& socket) { socket.setReceiveHighWaterMark(1); });

    expectZmqTermination(result);
}

TEST(ShutdownTest, SetRouterMandatoryAfterShutdownThrowsZmqTermination) {
    const auto result = callAfterShutdown(SocketType::Router,
                                          [](Socket& socket) { socket.setRouterMandatory(true); });

    expectZmqTermination(result);
}

TEST(ShutdownTest, LastEndpointAfterShutdownThrowsZmqTermination) {
    const auto result =
        callAfterShutdown(SocketType::Dealer, [](Socket& socket) { socket.lastEndpoint(); });

    expectZmqTermination(result);
}

TEST(ShutdownTest, CheckMoreAfterShutdownThrowsZmqTermination) {
    const auto result =
        callAfterShutdown(SocketType::Dealer, [](Socket& socket) { socket.checkMore(); });

    expectZmqTermination(result);
}

TEST(ShutdownTest, FlushMessageAfterShutdownThrowsZmqTermination) {
    const auto result =
        callAfterShutdown(SocketType::Dealer, [](Socket& socket) { socket.flushMessage(); });

    expectZmqTermination(result);
}

TEST(ShutdownTest, HasInputAfterShutdownThrowsZmqTermination) {
    const auto result =
        callAfterShutdown(SocketType::Dealer, [](Socket& socket) { socket.hasInput(); });

    expectZmqTermination(result);
}

TEST(ShutdownTest, RunAfterShutdownThrowsZmqTermination) {
    const auto result = callAfterShutdown(SocketType::Dealer, [](Socket& socket) {
        InputSelector selector({{&socket, [](Socket*) {}}});
        selector.run(std::chrono::milliseconds(0));
    });

    expectZmqTermination(result);
}

}  // namespace
