#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace orvikm::detail {

// The room the outgoing queue has under Options::maxQueued and
// maxQueuedBytes: a sender takes room for its message before anything of it
// is registered or queued, and the I/O thread gives it back as the message
// leaves the queue (written, or expired). Senders that find no room may wait
// for it. Used only while a bound is set, so an unbounded client never takes
// its lock.
class QueueRoom {
public:
    // Which bound refused a message.
    enum class Full { No, Messages, Bytes };

    QueueRoom(std::size_t maxMessages, std::size_t maxBytes);
    QueueRoom(const QueueRoom&) = delete;
    QueueRoom& operator=(const QueueRoom&) = delete;

    bool bounded() const noexcept { return _max_messages > 0 || _max_bytes > 0; }

    // Takes room for one message of `bytes`, waiting at most `wait` for it
    // while the queue is full. The wait also ends, without room, once
    // `terminations` differs from what it was at the call. A message larger
    // than the byte bound alone is refused at once.
    Full take(std::size_t bytes, std::chrono::milliseconds wait,
              const std::atomic<std::uint64_t>& terminations);
    // A message of `bytes` that took room has left the queue.
    void giveBack(std::size_t bytes);
    // As giveBack for each of `messages` messages of `bytes` in all.
    void giveBack(std::size_t messages, std::size_t bytes);

    // What a refusal names: the bound, and how much of it was in use.
    std::size_t maxMessages() const noexcept { return _max_messages; }
    std::size_t maxBytes() const noexcept { return _max_bytes; }

private:
    Full fullFor(std::size_t bytes) const;

    const std::size_t _max_messages;
    const std::size_t _max_bytes;
    std::mutex _mutex;
    std::condition_variable _room_freed;
    std::size_t _messages = 0;
    std::size_t _bytes = 0;
    std::size_t _waiting = 0;
};

}  // namespace orvikm::detail
