#include <wxblt/socket.hpp>

#include <zmq.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include <wxblt/exception.hpp>

#include "context.hpp"

namespace wxblt {

namespace {

// ZMQ_IMMEDIATE keeps a socket from queueing for a peer that is not there, and
// the send timeout lets a connection that is still being set up finish first,
// with room to spare on a busy machine.
constexpr int send_timeout_ms = 500;
// Long enough for a last acknowledgement to leave, short enough that closing
// never holds anything up for long.
constexpr int linger_ms = 1000;

void setOption(void* handle, int option, const void* value, size_t size) {
    if (zmq_setsockopt(handle, option, value, size) != 0) {
        detail::throwLastError();
    }
}

void setIntOption(void* handle, int option, int value) {
    setOption(handle, option, &value, sizeof value);
}

int intOption(void* handle, int option) {
    int value = 0;
    size_t size = sizeof value;
    if (zmq_getsockopt(handle, option, &value, &size) != 0) {
        detail::throwLastError();
    }
    return value;
}

}  // namespace

Socket::Socket(SocketType type)
    : _handle(zmq_socket(detail::context(), static_cast<int>(type))), _type(type) {
    if (_handle == nullptr) {
        detail::throwLastError();
    }
    try {
        setIntOption(_handle, ZMQ_LINGER, linger_ms);
        setIntOption(_handle, ZMQ_SNDTIMEO, send_timeout_ms);
        // A subscriber sends only its subscriptions, and with ZMQ_IMMEDIATE
        // libzmq never sends them.
        if (type != SocketType::Sub) {
            setIntOption(_handle, ZMQ_IMMEDIATE, 1);
        }
    } catch (...) {
        close();
        throw;
    }
}

Socket::Socket(Socket&& other) noexcept
    : _handle(std::exchange(other._handle, nullptr)),
      _type(other._type),
      _read_ahead(other._read_ahead),
      _has_ahead(std::exchange(other._has_ahead, false)),
      _ahead(std::move(other._ahead)) {}

Socket& Socket::operator=(Socket&& other) noexcept {
    if (this != &other) {
        close();
        _handle = std::exchange(other._handle, nullptr);
        _type = other._type;
        _read_ahead = other._read_ahead;
        _has_ahead = std::exchange(other._has_ahead, false);
        _ahead = std::move(other._ahead);
    }
    return *this;
}

Socket::~Socket() {
    close();
}

void Socket::close() noexcept {
    if (_has_ahead) {
        _ahead = Frame();
        _has_ahead = false;
    }
    if (_handle != nullptr) {
        zmq_close(_handle);
        _handle = nullptr;
    }
}

void Socket::setIdentity(const std::string& identity) {
    detail::throwIfShutDown();
    setOption(_handle, ZMQ_ROUTING_ID, identity.data(), identity.size());
}

void Socket::subscribe(std::string topic) {
    detail::throwIfShutDown();
    setOption(_handle, ZMQ_SUBSCRIBE, topic.data(), topic.size());
}

void Socket::connect(std::string endpoint) {
    detail::throwIfShutDown();
    if (zmq_connect(_handle, endpoint.c_str()) != 0) {
        detail::throwLastError();
    }
}

void Socket::monitor(const std::string& endpoint, int events) {
    detail::throwIfShutDown();
    if (zmq_socket_monitor(_handle, endpoint.c_str(), events) != 0) {
        detail::throwLastError();
    }
}

void Socket::stopMonitor() noexcept {
    if (_handle != nullptr) {
        zmq_socket_monitor(_handle, nullptr, 0);
    }
}

bool Socket::canSend() const {
    detail::throwIfShutDown();
    return (intOption(_handle, ZMQ_EVENTS) & ZMQ_POLLOUT) != 0;
}

void Socket::bind(const std::string& endpoint) {
    detail::throwIfShutDown();
    if (zmq_bind(_handle, endpoint.c_str()) != 0) {
        detail::throwLastError();
    }
}

std::string Socket::lastEndpoint() const {
    detail::throwIfShutDown();
    char endpoint[1024];
    size_t size = sizeof endpoint;
    if (zmq_getsockopt(_handle, ZMQ_LAST_ENDPOINT, endpoint, &size) != 0) {
        detail::throwLastError();
    }
    // The size counts the terminating zero.
    return std::string(endpoint, size > 0 ? size - 1 : 0);
}

void Socket::send(const char* data, unsigned size, bool more) {
    detail::throwIfShutDown();
    const int flags = more ? ZMQ_SNDMORE : 0;
    while (zmq_send(_handle, data, size, flags) < 0) {
        if (zmq_errno() != EINTR) {
            detail::throwLastError();
        }
    }
}

void Socket::send(const std::string& frame, bool more) {
    send(frame.data(), static_cast<unsigned>(frame.size()), more);
}

unsigned Socket::recv(char* buffer, unsigned size) {
    detail::throwIfShutDown();
    if (_has_ahead) {
        const Frame ahead = recvFrame();
        const std::size_t length = ahead.size();
        const std::size_t copied = length < size ? length : size;
        if (copied > 0) {
            std::memcpy(buffer, ahead.data(), copied);
        }
        return length > std::numeric_limits<unsigned>::max() ? std::numeric_limits<unsigned>::max()
                                                             : static_cast<unsigned>(length);
    }
    zmq_msg_t frame;
    zmq_msg_init(&frame);
    while (zmq_msg_recv(&frame, _handle, 0) < 0) {
        const int error = zmq_errno();
        if (error != EINTR) {
            zmq_msg_close(&frame);
            detail::throwError(error);
        }
    }
    // zmq_msg_size is a size_t, so frames beyond 2 GiB still report their
    // real length (which zmq_recv's int cannot).
    const std::size_t length = zmq_msg_size(&frame);
    const std::size_t copied = length < size ? length : size;
    if (copied > 0) {
        std::memcpy(buffer, zmq_msg_data(&frame), copied);
    }
    zmq_msg_close(&frame);
    return length > std::numeric_limits<unsigned>::max() ? std::numeric_limits<unsigned>::max()
                                                         : static_cast<unsigned>(length);
}

bool Socket::checkMore() const {
    detail::throwIfShutDown();
    // A frame is received ahead only once the message before it is complete.
    if (_has_ahead) {
        return false;
    }
    return intOption(_handle, ZMQ_RCVMORE) != 0;
}

void Socket::flushMessage() {
    detail::throwIfShutDown();
    zmq_msg_t part;
    zmq_msg_init(&part);
    while (checkMore()) {
        if (zmq_msg_recv(&part, _handle, 0) < 0 && zmq_errno() != EINTR) {
            const int error = zmq_errno();
            zmq_msg_close(&part);
            detail::throwError(error);
        }
    }
    zmq_msg_close(&part);
}

void Socket::setSendHighWaterMark(int messages) {
    detail::throwIfShutDown();
    setIntOption(_handle, ZMQ_SNDHWM, messages);
}

void Socket::setReceiveHighWaterMark(int messages) {
    detail::throwIfShutDown();
    setIntOption(_handle, ZMQ_RCVHWM, messages);
}

void Socket::setSendTimeout(std::chrono::milliseconds timeout) {
    detail::throwIfShutDown();
    const auto limit = std::chrono::milliseconds(std::numeric_limits<int>::max());
    setIntOption(
        _handle, ZMQ_SNDTIMEO,
        static_cast<int>(std::clamp(timeout, std::chrono::milliseconds(-1), limit).count()));
}

void Socket::setRouterMandatory(bool mandatory) {
    detail::throwIfShutDown();
    setIntOption(_handle, ZMQ_ROUTER_MANDATORY, mandatory ? 1 : 0);
}

bool Socket::hasInput() const {
    detail::throwIfShutDown();
    if (_has_ahead) {
        return true;
    }
    return (intOption(_handle, ZMQ_EVENTS) & ZMQ_POLLIN) != 0;
}

int Socket::descriptor() const {
    detail::throwIfShutDown();
    return intOption(_handle, ZMQ_FD);
}

void Socket::setReadAhead(bool enabled) noexcept {
    _read_ahead = enabled;
}

bool Socket::inputWaiting() {
    if (!_read_ahead || _has_ahead) {
        return hasInput();
    }
    // The rest of a message that its reader left unread is input as well, and
    // must not be mistaken for the start of the next one.
    if (checkMore()) {
        return true;
    }
    // ZMQ_EVENTS asks the socket's command mailbox every time, a poll and
    // libzmq's fork check (getpid) when nothing is pending. A receive that
    // finds a frame asks it only every hundredth time.
    while (zmq_msg_recv(static_cast<zmq_msg_t*>(_ahead.message()), _handle, ZMQ_DONTWAIT) < 0) {
        const int error = zmq_errno();
        if (error == EAGAIN) {
            return false;
        }
        if (error != EINTR) {
            detail::throwError(error);
        }
    }
    _has_ahead = true;
    return true;
}

}  // namespace wxblt
