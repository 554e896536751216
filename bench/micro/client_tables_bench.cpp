// The client's tables: the outgoing queue (push, then performOperation
// taking the top), the acknowledgement callbacks (registerCallback, then
// handleAck) and the watched messages of the delivery-failure report.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <orvikm/orvikm.hpp>

#include "client/watch_table.hpp"
#include "micro_support.hpp"

namespace {

using orvikm::Client;
using orvikm::Message;
using orvikm::internal_objects::Ack;
using orvikmicro::AllocationCounter;

constexpr std::size_t batch = 1000;

// Pushes `depth` messages, then takes them all; repeated over batches of
// `batch` messages that are built with the timer stopped. Depth 1 is a queue
// that never holds more than one message; depth 1000 a full pass's worth.
void BM_MessageQueuePushPop(benchmark::State& state) {
    const auto depth = static_cast<std::size_t>(state.range(0));
    std::vector<char> body(100, 'x');
    Client::MessageQueue queue;
    std::vector<Message> messages;
    messages.reserve(batch);
    std::uint64_t allocations = 0;
    std::uint64_t items = 0;
    for (auto _ : state) {
        state.PauseTiming();
        messages.clear();
        for (std::size_t i = 0; i < batch; ++i) {
            messages.push_back(orvikmicro::benchMessage(body));
        }
        const std::uint64_t before = orvikbench::threadAllocations();
        state.ResumeTiming();
        for (std::size_t first = 0; first < batch; first += depth) {
            for (std::size_t i = first; i < first + depth && i < batch; ++i) {
                queue.push(messages[i]);
            }
            while (queue.performOperation([](const Message& message) {
                benchmark::DoNotOptimize(&message);
                return true;
            })) {
            }
        }
        state.PauseTiming();
        allocations += orvikbench::threadAllocations() - before;
        items += batch;
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(items));
    state.counters["allocs"] =
        benchmark::Counter(static_cast<double>(allocations) / static_cast<double>(items));
}
BENCHMARK(BM_MessageQueuePushPop)->Arg(1)->Arg(1000);

// registerCallback and then handleAck for the same message, with
// `outstanding` other messages' callbacks waiting in the table meanwhile.
void BM_ResultCallbacksRegisterAndAck(benchmark::State& state) {
    const auto outstanding = static_cast<std::size_t>(state.range(0));
    std::vector<char> body(0);
    Client::MsgResultCallbacks callbacks;
    std::uint64_t calls = 0;
    std::uint64_t* counter = &calls;
    for (std::size_t i = 0; i < outstanding; ++i) {
        Message waiting = orvikmicro::benchMessage(body);
        callbacks.registerCallback(waiting, [counter] { ++*counter; });
    }
    std::vector<Message> messages;
    std::vector<Ack> acks;
    for (std::size_t i = 0; i < 256; ++i) {
        messages.push_back(orvikmicro::benchMessage(body));
        acks.push_back(messages.back().generate_ack());
    }
    std::size_t next = 0;
    AllocationCounter allocations;
    for (auto _ : state) {
        callbacks.registerCallback(messages[next], [counter] { ++*counter; });
        callbacks.handleAck(acks[next]);
        next = (next + 1) % messages.size();
    }
    allocations.report(state);
    if (calls != static_cast<std::uint64_t>(state.iterations())) {
        state.SkipWithError("a callback was not called exactly once");
    }
}
BENCHMARK(BM_ResultCallbacksRegisterAndAck)->Arg(0)->Arg(10000);

// What the delivery-failure report does for each message of a burst of
// `burst` messages, as the client does it: each id read and kept at its send,
// all of them moved into the table together, the writes noted in groups of 32
// (one clock reading a group), then each id read again and erased at its
// acknowledgement. Arg 1 is 1 for a table kept from burst to burst (grown
// already), 0 for a new one each burst.
void BM_WatchTableBurst(benchmark::State& state) {
    using orvikm::detail::SentWatches;
    using orvikm::detail::WatchId;
    using orvikm::detail::WatchTable;
    using orvikm::detail::WrittenIds;
    const auto burst = static_cast<std::size_t>(state.range(0));
    const bool kept = state.range(1) != 0;
    std::vector<char> body(0);
    std::vector<std::string> ids;
    for (std::size_t i = 0; i < burst; ++i) {
        ids.push_back(orvikmicro::benchMessage(body).msgId());
    }
    auto table = std::make_unique<WatchTable>();
    SentWatches sent;
    WrittenIds written;
    constexpr std::chrono::seconds validFor(orvikbench::bench_valid_for_seconds);
    for (auto _ : state) {
        if (!kept) {
            table = std::make_unique<WatchTable>();
        }
        for (const std::string& id : ids) {
            sent.add(WatchId(id), WatchTable::Clock::now() + validFor, validFor, true);
        }
        sent.moveInto(*table);
        for (std::size_t first = 0; first < burst; first += 32) {
            for (std::size_t i = first; i < first + 32 && i < burst; ++i) {
                const WatchId watched(ids[i]);
                table->prefetch(watched);
                written.add(watched);
            }
            written.noteIn(*table, WatchTable::Clock::now());
        }
        for (const std::string& id : ids) {
            const WatchId watched(id);
            table->prefetch(watched);
            benchmark::DoNotOptimize(table->erase(watched));
        }
        if (table->size() != 0) {
            state.SkipWithError("an entry was left behind");
        }
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * burst));
}
BENCHMARK(BM_WatchTableBurst)
    ->Args({256, 1})
    ->Args({50000, 1})
    ->Args({50000, 0})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
