#include <orvikm/client.hpp>

#include <algorithm>
#include <utility>

#include "connection_monitor.hpp"
#include "intervals.hpp"
#include "loop_support.hpp"
#include "wakeup.hpp"

// The client driven by the application's own event loop: a descriptor to
// wait on and a pass that never waits.
namespace orvikm {

namespace {

using Steady = std::chrono::steady_clock;

// After an error, the work that failed (a write to a node that is down, say)
// is tried again after this long rather than at once: the application's loop
// must not spin on it, and the node is noticed soon enough when it is back.
constexpr std::chrono::milliseconds retry_after_error(250);
// Longer than any periodic work of the client waits (the inbox check comes
// every 20 s), so the bound is never what the application waits for.
constexpr std::chrono::milliseconds longest_wait(60000);

}  // namespace

int Client::eventHandle() {
    if (!_wakeup) {
        _wakeup = std::make_unique<detail::Wakeup>();
    }
    int sockets[4] = {_listener.descriptor(), _dispenser.descriptor()};
    int count = 2;
    if (_monitor) {
        sockets[count++] = _monitor->listenerEvents().descriptor();
        sockets[count++] = _monitor->dispenserEvents().descriptor();
    }
    const int handle = _wakeup->pollDescriptor(sockets, count);
    _wakeup->signalEverySend();
    if (!_wake_enabled.exchange(true, std::memory_order_acq_rel)) {
        // The first pass is due at once: the inbox check, and whatever was
        // queued before the handle existed.
        _wakeup->signal();
    }
    return handle;
}

std::chrono::milliseconds Client::processEvents(
    std::function<void(orviku::Exception&)> errorHandler) {
    const detail::IoLoopEntry entry(_io_running, _io_thread, "While trying to process events");
    // Taken before the work it announced, so that what is queued from here on
    // signals again.
    if (_wakeup) {
        _wakeup->drain();
    }
    _woken = false;
    bool more = false;
    try {
        report_connection();
        expire_due();
        send_all_msgs();
        // A write batch bound leaves the rest of the queue for the next pass.
        more = _msg_queue.size() > 0;
        more = read_available() || more;
    } catch (...) {
        report_loop_error(errorHandler);
        return std::min(next_due(), retry_after_error);
    }
    if (more) {
        // The handle stays readable: the application calls again at once.
        if (_wakeup) {
            _wakeup->signal();
        }
        return std::chrono::milliseconds(0);
    }
    return next_due();
}

bool Client::read_available() {
    const bool bounded = _options.maxReadTime.count() > 0;
    const Steady::time_point end =
        bounded ? detail::steadyAfter(Steady::now(), _options.maxReadTime) : Steady::time_point();
    while (poll_once(std::chrono::milliseconds(0))) {
        if (take_wake() || (bounded && Steady::now() >= end)) {
            return true;
        }
    }
    return false;
}

std::chrono::milliseconds Client::next_due() const {
    const auto now = std::chrono::system_clock::now();
    std::chrono::milliseconds wait =
        detail::untilPassed(_last_inbox, _inbox_interval, now, longest_wait);
    if (_on_registry) {
        wait = std::min(wait, detail::untilPassed(_last_registry_request, _registry_interval, now,
                                                  longest_wait));
    }
    if (_watching.load(std::memory_order_relaxed)) {
        const auto expiry =
            std::chrono::ceil<std::chrono::milliseconds>(_next_expiry_check - Steady::now());
        wait = std::clamp(expiry, std::chrono::milliseconds(0), wait);
    }
    return wait;
}

}  // namespace orvikm
