#include <chrono>
#include <cmath>
#include <list>
#include <string>
#include <vector>

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <orvikm/client.hpp>
#include <orvikm/message.hpp>

#include "client.hpp"
#include "errors.hpp"

// The compiled core of the orvikm package; orvikm/__init__.py re-exports it.
namespace py = pybind11;
using orvikm_python::PyClient;

namespace {

using Milliseconds = std::chrono::milliseconds;

Milliseconds option(double seconds, const char* name) {
    if (std::isnan(seconds) || seconds < 0) {
        throw py::value_error(std::string(name) +
                              " must be a number of seconds of at least 0, not " +
                              py::repr(py::float_(seconds)).cast<std::string>());
    }
    const double milliseconds = std::ceil(seconds * 1000.0);
    if (milliseconds >= static_cast<double>(Milliseconds::max().count())) {
        return Milliseconds::max();
    }
    return Milliseconds(static_cast<long long>(milliseconds));
}

std::size_t count(long long value, const char* name) {
    if (value < 0) {
        throw py::value_error(std::string(name) + " must be at least 0, not " +
                              std::to_string(value));
    }
    return static_cast<std::size_t>(value);
}

py::bytes payloadOf(const orvikm::Message& message) {
    const orvikm::Payload& payload = message.payload();
    return py::bytes(payload.getBuffer() != nullptr ? payload.getBuffer() : "", payload.size());
}

template <typename Struct>
std::string fieldsRepr(const char* name, const Struct& value,
                       const std::vector<const char*>& fields) {
    const py::object object = py::cast(value);
    std::string text = std::string(name) + "(";
    for (std::size_t i = 0; i < fields.size(); ++i) {
        text += (i ? ", " : "") + std::string(fields[i]) + "=" +
                py::repr(object.attr(fields[i])).cast<std::string>();
    }
    return text + ")";
}

// The client behind a Python object, or null while it is not constructed yet.
PyClient* clientOf(PyObject* self) {
    try {
        return py::handle(self).cast<PyClient*>();
    } catch (const py::cast_error&) {
        return nullptr;
    }
}

}  // namespace

PYBIND11_MODULE(_orvikm, module) {
    module.doc() = "Python binding of the orvikm client library.";
    orvikm_python::defineErrors(module);

    py::enum_<orvikm::Message::AckMode>(module, "AckMode", "How a message is to be acknowledged.")
        .value("UNACKNOWLEDGED", orvikm::Message::AckMode::Unacknowledged)
        .value("BY_NODE", orvikm::Message::AckMode::ByNode)
        .value("BY_RECEIVERS", orvikm::Message::AckMode::ByReceivers);

    py::enum_<orvikm::Client::ConnectionState>(module, "ConnectionState",
                                               "Whether the client is connected to the node.")
        .value("CONNECTED", orvikm::Client::ConnectionState::Connected)
        .value("DISCONNECTED", orvikm::Client::ConnectionState::Disconnected);

    py::class_<orvikm::Message>(module, "Message", "A message the node published to the client.")
        .def_property_readonly("id", &orvikm::Message::msgId)
        .def_property_readonly("app_id", &orvikm::Message::appId)
        .def_property_readonly("routes",
                               [](const orvikm::Message& message) {
                                   return std::vector<std::string>(message.pushRoutes().begin(),
                                                                   message.pushRoutes().end());
                               })
        .def_property_readonly("valid_for",
                               [](const orvikm::Message& message) {
                                   return static_cast<long long>(message.validFor().count());
                               })
        .def_property_readonly("ack_mode", &orvikm::Message::ackMode)
        .def_property_readonly(
            "type", [](const orvikm::Message& message) { return message.payload().type(); })
        .def_property_readonly("payload", &payloadOf)
        .def_property_readonly("origins", &orvikm::Message::originNodes)
        .def("__repr__", [](const orvikm::Message& message) {
            return "Message(id=" + py::repr(py::str(message.msgId())).cast<std::string>() +
                   ", app_id=" + py::repr(py::str(message.appId())).cast<std::string>() +
                   ", size=" + std::to_string(message.payload().size()) + ")";
        });

    py::class_<orvikm::Client::Stats>(module, "Stats", "What a client holds and has done so far.")
        .def_readonly("queued", &orvikm::Client::Stats::queued)
        .def_readonly("awaiting_ack", &orvikm::Client::Stats::awaitingAck)
        .def_readonly("written", &orvikm::Client::Stats::written)
        .def_readonly("acknowledged", &orvikm::Client::Stats::acknowledged)
        .def_readonly("received", &orvikm::Client::Stats::received)
        .def_readonly("errors", &orvikm::Client::Stats::errors)
        .def_readonly("unacknowledged", &orvikm::Client::Stats::unacknowledged)
        .def_readonly("queued_bytes", &orvikm::Client::Stats::queuedBytes)
        .def_readonly("refused", &orvikm::Client::Stats::refused)
        .def("__repr__", [](const orvikm::Client::Stats& stats) {
            return fieldsRepr("Stats", stats,
                              {"queued", "awaiting_ack", "written", "acknowledged", "received",
                               "errors", "unacknowledged", "queued_bytes", "refused"});
        });

    py::class_<orvikm::Client::FlushResult>(module, "FlushResult",
                                            "What a flush left behind when it returned.")
        .def_readonly("complete", &orvikm::Client::FlushResult::complete)
        .def_readonly("queued", &orvikm::Client::FlushResult::queued)
        .def_readonly("awaiting_ack", &orvikm::Client::FlushResult::awaitingAck)
        .def_readonly("unacknowledged", &orvikm::Client::FlushResult::unacknowledged)
        .def("__repr__", [](const orvikm::Client::FlushResult& result) {
            return fieldsRepr("FlushResult", result,
                              {"complete", "queued", "awaiting_ack", "unacknowledged"});
        });

    py::class_<PyClient>(module, "Client", "The application's connection to the local node.",
                         py::custom_type_setup([](PyHeapTypeObject* heapType) {
                             PyTypeObject* type = &heapType->ht_type;
                             type->tp_flags |= Py_TPFLAGS_HAVE_GC;
                             type->tp_traverse = [](PyObject* self, visitproc visit, void* arg) {
                                 Py_VISIT(Py_TYPE(self));
                                 PyClient* client = clientOf(self);
                                 return client != nullptr ? client->traverse(visit, arg) : 0;
                             };
                             type->tp_clear = [](PyObject* self) {
                                 if (PyClient* client = clientOf(self)) {
                                     client->clear();
                                 }
                                 return 0;
                             };
                         }))
        .def(py::init([](const std::string& appId, long long listenerPort, long long dispenserPort,
                         std::vector<std::string> subscriptions, double maxReadTime,
                         long long receiveLimit, double sendTimeout, long long maxWriteBatch,
                         bool wakeOnSend, long long maxQueued, long long maxQueuedBytes,
                         double queueFullWait) {
                 orvikm::Client::Options options;
                 options.maxReadTime = option(maxReadTime, "max_read_time");
                 if (receiveLimit < 0 || receiveLimit > INT32_MAX) {
                     throw py::value_error("receive_limit must be between 0 and " +
                                           std::to_string(INT32_MAX) + ", not " +
                                           std::to_string(receiveLimit));
                 }
                 options.receiveLimit = static_cast<int>(receiveLimit);
                 options.sendTimeout = option(sendTimeout, "send_timeout");
                 options.maxWriteBatch = count(maxWriteBatch, "max_write_batch");
                 options.wakeOnSend = wakeOnSend;
                 options.maxQueued = count(maxQueued, "max_queued");
                 options.maxQueuedBytes = count(maxQueuedBytes, "max_queued_bytes");
                 options.queueFullWait = option(queueFullWait, "queue_full_wait");
                 return std::make_unique<PyClient>(appId, listenerPort, dispenserPort,
                                                   std::move(subscriptions), options);
             }),
             py::arg("app_id"), py::arg("listener_port"), py::arg("dispenser_port"),
             py::arg("subscriptions") = std::vector<std::string>(), py::kw_only(),
             py::arg("max_read_time") = 0.0, py::arg("receive_limit") = 0,
             py::arg("send_timeout") = 0.5, py::arg("max_write_batch") = 0,
             py::arg("wake_on_send") = true, py::arg("max_queued") = 0,
             py::arg("max_queued_bytes") = 0, py::arg("queue_full_wait") = 0.0)
        .def("send", &PyClient::send, py::arg("data"), py::arg("routes"), py::arg("valid_for"),
             py::arg("on_ack") = py::none(), py::arg("ack_mode") = orvikm::Message::AckMode::ByNode,
             py::arg("type") = "", "Queues a message (any thread); returns its id.")
        .def("send_ack", &PyClient::sendAck, py::arg("message"),
             "Acknowledges a received message at once (on the I/O thread).")
        .def("on_message", &PyClient::onMessage, py::arg("callback"))
        .def("obtain_registry", &PyClient::obtainRegistry, py::arg("callback"), py::arg("interval"))
        .def("on_unacknowledged", &PyClient::onUnacknowledged, py::arg("callback"))
        .def("on_connection_change", &PyClient::onConnectionChange, py::arg("callback"))
        .def("run", &PyClient::run, py::arg("timeout") = 0.05, py::arg("on_error") = py::none(),
             "Runs the I/O loop on this thread until terminate().")
        .def("terminate", &PyClient::terminate,
             "Ends run or flush at the end of its pass; any thread, signal handlers included.")
        .def("flush", &PyClient::flush, py::arg("deadline"), py::arg("on_error") = py::none())
        .def("stats", &PyClient::stats)
        .def("event_handle", &PyClient::eventHandle)
        .def("process_events", &PyClient::processEvents, py::arg("on_error") = py::none())
        .def("_begin_loop", &PyClient::beginLoop)
        .def_property_readonly("_terminate_requested", &PyClient::terminateRequested)
        .def_property_readonly("app_id", &PyClient::appId);
}
