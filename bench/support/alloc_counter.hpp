#pragma once

#include <cstdint>

namespace orvikbench {

// The number of heap allocations that the calling thread has made through
// operator new (scalar or array, any form) since it started. Counted by the
// replacements of the global allocation functions that every benchmark
// program links in; other threads' allocations are not included.
std::uint64_t threadAllocations() noexcept;

// Fixes glibc's mmap and trim thresholds, which it otherwise adapts to the
// blocks freed so far: whether a 1 MiB buffer then costs fresh pages depends
// on what ran before (in one process, raw reading faulted seven times as many
// pages as the library; the Receiver of the micro benchmarks grew and trimmed
// the heap for every 1 MiB message). With the thresholds fixed, large blocks
// stay in the heap for library and raw alike.
void fixAllocatorThresholds();

}  // namespace orvikbench
