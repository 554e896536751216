#include <wxblt/exception.hpp>

#include <zmq.h>

#include <cerrno>

namespace wxblt {

Exception::Exception(int errorNumber) : _error_number(errorNumber) {}

Exception::~Exception() = default;

const char* Exception::what() const noexcept {
    return zmq_strerror(_error_number);
}

void Exception::raise() const {
    throw *this;
}

ZmqTermination::ZmqTermination() : Exception(ETERM) {}

ZmqTermination::~ZmqTermination() = default;

void ZmqTermination::raise() const {
    throw *this;
}

}  // namespace wxblt
