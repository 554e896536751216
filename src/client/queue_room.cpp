#include "queue_room.hpp"

#include <algorithm>

#include "intervals.hpp"

namespace orvikm::detail {

namespace {

using Steady = std::chrono::steady_clock;

// A waiting sender looks at the termination count this often: terminate()
// may come from a signal handler, which cannot notify a condition variable.
constexpr std::chrono::milliseconds termination_check(10);

}  // namespace

QueueRoom::QueueRoom(std::size_t maxMessages, std::size_t maxBytes)
    : _max_messages(maxMessages), _max_bytes(maxBytes) {}

QueueRoom::Full QueueRoom::fullFor(std::size_t bytes) const {
    if (_max_messages > 0 && _messages >= _max_messages) {
        return Full::Messages;
    }
    if (_max_bytes > 0 && (bytes > _max_bytes || _bytes > _max_bytes - bytes)) {
        return Full::Bytes;
    }
    return Full::No;
}

QueueRoom::Full QueueRoom::take(std::size_t bytes, std::chrono::milliseconds wait,
                                const std::atomic<std::uint64_t>& terminations) {
    std::unique_lock<std::mutex> lock(_mutex);
    Full full = fullFor(bytes);
    // No wait would ever make room for a message larger than the bound.
    if (full != Full::No && wait.count() > 0 && (_max_bytes == 0 || bytes <= _max_bytes)) {
        const std::uint64_t terminationsBefore = terminations.load();
        const Steady::time_point end = steadyAfter(Steady::now(), wait);
        ++_waiting;
        while (full != Full::No && terminations.load() == terminationsBefore) {
            const Steady::time_point now = Steady::now();
            if (now >= end) {
                break;
            }
            _room_freed.wait_for(lock, std::min<Steady::duration>(end - now, termination_check));
            full = fullFor(bytes);
        }
        --_waiting;
    }
    if (full == Full::No) {
        ++_messages;
        _bytes += bytes;
    }
    return full;
}

void QueueRoom::giveBack(std::size_t bytes) {
    giveBack(1, bytes);
}

void QueueRoom::giveBack(std::size_t messages, std::size_t bytes) {
    bool wake = false;
    {
        std::lock_guard<std::mutex> guard(_mutex);
        _messages -= std::min(messages, _messages);
        _bytes -= std::min(bytes, _bytes);
        wake = _waiting > 0;
    }
    if (wake) {
        _room_freed.notify_all();
    }
}

}  // namespace orvikm::detail
