#include "raw_peer.hpp"

#include <zmq.h>

#include <stdexcept>

namespace testsupport {

namespace {

void* rawContext() {
    static void* const context = zmq_ctx_new();
    return context;
}

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + zmq_strerror(zmq_errno()));
}

}  // namespace

std::string localhostEndpoint(int port) {
    return "tcp://localhost:" + std::to_string(port);
}

RawPeer::RawPeer(int zmqSocketType) : _handle(zmq_socket(rawContext(), zmqSocketType)) {
    if (_handle == nullptr) {
        fail("zmq_socket");
    }
    setIntOption(ZMQ_LINGER, 0);
}

RawPeer::~RawPeer() {
    zmq_close(_handle);
}

int RawPeer::bindLoopback() {
    if (zmq_bind(_handle, "tcp://127.0.0.1:*") != 0) {
        fail("zmq_bind");
    }
    char endpoint[256];
    size_t size = sizeof endpoint;
    if (zmq_getsockopt(_handle, ZMQ_LAST_ENDPOINT, endpoint, &size) != 0) {
        fail("ZMQ_LAST_ENDPOINT");
    }
    const std::string text(endpoint);
    return std::stoi(text.substr(text.rfind(':') + 1));
}

void RawPeer::connect(const std::string& endpoint) {
    if (zmq_connect(_handle, endpoint.c_str()) != 0) {
        fail("zmq_connect");
    }
}

void RawPeer::setIntOption(int option, int value) {
    if (zmq_setsockopt(_handle, option, &value, sizeof value) != 0) {
        fail("zmq_setsockopt");
    }
}

void RawPeer::setBytesOption(int option, const std::string& value) {
    if (zmq_setsockopt(_handle, option, value.data(), value.size()) != 0) {
        fail("zmq_setsockopt");
    }
}

void RawPeer::sendFrame(const std::string& bytes, bool more) {
    if (zmq_send(_handle, bytes.data(), bytes.size(), more ? ZMQ_SNDMORE : 0) < 0) {
        fail("zmq_send");
    }
}

void RawPeer::sendMessage(const std::vector<std::string>& frames) {
    for (std::size_t i = 0; i < frames.size(); ++i) {
        sendFrame(frames[i], i + 1 < frames.size());
    }
}

bool RawPeer::waitForInput(std::chrono::milliseconds timeout) {
    zmq_pollitem_t item{_handle, 0, ZMQ_POLLIN, 0};
    const int ready = zmq_poll(&item, 1, static_cast<long>(timeout.count()));
    if (ready < 0) {
        fail("zmq_poll");
    }
    return ready > 0;
}

std::optional<std::vector<Frame>> RawPeer::receiveMessage(std::chrono::milliseconds timeout) {
    if (!waitForInput(timeout)) {
        return std::nullopt;
    }
    std::vector<Frame> frames;
    bool more = true;
    while (more) {
        zmq_msg_t part;
        zmq_msg_init(&part);
        if (zmq_msg_recv(&part, _handle, 0) < 0) {
            zmq_msg_close(&part);
            fail("zmq_msg_recv");
        }
        more = zmq_msg_more(&part) != 0;
        frames.push_back(Frame{
            std::string(static_cast<const char*>(zmq_msg_data(&part)), zmq_msg_size(&part)), more});
        zmq_msg_close(&part);
    }
    return frames;
}

}  // namespace testsupport
