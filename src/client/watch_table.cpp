#include "watch_table.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "intervals.hpp"

namespace orvikm::detail {

namespace {

constexpr std::size_t first_capacity = 64;
constexpr std::size_t cache_line = 64;
constexpr std::size_t id_size = 36;

// Eight bytes of text as one word, the first byte lowest.
inline std::uint64_t loadBytes(const unsigned char* text) {
    std::uint64_t word;
    std::memcpy(&word, text, sizeof word);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    word = __builtin_bswap64(word);
#endif
    return word;
}

// Four bytes of text and four more, as loadBytes would read them side by side.
inline std::uint64_t loadHalves(const unsigned char* first, const unsigned char* second) {
    std::uint32_t halves[2];
    std::memcpy(&halves[0], first, sizeof halves[0]);
    std::memcpy(&halves[1], second, sizeof halves[1]);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    halves[0] = __builtin_bswap32(halves[0]);
    halves[1] = __builtin_bswap32(halves[1]);
#endif
    return halves[0] | (static_cast<std::uint64_t>(halves[1]) << 32);
}

constexpr std::uint64_t each_byte(std::uint8_t value) {
    return 0x0101010101010101ULL * value;
}

// Eight lower-case hex digits, one a byte, as 32 bits (the digit of byte k in
// bits 4k..4k+3), all eight bytes at once; false when a byte is no such digit.
inline bool digitsOf(std::uint64_t text, std::uint32_t& value) {
    constexpr std::uint64_t high = each_byte(0x80);
    // Each comparison leaves a byte's high bit set where it holds; with every
    // byte below 0x80 no subtraction borrows from its neighbour.
    const std::uint64_t atLeast0 = ((text | high) - each_byte('0')) & high;
    const std::uint64_t atMost9 = ((each_byte('9') | high) - text) & high;
    const std::uint64_t atLeastA = ((text | high) - each_byte('a')) & high;
    const std::uint64_t atMostF = ((each_byte('f') | high) - text) & high;
    if ((text & high) != 0 || ((atLeast0 & atMost9) | (atLeastA & atMostF)) != high) {
        return false;
    }
    // '0'..'9' keep their low four bits; 'a'..'f' (0x61..0x66) add 9 to theirs.
    std::uint64_t digits = (text & each_byte(0x0f)) + 9 * ((text >> 6) & each_byte(0x01));
    digits = (digits | (digits >> 4)) & 0x00ff00ff00ff00ffULL;
    digits = (digits | (digits >> 8)) & 0x0000ffff0000ffffULL;
    digits = (digits | (digits >> 16)) & 0x00000000ffffffffULL;
    value = static_cast<std::uint32_t>(digits);
    return true;
}

// The inverse of digitsOf, into the eight places given.
inline void writeDigits(std::uint32_t value, char* const places[8]) {
    static const char hex[] = "0123456789abcdef";
    for (unsigned k = 0; k < 8; ++k) {
        *places[k] = hex[(value >> (4 * k)) & 0xf];
    }
}

// 36 characters with hyphens where the client's ids have them; the digits
// are for the reading to check.
inline bool hasIdShape(std::string_view id) {
    return id.size() == id_size && id[8] == '-' && id[13] == '-' && id[18] == '-' && id[23] == '-';
}

}  // namespace

bool readIdPortable(std::string_view id, std::uint64_t& high, std::uint64_t& low) {
    if (!hasIdShape(id)) {
        return false;
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(id.data());
    std::uint32_t words[4];
    if (!digitsOf(loadBytes(bytes), words[0]) ||
        !digitsOf(loadHalves(bytes + 9, bytes + 14), words[1]) ||
        !digitsOf(loadHalves(bytes + 19, bytes + 24), words[2]) ||
        !digitsOf(loadBytes(bytes + 28), words[3])) {
        return false;
    }
    high = words[0] | (static_cast<std::uint64_t>(words[1]) << 32);
    low = words[2] | (static_cast<std::uint64_t>(words[3]) << 32);
    return true;
}

#if defined(__SSE2__)
bool readIdVector(std::string_view id, std::uint64_t& high, std::uint64_t& low) {
    if (!hasIdShape(id)) {
        return false;
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(id.data());
    // The 32 digits, sixteen to a register, as loadBytes and loadHalves
    // place them.
    const auto word = [](std::uint64_t value) {
        return _mm_cvtsi64_si128(static_cast<long long>(value));
    };
    const __m128i first =
        _mm_unpacklo_epi64(word(loadBytes(bytes)), word(loadHalves(bytes + 9, bytes + 14)));
    const __m128i second =
        _mm_unpacklo_epi64(word(loadHalves(bytes + 19, bytes + 24)), word(loadBytes(bytes + 28)));
    // Signed comparisons: a byte above 0x7f is negative and in neither range.
    const auto between = [](__m128i text, char lowest, char highest) {
        return _mm_and_si128(_mm_cmpgt_epi8(text, _mm_set1_epi8(static_cast<char>(lowest - 1))),
                             _mm_cmplt_epi8(text, _mm_set1_epi8(static_cast<char>(highest + 1))));
    };
    const __m128i firstLetters = between(first, 'a', 'f');
    const __m128i secondLetters = between(second, 'a', 'f');
    const __m128i valid = _mm_and_si128(_mm_or_si128(between(first, '0', '9'), firstLetters),
                                        _mm_or_si128(between(second, '0', '9'), secondLetters));
    if (_mm_movemask_epi8(valid) != 0xffff) {
        return false;
    }
    // '0'..'9' keep their low four bits; 'a'..'f' add 9 to theirs. Then each
    // pair of digits becomes a byte, the first digit low, as digitsOf has it.
    const __m128i nibbles = _mm_set1_epi8(0x0f);
    const __m128i nine = _mm_set1_epi8(9);
    const auto pairs = [&](__m128i text, __m128i letters) {
        const __m128i digits =
            _mm_add_epi8(_mm_and_si128(text, nibbles), _mm_and_si128(letters, nine));
        return _mm_and_si128(_mm_or_si128(digits, _mm_srli_epi16(digits, 4)),
                             _mm_set1_epi16(0x00ff));
    };
    const __m128i packed =
        _mm_packus_epi16(pairs(first, firstLetters), pairs(second, secondLetters));
    high = static_cast<std::uint64_t>(_mm_cvtsi128_si64(packed));
    low = static_cast<std::uint64_t>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(packed, packed)));
    return true;
}
#endif

WatchId::WatchId(std::string_view id) : text(id) {
    // Read at every send, write and acknowledgement.
#if defined(__SSE2__)
    parsed = readIdVector(id, high, low);
#else
    parsed = readIdPortable(id, high, low);
#endif
}

WatchTable::SlotArray::SlotArray(std::size_t size)
    : _data(static_cast<Slot*>(std::aligned_alloc(cache_line, size * sizeof(Slot)))), _size(size) {
    if (_data == nullptr) {
        throw std::bad_alloc();
    }
    std::memset(static_cast<void*>(_data), 0, size * sizeof(Slot));
}

WatchTable::SlotArray::SlotArray(SlotArray&& other) noexcept
    : _data(std::exchange(other._data, nullptr)), _size(std::exchange(other._size, 0)) {}

WatchTable::SlotArray& WatchTable::SlotArray::operator=(SlotArray&& other) noexcept {
    if (this != &other) {
        release();
        _data = std::exchange(other._data, nullptr);
        _size = std::exchange(other._size, 0);
    }
    return *this;
}

WatchTable::SlotArray::~SlotArray() {
    release();
}

void WatchTable::SlotArray::release() {
    std::free(_data);
    _data = nullptr;
    _size = 0;
}

bool WatchTable::Entry::noteWritten(Clock::time_point now) {
    if (!hasCallback) {
        return false;
    }
    written = true;
    deadline = steadyAfter(now, validFor);
    return true;
}

std::string WatchTable::text(const Slot& slot) {
    std::string id(id_size, '-');
    char* const c = id.data();
    char* const groups[4][8] = {
        {c, c + 1, c + 2, c + 3, c + 4, c + 5, c + 6, c + 7},
        {c + 9, c + 10, c + 11, c + 12, c + 14, c + 15, c + 16, c + 17},
        {c + 19, c + 20, c + 21, c + 22, c + 24, c + 25, c + 26, c + 27},
        {c + 28, c + 29, c + 30, c + 31, c + 32, c + 33, c + 34, c + 35},
    };
    writeDigits(static_cast<std::uint32_t>(slot.high), groups[0]);
    writeDigits(static_cast<std::uint32_t>(slot.high >> 32), groups[1]);
    writeDigits(static_cast<std::uint32_t>(slot.low), groups[2]);
    writeDigits(static_cast<std::uint32_t>(slot.low >> 32), groups[3]);
    return id;
}

WatchTable::Entry WatchTable::entryOf(const Slot& slot) {
    using Limits = std::numeric_limits<std::int32_t>;
    const std::chrono::seconds validFor =
        slot.validFor == Limits::max()   ? std::chrono::seconds::max()
        : slot.validFor == Limits::min() ? std::chrono::seconds::min()
                                         : std::chrono::seconds(slot.validFor);
    return Entry{Clock::time_point(Clock::duration(slot.deadline)), validFor,
                 (slot.flags & written_flag) != 0, (slot.flags & callback_flag) != 0};
}

void WatchTable::store(Slot& slot, const Entry& entry) {
    using Limits = std::numeric_limits<std::int32_t>;
    slot.deadline = entry.deadline.time_since_epoch().count();
    slot.validFor = static_cast<std::int32_t>(std::clamp<std::chrono::seconds::rep>(
        entry.validFor.count(), Limits::min(), Limits::max()));
    slot.flags = static_cast<std::uint8_t>(used_flag | (entry.written ? written_flag : 0) |
                                           (entry.hasCallback ? callback_flag : 0));
}

std::uint64_t WatchTable::mix(std::uint64_t high, std::uint64_t low) {
    // Fibonacci hashing of both words: the top bits of the product, which
    // every bit of the id reaches.
    return (high ^ ((low << 32) | (low >> 32))) * 0x9e3779b97f4a7c15ULL;
}

std::size_t WatchTable::home(std::uint64_t high, std::uint64_t low) const {
    return static_cast<std::size_t>(mix(high, low) >> _shift);
}

std::size_t WatchTable::probe(const Key& key) const {
    const std::size_t mask = _slots.size() - 1;
    std::size_t index = home(key.high, key.low);
    for (;;) {
        const Slot& slot = _slots[index];
        if (slot.flags == 0 || (slot.high == key.high && slot.low == key.low)) {
            return index;
        }
        index = (index + 1) & mask;
    }
}

WatchTable::Slot* WatchTable::find(const Key& key) {
    if (_count == 0) {
        return nullptr;
    }
    Slot& slot = _slots[probe(key)];
    return slot.flags != 0 ? &slot : nullptr;
}

WatchTable::Slot WatchTable::slotOf(const WatchId& id, const Entry& entry) {
    Slot slot{};
    slot.high = id.high;
    slot.low = id.low;
    store(slot, entry);
    return slot;
}

void WatchTable::watch(const WatchId& id, Clock::time_point deadline, std::chrono::seconds validFor,
                       bool hasCallback) {
    const Entry entry{deadline, validFor, false, hasCallback};
    if (!id.parsed) {
        watchOther(std::string(id.text), entry);
        return;
    }
    insert(slotOf(id, entry));
}

void WatchTable::watchOther(std::string id, const Entry& entry) {
    // A write only moves a deadline later, and erasing leaves the bound a
    // bound, so only a new entry can lower it.
    _earliest = std::min(_earliest, entry.deadline);
    _other.insert_or_assign(std::move(id), entry);
}

void WatchTable::insert(const Slot& slot) {
    _earliest = std::min(_earliest, Clock::time_point(Clock::duration(slot.deadline)));
    // At most half full: probe sequences stay a slot or two long.
    if (2 * (_count + 1) > _slots.size()) {
        grow(std::max(first_capacity, 2 * _slots.size()));
    }
    Slot& place = _slots[probe(Key{slot.high, slot.low})];
    if (place.flags == 0) {
        ++_count;
    }
    place = slot;
}

void WatchTable::noteWritten(const WatchId& id, Clock::time_point now) {
    if (!id.parsed) {
        const auto found = _other.find(std::string(id.text));
        if (found != _other.end() && !found->second.noteWritten(now)) {
            _other.erase(found);
        }
        return;
    }
    Slot* slot = find(Key{id.high, id.low});
    if (slot == nullptr) {
        return;
    }
    if ((slot->flags & callback_flag) == 0) {
        eraseAt(static_cast<std::size_t>(slot - _slots.data()));
        return;
    }
    // In place: the only fields a write changes.
    slot->flags |= written_flag;
    slot->deadline = steadyAfter(now, entryOf(*slot).validFor).time_since_epoch().count();
}

bool WatchTable::erase(const WatchId& id) {
    if (!id.parsed) {
        return _other.erase(std::string(id.text)) > 0;
    }
    Slot* slot = find(Key{id.high, id.low});
    if (slot == nullptr) {
        return false;
    }
    eraseAt(static_cast<std::size_t>(slot - _slots.data()));
    return true;
}

void WatchTable::eraseAt(std::size_t hole) {
    const std::size_t mask = _slots.size() - 1;
    _slots[hole].flags = 0;
    --_count;
    // Backward shift: every entry after the hole that may sit in it moves
    // there, so that no probe sequence is broken and no tombstones build up.
    for (std::size_t next = (hole + 1) & mask; _slots[next].flags != 0; next = (next + 1) & mask) {
        const std::size_t homeSlot = home(_slots[next].high, _slots[next].low);
        // Distances from the entry's home slot, cyclically.
        const std::size_t fromHomeToNext = (next - homeSlot) & mask;
        const std::size_t fromHomeToHole = (hole - homeSlot) & mask;
        if (fromHomeToHole <= fromHomeToNext) {
            _slots[hole] = _slots[next];
            _slots[next].flags = 0;
            hole = next;
        }
    }
}

void WatchTable::takeExpired(Clock::time_point now, std::vector<std::string>& queued,
                             std::vector<std::string>& written) {
    if (now < _earliest) {
        return;
    }
    const Clock::rep limit = now.time_since_epoch().count();
    Clock::rep earliest = Clock::time_point::max().time_since_epoch().count();
    std::vector<Key> expired;
    for (const Slot& slot : _slots) {
        if (slot.flags == 0) {
            continue;
        }
        if (slot.deadline <= limit) {
            expired.push_back(Key{slot.high, slot.low});
            ((slot.flags & written_flag) != 0 ? written : queued).push_back(text(slot));
        } else {
            earliest = std::min(earliest, slot.deadline);
        }
    }
    for (const Key& key : expired) {
        eraseAt(probe(key));
    }
    _earliest = Clock::time_point(Clock::duration(earliest));
    for (auto entry = _other.begin(); entry != _other.end();) {
        if (entry->second.deadline <= now) {
            (entry->second.written ? written : queued).push_back(entry->first);
            entry = _other.erase(entry);
        } else {
            _earliest = std::min(_earliest, entry->second.deadline);
            ++entry;
        }
    }
}

void WatchTable::prefetch(const WatchId& id) const {
    if (id.parsed) {
        prefetchHome(id.high, id.low);
    }
}

void WatchTable::prefetchHome(std::uint64_t high, std::uint64_t low) const {
    if (!_slots.empty()) {
        __builtin_prefetch(_slots.data() + home(high, low));
    }
}

void WatchTable::clear() {
    _earliest = Clock::time_point::max();
    _slots = SlotArray();
    _shift = 64;
    _count = 0;
    _other.clear();
}

void WatchTable::insertAll(const std::vector<Slot>& slots) {
    if (slots.empty()) {
        return;
    }
    // Grown first, so that every slot fetched ahead is the one then used.
    reserve(slots.size());
    constexpr std::size_t ahead = 8;
    for (std::size_t i = 0; i < ahead && i < slots.size(); ++i) {
        prefetchHome(slots[i].high, slots[i].low);
    }
    for (std::size_t i = 0; i < slots.size(); ++i) {
        if (i + ahead < slots.size()) {
            prefetchHome(slots[i + ahead].high, slots[i + ahead].low);
        }
        insert(slots[i]);
    }
}

void WatchTable::reserve(std::size_t entries) {
    std::size_t capacity = std::max(first_capacity, _slots.size());
    while (capacity < 2 * (_count + entries)) {
        capacity *= 2;
    }
    if (capacity > _slots.size()) {
        grow(capacity);
    }
}

void WatchTable::grow(std::size_t capacity) {
    SlotArray old = std::exchange(_slots, SlotArray(capacity));
    _shift = 64;
    for (std::size_t size = capacity; size > 1; size /= 2) {
        --_shift;
    }
    for (const Slot& slot : old) {
        if (slot.flags != 0) {
            _slots[probe(Key{slot.high, slot.low})] = slot;
        }
    }
}

void SentWatches::add(const WatchId& id, Clock::time_point deadline, std::chrono::seconds validFor,
                      bool hasCallback) {
    const WatchTable::Entry entry{deadline, validFor, false, hasCallback};
    if (id.parsed) {
        _slots.push_back(WatchTable::slotOf(id, entry));
    } else {
        _other.emplace_back(std::string(id.text), entry);
    }
}

void SentWatches::moveInto(WatchTable& table) {
    table.insertAll(_slots);
    for (auto& [id, entry] : _other) {
        table.watchOther(std::move(id), entry);
    }
    clear();
}

void SentWatches::clear() {
    _slots.clear();
    _other.clear();
}

void SentWatches::swap(SentWatches& other) noexcept {
    _slots.swap(other._slots);
    _other.swap(other._other);
}

void WrittenIds::add(const WatchId& id) {
    if (id.parsed) {
        _ids.push_back(id);
        _ids.back().text = std::string_view();
    } else {
        _other.emplace_back(id.text);
    }
}

void WrittenIds::noteIn(WatchTable& table, WatchTable::Clock::time_point now) {
    for (const WatchId& id : _ids) {
        table.noteWritten(id, now);
    }
    for (const std::string& id : _other) {
        table.noteWritten(id, now);
    }
    _ids.clear();
    _other.clear();
}

}  // namespace orvikm::detail
