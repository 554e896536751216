#pragma once

#include <exception>
#include <string>

#include <pybind11/pybind11.h>

#include <orviku/exception.hpp>

namespace orvikm_python {

namespace py = pybind11;

/// Makes the exception classes Error, ProtocolError, SocketError and
/// QueueFullError in `module` and teaches pybind11 to raise a library error
/// that reaches Python as the class its C++ type calls for.
void defineErrors(py::module_& module);

/// The Python exception for a library error: Error or one of its subclasses
/// by the C++ type, str() the whole chain (describe()), .context the context
/// lines innermost first, .errno for a SocketError. Needs the GIL.
py::object toPython(const orviku::Exception& error);

/// Raises `exception` (an instance) as the current Python error: throws
/// py::error_already_set. Needs the GIL.
[[noreturn]] void raise(const py::object& exception);

/// Whether a refused send was refused for want of room in the queue.
bool isQueueFull(const orviku::Exception& error);

/// Thrown through the library by a Python callback that raised: the library
/// ends its loop with it, and the binding raises the Python exception it kept.
struct CallbackRaised : std::exception {
    const char* what() const noexcept override { return "A Python callback raised"; }
};

}  // namespace orvikm_python
