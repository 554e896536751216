#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace orvikm::detail {

// A message id as the watch table looks it up: read once, then used for the
// prefetch and for the look-up that follows it. `text` must outlive it.
struct WatchId {
    explicit WatchId(std::string_view id);

    std::string_view text;
    // In the client's form (36 characters, lower-case hex digits and four
    // hyphens): its 16 bytes, in two words.
    bool parsed = false;
    std::uint64_t high = 0;
    std::uint64_t low = 0;
};

// Reads an id in the client's form as WatchId does: its digits, the first
// digit in the lowest four bits of `high` and the last in the highest of
// `low`; false for any other id. The vector form, where the processor has
// one, reads sixteen digits at a time; the portable form eight.
bool readIdPortable(std::string_view id, std::uint64_t& high, std::uint64_t& low);
#if defined(__SSE2__)
bool readIdVector(std::string_view id, std::uint64_t& high, std::uint64_t& low);
#endif

// The watched messages of the delivery-failure report, by id: each with its
// deadline, its validity period, and whether it has been written and has an
// acknowledgement callback.
//
// Every send, write and acknowledgement of a watched message looks its id up,
// on a table that holds every message in flight (tens of thousands in a
// burst), so what a look-up costs is the cache lines it touches. An id in the
// form the client makes (36 characters, lower-case hex digits and four
// hyphens) is kept as its 16 bytes, and the whole entry fits one 32-byte slot
// of an open-addressed array: a look-up hashes two words and touches one or
// two cache lines, an entry allocates nothing, and the array is half the size
// that ids kept as text would need. Any other id (an application may build a
// message with an id of its own) goes to a map beside.
//
// Not thread-safe: the client holds its watch lock.
class WatchTable {
public:
    using Clock = std::chrono::steady_clock;

    WatchTable() = default;

    // Watches the message until `deadline`; replaces an earlier entry of the
    // same id.
    void watch(const WatchId& id, Clock::time_point deadline, std::chrono::seconds validFor,
               bool hasCallback);
    // The message was written at `now`: with an acknowledgement callback its
    // deadline becomes `now` plus its validity period; without one nothing
    // waits for it, and it is no longer watched. An unknown id is ignored.
    void noteWritten(const WatchId& id, Clock::time_point now);
    // Stops watching the message; false when it was not watched.
    bool erase(const WatchId& id);

    // The same, for an id read at the call.
    void watch(std::string_view id, Clock::time_point deadline, std::chrono::seconds validFor,
               bool hasCallback) {
        watch(WatchId(id), deadline, validFor, hasCallback);
    }
    void noteWritten(std::string_view id, Clock::time_point now) { noteWritten(WatchId(id), now); }
    bool erase(std::string_view id) { return erase(WatchId(id)); }
    // Takes out every entry whose deadline is at or before `now`, and appends
    // its id to `written` or to `queued`. Looks at the entries only once the
    // earliest deadline has come.
    void takeExpired(Clock::time_point now, std::vector<std::string>& queued,
                     std::vector<std::string>& written);
    void clear();
    std::size_t size() const { return _count + _other.size(); }

    // Asks the processor to fetch the slot of `id` ahead of its use, so that
    // the cache miss of a look-up overlaps the caller's other work. Safe
    // without the watch lock, from any thread: it reads only atomics, and a
    // prefetch never faults, even where the array has just been replaced.
    void prefetch(const WatchId& id) const;

private:
    // What the table keeps of an entry besides its id.
    struct Entry {
        Clock::time_point deadline;
        std::chrono::seconds validFor;
        bool written;
        bool hasCallback;

        // Notes the write at `now`; false when nothing waits for the
        // message's acknowledgement, so that it is watched no longer.
        bool noteWritten(Clock::time_point now);
    };

    // An id in the client's form, as two words.
    struct Key {
        std::uint64_t high;
        std::uint64_t low;
    };

    // One entry of the array; `flags` 0 is an empty slot.
    struct Slot {
        std::uint64_t high;
        std::uint64_t low;
        Clock::rep deadline;
        // Seconds, held at the range of 32 bits; the ends stand for validities
        // beyond them (deadlines that never come, or that have always passed).
        std::int32_t validFor;
        std::uint8_t flags;
    };
    static_assert(sizeof(Slot) == 32, "a slot is half a cache line");

    static constexpr std::uint8_t used_flag = 1;
    static constexpr std::uint8_t written_flag = 2;
    static constexpr std::uint8_t callback_flag = 4;

    static std::string text(const Slot& slot);
    static Entry entryOf(const Slot& slot);
    static void store(Slot& slot, const Entry& entry);

    static std::uint64_t mix(std::uint64_t high, std::uint64_t low);
    std::size_t home(std::uint64_t high, std::uint64_t low) const;
    // The slot holding `key`, or the empty slot where it would go.
    std::size_t probe(const Key& key) const;
    // The slot holding `key`, or nullptr.
    Slot* find(const Key& key);
    void eraseAt(std::size_t hole);
    void grow();

    // What prefetch() reads of the array, kept in step by grow() and clear().
    void publishView();

    std::vector<Slot> _slots;
    unsigned _shift = 64;
    std::atomic<const Slot*> _view_slots{nullptr};
    std::atomic<unsigned> _view_shift{64};
    std::size_t _count = 0;
    std::unordered_map<std::string, Entry> _other;
    // No deadline is earlier: until then a sweep has nothing to look at.
    Clock::time_point _earliest = Clock::time_point::max();
};

// The ids of watched messages written and not yet noted in the table: the
// I/O thread notes a group of writes with one lock and one clock reading.
// Not thread-safe: only the I/O thread uses it.
class WrittenIds {
public:
    // Keeps the id beyond the message it was read from.
    void add(const WatchId& id);
    std::size_t size() const { return _ids.size() + _other.size(); }
    // Notes every id kept as written at `now`, and forgets them.
    void noteIn(WatchTable& table, WatchTable::Clock::time_point now);

private:
    // Ids in the client's form, their text dropped.
    std::vector<WatchId> _ids;
    std::vector<std::string> _other;
};

}  // namespace orvikm::detail
