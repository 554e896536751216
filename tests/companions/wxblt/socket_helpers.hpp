#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <zmq.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <iomanip>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <wxblt/socket.hpp>

#include "support/raw_peer.hpp"

// Small helpers shared by the socket-layer tests. They reach the sockets under
// test only through their public handle, with libzmq's own poll, so that a
// broken socket layer cannot hide its own faults.
namespace wxblttest {

using namespace std::chrono_literals;

// Long enough for anything on loopback, short enough that a broken build
// fails quickly instead of hanging.
constexpr std::chrono::milliseconds arrival_timeout = 5s;

// Waits at most `timeout` for a frame that can be received without blocking.
inline bool waitForInput(const wxblt::Socket& socket, std::chrono::milliseconds timeout) {
    zmq_pollitem_t item{socket.handle(), 0, ZMQ_POLLIN, 0};
    const int ready = zmq_poll(&item, 1, static_cast<long>(timeout.count()));
    if (ready < 0) {
        throw std::runtime_error(std::string("zmq_poll: ") + zmq_strerror(zmq_errno()));
    }
    return ready > 0;
}

// The next frame, or nothing when none arrived in time. recv() blocks without
// limit, so it is only called once a frame is known to be there.
inline std::optional<std::string> receiveFrame(
    wxblt::Socket& socket, std::chrono::milliseconds timeout = arrival_timeout) {
    if (!waitForInput(socket, timeout)) {
        return std::nullopt;
    }
    std::vector<char> buffer(64 * 1024);
    const unsigned length = socket.recv(buffer.data(), static_cast<unsigned>(buffer.size()));
    if (length > buffer.size()) {
        throw std::runtime_error("frame larger than the test buffer");
    }
    return std::string(buffer.data(), length);
}

// Runs `call` on a thread of its own and waits at most `timeout` for its
// result: a call that blocks for ever fails the test instead of hanging it.
// Whatever the call uses must be owned by it (through shared pointers), since a
// call left behind outlives the test. An exception of the call is rethrown.
template <typename Result>
std::optional<Result> callWithin(std::chrono::milliseconds timeout, std::function<Result()> call) {
    auto done = std::make_shared<std::promise<Result>>();
    std::future<Result> result = done->get_future();
    std::thread([done, call = std::move(call)] {
        try {
            done->set_value(call());
        } catch (...) {
            done->set_exception(std::current_exception());
        }
    }).detach();
    if (result.wait_for(timeout) != std::future_status::ready) {
        return std::nullopt;
    }
    return result.get();
}

// The kernel's id of the calling thread, for waitUntilAsleep().
inline pid_t currentThreadId() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

// Waits at most `timeout` until thread `tid` of this process is asleep in the
// kernel, as a thread blocked in a poll or a receive is. No event tells that a
// thread has reached its blocking call, so this looks at its state.
inline bool waitUntilAsleep(pid_t tid, std::chrono::milliseconds timeout) {
    const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        std::ifstream stat(path);
        std::string line;
        std::getline(stat, line);
        // The state follows the command name, which is in parentheses.
        const std::size_t close = line.rfind(')');
        if (close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'S') {
            return true;
        }
        std::this_thread::sleep_for(1ms);
    }
    return false;
}

// The port of an endpoint such as "tcp://127.0.0.1:41234".
inline int portOf(const std::string& endpoint) {
    return std::stoi(endpoint.substr(endpoint.rfind(':') + 1));
}

// A loopback port that nothing listens on: a plain TCP socket is bound to it
// but never listens, so connections to it are refused and no other socket can
// take it until release().
class ReservedPort {
public:
    ReservedPort() : _fd(::socket(AF_INET, SOCK_STREAM, 0)) {
        if (_fd < 0) {
            throw std::runtime_error("socket() failed");
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = 0;
        socklen_t size = sizeof address;
        if (::bind(_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::getsockname(_fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            ::close(_fd);
            throw std::runtime_error("cannot reserve a loopback port");
        }
        _port = ntohs(address.sin_port);
    }
    ReservedPort(const ReservedPort&) = delete;
    ReservedPort& operator=(const ReservedPort&) = delete;
    ~ReservedPort() { release(); }

    int port() const noexcept { return _port; }

    // Frees the port for a peer that is to bind to it.
    void release() noexcept {
        if (_fd >= 0) {
            ::close(_fd);
            _fd = -1;
        }
    }

private:
    int _fd;
    int _port = 0;
};

}  // namespace wxblttest

namespace testsupport {

// Lets a failed comparison show the frames it was about.
inline void PrintTo(const Frame& frame, std::ostream* out) {
    *out << "{" << std::quoted(frame.bytes) << (frame.more ? ", more}" : ", last}");
}

}  // namespace testsupport
