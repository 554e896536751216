#pragma once

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

namespace stresstest {

using namespace std::chrono_literals;

// How big a run is. The test suite runs the small scale, a few seconds in
// all; ORVIKM_STRESS=full (what `make stress` sets) selects the full one.
struct Scale {
    const char* name;
    // Many processes, many threads.
    int processes;
    int threadsPerProcess;
    int messagesPerThread;
    int window;                          // unacknowledged messages per sending thread
    std::chrono::seconds clientLimit;    // how long each client process may take
    std::chrono::seconds deliveryLimit;  // how long deliveries may lag behind
    // Bursts.
    int burst;
    int burstPayloadBytes;
    std::chrono::milliseconds nodePause;
    std::chrono::seconds burstLimit;  // how long a burst may take to get through
    // Faults.
    int queuedWhileAbsent;
    int absentReports;  // "not available" reports before the node starts
    int streamBatch;    // messages queued per batch of the stream, every 10 ms
    std::chrono::milliseconds streamBeforeKill;
    std::chrono::milliseconds downTime;  // after the client noticed the kill
    std::chrono::milliseconds streamAfterRestart;
    int malformedRounds;  // valid requests per socket
    int malformedEvery;   // one malformed request per this many valid ones
};

inline bool fullScale() {
    const char* value = std::getenv("ORVIKM_STRESS");
    return value != nullptr && std::string(value) == "full";
}

// A few seconds in all, for every run of the test suite. The bursts carry
// larger payloads, so that they, too, are more than the connection's socket
// buffers hold.
inline Scale smokeScale() {
    Scale run{};
    run.name = "smoke";
    run.processes = 1;
    run.threadsPerProcess = 4;
    run.messagesPerThread = 500;
    run.window = 500;
    run.clientLimit = 20s;
    run.deliveryLimit = 10s;
    run.burst = 10000;
    run.burstPayloadBytes = 1024;
    run.nodePause = 1000ms;
    run.burstLimit = 20s;
    run.queuedWhileAbsent = 500;
    run.absentReports = 2;
    run.streamBatch = 20;
    run.streamBeforeKill = 500ms;
    run.downTime = 700ms;
    run.streamAfterRestart = 300ms;
    run.malformedRounds = 200;
    run.malformedEvery = 10;
    return run;
}

inline Scale fullScaleRun() {
    Scale run{};
    run.name = "full";
    run.processes = 3;
    run.threadsPerProcess = 8;
    run.messagesPerThread = 25000;
    run.window = 2000;
    run.clientLimit = 600s;
    run.deliveryLimit = 60s;
    run.burst = 100000;
    run.burstPayloadBytes = 256;
    run.nodePause = 3000ms;
    run.burstLimit = 120s;
    run.queuedWhileAbsent = 5000;
    run.absentReports = 5;
    run.streamBatch = 50;
    run.streamBeforeKill = 2000ms;
    run.downTime = 3000ms;
    run.streamAfterRestart = 1000ms;
    run.malformedRounds = 5000;
    run.malformedEvery = 25;
    return run;
}

inline const Scale& scale() {
    static const Scale run = fullScale() ? fullScaleRun() : smokeScale();
    return run;
}

// Writes one figure of the run to standard output and, when ORVIKM_STRESS_FIGURES
// names a file, appends it there.
inline void figure(const std::string& test, const std::string& text) {
    const std::string line = "[" + std::string(scale().name) + "] " + test + ": " + text;
    std::cout << "[ FIGURE   ] " << line << std::endl;
    if (const char* path = std::getenv("ORVIKM_STRESS_FIGURES")) {
        std::ofstream(path, std::ios::app) << line << '\n';
    }
}

}  // namespace stresstest
