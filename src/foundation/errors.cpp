#include <orvikm/errors.hpp>

#include <utility>

namespace orvikm {

Exception::Exception(std::string message) : _message(std::move(message)) {}

Exception::~Exception() = default;

const char* Exception::what() const noexcept {
    return _message.c_str();
}

void Exception::raise() const {
    throw *this;
}

ProtocolError::ProtocolError(std::string message) : Exception(std::move(message)) {}

ProtocolError::~ProtocolError() = default;

void ProtocolError::raise() const {
    throw *this;
}

}  // namespace orvikm
