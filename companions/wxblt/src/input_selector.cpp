#include <wxblt/input_selector.hpp>

#include <zmq.h>

#include <cerrno>

#include "context.hpp"

namespace wxblt {

InputSelector::InputSelector(std::vector<std::pair<Socket*, Handler>> entries)
    : _entries(std::move(entries)) {}

InputSelector::~InputSelector() = default;

bool InputSelector::run(std::chrono::duration<long, std::milli> timeout) {
    using Clock = std::chrono::steady_clock;
    // A wait without end could never be stopped from outside, since nothing
    // but input wakes it: a negative count looks without waiting.
    if (timeout.count() < 0) {
        timeout = timeout.zero();
    }
    const Clock::time_point deadline = Clock::now() + timeout;

    // Built at every call: it costs little and stays right if a socket moved.
    std::vector<zmq_pollitem_t> items;
    items.reserve(_entries.size());
    for (const auto& entry : _entries) {
        items.push_back(zmq_pollitem_t{entry.first->handle(), 0, ZMQ_POLLIN, 0});
    }

    long wait = timeout.count();
    for (;;) {
        const int ready = zmq_poll(items.data(), static_cast<int>(items.size()), wait);
        if (ready > 0) {
            break;
        }
        if (ready == 0) {
            return false;
        }
        if (zmq_errno() != EINTR) {
            detail::throwLastError();
        }
        // A signal cut the wait short: wait for what is left of it.
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            return false;
        }
        wait = left.count();
    }

    for (std::size_t i = 0; i < items.size(); ++i) {
        if ((items[i].revents & ZMQ_POLLIN) != 0) {
            _entries[i].second(_entries[i].first);
        }
    }
    return true;
}

}  // namespace wxblt
