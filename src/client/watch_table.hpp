#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace orvikm::detail {

// What the delivery-failure report keeps of one watched message.
struct WatchRecord {
    std::chrono::steady_clock::time_point deadline;
    std::chrono::seconds validFor;
    bool written;
    bool hasCallback;
};

// The watched messages by id. Every send, write and acknowledgement of a
// watched message looks its id up, on a table that holds every message in
// flight (tens of thousands in a burst): a node-based map costs an allocation
// per entry and three or four cache misses per look-up there. This table keeps
// each entry with its id in one 64-byte slot of an open-addressed array, so a
// look-up touches one or two cache lines and an entry allocates nothing. Ids
// longer than a slot holds (never those the client makes) go to a map beside.
// Not thread-safe: the client holds its watch lock.
class WatchTable {
public:
    WatchTable() = default;

    WatchRecord* find(std::string_view id);
    void insertOrAssign(std::string_view id, const WatchRecord& record);
    bool erase(std::string_view id);
    void clear();
    std::size_t size() const { return _count + _long.size(); }

    // Calls visit(id, record) for every entry, in no particular order; the
    // table must not change meanwhile.
    template <typename Visit>
    void forEach(Visit visit) const {
        for (const Slot& slot : _slots) {
            if (slot.used) {
                visit(std::string_view(slot.id, slot.size), slot.record);
            }
        }
        for (const auto& [id, record] : _long) {
            visit(std::string_view(id), record);
        }
    }

private:
    static constexpr std::size_t max_inline_id = 40;
    struct Slot {
        WatchRecord record;
        std::uint32_t hash;
        std::uint8_t size;
        bool used;
        char id[max_inline_id];
    };

    static std::uint32_t hashOf(std::string_view id);
    // The slot holding `id`, or the empty slot where it would go.
    std::size_t probe(std::string_view id, std::uint32_t hash) const;
    void grow();

    std::vector<Slot> _slots;
    std::size_t _mask = 0;
    std::size_t _count = 0;
    std::unordered_map<std::string, WatchRecord> _long;
};

}  // namespace orvikm::detail
