#pragma once

#include <atomic>

namespace orvikm::detail {

// The client's way to be woken: an eventfd that send() and terminate() write
// to, and, once an application asks for one, an epoll descriptor over that
// eventfd and the two sockets' ZeroMQ descriptors, for the application's own
// event loop to wait on.
//
// A sender writes to the eventfd only while the loop waits for input (or, once
// the application's own loop watches the handle, whenever it is the first
// since the last drain), so a burst costs no system call per message.
class Wakeup {
public:
    // Throws orvikm::Exception, with the system's reason, when the eventfd
    // cannot be made.
    Wakeup();
    Wakeup(const Wakeup&) = delete;
    Wakeup& operator=(const Wakeup&) = delete;
    ~Wakeup();

    // Makes the eventfd readable unless it is already. Any thread, and
    // async-signal-safe (a lock-free exchange and write(2)).
    void signal() noexcept;
    // Reads the eventfd empty; what is queued after this call signals again.
    // Call it before taking the work that the signal announced.
    void drain() noexcept;
    int eventDescriptor() const noexcept { return _event; }

    // The loop is about to wait for input: from here until endWait(), send()
    // signals. The caller looks at its queue after this call and does not
    // wait when something is there: a sender that came before did not signal.
    void beginWait() noexcept { _waiting.exchange(1, std::memory_order_acq_rel); }
    void endWait() noexcept { _waiting.store(0, std::memory_order_release); }
    // send()'s side, after it queued: signals a waiting loop, or any time once
    // signalEverySend() was called. Either the loop's beginWait() comes after
    // this read of the flag, and the loop then sees what was queued, or this
    // read sees the loop waiting: both are read-modify-writes of one flag.
    void signalSend() noexcept {
        if (_every_send.load(std::memory_order_acquire) ||
            _waiting.fetch_add(0, std::memory_order_acq_rel) != 0) {
            signal();
        }
    }
    // For an application whose own loop waits on the handle, outside the
    // client.
    void signalEverySend() noexcept { _every_send.store(true, std::memory_order_release); }

    // The epoll descriptor over the eventfd and `sockets` (ZeroMQ's
    // descriptors), made at the first call; later calls return it as it is.
    int pollDescriptor(const int* sockets, int count);
    // Adds one more descriptor to the epoll descriptor, if there is one yet.
    void addToPoll(int descriptor);

private:
    int _event;
    int _epoll = -1;
    std::atomic<bool> _signalled{false};
    std::atomic<int> _waiting{0};
    std::atomic<bool> _every_send{false};
    static_assert(std::atomic<bool>::is_always_lock_free);
};

}  // namespace orvikm::detail
