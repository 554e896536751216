#pragma once

#include <atomic>

namespace orvikm::detail {

// The client's way to be woken: an eventfd that send() and terminate() write
// to, and, once an application asks for one, an epoll descriptor over that
// eventfd and the two sockets' ZeroMQ descriptors, for the application's own
// event loop to wait on.
//
// A sender writes to the eventfd only when it is the first since the loop
// last drained it, so a burst costs one system call, not one per message.
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

    // The epoll descriptor over the eventfd and `sockets` (ZeroMQ's
    // descriptors), made at the first call; later calls return it as it is.
    int pollDescriptor(const int* sockets, int count);
    // Adds one more socket's descriptor to the epoll descriptor, if there is
    // one yet.
    void addToPoll(int socket);

private:
    int _event;
    int _epoll = -1;
    std::atomic<bool> _signalled{false};
    static_assert(std::atomic<bool>::is_always_lock_free);
};

}  // namespace orvikm::detail
