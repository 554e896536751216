#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <utility>

#include <orvikm/client.hpp>
#include <orviku/exception.hpp>

namespace testsupport {

using namespace std::chrono_literals;

using ErrorHandler = std::function<void(orviku::Exception&)>;

// Runs client.blockThreadForIO on a thread of its own. On the way out it ends
// a loop that still runs; a loop that cannot be ended stops the process, as
// waiting on would hang the test run.
class LoopThread {
public:
    // How long one pass of the loop waits for input once the sockets are quiet.
    static constexpr std::chrono::milliseconds kPassTimeout = 20ms;
    // How long stop() keeps trying before it gives up.
    static constexpr std::chrono::milliseconds kEndLimit = 10s;
    // How long stop() waits for the loop to end after each terminate().
    static constexpr std::chrono::milliseconds kTerminateRetry = 50ms;

    LoopThread(orvikm::Client& client, ErrorHandler handler,
               std::chrono::milliseconds passTimeout = kPassTimeout)
        : _client(client),
          _loop(
              std::async(std::launch::async, [&client, handler = std::move(handler), passTimeout] {
                  client.blockThreadForIO(handler, passTimeout);
              })) {}
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;
    ~LoopThread() {
        if (_loop.valid() && !stop()) {
            std::fputs("blockThreadForIO did not end after terminate()\n", stderr);
            std::abort();
        }
    }

    bool endsWithin(std::chrono::milliseconds limit) {
        return _loop.wait_for(limit) == std::future_status::ready;
    }

    // A terminate() that comes before the loop has cleared its flag is
    // forgotten, so it is repeated until the loop has ended.
    bool stop() {
        const auto deadline = std::chrono::steady_clock::now() + kEndLimit;
        while (std::chrono::steady_clock::now() < deadline) {
            _client.terminate();
            if (endsWithin(kTerminateRetry)) {
                return true;
            }
        }
        return false;
    }

    // Rethrows what left blockThreadForIO; call it once the loop has ended.
    void result() { _loop.get(); }

private:
    orvikm::Client& _client;
    std::future<void> _loop;
};

}  // namespace testsupport
