#include "context.hpp"

#include <zmq.h>

#include <atomic>
#include <cerrno>
#include <new>

#include <wxblt/exception.hpp>

namespace wxblt {

namespace detail {

namespace {

// zmq_ctx_shutdown reaches a socket only when the socket next processes its
// commands, which option calls (identity, subscription, last endpoint, more
// flag) never do: without this flag they would go on working after shutdown.
std::atomic<bool> shut_down{false};

}  // namespace

void* context() {
    static void* const shared = [] {
        void* created = zmq_ctx_new();
        if (created == nullptr) {
            throw std::bad_alloc();
        }
        return created;
    }();
    return shared;
}

void throwError(int errorNumber) {
    if (errorNumber == ETERM) {
        throw ZmqTermination();
    }
    throw Exception(errorNumber);
}

void throwLastError() {
    throwError(zmq_errno());
}

void throwIfShutDown() {
    if (shut_down.load(std::memory_order_acquire)) {
        throw ZmqTermination();
    }
}

}  // namespace detail

void shutdown() {
    detail::shut_down.store(true, std::memory_order_release);
    if (zmq_ctx_shutdown(detail::context()) != 0) {
        detail::throwLastError();
    }
}

}  // namespace wxblt
