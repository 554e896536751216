#pragma once

// What the tables of orvik-bench share: failing, clocks, the client set up
// for a node, the watchdog, percentiles and the table's layout.
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <orvikm/orvikm.hpp>

#include "support/bench_node.hpp"
#include "support/raw_wire.hpp"

namespace orvikbench {

using Clock = std::chrono::steady_clock;

// The I/O loop's quiet time. Throughput is timed up to the last callback, so
// it does not count there; between two latency samples both sides idle this
// long.
constexpr std::chrono::milliseconds loop_timeout{1};

// Prints "orvik-bench: WHAT" on standard error and ends the program.
[[noreturn]] void fail(const std::string& what);
// An error handler for the loop that ends the program with the error.
void failOnError(orviku::Exception& error);

// User and system time of the whole process so far.
double processCpuSeconds();
// User and system time of the calling thread so far.
double threadCpuSeconds();
// The first figure of /proc/loadavg, "unknown" when it cannot be read.
std::string loadAverage();
double secondsBetween(Clock::time_point from, Clock::time_point to);
// "100 B", "10 KiB", "1 MiB".
std::string sizeText(std::size_t size);

// A client of the minimal node of this process or of an orvik-devnode child:
// both offer their two ports.
template <typename Node>
std::unique_ptr<orvikm::Client> newClient(const Node& node, bool subscribe,
                                          orvikm::Client::Options options = {}) {
    std::vector<std::string> topics;
    if (subscribe) {
        topics.emplace_back(bench_topic);
    }
    return std::make_unique<orvikm::Client>(std::string(bench_app_id), node.listenerPort(),
                                            node.dispenserPort(), std::move(topics), options);
}

// A payload over the benchmark's one body buffer, which it does not own: the
// measured cost is the library's, not that of filling a buffer per message.
orvikm::Payload sharedPayload(std::vector<char>& body);

// Ends the program when one measurement takes far longer than it should:
// `make bench` must never hang on a lost message.
class Watchdog {
public:
    // Starts the watching thread, which is never joined and outlives main().
    Watchdog();

    // Gives the next measurement two minutes.
    void arm();
};

// The value below which `fraction` of the values lie (nearest rank); 0 for
// none.
double percentile(std::vector<double> values, double fraction);

struct Row {
    std::string name;
    double library;
    double raw;
    // Negative: no ratio.
    double ratio;
    // Empty: no target. ">=" or "<=" with the bound: the ratio's target.
    std::string comparison = "";
    double bound = 0;
};

// One table: row (at least 34 characters wide, wider for a longer name), the
// two sides under their headings, ratio, target (with "met" or "MISSED").
void printTable(const std::vector<Row>& rows, const char* left = "library",
                const char* right = "raw");

}  // namespace orvikbench
