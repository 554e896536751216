#include "harness.hpp"

#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>

namespace orvikbench {

namespace {

// The watchdog's deadline lives outside the object: the watching thread is
// never joined and outlives main().
std::atomic<std::int64_t> watchdog_deadline_s{0};

std::int64_t secondsNow() {
    return std::chrono::duration_cast<std::chrono::seconds>(Clock::now().time_since_epoch())
        .count();
}

}  // namespace

void fail(const std::string& what) {
    std::fprintf(stderr, "orvik-bench: %s\n", what.c_str());
    std::_Exit(1);
}

void failOnError(orviku::Exception& error) {
    fail(error.describe());
}

double processCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double threadCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

std::string loadAverage() {
    std::FILE* file = std::fopen("/proc/loadavg", "r");
    char text[64] = "unknown";
    if (file != nullptr) {
        if (std::fscanf(file, "%63[^ ] %*s %*s", text) != 1) {
            std::snprintf(text, sizeof text, "unknown");
        }
        std::fclose(file);
    }
    return text;
}

double secondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

std::string sizeText(std::size_t size) {
    if (size >= 1024 * 1024 && size % (1024 * 1024) == 0) {
        return std::to_string(size / (1024 * 1024)) + " MiB";
    }
    if (size >= 1024 && size % 1024 == 0) {
        return std::to_string(size / 1024) + " KiB";
    }
    return std::to_string(size) + " B";
}

orvikm::Payload sharedPayload(std::vector<char>& body) {
    return orvikm::Payload(body.data(), static_cast<unsigned>(body.size()),
                           std::string(bench_payload_type), nullptr);
}

Watchdog::Watchdog() {
    std::thread([] {
        for (;;) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
            const std::int64_t deadline = watchdog_deadline_s.load();
            if (deadline != 0 && secondsNow() > deadline) {
                fail("a measurement did not finish within two minutes");
            }
        }
    }).detach();
}

void Watchdog::arm() {
    watchdog_deadline_s.store(secondsNow() + 120);
}

double percentile(std::vector<double> values, double fraction) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const auto rank = static_cast<std::size_t>(std::ceil(fraction * values.size()));
    return values[std::clamp<std::size_t>(rank, 1, values.size()) - 1];
}

void printTable(const std::vector<Row>& rows, const char* left, const char* right) {
    int width = 34;
    for (const Row& row : rows) {
        width = std::max(width, static_cast<int>(row.name.size()));
    }
    std::printf("%-*s %14s %14s %8s   %s\n", width, "row", left, right, "ratio", "target");
    for (const Row& row : rows) {
        char ratio[16] = "-";
        char target[32] = "-";
        if (row.ratio >= 0) {
            std::snprintf(ratio, sizeof ratio, "%.2f", row.ratio);
            if (!row.comparison.empty()) {
                const bool met =
                    row.comparison == ">=" ? row.ratio >= row.bound : row.ratio <= row.bound;
                std::snprintf(target, sizeof target, "%s %.2f %s", row.comparison.c_str(),
                              row.bound, met ? "met" : "MISSED");
            }
        }
        const char* format =
            row.library >= 1000 ? "%-*s %14.0f %14.0f %8s   %s\n" : "%-*s %14.2f %14.2f %8s   %s\n";
        std::printf(format, width, row.name.c_str(), row.library, row.raw, ratio, target);
    }
}

}  // namespace orvikbench
