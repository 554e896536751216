#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
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
// Every message sent is put in, its write noted and its acknowledgement taken
// out, on a table that holds every message in flight (tens of thousands in a
// burst), so what a look-up costs is the cache lines it touches. An id in the
// form the client makes (36 characters, lower-case hex digits and four
// hyphens) is kept as its 16 bytes, and the whole entry fits one 32-byte slot
// of an open-addressed array: a look-up hashes two words and touches one or
// two cache lines, an entry allocates nothing, and the array is half the size
// that ids kept as text would need. Any other id (an application may build a
// message with an id of its own) goes to a map beside.
//
// Not thread-safe: only the thread running the client's I/O loop uses it
// (sending threads hand their messages over through SentWatches).
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
    // the cache miss of a look-up overlaps the caller's other work.
    void prefetch(const WatchId& id) const;

private:
    friend class SentWatches;

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

    // The slots, zero (empty) when allocated, and aligned to cache lines so
    // that no slot straddles two.
    class SlotArray {
    public:
        SlotArray() = default;
        explicit SlotArray(std::size_t size);
        SlotArray(SlotArray&& other) noexcept;
        SlotArray& operator=(SlotArray&& other) noexcept;
        ~SlotArray();

        std::size_t size() const { return _size; }
        bool empty() const { return _size == 0; }
        Slot* data() const { return _data; }
        Slot& operator[](std::size_t index) const { return _data[index]; }
        Slot* begin() const { return _data; }
        Slot* end() const { return _data + _size; }

    private:
        void release();

        Slot* _data = nullptr;
        std::size_t _size = 0;
    };

    static constexpr std::uint8_t used_flag = 1;
    static constexpr std::uint8_t written_flag = 2;
    static constexpr std::uint8_t callback_flag = 4;

    static std::string text(const Slot& slot);
    static Slot slotOf(const WatchId& id, const Entry& entry);
    static Entry entryOf(const Slot& slot);
    static void store(Slot& slot, const Entry& entry);

    static std::uint64_t mix(std::uint64_t high, std::uint64_t low);
    std::size_t home(std::uint64_t high, std::uint64_t low) const;
    // The slot holding `key`, or the empty slot where it would go.
    std::size_t probe(const Key& key) const;
    // The slot holding `key`, or nullptr.
    Slot* find(const Key& key);
    // Puts in a used slot; replaces an earlier entry of the same id.
    void insert(const Slot& slot);
    // Puts in each slot, in order, with the table grown once for all of them
    // and each slot's place fetched a few slots ahead.
    void insertAll(const std::vector<Slot>& slots);
    void prefetchHome(std::uint64_t high, std::uint64_t low) const;
    void eraseAt(std::size_t hole);
    // At least twice as many slots as `entries`, rehashed once.
    void reserve(std::size_t entries);
    void grow(std::size_t capacity);
    void watchOther(std::string id, const Entry& entry);

    SlotArray _slots;
    unsigned _shift = 64;
    std::size_t _count = 0;
    std::unordered_map<std::string, Entry> _other;
    // No deadline is earlier: until then a sweep has nothing to look at.
    Clock::time_point _earliest = Clock::time_point::max();
};

// Messages sent while the report is on and not yet in the table. A sending
// thread only adds its message here, under the client's watch lock; the I/O
// thread moves them all into the table before it notes a write or looks for
// expired entries. So a send looks nothing up, the table's memory is touched
// by one thread only, and the I/O thread puts a whole group in at once, each
// slot fetched ahead. Any message the I/O thread writes was added before it
// was queued, so it is in the table once the write is noted, before its
// acknowledgement can be read.
class SentWatches {
public:
    using Clock = WatchTable::Clock;

    void add(const WatchId& id, Clock::time_point deadline, std::chrono::seconds validFor,
             bool hasCallback);
    bool empty() const { return _slots.empty() && _other.empty(); }
    // Watches every message kept, in the order added, and forgets them; the
    // memory is kept for the next group.
    void moveInto(WatchTable& table);
    void clear();
    void swap(SentWatches& other) noexcept;

private:
    // Ids in the client's form, as the table's slots.
    std::vector<WatchTable::Slot> _slots;
    std::vector<std::pair<std::string, WatchTable::Entry>> _other;
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
