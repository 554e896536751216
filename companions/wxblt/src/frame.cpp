#include <wxblt/frame.hpp>

#include <zmq.h>

#include <cerrno>
#include <utility>

#include <wxblt/socket.hpp>

#include "context.hpp"

namespace wxblt {

namespace {
zmq_msg_t* asMessage(void* storage) {
    return static_cast<zmq_msg_t*>(storage);
}
const zmq_msg_t* asMessage(const void* storage) {
    return static_cast<const zmq_msg_t*>(storage);
}
}  // namespace

Frame::Frame() {
    static_assert(sizeof(zmq_msg_t) <= sizeof _storage, "a zmq_msg_t must fit in a Frame");
    zmq_msg_init(asMessage(_storage));
}

Frame::Frame(Frame&& other) noexcept {
    zmq_msg_init(asMessage(_storage));
    zmq_msg_move(asMessage(_storage), asMessage(other._storage));
}

Frame& Frame::operator=(Frame&& other) noexcept {
    if (this != &other) {
        zmq_msg_move(asMessage(_storage), asMessage(other._storage));
    }
    return *this;
}

Frame::~Frame() {
    zmq_msg_close(asMessage(_storage));
}

// zmq_msg_data takes a non-const message although it does not change it.
const char* Frame::data() const {
    return static_cast<const char*>(zmq_msg_data(const_cast<zmq_msg_t*>(asMessage(_storage))));
}

std::size_t Frame::size() const {
    return zmq_msg_size(asMessage(_storage));
}

void* Frame::message() {
    return _storage;
}

Frame Socket::recvFrame() {
    detail::throwIfShutDown();
    if (_has_ahead) {
        _has_ahead = false;
        return std::move(_ahead);
    }
    Frame frame;
    while (zmq_msg_recv(asMessage(frame.message()), _handle, 0) < 0) {
        const int error = zmq_errno();
        if (error != EINTR) {
            detail::throwError(error);
        }
    }
    return frame;
}

}  // namespace wxblt
