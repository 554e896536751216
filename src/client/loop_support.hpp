#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <utility>

#include <orvikm/errors.hpp>

// What the I/O loop, check and flush share.
namespace orvikm::detail {

inline const std::string loop_running =
    "The I/O loop is already running (on another thread, or this call comes from inside one of "
    "its callbacks)";

// Marks the I/O loop as running for its lifetime, or refuses to: two loops
// would use the sockets from two threads at once, and a loop entered from a
// callback would wait for a lock its own thread holds. An atomic exchange
// costs the hot path no lock.
class IoLoopEntry {
public:
    // `thread` names the I/O thread while the loop runs.
    IoLoopEntry(std::atomic<bool>& running, std::atomic<std::thread::id>& thread,
                const char* context)
        : _running(running), _thread(thread) {
        if (_running.exchange(true, std::memory_order_acquire)) {
            Exception refusal(loop_running);
            refusal.throwWithContext(context);
        }
        _thread.store(std::this_thread::get_id(), std::memory_order_relaxed);
    }
    IoLoopEntry(const IoLoopEntry&) = delete;
    IoLoopEntry& operator=(const IoLoopEntry&) = delete;
    ~IoLoopEntry() {
        _thread.store(std::thread::id(), std::memory_order_relaxed);
        _running.store(false, std::memory_order_release);
    }

private:
    std::atomic<bool>& _running;
    std::atomic<std::thread::id>& _thread;
};

// Calls the callback held in `slot` so that the callback may replace or clear
// `slot` meanwhile (a one-shot handler clears itself): it runs from a local,
// and goes back into the slot afterwards unless the slot was set during the
// call.
template <typename Callback, typename Argument>
void callReplaceable(Callback& slot, bool& replaced, Argument&& argument) {
    Callback running;
    running.swap(slot);
    replaced = false;
    struct PutBack {
        Callback& slot;
        Callback& running;
        bool& replaced;
        ~PutBack() {
            if (!replaced) {
                slot.swap(running);
            }
        }
    } putBack{slot, running, replaced};
    running(std::forward<Argument>(argument));
}

}  // namespace orvikm::detail
