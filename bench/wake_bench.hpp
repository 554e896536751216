#pragma once

// orvik-bench's tables of how a message sent by the application reaches the
// I/O loop: Client::Options::wakeOnSend against the loop's quiet timeout,
// against the I/O thread sending for itself, and the application's own event
// loop (eventHandle, processEvents) against blockThreadForIO. Every row runs
// through orvik-devnode.
#include <cstddef>
#include <cstdint>
#include <string>

#include "harness.hpp"
#include "support/devnode_process.hpp"

namespace orvikbench {

struct WakeBenchOptions {
    // Aimed duration of one run.
    double seconds = 0.3;
    // Runs a side; the best rate of each side is reported, and the round
    // trips of every run go into the percentiles.
    int repetitions = 7;
    std::size_t size = 100;
};

// Measures and prints the tables (about 25 s with the defaults).
void printWakeTables(const DevNodeProcess& devnode, Watchdog& watchdog,
                     const WakeBenchOptions& options);

// One run of one kind, `count` messages of `size` bytes, for a profiler:
// one, one-woken, one-io-thread, one-poll, one-poll-same-thread (one message
// in flight), wide, wide-woken, wide-poll (1000 in flight), burst,
// burst-woken (no window). Prints its figures; false for an unknown kind.
bool runWakeProfile(const std::string& kind, const DevNodeProcess& devnode, std::uint64_t count,
                    std::size_t size);

}  // namespace orvikbench
