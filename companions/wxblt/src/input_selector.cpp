#include <wxblt/input_selector.hpp>

#include <zmq.h>

#include <cerrno>
#include <memory>

#include "context.hpp"

namespace wxblt {

namespace {

// Selectors watch two or three sockets: their poll items live on the stack.
constexpr std::size_t stack_items = 4;

}  // namespace

InputSelector::InputSelector(std::vector<std::pair<Socket*, Handler>> entries,
                             std::size_t maxCallsPerSocket)
    : _entries(std::move(entries)),
      _max_calls_per_socket(maxCallsPerSocket > 0 ? maxCallsPerSocket : 1) {}

InputSelector::~InputSelector() = default;

void InputSelector::watchSocket(Socket* socket, Handler handler) {
    _entries.emplace_back(socket, std::move(handler));
}

void InputSelector::watchDescriptor(int descriptor, std::function<void()> handler) {
    _descriptors.emplace_back(descriptor, std::move(handler));
}

bool InputSelector::run(std::chrono::duration<long, std::milli> timeout) {
    using Clock = std::chrono::steady_clock;
    // A wait without end could never be stopped from outside, since nothing
    // but input wakes it: a negative count looks without waiting.
    if (timeout.count() < 0) {
        timeout = timeout.zero();
    }
    const Clock::time_point deadline = Clock::now() + timeout;

    // Built at every call: it stays right if a socket moved. The watched
    // descriptors follow the sockets.
    const std::size_t sockets = _entries.size();
    const std::size_t count = sockets + _descriptors.size();
    zmq_pollitem_t stackItems[stack_items];
    bool stackActive[stack_items];
    std::vector<zmq_pollitem_t> heapItems;
    std::unique_ptr<bool[]> heapActive;
    zmq_pollitem_t* items = stackItems;
    bool* active = stackActive;
    if (count > stack_items) {
        heapItems.resize(count);
        heapActive.reset(new bool[count]);
        items = heapItems.data();
        active = heapActive.get();
    }
    // A frame that a socket received ahead is input that the poll cannot see:
    // then the poll only looks.
    bool ahead = false;
    for (std::size_t i = 0; i < sockets; ++i) {
        items[i] = zmq_pollitem_t{_entries[i].first->handle(), 0, ZMQ_POLLIN, 0};
        ahead = ahead || _entries[i].first->hasFrameAhead();
    }
    for (std::size_t i = sockets; i < count; ++i) {
        items[i] = zmq_pollitem_t{nullptr, _descriptors[i - sockets].first, ZMQ_POLLIN, 0};
    }

    long wait = ahead ? 0 : timeout.count();
    for (;;) {
        const int ready = zmq_poll(items, static_cast<int>(count), wait);
        if (ready > 0 || (ready == 0 && ahead)) {
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
        if (left.count() <= 0 && !ahead) {
            return false;
        }
        wait = ahead ? 0 : left.count();
    }

    for (std::size_t i = 0; i < sockets; ++i) {
        active[i] = (items[i].revents & ZMQ_POLLIN) != 0 || _entries[i].first->hasFrameAhead();
    }
    // Round by round, each socket that still has input gets one more call, up
    // to the bound: one busy socket does not keep the others waiting, and the
    // poll with its system calls is paid once for many requests.
    bool dispatched = false;
    for (std::size_t round = 0; round < _max_calls_per_socket; ++round) {
        bool called = false;
        for (std::size_t i = 0; i < sockets; ++i) {
            if (!active[i]) {
                continue;
            }
            Socket* socket = _entries[i].first;
            if (round > 0 && !socket->inputWaiting()) {
                active[i] = false;
                continue;
            }
            _entries[i].second(socket);
            called = true;
        }
        if (!called) {
            break;
        }
        dispatched = true;
    }
    for (std::size_t i = sockets; i < count; ++i) {
        if ((items[i].revents & ZMQ_POLLIN) != 0) {
            _descriptors[i - sockets].second();
            dispatched = true;
        }
    }
    return dispatched;
}

}  // namespace wxblt
