#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/resident_memory.hpp"

namespace stresstest {

using testsupport::residentKb;

// Resident set sizes of one process over time.
struct RssSeries {
    std::string name;
    std::vector<long> samplesKb;

    long firstKb() const;
    long peakKb() const;
    long lastKb() const;
    std::string summary() const;  // "NAME first=.. peak=.. last=.. KiB (N samples)"
};

// Samples the resident set size of the processes it watches at a fixed
// interval, on a thread of its own, until it is destroyed or stopped.
class RssSampler {
public:
    explicit RssSampler(std::chrono::milliseconds interval = std::chrono::milliseconds(100));
    RssSampler(const RssSampler&) = delete;
    RssSampler& operator=(const RssSampler&) = delete;
    ~RssSampler();

    void watch(std::string name, pid_t pid);
    void stop();
    std::vector<RssSeries> series() const;

private:
    void run(std::chrono::milliseconds interval);

    mutable std::mutex _mutex;
    std::vector<std::pair<pid_t, RssSeries>> _watched;
    std::atomic<bool> _stopping{false};
    std::thread _thread;
};

}  // namespace stresstest
