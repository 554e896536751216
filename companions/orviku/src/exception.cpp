#include <orviku/exception.hpp>

#include <utility>

namespace orviku {

Exception::~Exception() = default;

const char* Exception::what() const noexcept {
    return "orviku::Exception";
}

void Exception::addContext(std::string context) {
    _context.push_back(std::move(context));
}

void Exception::throwWithContext(std::string context) {
    addContext(std::move(context));
    // Rethrowing the object in flight keeps not only its type but its
    // identity, so handlers further out see the very object they expect.
    if (std::exception_ptr current = std::current_exception()) {
        try {
            std::rethrow_exception(current);
        } catch (Exception& inFlight) {
            if (&inFlight == this) {
                throw;
            }
        } catch (...) {
        }
    }
    raise();
    // raise() always throws; compilers do not carry [[noreturn]] through a
    // virtual call.
    std::terminate();
}

std::string Exception::describe() const {
    std::string text = what();
    for (const std::string& line : _context) {
        text += '\n';
        text += line;
    }
    return text;
}

void Exception::raise() const {
    throw *this;
}

GeneralException::GeneralException(std::string message) : _message(std::move(message)) {}

GeneralException::~GeneralException() = default;

const char* GeneralException::what() const noexcept {
    return _message.c_str();
}

void GeneralException::raise() const {
    throw *this;
}

}  // namespace orviku
