#pragma once

#include <cstddef>

namespace wxblt {

/// One received frame, still in ZeroMQ's own buffer: its length is known
/// before anything is copied. Movable, not copyable.
class Frame {
public:
    /// An empty frame, to be filled by Socket::recvFrame().
    Frame();
    ///@{
    /// Takes over the other frame's buffer; `other` is left empty.
    Frame(Frame&& other) noexcept;
    Frame& operator=(Frame&& other) noexcept;
    ///@}
    Frame(const Frame&) = delete;
    Frame& operator=(const Frame&) = delete;
    ~Frame();

    /// The frame's bytes, valid while the frame lives.
    const char* data() const;
    /// The frame's length in bytes.
    std::size_t size() const;

private:
    friend class Socket;
    void* message();

    // Room for a zmq_msg_t, whose layout stays inside the socket layer.
    alignas(8) unsigned char _storage[64];
};

}  // namespace wxblt
