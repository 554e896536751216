#pragma once

#include <zmq.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <typeinfo>

#include <gtest/gtest.h>

#include <orvikm/payload.hpp>
#include <orvikm/receiver.hpp>
#include <orvikm/request.hpp>
#include <support/payload_helpers.hpp>
#include <support/raw_peer.hpp>
#include <support/reserved_port.hpp>
#include <support/socket_input.hpp>
#include <wxblt/exception.hpp>
#include <wxblt/socket.hpp>

namespace testsupport {

// Frames in failure output: bytes escaped, then the more flag.
inline void PrintTo(const Frame& frame, std::ostream* out) {
    *out << '"';
    for (const char c : frame.bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7f && c != '"' && c != '\\') {
            *out << c;
        } else {
            static const char digits[] = "0123456789abcdef";
            *out << "\\x" << digits[byte >> 4] << digits[byte & 0xf];
        }
    }
    *out << '"' << (frame.more ? " +more" : " last");
}

}  // namespace testsupport

// Sockets and helpers shared by the wire tests. The library's sockets are
// watched with libzmq's own poll on their handles, and hand-made frames come
// from a raw libzmq peer, so that the code under test checks nothing about
// itself.
namespace wiretest {

using namespace std::chrono_literals;
using testsupport::Frame;

// Long enough for anything on loopback, also under valgrind; short enough that
// a broken build fails instead of hanging.
constexpr std::chrono::milliseconds kArrivalTimeout = 10s;

// The delimiter frame: exactly one zero byte.
inline const std::string kDelimiter(1, '\0');

inline Frame moreFrame(std::string bytes) {
    return Frame{std::move(bytes), true};
}

inline Frame lastFrame(std::string bytes) {
    return Frame{std::move(bytes), false};
}

// "tcp://127.0.0.1:PORT". The tests connect by address rather than by the
// name localhost: a name lookup in ZeroMQ's I/O thread leaves resolver state
// behind that outlives the tests and clutters leak reports.
inline std::string loopbackEndpoint(int port) {
    return "tcp://127.0.0.1:" + std::to_string(port);
}

// Waits at most `timeout` for a frame that can be received without blocking.
inline bool waitForInput(const wxblt::Socket& socket,
                         std::chrono::milliseconds timeout = kArrivalTimeout) {
    return testsupport::waitForInput(socket, timeout);
}

// The next frame; throws when none arrives in time.
inline std::string readRawFrame(wxblt::Socket& socket) {
    std::optional<std::string> frame = testsupport::receiveFrame(socket, kArrivalTimeout);
    if (!frame) {
        throw std::runtime_error("no frame arrived in time");
    }
    return *frame;
}

// receive() once a request has arrived; fails instead of blocking when none
// comes in time.
inline std::unique_ptr<orvikm::internal_objects::Request> receiveArrived(
    orvikm::Receiver& receiver, const wxblt::Socket& socket) {
    if (!waitForInput(socket)) {
        throw std::runtime_error("no request arrived in time");
    }
    return receiver.receive();
}

// Runs the action and returns a copy of the error of type Error that it
// threw, or nothing when it threw none. Errors of other types pass on and
// fail the test. The thrown object must be exactly an Error, not a subclass.
template <typename Error, typename Action>
std::optional<Error> thrownBy(Action&& action) {
    try {
        action();
    } catch (const Error& error) {
        EXPECT_TRUE(typeid(error) == typeid(Error))
            << "thrown as " << typeid(error).name() << ", expected " << typeid(Error).name();
        return error;
    }
    return std::nullopt;
}

using testsupport::bytesOf;
using testsupport::payloadOf;

// Bytes 0 to 255 over and over, zeros included.
inline std::string binaryBytes(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>(i % 256);
    }
    return bytes;
}

// A dealer socket of the library bound on loopback, and a raw dealer peer
// connected to it. Both directions work once the constructor returns: the
// peer's first frame has been seen by the library's socket.
class PeerLink {
public:
    PeerLink() : socket(wxblt::SocketType::Dealer), peer(ZMQ_DEALER) {
        socket.bind("tcp://127.0.0.1:*");
        peer.setIntOption(ZMQ_SNDTIMEO, static_cast<int>(kArrivalTimeout.count()));
        peer.connect(socket.lastEndpoint());
        peer.sendFrame(kHello, false);
        if (readRawFrame(socket) != kHello || socket.checkMore()) {
            throw std::runtime_error("the peer's greeting did not arrive");
        }
    }

    wxblt::Socket socket;
    testsupport::RawPeer peer;

private:
    inline static const std::string kHello = "hello";
};

// Two dealer sockets of the library on loopback: `sending` connected to the
// bound `receiving`. The connection is set up once the constructor returns.
class SocketLink {
public:
    SocketLink() : receiving(wxblt::SocketType::Dealer), sending(wxblt::SocketType::Dealer) {
        receiving.bind("tcp://127.0.0.1:*");
        sending.connect(receiving.lastEndpoint());
        // The sending socket refuses to queue until it is connected: retry
        // its first frame until the connection is there.
        const auto deadline = std::chrono::steady_clock::now() + kArrivalTimeout;
        for (;;) {
            try {
                sending.send(kHello, false);
                break;
            } catch (const wxblt::Exception& error) {
                if (error.errorNumber() != EAGAIN || std::chrono::steady_clock::now() > deadline) {
                    throw;
                }
            }
        }
        if (readRawFrame(receiving) != kHello || receiving.checkMore()) {
            throw std::runtime_error("the greeting did not arrive");
        }
    }

    wxblt::Socket receiving;
    wxblt::Socket sending;

private:
    inline static const std::string kHello = "hello";
};

// A loopback port where nothing listens, addressed as an endpoint.
class DeadPort : public testsupport::ReservedPort {
public:
    std::string endpoint() const { return loopbackEndpoint(port()); }
};

}  // namespace wiretest
