#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

namespace stresstest {

// The acknowledgement callbacks of numbered messages: how often each ran, and
// when the first and the last acknowledgement came.
class AckBook {
public:
    using Clock = std::chrono::steady_clock;

    explicit AckBook(std::size_t messages) : _counts(messages) {}

    // The acknowledgement callback of message `index`.
    std::function<void()> callbackFor(std::size_t index) {
        return [this, index] { acknowledged(index); };
    }

    long total() const {
        std::lock_guard<std::mutex> guard(_mutex);
        return _total;
    }
    int count(std::size_t index) const { return _counts[index].load(); }
    bool waitForTotal(long count, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(_mutex);
        return _changed.wait_for(lock, timeout, [&] { return _total >= count; });
    }
    // Waits until every message of `indexes` was acknowledged at least once.
    bool waitForAll(const std::vector<std::size_t>& indexes, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(_mutex);
        return _changed.wait_for(lock, timeout, [&] {
            for (const std::size_t index : indexes) {
                if (_counts[index].load() == 0) {
                    return false;
                }
            }
            return true;
        });
    }
    Clock::time_point first() const {
        std::lock_guard<std::mutex> guard(_mutex);
        return _first;
    }
    Clock::time_point last() const {
        std::lock_guard<std::mutex> guard(_mutex);
        return _last;
    }

    // Messages never acknowledged, and messages acknowledged more than once.
    std::pair<long, long> missingAndDuplicated() const {
        long missing = 0;
        long duplicated = 0;
        for (const std::atomic<int>& count : _counts) {
            missing += count.load() == 0 ? 1 : 0;
            duplicated += count.load() > 1 ? 1 : 0;
        }
        return {missing, duplicated};
    }

private:
    void acknowledged(std::size_t index) {
        _counts[index].fetch_add(1);
        std::lock_guard<std::mutex> guard(_mutex);
        const auto now = Clock::now();
        if (_total == 0) {
            _first = now;
        }
        _last = now;
        ++_total;
        _changed.notify_all();
    }

    std::vector<std::atomic<int>> _counts;
    long _total = 0;
    Clock::time_point _first;
    Clock::time_point _last;
    mutable std::mutex _mutex;
    std::condition_variable _changed;
};

}  // namespace stresstest
