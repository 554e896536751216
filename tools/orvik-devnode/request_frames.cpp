#include "request_frames.hpp"

#include <cerrno>
#include <utility>

#include <wxblt/exception.hpp>

namespace orvikdev {

namespace {

[[noreturn]] void throwError(int error) {
    if (error == ETERM) {
        throw wxblt::ZmqTermination();
    }
    throw wxblt::Exception(error);
}

// False when flags hold ZMQ_DONTWAIT and nothing is waiting.
bool receiveInto(zmq_msg_t* frame, void* socket, int flags) {
    while (zmq_msg_recv(frame, socket, flags) < 0) {
        const int error = zmq_errno();
        if (error == EAGAIN && (flags & ZMQ_DONTWAIT) != 0) {
            return false;
        }
        if (error != EINTR) {
            throwError(error);
        }
    }
    return true;
}

void sendFrom(zmq_msg_t* frame, void* socket, bool more) {
    while (zmq_msg_send(frame, socket, more ? ZMQ_SNDMORE : 0) < 0) {
        const int error = zmq_errno();
        if (error != EINTR) {
            throwError(error);
        }
    }
}

}  // namespace

RequestFrames::~RequestFrames() {
    for (std::size_t i = 0; i < _capacity; ++i) {
        zmq_msg_close(&_frames[i]);
    }
}

bool RequestFrames::receive(void* socket, std::size_t limit, bool wait) {
    _size = 0;
    if (!receiveFrame(socket, wait ? 0 : ZMQ_DONTWAIT)) {
        return false;
    }
    // The rest of a request is there once its first frame is.
    while (!_complete && _size < limit) {
        receiveFrame(socket, 0);
    }
    _connection = _size > 1 ? zmq_msg_get(&_frames[1], ZMQ_SRCFD) : -1;
    // Frames of a longer request before let go of their bytes now, not
    // whenever a request as long comes again.
    for (std::size_t i = _size; i < _used; ++i) {
        zmq_msg_close(&_frames[i]);
        zmq_msg_init(&_frames[i]);
    }
    _used = _size;
    return true;
}

bool RequestFrames::receiveFrame(void* socket, int flags) {
    if (_size == _capacity) {
        const std::size_t capacity = _capacity == 0 ? 16 : 2 * _capacity;
        auto frames = std::make_unique<zmq_msg_t[]>(capacity);
        for (std::size_t i = 0; i < capacity; ++i) {
            zmq_msg_init(&frames[i]);
        }
        for (std::size_t i = 0; i < _capacity; ++i) {
            zmq_msg_move(&frames[i], &_frames[i]);
            zmq_msg_close(&_frames[i]);
        }
        auto bytes = std::make_unique<std::string_view[]>(capacity);
        _frames = std::move(frames);
        _bytes = std::move(bytes);
        _capacity = capacity;
        // A frame's bytes may live inside its zmq_msg_t, which has moved.
        for (std::size_t i = 0; i < _size; ++i) {
            _bytes[i] = {static_cast<const char*>(zmq_msg_data(&_frames[i])),
                         zmq_msg_size(&_frames[i])};
        }
    }
    zmq_msg_t* const frame = &_frames[_size];
    if (!receiveInto(frame, socket, flags)) {
        return false;
    }
    _bytes[_size] = {static_cast<const char*>(zmq_msg_data(frame)), zmq_msg_size(frame)};
    _complete = zmq_msg_more(frame) == 0;
    ++_size;
    return true;
}

void RequestFrames::passOn(void* target, void* source) {
    for (std::size_t i = 1; i < _size; ++i) {
        sendFrom(&_frames[i], target, i + 1 < _size || !_complete);
    }
    if (!_complete) {
        zmq_msg_t frame;
        zmq_msg_init(&frame);
        try {
            bool more = true;
            while (more) {
                receiveInto(&frame, source, 0);
                more = zmq_msg_more(&frame) != 0;
                sendFrom(&frame, target, more);
            }
        } catch (...) {
            zmq_msg_close(&frame);
            throw;
        }
        zmq_msg_close(&frame);
        _complete = true;
    }
    _size = 0;
}

}  // namespace orvikdev
