#include "context.hpp"

#include <zmq.h>

#include <cerrno>
#include <new>

#include <wxblt/exception.hpp>

namespace wxblt {

namespace detail {

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

}  // namespace detail

void shutdown() {
    if (zmq_ctx_shutdown(detail::context()) != 0) {
        detail::throwLastError();
    }
}

}  // namespace wxblt
