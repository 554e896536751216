#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>
#include <utility>

namespace testsupport {

// Work on a thread of its own that may block on a lock. The thread is
// detached, so a call that never returns fails the test instead of hanging it;
// the work must therefore own (through shared pointers) everything it touches.
class BackgroundWork {
public:
    explicit BackgroundWork(std::function<void()> work)
        : _done(std::make_shared<std::promise<void>>()), _finished(_done->get_future()) {
        std::thread([work = std::move(work), done = _done] {
            work();
            done->set_value();
        }).detach();
    }

    bool finishedWithin(std::chrono::milliseconds timeout) {
        return _finished.wait_for(timeout) == std::future_status::ready;
    }

private:
    std::shared_ptr<std::promise<void>> _done;
    std::future<void> _finished;
};

}  // namespace testsupport
