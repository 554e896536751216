#pragma once

#include <string>
#include <vector>

#include <orviku/exception.hpp>

namespace orvikm {

/// The library's own error. what() is exactly the message given at
/// construction; context lines added on the way out (addContext) are kept
/// apart, in orviku::Exception::context().
class Exception : public orviku::Exception {
public:
    /// An error whose what() is `message`, with no context lines yet.
    explicit Exception(std::string message);
    ~Exception() override;

    /// The message given at construction, without the context lines.
    const char* what() const noexcept override;

protected:
    [[noreturn]] void raise() const override;

private:
    std::string _message;
    // Reserved: nothing in the library reads or writes it.
    std::vector<std::string> _reserved;
};

/// A request whose frames or protocol headers are missing, surplus or
/// malformed.
class ProtocolError : public Exception {
public:
    /// An error whose what() is `message`, with no context lines yet.
    explicit ProtocolError(std::string message);
    ~ProtocolError() override;

protected:
    [[noreturn]] void raise() const override;
};

}  // namespace orvikm
