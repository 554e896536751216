#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <orvikm/client.hpp>
#include <orviku/exception.hpp>

namespace stresstest {

// One error as the application's error handler got it.
struct ReportedError {
    std::chrono::steady_clock::time_point when;
    std::string type;     // "ProtocolError", "wxblt::Exception", "GeneralException", ...
    int errorNumber = 0;  // of socket errors; 0 for the others
    std::string what;
    std::vector<std::string> context;

    // EAGAIN from a socket: the node could not be reached in time.
    bool nodeUnavailable() const;
    std::string describe() const;
};

ReportedError reportOf(const orviku::Exception& error);

// Runs a client's I/O loop on a thread of its own the way a long-running
// application does: every error the loop reports is kept, and the loop is
// entered again after `reentryPause`; an exception that leaves
// blockThreadForIO is kept too (its what()) and the loop is entered again as
// well. The destructor ends the loop within a bounded time; a loop that does
// not end aborts the process rather than hang it.
class AppLoop {
public:
    static constexpr std::chrono::milliseconds kPassTimeout{20};
    static constexpr std::chrono::milliseconds kReentryPause{20};
    static constexpr std::chrono::seconds kEndLimit{10};

    explicit AppLoop(orvikm::Client& client, std::chrono::milliseconds passTimeout = kPassTimeout,
                     std::chrono::milliseconds reentryPause = kReentryPause);
    AppLoop(const AppLoop&) = delete;
    AppLoop& operator=(const AppLoop&) = delete;
    ~AppLoop();

    // Ends the loop; true when it ended within kEndLimit.
    bool stop();

    std::vector<ReportedError> errors() const;
    std::size_t errorCount() const;
    // Waits at most `timeout` until at least `count` errors were reported.
    bool waitForErrors(std::size_t count, std::chrono::milliseconds timeout);
    // The what() of every exception that left blockThreadForIO.
    std::vector<std::string> escaped() const;
    // How many times blockThreadForIO was entered.
    std::size_t entries() const;

private:
    void run(std::chrono::milliseconds passTimeout, std::chrono::milliseconds reentryPause);

    orvikm::Client& _client;
    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::vector<ReportedError> _errors;
    std::vector<std::string> _escaped;
    std::size_t _entries = 0;
    std::atomic<bool> _stopping{false};
    std::promise<void> _ended;
    std::future<void> _ended_future;
    bool _joined = false;
    std::thread _thread;
};

}  // namespace stresstest
