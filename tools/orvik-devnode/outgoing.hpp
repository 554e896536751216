#pragma once

#include <zmq.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

namespace orvikdev {

// What libzmq still holds, in bytes, of the requests the node handed it for
// one destination: the answers to one dealer, or the publications for all
// subscribers together. A request counts from when it is handed over until
// libzmq lets go of its last frame: once its bytes are on their way to the
// kernel, or its connection is gone. Safe to read from any thread.
class QueueAccount {
public:
    std::size_t bytes() const { return _bytes.load(std::memory_order_relaxed); }
    void charge(std::size_t bytes) { _bytes.fetch_add(bytes, std::memory_order_relaxed); }
    void release(std::size_t bytes) { _bytes.fetch_sub(bytes, std::memory_order_relaxed); }

private:
    std::atomic<std::size_t> _bytes{0};
};

// What a queued frame costs besides its bytes: libzmq keeps a zmq_msg_t for
// each. An estimate, for the queue limits.
constexpr std::size_t kFrameCost = 64;

// The last frame of a request, holding what the whole request costs against
// its account. Copies of it sent to several subscribers share its bytes, and
// the cost is released once libzmq has let go of the last copy.
class CountedFrame {
public:
    // The bytes at `data`, which `owner` keeps alive until then.
    CountedFrame(std::shared_ptr<QueueAccount> account, std::size_t cost,
                 std::shared_ptr<const void> owner, const char* data, std::size_t size);
    // The bytes of a frame the node received, which it takes over (`received`
    // is left empty) and passes on without copying them.
    CountedFrame(std::shared_ptr<QueueAccount> account, std::size_t cost, zmq_msg_t* received);
    CountedFrame(const CountedFrame&) = delete;
    CountedFrame& operator=(const CountedFrame&) = delete;
    // Lets go of the node's own reference; copies still queued keep the cost.
    ~CountedFrame();

    zmq_msg_t* message() { return &_message; }

private:
    zmq_msg_t _message;
};

enum class SendOutcome {
    Sent,
    Full,         // the socket has no room for it now (EAGAIN)
    Unreachable,  // a router knows no peer by that identity (EHOSTUNREACH)
};

// Writes the `head` frames (at least one) and then a copy of `last` as one
// request, without waiting. When the outcome is Full or Unreachable, nothing was written.
// Other failures throw wxblt::Exception.
SendOutcome sendWithoutWaiting(void* socket, const std::vector<std::string_view>& head,
                               CountedFrame& last);
// How sendWithoutWaiting() writes frames the node holds as libzmq's own.
enum class Frames {
    Copied,   // copies that share their bytes; the frames stay the caller's
    GivenUp,  // the frames themselves, which are left empty once written
};

// Writes `first`, then the `rest` frames, which the node holds as libzmq's own
// (received ones, say), then a copy of `last`, as one request and with the
// same outcomes. Frames given up are left as they were when the outcome is
// Full or Unreachable, and some of them written when it throws.
SendOutcome sendWithoutWaiting(void* socket, std::string_view first,
                               const std::vector<zmq_msg_t*>& rest, Frames how, CountedFrame& last);

// What a request of these frames costs queued: kFrameCost per frame plus its
// bytes, the last frame's `lastSize` included.
std::size_t queuedCost(const std::vector<std::string_view>& head, std::size_t lastSize);

}  // namespace orvikdev
