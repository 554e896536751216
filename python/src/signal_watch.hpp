#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <thread>

namespace orvikm_python {

/// Notices signals while the main thread waits in the library without the
/// GIL. Python's own handler only notes a signal and writes its number to the
/// wakeup descriptor; for its lifetime the watch puts a pipe of its own there
/// and a thread of its own on the other end, which passes each signal on to
/// the descriptor it replaced and calls `onSignal` (the client's terminate()),
/// so that the loop returns and the caller can run Python's handlers.
///
/// Made and destroyed on one thread with the GIL held. Off the main thread it
/// does nothing: Python runs signal handlers on the main thread only.
class SignalWatch {
public:
    explicit SignalWatch(std::function<void()> onSignal);
    ~SignalWatch();
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;

    /// How many signals the watch has seen so far.
    std::uint64_t signals() const { return _signals.load(std::memory_order_acquire); }
    /// How many times the watch has called onSignal so far (counted before
    /// each call): a loop that returned while this changed may have returned
    /// for the watch alone.
    std::uint64_t calls() const { return _calls.load(std::memory_order_acquire); }
    /// Tells the watch that Python's handlers have run for the first `count`
    /// signals. Until they have, the watch calls onSignal again every 50 ms:
    /// a loop entered just after a signal forgets the terminate() it caused.
    void handled(std::uint64_t count) { _handled.store(count, std::memory_order_release); }

private:
    void watch();
    void call();

    std::function<void()> _on_signal;
    bool _active{false};
    int _read_end{-1};
    int _write_end{-1};
    int _previous{-1};
    std::atomic<std::uint64_t> _signals{0};
    std::atomic<std::uint64_t> _handled{0};
    std::atomic<std::uint64_t> _calls{0};
    std::thread _thread;
};

}  // namespace orvikm_python
