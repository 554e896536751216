#pragma once

#include <exception>
#include <string>
#include <vector>

namespace orviku {

/// Root of every error of the orvik family. Besides its message it carries a
/// chain of context lines: each layer that an error passes through adds one
/// sentence saying what it was trying to do, innermost first.
class Exception : public std::exception {
public:
    /// An error with no context lines yet.
    Exception() = default;
    ///@{
    /// Copies and moves keep the context lines.
    Exception(const Exception&) = default;
    Exception(Exception&&) noexcept = default;
    Exception& operator=(const Exception&) = default;
    Exception& operator=(Exception&&) noexcept = default;
    ///@}
    ~Exception() override;

    /// The error's own text; the context lines are not part of it.
    const char* what() const noexcept override;

    /// Appends one context line.
    void addContext(std::string context);

    /// Appends one context line, then throws this object with its dynamic type
    /// kept: inside a handler that caught it, the caught object itself is
    /// rethrown; otherwise a copy of the most derived type is thrown.
    [[noreturn]] void throwWithContext(std::string context);

    /// The context lines in the order they were added (innermost first).
    const std::vector<std::string>& context() const noexcept { return _context; }

    /// what() followed by each context line, one per line, for logs and error
    /// handlers.
    std::string describe() const;

protected:
    /// Throws a copy of *this as its most derived type. Every class of the
    /// family that can be thrown overrides it with `throw *this;`.
    [[noreturn]] virtual void raise() const;

private:
    std::vector<std::string> _context;
};

/// An error that is nothing but a message.
class GeneralException : public Exception {
public:
    /// An error whose what() is `message`.
    explicit GeneralException(std::string message);
    ~GeneralException() override;

    /// The message given at construction.
    const char* what() const noexcept override;

protected:
    [[noreturn]] void raise() const override;

private:
    std::string _message;
};

}  // namespace orviku
