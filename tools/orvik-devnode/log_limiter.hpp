#pragma once

#include <chrono>
#include <cstddef>
#include <list>
#include <string>
#include <unordered_map>
#include <vector>

namespace orvikdev {

// Keeps one source of log lines (a peer, say) from flooding the log. A key
// may write `burst` lines at once and earns one more each second, up to
// `burst` again. Lines beyond that are only counted, and the count comes out
// as one summary line per key and second. At most `keys` keys are
// remembered; the one used longest ago goes first, its summary with it.
class LogLimiter {
public:
    using Clock = std::chrono::steady_clock;

    LogLimiter(unsigned burst, std::size_t keys);

    // True when a line under `key` may be written at `now`; otherwise the line
    // is counted against `subject`, which names what the summary sums up
    // ("malformed requests from PEER").
    bool admit(const std::string& key, const std::string& subject, Clock::time_point now);

    // The summary lines due at `now`: "SUBJECT: N more not logged in the last
    // second(s)". Call it often; it costs nothing while no line is held back.
    std::vector<std::string> summaries(Clock::time_point now);

private:
    struct Entry {
        double tokens;
        Clock::time_point refilled;
        Clock::time_point summarised;
        std::size_t held = 0;
        std::string subject;
        std::list<std::string>::iterator recency;
    };

    std::string summaryOf(Entry& entry, Clock::time_point now);

    unsigned _burst;
    std::size_t _capacity;
    std::unordered_map<std::string, Entry> _entries;
    std::list<std::string> _recency;  // least recently used first
    std::size_t _holding = 0;         // entries with lines held back
    std::vector<std::string> _ready;  // summaries of forgotten keys
};

}  // namespace orvikdev
