#pragma once

#include <exception>
#include <string>
#include <vector>

#include <orviku/exception.hpp>

// What a call threw, kept as an exception_ptr so that a test can ask about it
// after the call: of which type it was, its what() and its context lines.
namespace testsupport {

// What the action threw, or a null pointer when it threw nothing.
template <typename Action>
std::exception_ptr thrownBy(Action&& action) {
    try {
        action();
    } catch (...) {
        return std::current_exception();
    }
    return nullptr;
}

// True when the thrown object can be caught as an Error.
template <typename Error>
bool isA(const std::exception_ptr& thrown) {
    try {
        std::rethrow_exception(thrown);
    } catch (const Error&) {
        return true;
    } catch (...) {
        return false;
    }
}

inline std::string whatOf(const std::exception_ptr& thrown) {
    try {
        std::rethrow_exception(thrown);
    } catch (const std::exception& error) {
        return error.what();
    } catch (...) {
        return "<not a std::exception>";
    }
}

inline std::vector<std::string> contextOf(const std::exception_ptr& thrown) {
    try {
        std::rethrow_exception(thrown);
    } catch (const orviku::Exception& error) {
        return error.context();
    } catch (...) {
        return std::vector<std::string>{"<not an orviku::Exception>"};
    }
}

}  // namespace testsupport
