#include "errors.hpp"

#include <string_view>

#include <orvikm/errors.hpp>
#include <wxblt/exception.hpp>

namespace orvikm_python {

namespace {

// The classes live as long as the interpreter: the module keeps them, and
// these references are never dropped (dropping them at exit would need the
// GIL after the interpreter has gone).
PyObject* error_class = nullptr;
PyObject* protocol_error_class = nullptr;
PyObject* socket_error_class = nullptr;
PyObject* queue_full_error_class = nullptr;

constexpr std::string_view queue_full_prefix = "The outgoing queue is full";

PyObject* makeClass(py::module_& module, const char* name, PyObject* base, const char* doc) {
    const std::string qualified = std::string("orvikm.") + name;
    PyObject* made = PyErr_NewExceptionWithDoc(qualified.c_str(), doc, base, nullptr);
    if (made == nullptr) {
        throw py::error_already_set();
    }
    module.add_object(name, py::reinterpret_borrow<py::object>(made));
    return made;
}

PyObject* classFor(const orviku::Exception& error) {
    if (dynamic_cast<const wxblt::Exception*>(&error) != nullptr) {
        return socket_error_class;
    }
    if (dynamic_cast<const orvikm::ProtocolError*>(&error) != nullptr) {
        return protocol_error_class;
    }
    if (isQueueFull(error)) {
        return queue_full_error_class;
    }
    return error_class;
}

}  // namespace

void defineErrors(py::module_& module) {
    error_class = makeClass(module, "Error", PyExc_Exception,
                            "An error of the library. str() is the whole chain, one sentence a "
                            "line; .context holds the context lines, innermost first.");
    protocol_error_class = makeClass(module, "ProtocolError", error_class,
                                     "A request whose frames or headers are missing, surplus or "
                                     "malformed.");
    socket_error_class = makeClass(module, "SocketError", error_class,
                                   "A failed socket operation; .errno is its errno value (11: "
                                   "the node is not available).");
    queue_full_error_class = makeClass(module, "QueueFullError", error_class,
                                       "A send refused because the outgoing queue was full.");
    py::register_exception_translator([](std::exception_ptr thrown) {
        try {
            if (thrown) {
                std::rethrow_exception(thrown);
            }
        } catch (const orviku::Exception& error) {
            const py::object exception = toPython(error);
            PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(exception.ptr())), exception.ptr());
        }
    });
}

py::object toPython(const orviku::Exception& error) {
    py::object exception = py::reinterpret_borrow<py::object>(classFor(error))(error.describe());
    py::list context;
    for (const std::string& line : error.context()) {
        context.append(line);
    }
    exception.attr("context") = context;
    if (const auto* socket = dynamic_cast<const wxblt::Exception*>(&error)) {
        exception.attr("errno") = socket->errorNumber();
    }
    return exception;
}

void raise(const py::object& exception) {
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(exception.ptr())), exception.ptr());
    throw py::error_already_set();
}

bool isQueueFull(const orviku::Exception& error) {
    return std::string_view(error.what()).substr(0, queue_full_prefix.size()) == queue_full_prefix;
}

}  // namespace orvikm_python
