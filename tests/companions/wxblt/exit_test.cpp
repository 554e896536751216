#include <gtest/gtest.h>
#include <zmq.h>

#include <wxblt/exception.hpp>
#include <wxblt/socket.hpp>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>

#include "socket_helpers.hpp"
#include "support/child_process.hpp"
#include "support/raw_peer.hpp"

// A process must be able to end while its sockets still hold frames that no
// peer takes. Each test ends a child process with std::exit, which runs the
// same exit handlers and static destructors as a return from main.
namespace {

using namespace std::chrono_literals;
using wxblt::Socket;
using wxblt::SocketType;

const std::string unfinished_frame = "first frame of a message never finished";
// Large frames fill the socket's queue and the connection's buffers quickly.
const std::string large_frame(64 * 1024, 'x');
constexpr int max_sends = 100000;
// The time allowed for the whole child: starting, filling its queue, exiting.
constexpr auto child_timeout = 15s;

// What the child reports when it could not set up what the test is about.
constexpr int setup_failed = 3;

// Sends large frames to a peer that accepted the connection but never reads,
// until a send fails because nothing more can be queued. True when frames
// were sent and are now held by the socket.
bool fillQueue(Socket& dealer) {
    int sent = 0;
    const auto deadline = std::chrono::steady_clock::now() + wxblttest::arrival_timeout;
    while (sent < max_sends && std::chrono::steady_clock::now() < deadline) {
        try {
            dealer.send(large_frame, false);
            ++sent;
        } catch (const wxblt::Exception& error) {
            // Before the first frame, the connection may still be on its way.
            if (error.errorNumber() != EAGAIN || sent > 0) {
                return error.errorNumber() == EAGAIN;
            }
        }
    }
    return false;
}

// A router that takes the connection and then reads nothing, with room for
// one message only.
struct SilentPeer {
    SilentPeer() : router(ZMQ_ROUTER) {
        router.setIntOption(ZMQ_RCVHWM, 1);
        port = router.bindLoopback();
    }

    testsupport::RawPeer router;
    int port = 0;
};

void expectCleanExit(const testsupport::ChildResult& result) {
    EXPECT_FALSE(result.timedOut);
    EXPECT_TRUE(result.exited) << "signal " << result.signal;
    EXPECT_EQ(result.exitCode, 0) << "3: the queue could not be filled";
}

TEST(ProcessExitTest, ExitWithFramesQueuedOnAnOpenSocketDoesNotHang) {
    if (testsupport::inChild()) {
        SilentPeer peer;
        Socket dealer(SocketType::Dealer);
        dealer.connect(testsupport::localhostEndpoint(peer.port));
        if (!fillQueue(dealer)) {
            std::_Exit(setup_failed);
        }
        std::exit(0);
    }

    expectCleanExit(testsupport::runCurrentTestInChild(child_timeout));
}

TEST(ProcessExitTest, ExitRightAfterClosingASocketWithFramesQueuedDoesNotHang) {
    if (testsupport::inChild()) {
        SilentPeer peer;
        {
            Socket dealer(SocketType::Dealer);
            dealer.connect(testsupport::localhostEndpoint(peer.port));
            if (!fillQueue(dealer)) {
                std::_Exit(setup_failed);
            }
        }
        std::exit(0);
    }

    expectCleanExit(testsupport::runCurrentTestInChild(child_timeout));
}

TEST(ProcessExitTest, ExitClosingAStaticSocketWithFramesQueuedDoesNotHang) {
    if (testsupport::inChild()) {
        SilentPeer peer;
        // Destroyed among the static objects, while the process exits.
        static Socket dealer(SocketType::Dealer);
        dealer.connect(testsupport::localhostEndpoint(peer.port));
        if (!fillQueue(dealer)) {
            std::_Exit(setup_failed);
        }
        std::exit(0);
    }

    expectCleanExit(testsupport::runCurrentTestInChild(child_timeout));
}

TEST(ProcessExitTest, ExitWithAnUnfinishedOutgoingMessageOnAnOpenSocketDoesNotHang) {
    if (testsupport::inChild()) {
        SilentPeer peer;
        Socket dealer(SocketType::Dealer);
        dealer.connect(testsupport::localhostEndpoint(peer.port));
        try {
            dealer.send(unfinished_frame, true);
        } catch (const wxblt::Exception&) {
            std::_Exit(setup_failed);
        }
        std::exit(0);
    }

    expectCleanExit(testsupport::runCurrentTestInChild(child_timeout));
}

}  // namespace
