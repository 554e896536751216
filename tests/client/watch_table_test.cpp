#include "client/watch_table.hpp"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

// The table behind the delivery-failure report: ids in the client's form and
// in any other form, deadlines before and after a write, and removal in the
// middle of probe sequences.
namespace {

using namespace std::chrono_literals;
using orvikm::detail::SentWatches;
using orvikm::detail::WatchId;
using orvikm::detail::WatchTable;
using Clock = WatchTable::Clock;

const Clock::time_point kStart = Clock::time_point(1000s);

// An id in the client's form whose digits come from n.
std::string idOf(unsigned n) {
    char text[37];
    std::snprintf(text, sizeof text, "%08x-%04x-4%03x-8%03x-%012x", n * 2654435761u, n & 0xffff,
                  n & 0xfff, (n >> 12) & 0xfff, n);
    return text;
}

struct Expired {
    std::vector<std::string> queued;
    std::vector<std::string> written;
};

Expired expiredAt(WatchTable& table, Clock::time_point now) {
    Expired expired;
    table.takeExpired(now, expired.queued, expired.written);
    std::sort(expired.queued.begin(), expired.queued.end());
    std::sort(expired.written.begin(), expired.written.end());
    return expired;
}

TEST(WatchTableTest, QueuedEntryExpiresAtItsDeadlineWithItsIdAsGiven) {
    WatchTable table;
    const std::string id = "0f1e2d3c-4b5a-4968-8776-a5b4c3d2e1f0";
    table.watch(id, kStart + 5s, 5s, true);

    EXPECT_TRUE(expiredAt(table, kStart + 4s).queued.empty());
    const Expired expired = expiredAt(table, kStart + 5s);

    EXPECT_EQ(expired.queued, std::vector<std::string>{id});
    EXPECT_TRUE(expired.written.empty());
    EXPECT_EQ(table.size(), 0u);
}

TEST(WatchTableTest, WrittenEntryGetsItsValidityAgainFromTheWrite) {
    WatchTable table;
    const std::string id = idOf(1);
    table.watch(id, kStart + 5s, 5s, true);

    table.noteWritten(id, kStart + 3s);

    EXPECT_EQ(expiredAt(table, kStart + 7s).written.size(), 0u);
    EXPECT_EQ(expiredAt(table, kStart + 8s).written, std::vector<std::string>{id});
}

TEST(WatchTableTest, WrittenEntryWithoutCallbackIsNoLongerWatched) {
    WatchTable table;
    table.watch(idOf(2), kStart + 1s, 1s, false);

    table.noteWritten(idOf(2), kStart);

    EXPECT_EQ(table.size(), 0u);
    EXPECT_FALSE(table.erase(idOf(2)));
}

TEST(WatchTableTest, ErasedEntryNeverExpires) {
    WatchTable table;
    table.watch(idOf(3), kStart + 1s, 1s, true);

    EXPECT_TRUE(table.erase(idOf(3)));

    const Expired expired = expiredAt(table, kStart + 1h);
    EXPECT_TRUE(expired.queued.empty());
    EXPECT_TRUE(expired.written.empty());
}

// What an id reads as, digit by digit: the first digit lowest.
bool readIdOneByOne(const std::string& id, std::uint64_t& high, std::uint64_t& low) {
    if (id.size() != 36) {
        return false;
    }
    std::uint64_t words[2] = {0, 0};
    unsigned digit = 0;
    for (std::size_t i = 0; i < id.size(); ++i) {
        const char c = id[i];
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (c != '-') {
                return false;
            }
            continue;
        }
        std::uint64_t value;
        if (c >= '0' && c <= '9') {
            value = static_cast<std::uint64_t>(c - '0');
        } else if (c >= 'a' && c <= 'f') {
            value = static_cast<std::uint64_t>(c - 'a' + 10);
        } else {
            return false;
        }
        words[digit / 16] |= value << (4 * (digit % 16));
        ++digit;
    }
    high = words[0];
    low = words[1];
    return true;
}

// Both ways of reading an id against the one-by-one reading, for every byte
// value at every place of an id.
TEST(WatchTableTest, IdReadingsAgreeOnEveryByteAtEveryPlace) {
    using Reading = bool (*)(std::string_view, std::uint64_t&, std::uint64_t&);
    std::vector<Reading> readings = {&orvikm::detail::readIdPortable};
#if defined(__SSE2__)
    readings.push_back(&orvikm::detail::readIdVector);
#endif
    const std::string base = "0f1e2d3c-4b5a-4968-8776-a5b4c3d2e1f0";
    std::size_t accepted = 0;
    for (std::size_t place = 0; place < base.size(); ++place) {
        for (int byte = 0; byte < 256; ++byte) {
            std::string id = base;
            id[place] = static_cast<char>(byte);
            std::uint64_t expectedHigh = 0;
            std::uint64_t expectedLow = 0;
            const bool expected = readIdOneByOne(id, expectedHigh, expectedLow);
            accepted += expected ? 1 : 0;
            for (const Reading reading : readings) {
                std::uint64_t high = 0;
                std::uint64_t low = 0;
                ASSERT_EQ(reading(id, high, low), expected) << "id " << id;
                if (expected) {
                    ASSERT_EQ(high, expectedHigh) << "id " << id;
                    ASSERT_EQ(low, expectedLow) << "id " << id;
                }
            }
        }
    }
    // Sixteen digits at each of 32 places, one hyphen at each of four.
    EXPECT_EQ(accepted, 32u * 16u + 4u);
    std::uint64_t high = 0;
    std::uint64_t low = 0;
    for (const Reading reading : readings) {
        EXPECT_FALSE(reading(base.substr(1), high, low));
        EXPECT_FALSE(reading(base + "0", high, low));
    }
}

TEST(WatchTableTest, IdsInOtherFormsAreKeptAsTheyAre) {
    WatchTable table;
    const std::vector<std::string> ids = {
        "", "short", "0F1E2D3C-4B5A-4968-8776-A5B4C3D2E1F0", "0f1e2d3c+4b5a-4968-8776-a5b4c3d2e1f0",
        std::string(36, 'g'), std::string(200, 'x'),
        // Bytes next to the digits' ranges, and one above 0x7f.
        "0f1e2d3c-4b5a-4968-8776-a5b4c3d2e1f/",
        "0f1e2d3c-4b5a-4968-8776-a5b4c3d2e1f:", "0f1e2d3c-4b5a-4968-8776-a5b4c3d2e1f`",
        "\xb0"
        "f1e2d3c-4b5a-4968-8776-a5b4c3d2e1f0"};
    for (const std::string& id : ids) {
        table.watch(id, kStart + 1s, 1s, true);
    }
    table.noteWritten(ids[1], kStart);
    table.watch("kept", kStart + 1h, 1h, true);
    ASSERT_EQ(table.size(), ids.size() + 1);

    const Expired expired = expiredAt(table, kStart + 1s);

    std::vector<std::string> all = expired.queued;
    all.insert(all.end(), expired.written.begin(), expired.written.end());
    std::vector<std::string> expected = ids;
    std::sort(all.begin(), all.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(all, expected);
    EXPECT_EQ(expired.written, std::vector<std::string>{"short"});
    EXPECT_TRUE(table.erase("kept"));
}

TEST(WatchTableTest, WatchingAgainReplacesTheEntry) {
    WatchTable table;
    table.watch(idOf(4), kStart + 1s, 1s, true);
    table.watch(idOf(4), kStart + 10s, 10s, true);

    EXPECT_EQ(table.size(), 1u);
    EXPECT_TRUE(expiredAt(table, kStart + 5s).queued.empty());
}

TEST(WatchTableTest, ValiditiesBeyondThirtyTwoBitsKeepTheirMeaningAfterAWrite) {
    WatchTable table;
    table.watch(idOf(5), Clock::time_point::max(), std::chrono::seconds::max(), true);
    table.watch(idOf(6), kStart, std::chrono::seconds::min(), true);

    table.noteWritten(idOf(5), kStart);
    table.noteWritten(idOf(6), kStart);

    const Expired expired = expiredAt(table, kStart + std::chrono::hours(24 * 365 * 100));
    EXPECT_EQ(expired.written, std::vector<std::string>{idOf(6)});
    EXPECT_EQ(table.size(), 1u);
}

// Thousands of entries make long probe sequences and several growths; erasing
// every third one in the middle of them must leave every other one findable.
TEST(WatchTableTest, ManyEntriesSurviveGrowthAndErasureAroundThem) {
    constexpr unsigned kEntries = 20000;
    WatchTable table;
    for (unsigned n = 0; n < kEntries; ++n) {
        table.watch(idOf(n), kStart + std::chrono::seconds(1 + n % 2), 1s, true);
    }
    for (unsigned n = 0; n < kEntries; n += 3) {
        ASSERT_TRUE(table.erase(idOf(n))) << n;
    }
    for (unsigned n = 0; n < kEntries; n += 5) {
        EXPECT_EQ(table.erase(idOf(n)), n % 3 != 0) << n;
    }

    const Expired expired = expiredAt(table, kStart + 2s);

    std::vector<std::string> expected;
    for (unsigned n = 0; n < kEntries; ++n) {
        if (n % 3 != 0 && n % 5 != 0) {
            expected.push_back(idOf(n));
        }
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expired.queued, expected);
    EXPECT_EQ(table.size(), 0u);
}

// Sent messages reach the table only when moved in, all of them, in the order
// sent: a later send of the same id replaces the earlier one. Enough of them
// that the table grows while they go in, and ids of both kinds.
TEST(WatchTableTest, SentMessagesAreWatchedOnceMovedInInTheOrderSent) {
    constexpr unsigned kSent = 5000;
    WatchTable table;
    table.watch(idOf(kSent), kStart + 3s, 3s, true);
    SentWatches sent;
    for (unsigned n = 0; n < kSent; ++n) {
        const std::string id = idOf(n);
        sent.add(WatchId(id), kStart + 1s, 1s, true);
    }
    // Sent again, to stay longer; and one in another form, sent twice.
    sent.add(WatchId(idOf(7)), kStart + 2s, 2s, true);
    sent.add(WatchId("own id"), kStart + 1s, 1s, true);
    sent.add(WatchId("own id"), kStart + 2s, 2s, true);
    EXPECT_FALSE(sent.empty());
    EXPECT_EQ(table.size(), 1u);

    sent.moveInto(table);

    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(table.size(), kSent + 2);
    std::vector<std::string> expected;
    for (unsigned n = 0; n < kSent; ++n) {
        if (n != 7) {
            expected.push_back(idOf(n));
        }
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expiredAt(table, kStart + 1s).queued, expected);
    const std::vector<std::string> later = {idOf(7), "own id"};
    EXPECT_EQ(expiredAt(table, kStart + 2s).queued, later);
    EXPECT_EQ(expiredAt(table, kStart + 3s).queued, std::vector<std::string>{idOf(kSent)});

    // What was moved in is gone from the group: a second move adds nothing.
    sent.moveInto(table);
    EXPECT_EQ(table.size(), 0u);
}

TEST(WatchTableTest, ClearedSentMessagesNeverReachTheTable) {
    WatchTable table;
    SentWatches sent;
    sent.add(WatchId(idOf(1)), kStart + 1s, 1s, true);
    sent.add(WatchId("own id"), kStart + 1s, 1s, true);

    sent.clear();
    sent.moveInto(table);

    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(table.size(), 0u);
}

}  // namespace
