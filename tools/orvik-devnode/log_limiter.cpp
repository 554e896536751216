#include "log_limiter.hpp"

#include <algorithm>

namespace orvikdev {

namespace {

constexpr auto kRefillInterval = std::chrono::seconds(1);

}  // namespace

LogLimiter::LogLimiter(unsigned burst, std::size_t keys)
    : _burst(std::max(1u, burst)), _capacity(std::max<std::size_t>(1, keys)) {}

bool LogLimiter::admit(const std::string& key, const std::string& subject, Clock::time_point now) {
    auto found = _entries.find(key);
    if (found == _entries.end()) {
        if (_entries.size() >= _capacity) {
            Entry& oldest = _entries.at(_recency.front());
            if (oldest.held > 0) {
                _ready.push_back(summaryOf(oldest, now));
            }
            _entries.erase(_recency.front());
            _recency.pop_front();
        }
        _recency.push_back(key);
        Entry fresh{static_cast<double>(_burst), now, now, 0, subject, std::prev(_recency.end())};
        found = _entries.emplace(key, std::move(fresh)).first;
    } else {
        _recency.splice(_recency.end(), _recency, found->second.recency);
    }
    Entry& entry = found->second;
    const std::chrono::duration<double> earned = now - entry.refilled;
    entry.tokens = std::min<double>(_burst, entry.tokens + earned / kRefillInterval);
    entry.refilled = now;
    if (entry.tokens >= 1.0) {
        entry.tokens -= 1.0;
        return true;
    }
    if (entry.held++ == 0) {
        ++_holding;
        // The summary covers the time from the first line held back.
        if (now - entry.summarised > kRefillInterval) {
            entry.summarised = now;
        }
    }
    entry.subject = subject;
    return false;
}

std::vector<std::string> LogLimiter::summaries(Clock::time_point now) {
    std::vector<std::string> lines;
    lines.swap(_ready);
    if (_holding == 0) {
        return lines;
    }
    for (auto& [key, entry] : _entries) {
        if (entry.held > 0 && now - entry.summarised >= kRefillInterval) {
            lines.push_back(summaryOf(entry, now));
        }
    }
    return lines;
}

std::string LogLimiter::summaryOf(Entry& entry, Clock::time_point now) {
    const auto seconds =
        std::max<long long>(1, std::chrono::duration_cast<std::chrono::seconds>(
                                   now - entry.summarised + std::chrono::milliseconds(500))
                                   .count());
    std::string line = entry.subject + ": " + std::to_string(entry.held) +
                       " more not logged in the last " + std::to_string(seconds) +
                       (seconds == 1 ? " second" : " seconds");
    entry.held = 0;
    entry.summarised = now;
    --_holding;
    return line;
}

}  // namespace orvikdev
