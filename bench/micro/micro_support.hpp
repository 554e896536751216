#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include <orvikm/message.hpp>
#include <orvikm/payload.hpp>

#include "../support/alloc_counter.hpp"
#include "../support/raw_wire.hpp"

namespace orvikmicro {

// Reports, as the counter "allocs", the operator new calls that the timed
// loop made per iteration.
class AllocationCounter {
public:
    AllocationCounter() : _start(orvikbench::threadAllocations()) {}

    void report(benchmark::State& state) const {
        state.counters["allocs"] =
            benchmark::Counter(static_cast<double>(orvikbench::threadAllocations() - _start),
                               benchmark::Counter::kAvgIterations);
    }

private:
    std::uint64_t _start;
};

// A payload over `body`, which it does not own.
inline orvikm::Payload borrowedPayload(std::vector<char>& body) {
    return orvikm::Payload(body.data(), static_cast<unsigned>(body.size()),
                           std::string(orvikbench::bench_payload_type), nullptr);
}

// A message as the benchmark client sends it: one route, 30 s, acknowledged
// by the node, with a new id.
inline orvikm::Message benchMessage(std::vector<char>& body) {
    return orvikm::Message(
        borrowedPayload(body),
        orvikm::Message::Config(std::string(orvikbench::bench_app_id),
                                {std::string(orvikbench::bench_topic)},
                                std::chrono::seconds(orvikbench::bench_valid_for_seconds),
                                orvikm::Message::AckMode::ByNode));
}

// Applied before any benchmark runs, as in orvik-bench.
inline const bool allocator_thresholds_fixed = [] {
    orvikbench::fixAllocatorThresholds();
    return true;
}();

// The payload sizes of the end-to-end benchmark.
inline void payloadSizes(benchmark::internal::Benchmark* benchmark) {
    for (const std::int64_t size : {0, 100, 10 * 1024, 1024 * 1024}) {
        benchmark->Arg(size);
    }
}

}  // namespace orvikmicro
