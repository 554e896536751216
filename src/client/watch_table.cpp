#include "watch_table.hpp"

#include <algorithm>
#include <cstring>
#include <functional>
#include <utility>

namespace orvikm::detail {

namespace {

constexpr std::size_t first_capacity = 64;

}  // namespace

std::uint32_t WatchTable::hashOf(std::string_view id) {
    const std::size_t hash = std::hash<std::string_view>()(id);
    return static_cast<std::uint32_t>(hash ^ (hash >> 32));
}

std::size_t WatchTable::probe(std::string_view id, std::uint32_t hash) const {
    std::size_t index = hash & _mask;
    for (;;) {
        const Slot& slot = _slots[index];
        if (!slot.used || (slot.hash == hash && slot.size == id.size() &&
                           std::memcmp(slot.id, id.data(), id.size()) == 0)) {
            return index;
        }
        index = (index + 1) & _mask;
    }
}

WatchRecord* WatchTable::find(std::string_view id) {
    if (id.size() > max_inline_id) {
        const auto entry = _long.find(std::string(id));
        return entry == _long.end() ? nullptr : &entry->second;
    }
    if (_count == 0) {
        return nullptr;
    }
    Slot& slot = _slots[probe(id, hashOf(id))];
    return slot.used ? &slot.record : nullptr;
}

void WatchTable::insertOrAssign(std::string_view id, const WatchRecord& record) {
    if (id.size() > max_inline_id) {
        _long.insert_or_assign(std::string(id), record);
        return;
    }
    // At most half full: probe sequences stay a slot or two long.
    if (2 * (_count + 1) > _slots.size()) {
        grow();
    }
    const std::uint32_t hash = hashOf(id);
    Slot& slot = _slots[probe(id, hash)];
    if (!slot.used) {
        slot.used = true;
        slot.hash = hash;
        slot.size = static_cast<std::uint8_t>(id.size());
        std::memcpy(slot.id, id.data(), id.size());
        ++_count;
    }
    slot.record = record;
}

bool WatchTable::erase(std::string_view id) {
    if (id.size() > max_inline_id) {
        return _long.erase(std::string(id)) > 0;
    }
    if (_count == 0) {
        return false;
    }
    std::size_t hole = probe(id, hashOf(id));
    if (!_slots[hole].used) {
        return false;
    }
    _slots[hole].used = false;
    --_count;
    // Backward shift: every entry after the hole that may sit in it moves
    // there, so that no probe sequence is broken and no tombstones build up.
    for (std::size_t next = (hole + 1) & _mask; _slots[next].used; next = (next + 1) & _mask) {
        const std::size_t home = _slots[next].hash & _mask;
        // Distances from each entry's home slot, cyclically.
        const std::size_t fromHomeToNext = (next - home) & _mask;
        const std::size_t fromHomeToHole = (hole - home) & _mask;
        if (fromHomeToHole <= fromHomeToNext) {
            _slots[hole] = _slots[next];
            _slots[next].used = false;
            hole = next;
        }
    }
    return true;
}

void WatchTable::clear() {
    _slots.clear();
    _mask = 0;
    _count = 0;
    _long.clear();
}

void WatchTable::grow() {
    std::vector<Slot> old(std::max(first_capacity, 2 * _slots.size()), Slot{});
    old.swap(_slots);
    _mask = _slots.size() - 1;
    for (const Slot& slot : old) {
        if (slot.used) {
            _slots[probe(std::string_view(slot.id, slot.size), slot.hash)] = slot;
        }
    }
}

}  // namespace orvikm::detail
