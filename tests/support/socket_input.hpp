#pragma once

#include <zmq.h>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <wxblt/socket.hpp>

// Reads from a socket of the library with libzmq's own poll on its handle, so
// that a broken socket layer cannot hide its own faults.
namespace testsupport {

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
inline std::optional<std::string> receiveFrame(wxblt::Socket& socket,
                                               std::chrono::milliseconds timeout) {
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

}  // namespace testsupport
