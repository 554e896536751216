#include "client.hpp"

#include <climits>
#include <cmath>
#include <cstring>
#include <utility>

#include <orvikm/errors.hpp>

#include "errors.hpp"
#include "signal_watch.hpp"

namespace orvikm_python {

namespace {

using Milliseconds = std::chrono::milliseconds;
using Steady = std::chrono::steady_clock;

// The longest wait the selector takes (its low 32 bits are used, as a signed
// count).
constexpr long long longest_loop_timeout_ms = INT_MAX;

SharedObject share(const py::object& object) {
    return SharedObject(object.inc_ref().ptr(), [](PyObject* held) {
        // At interpreter exit nothing may touch Python any more.
        if (Py_IsInitialized() == 0) {
            return;
        }
        const py::gil_scoped_acquire gil;
        Py_DECREF(held);
    });
}

std::string describe(double value) {
    return py::repr(py::float_(value)).cast<std::string>();
}

// Seconds as the library's milliseconds, rounded up so that a short wait is
// never none. A value at or beyond `most` (infinity included) is `most`.
Milliseconds toMilliseconds(double seconds, const char* name,
                            Milliseconds most = Milliseconds::max()) {
    if (std::isnan(seconds) || seconds < 0) {
        throw py::value_error(std::string(name) +
                              " must be a number of seconds of at least 0, not " +
                              describe(seconds));
    }
    const double milliseconds = std::ceil(seconds * 1000.0);
    if (milliseconds >= static_cast<double>(most.count())) {
        return most;
    }
    return Milliseconds(static_cast<long long>(milliseconds));
}

void requireAtLeastZero(long long value, const char* name) {
    if (value < 0) {
        throw py::value_error(std::string(name) + " must be at least 0, not " +
                              std::to_string(value));
    }
}

int port(long long value, const char* name) {
    if (value < 1 || value > 65535) {
        throw py::value_error(std::string(name) + " must be between 1 and 65535, not " +
                              std::to_string(value));
    }
    return static_cast<int>(value);
}

py::bytes bytesOf(const orvikm::Payload& payload) {
    return py::bytes(payload.getBuffer() != nullptr ? payload.getBuffer() : "", payload.size());
}

// Runs Python's handlers for the signals the watch has seen; raises what a
// handler raised (KeyboardInterrupt on Ctrl-C). True when the watch ended a
// loop since `calls` (which it updates): the loop is to go on.
bool signalsHandled(SignalWatch& watch, std::uint64_t& calls) {
    const std::uint64_t seen = watch.signals();
    const std::uint64_t called = watch.calls();
    if (PyErr_CheckSignals() != 0) {
        throw py::error_already_set();
    }
    watch.handled(seen);
    const bool woken = called != calls;
    calls = called;
    return woken;
}

// The library's refusal of a second loop, given before the binding touches
// the running loop's state.
const char* const loop_running =
    "The I/O loop is already running (on another thread, or this call comes from inside one of "
    "its callbacks)";

// Marks a loop of the binding as running for its lifetime, or refuses to.
// Guarded by the GIL.
class LoopGuard {
public:
    explicit LoopGuard(bool& active) : _active(active) {
        if (_active) {
            throw orvikm::Exception(loop_running);
        }
        _active = true;
    }
    LoopGuard(const LoopGuard&) = delete;
    LoopGuard& operator=(const LoopGuard&) = delete;
    ~LoopGuard() { _active = false; }

private:
    bool& _active;
};

}  // namespace

PyClient::PyClient(const std::string& appId, long long listenerPort, long long dispenserPort,
                   std::vector<std::string> subscriptions, const orvikm::Client::Options& options)
    : _waits_for_room(options.queueFullWait.count() > 0) {
    if (appId.size() > orvikm::Client::_max_app_id_size) {
        throw py::value_error("app_id must be at most " +
                              std::to_string(orvikm::Client::_max_app_id_size) + " bytes, not " +
                              std::to_string(appId.size()));
    }
    const int listener = port(listenerPort, "listener_port");
    const int dispenser = port(dispenserPort, "dispenser_port");
    try {
        _client = std::make_unique<orvikm::Client>(appId, listener, dispenser,
                                                   std::move(subscriptions), options);
    } catch (const orvikm::Exception& error) {
        throw py::value_error(error.describe());
    }
}

template <typename... Args>
void PyClient::call(const SharedObject& callback, bool endPass, Args&&... args) {
    const py::gil_scoped_acquire gil;
    call(py::reinterpret_borrow<py::object>(callback.get()), endPass, std::forward<Args>(args)...);
}

template <typename... Args>
void PyClient::call(py::object function, bool endPass, Args&&... args) {
    // `function` is a reference of its own: the callback may replace itself
    // while it runs. A callback cleared by the garbage collector is not called.
    if (!function || function.is_none()) {
        return;
    }
    try {
        function(std::forward<Args>(args)...);
    } catch (py::error_already_set& raised) {
        if (!_callback_error) {
            _callback_error = std::move(raised);
        }
        terminate();
        if (endPass) {
            throw CallbackRaised();
        }
    }
}

std::string PyClient::send(const py::buffer& data, std::list<std::string> routes,
                           long long validFor, const py::object& onAck,
                           orvikm::Message::AckMode ackMode, std::string type) {
    requireAtLeastZero(validFor, "valid_for");
    Py_buffer view;
    if (PyObject_GetBuffer(data.ptr(), &view, PyBUF_SIMPLE) != 0) {
        throw py::error_already_set();
    }
    const auto size = static_cast<unsigned long long>(view.len);
    if (size > UINT_MAX) {
        PyBuffer_Release(&view);
        throw py::value_error("data must be at most " + std::to_string(UINT_MAX) + " bytes, not " +
                              std::to_string(size));
    }
    orvikm::Payload payload(static_cast<unsigned>(size), std::move(type));
    if (size > 0) {
        std::memcpy(payload.getBuffer(), view.buf, size);
    }
    PyBuffer_Release(&view);

    orvikm::Message message(std::move(payload),
                            orvikm::Message::Config(_client->id(), std::move(routes),
                                                    std::chrono::seconds(validFor), ackMode));
    std::string id = message.msgId();
    std::function<void()> acknowledged;
    if (!onAck.is_none()) {
        // An acknowledgement callback that raises still counts as run: the
        // library would otherwise keep it for an acknowledgement that has
        // already come.
        acknowledged = [this, callback = share(onAck)] { call(callback, false); };
    }
    try {
        if (_waits_for_room) {
            // Waiting for room needs the I/O thread, which may need the GIL.
            const py::gil_scoped_release release;
            _client->send(std::move(message), std::move(acknowledged));
        } else {
            _client->send(std::move(message), std::move(acknowledged));
        }
    } catch (const orvikm::Exception& refused) {
        if (isQueueFull(refused)) {
            throw;
        }
        throw py::value_error(refused.describe());
    }
    return id;
}

void PyClient::sendAck(const orvikm::Message& message) {
    // The write may wait for the node up to sendTimeout.
    const py::gil_scoped_release release;
    _client->sendAck(message);
}

void PyClient::onMessage(const py::object& callback) {
    _callbacks[MessageSlot] = callback;
    if (callback.is_none()) {
        _client->onMessage(nullptr);
        return;
    }
    _client->onMessage([this](std::unique_ptr<orvikm::Message> message) {
        const py::gil_scoped_acquire gil;
        call(_callbacks[MessageSlot], true, py::cast(std::move(message)));
    });
}

void PyClient::obtainRegistry(const py::object& callback, long long interval) {
    requireAtLeastZero(interval, "interval");
    _callbacks[RegistrySlot] = callback;
    if (callback.is_none()) {
        _client->obtainRegistry(nullptr, std::chrono::seconds(interval));
        return;
    }
    _client->obtainRegistry(
        [this](std::shared_ptr<orvikm::Registry> registry) {
            const py::gil_scoped_acquire gil;
            call(_callbacks[RegistrySlot], true, bytesOf(registry->payload()));
        },
        std::chrono::seconds(interval));
}

void PyClient::onUnacknowledged(const py::object& callback) {
    _callbacks[UnacknowledgedSlot] = callback;
    if (callback.is_none()) {
        _client->onUnacknowledged(nullptr);
        return;
    }
    _client->onUnacknowledged([this](const std::string& msgId) {
        const py::gil_scoped_acquire gil;
        call(_callbacks[UnacknowledgedSlot], true, msgId);
    });
}

void PyClient::onConnectionChange(const py::object& callback) {
    _callbacks[ConnectionSlot] = callback;
    if (callback.is_none()) {
        _client->onConnectionChange(nullptr);
        return;
    }
    _client->onConnectionChange([this](orvikm::Client::ConnectionState state) {
        const py::gil_scoped_acquire gil;
        call(_callbacks[ConnectionSlot], true, state);
    });
}

int PyClient::traverse(visitproc visit, void* arg) {
    for (const py::object& callback : _callbacks) {
        Py_VISIT(callback.ptr());
    }
    return 0;
}

void PyClient::clear() {
    for (py::object& callback : _callbacks) {
        callback = py::object();
    }
}

PyClient::ErrorHandler PyClient::errorHandler(const py::object& onError) {
    SharedObject handler = onError.is_none() ? nullptr : share(onError);
    return [this, handler](orviku::Exception& error) {
        const py::gil_scoped_acquire gil;
        // A callback's own exception, which the library reports as unknown
        // before passing it on.
        if (_callback_error) {
            return;
        }
        _loop_error = true;
        py::object exception = toPython(error);
        if (!handler) {
            if (!_library_error) {
                _library_error = std::move(exception);
            }
            return;
        }
        try {
            py::reinterpret_borrow<py::object>(handler.get())(exception);
        } catch (py::error_already_set& raised) {
            _callback_error = std::move(raised);
        }
    };
}

void PyClient::raiseKept() {
    if (_callback_error) {
        py::error_already_set raised = std::move(*_callback_error);
        _callback_error.reset();
        _library_error = py::object();
        throw raised;
    }
    if (_library_error) {
        const py::object error = std::move(_library_error);
        _library_error = py::object();
        raise(error);
    }
}

void PyClient::beginLoop() {
    _terminate_requested = false;
    _loop_error = false;
    _callback_error.reset();
    _library_error = py::object();
}

void PyClient::terminate() {
    _terminate_requested = true;
    _client->terminate();
}

void PyClient::run(double timeout, const py::object& onError) {
    const Milliseconds wait =
        toMilliseconds(timeout, "timeout", Milliseconds(longest_loop_timeout_ms));
    if (wait.count() >= longest_loop_timeout_ms) {
        throw py::value_error("timeout must be less than " +
                              std::to_string(longest_loop_timeout_ms / 1000) + " seconds, not " +
                              describe(timeout));
    }
    const ErrorHandler handler = errorHandler(onError);
    const LoopGuard guard(_loop_active);
    beginLoop();
    SignalWatch watch([this] { _client->terminate(); });
    std::uint64_t calls = 0;
    for (;;) {
        std::exception_ptr passedOn;
        {
            const py::gil_scoped_release release;
            try {
                _client->blockThreadForIO(handler, wait);
            } catch (const CallbackRaised&) {
            } catch (...) {
                passedOn = std::current_exception();
            }
        }
        raiseKept();
        if (passedOn) {
            std::rethrow_exception(passedOn);
        }
        if (!signalsHandled(watch, calls) || _loop_error || _terminate_requested) {
            return;
        }
    }
}

orvikm::Client::FlushResult PyClient::flush(double deadline, const py::object& onError) {
    const Milliseconds limit = toMilliseconds(deadline, "deadline");
    const bool unbounded = limit == Milliseconds::max();
    const Steady::time_point end = unbounded ? Steady::time_point::max() : Steady::now() + limit;
    const ErrorHandler handler = errorHandler(onError);
    const LoopGuard guard(_loop_active);
    beginLoop();
    SignalWatch watch([this] { _client->terminate(); });
    std::uint64_t calls = 0;
    std::size_t unacknowledged = 0;
    for (;;) {
        const Milliseconds left =
            unbounded
                ? Milliseconds::max()
                : std::max(Milliseconds(0), std::chrono::ceil<Milliseconds>(end - Steady::now()));
        orvikm::Client::FlushResult result{false, 0, 0, 0};
        std::exception_ptr passedOn;
        {
            const py::gil_scoped_release release;
            try {
                result = _client->flush(left, handler);
            } catch (const CallbackRaised&) {
            } catch (...) {
                passedOn = std::current_exception();
            }
        }
        raiseKept();
        if (passedOn) {
            std::rethrow_exception(passedOn);
        }
        const bool signalled = signalsHandled(watch, calls);
        unacknowledged += result.unacknowledged;
        result.unacknowledged = unacknowledged;
        result.complete = result.complete && unacknowledged == 0;
        if (result.complete || !signalled || _loop_error || _terminate_requested ||
            Steady::now() >= end) {
            return result;
        }
    }
}

double PyClient::processEvents(const py::object& onError) {
    const ErrorHandler handler = errorHandler(onError);
    const LoopGuard guard(_loop_active);
    _loop_error = false;
    Milliseconds wait{0};
    std::exception_ptr passedOn;
    {
        const py::gil_scoped_release release;
        try {
            wait = _client->processEvents(handler);
        } catch (const CallbackRaised&) {
        } catch (...) {
            passedOn = std::current_exception();
        }
    }
    raiseKept();
    if (passedOn) {
        std::rethrow_exception(passedOn);
    }
    return static_cast<double>(wait.count()) / 1000.0;
}

}  // namespace orvikm_python
