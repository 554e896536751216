#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pybind11/pybind11.h>

#include <orvikm/client.hpp>

namespace orvikm_python {

namespace py = pybind11;

/// A reference to a Python object that the library may copy and drop on any
/// thread: the last holder takes the GIL to release it.
using SharedObject = std::shared_ptr<PyObject>;

/// orvikm.Client: an orvikm::Client plus what Python needs around it. Every
/// call that waits or does I/O runs without the GIL; each Python callback
/// takes it for its own call. A callback that raises ends the loop it runs in,
/// and the call that ran the loop raises its exception.
class PyClient {
public:
    PyClient(const std::string& appId, long long listenerPort, long long dispenserPort,
             std::vector<std::string> subscriptions, const orvikm::Client::Options& options);

    /// Copies the bytes once into a payload, queues the message, returns its id.
    /// Raises QueueFullError when the queue refuses it, ValueError for any
    /// other refusal.
    std::string send(const py::buffer& data, std::list<std::string> routes, long long validFor,
                     const py::object& onAck, orvikm::Message::AckMode ackMode, std::string type);
    void sendAck(const orvikm::Message& message);

    void onMessage(const py::object& callback);
    void obtainRegistry(const py::object& callback, long long interval);
    void onUnacknowledged(const py::object& callback);
    void onConnectionChange(const py::object& callback);

    /// blockThreadForIO until terminate(), a library error (to onError, or
    /// raised without one), a callback that raised, or a signal whose Python
    /// handler raised (KeyboardInterrupt on Ctrl-C).
    void run(double timeout, const py::object& onError);
    /// Any thread; also from a Python signal handler.
    void terminate();
    orvikm::Client::FlushResult flush(double deadline, const py::object& onError);
    orvikm::Client::Stats stats() const { return _client->stats(); }

    int eventHandle() { return _client->eventHandle(); }
    /// One processEvents pass without the GIL; the wait it returns, in seconds.
    double processEvents(const py::object& onError);

    const std::string& appId() const { return _client->id(); }

    /// For loops driven from Python (orvikm.aio): forget an earlier
    /// terminate(), and ask whether one came since.
    void beginLoop();
    bool terminateRequested() const { return _terminate_requested.load(); }

    /// The garbage collector's view of the callbacks set on the client: a
    /// callback that refers to the client (to call terminate(), say) makes a
    /// cycle it can then break. Both with the GIL held.
    int traverse(visitproc visit, void* arg);
    void clear();

private:
    using ErrorHandler = std::function<void(orviku::Exception&)>;

    // The library's error handler for one loop: it hands each error to
    // onError, or keeps it to be raised when onError is None.
    ErrorHandler errorHandler(const py::object& onError);
    // Calls a Python callback with the GIL; a raise is kept, the loop told to
    // stop, and, with endPass, CallbackRaised thrown so that the pass ends at
    // once.
    template <typename... Args>
    void call(const SharedObject& callback, bool endPass, Args&&... args);
    // As above, for a callback the caller has fetched with the GIL held.
    template <typename... Args>
    void call(py::object function, bool endPass, Args&&... args);
    // Raises what a callback or the error handler kept, if anything.
    void raiseKept();

    // The callbacks set through onMessage, obtainRegistry, onUnacknowledged
    // and onConnectionChange, held here rather than by the library's
    // std::function, so that the garbage collector sees them (guarded by the
    // GIL). The library's callbacks look them up at each call.
    enum Slot { MessageSlot, RegistrySlot, UnacknowledgedSlot, ConnectionSlot, SlotCount };
    std::array<py::object, SlotCount> _callbacks;

    std::unique_ptr<orvikm::Client> _client;
    bool _waits_for_room;
    std::atomic<bool> _terminate_requested{false};
    // Guarded by the GIL.
    std::optional<py::error_already_set> _callback_error;
    py::object _library_error;
    bool _loop_error{false};
    // Set while run, flush or processEvents runs: a second one is refused
    // before it can touch the state above.
    bool _loop_active{false};
};

}  // namespace orvikm_python
