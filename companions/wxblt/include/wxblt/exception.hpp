#pragma once

#include <orviku/exception.hpp>

namespace wxblt {

/// A failed socket operation. errorNumber() is the errno value of the failed
/// call (11 is EAGAIN: nothing could be sent or received in time); what() is
/// ZeroMQ's text for that number.
class Exception : public orviku::Exception {
public:
    /// The error of a call that failed with the errno value `errorNumber`.
    explicit Exception(int errorNumber);
    ~Exception() override;

    /// The errno value of the failed call.
    int errorNumber() const noexcept { return _error_number; }
    /// ZeroMQ's text for errorNumber().
    const char* what() const noexcept override;

protected:
    [[noreturn]] void raise() const override;

private:
    int _error_number;
};

/// Thrown by every socket call in progress or made after shutdown() (ETERM).
class ZmqTermination : public Exception {
public:
    ZmqTermination();
    ~ZmqTermination() override;

protected:
    [[noreturn]] void raise() const override;
};

/// Shuts down the process-wide ZeroMQ context: every blocked receive or poll
/// returns with ZmqTermination, and so does every socket call made afterwards,
/// including the creation of new sockets. It cannot be undone.
void shutdown();

}  // namespace wxblt
