#pragma once

#include <zmq.h>

#include <cstddef>
#include <memory>
#include <string_view>

namespace orvikdev {

// The frames of one request as the router received them, the identity first,
// kept as libzmq's own messages so that they can be passed on without copying
// their bytes. One instance serves request after request and reuses its
// frames.
class RequestFrames {
public:
    RequestFrames() = default;
    RequestFrames(const RequestFrames&) = delete;
    RequestFrames& operator=(const RequestFrames&) = delete;
    ~RequestFrames();

    // Receives the next request from `socket`, but at most `limit` frames of
    // it (at least one): complete() tells whether that was all. Waits for it
    // when `wait`; otherwise returns false when none is waiting. Throws
    // wxblt::ZmqTermination once the context is shut down, and
    // wxblt::Exception for other failures.
    bool receive(void* socket, std::size_t limit, bool wait);
    // True when the last frame received ends the request.
    bool complete() const { return _complete; }

    std::size_t size() const { return _size; }
    // The bytes of a frame, valid until the frame is passed on or the next
    // receive().
    std::string_view bytes(std::size_t index) const { return _bytes[index]; }
    zmq_msg_t* frame(std::size_t index) { return &_frames[index]; }
    // The descriptor of the connection the request came from (ZMQ_SRCFD of
    // its second frame, which the identity does not carry), -1 without one.
    int connection() const { return _connection; }

    // Writes the frames after the identity to `target` as one request, and
    // after them the rest of the request still unread on `source` when it
    // was not complete, frame by frame. The frames are moved, not copied.
    // Throws wxblt::Exception when a frame cannot be written or read.
    void passOn(void* target, void* source);

private:
    bool receiveFrame(void* socket, int flags);

    // zmq_msg_t is moved with zmq_msg_move only, never byte-wise: the frames
    // live in an array of their own, and _bytes beside them.
    std::unique_ptr<zmq_msg_t[]> _frames;
    std::unique_ptr<std::string_view[]> _bytes;
    std::size_t _capacity = 0;
    std::size_t _size = 0;
    // Frames of earlier requests beyond _size that may still hold bytes.
    std::size_t _used = 0;
    bool _complete = true;
    int _connection = -1;
};

}  // namespace orvikdev
