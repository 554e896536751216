#include "signal_watch.hpp"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include <pybind11/pybind11.h>

namespace orvikm_python {

namespace py = pybind11;

namespace {

// Signal numbers start at 1, so a zero byte on the pipe can only be the
// watch's own request to stop.
constexpr char stop_byte = 0;
constexpr int repeat_after_ms = 50;

bool onMainThread() {
    const py::object main = py::module_::import("threading").attr("main_thread")();
    return main.attr("ident").cast<unsigned long>() == PyThread_get_thread_ident();
}

// Python's signal.set_wakeup_fd (the C function behind it is not exported).
// Its warning about a full pipe stays off: the flag cannot be read back, and
// asyncio, the usual owner of the descriptor, sets it off too.
int setWakeupFd(int descriptor) {
    const py::object setter = py::module_::import("signal").attr("set_wakeup_fd");
    return setter(descriptor, py::arg("warn_on_full_buffer") = false).cast<int>();
}

}  // namespace

SignalWatch::SignalWatch(std::function<void()> onSignal) : _on_signal(std::move(onSignal)) {
    if (!onMainThread()) {
        return;
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
        PyErr_SetFromErrno(PyExc_OSError);
        throw py::error_already_set();
    }
    _read_end = ends[0];
    _write_end = ends[1];
    try {
        _previous = setWakeupFd(_write_end);
    } catch (...) {
        close(_read_end);
        close(_write_end);
        throw;
    }
    _active = true;
    _thread = std::thread([this] { watch(); });
}

SignalWatch::~SignalWatch() {
    if (!_active) {
        return;
    }
    try {
        setWakeupFd(_previous);
    } catch (py::error_already_set& error) {
        error.discard_as_unraisable("restoring the signal wakeup descriptor");
    }
    const char stop = stop_byte;
    while (write(_write_end, &stop, 1) < 0 && errno == EINTR) {
    }
    _thread.join();
    close(_read_end);
    close(_write_end);
}

void SignalWatch::watch() {
    for (;;) {
        pollfd readable{_read_end, POLLIN, 0};
        const bool unhandled = signals() != _handled.load(std::memory_order_acquire);
        const int ready = poll(&readable, 1, unhandled ? repeat_after_ms : -1);
        if (ready == 0) {
            if (signals() != _handled.load(std::memory_order_acquire)) {
                call();
            }
            continue;
        }
        if (ready < 0) {
            continue;
        }
        char bytes[64];
        const ssize_t got = read(_read_end, bytes, sizeof bytes);
        if (got <= 0) {
            continue;
        }
        bool stop = false;
        bool signalled = false;
        for (ssize_t i = 0; i < got; ++i) {
            if (bytes[i] == stop_byte) {
                stop = true;
            } else {
                signalled = true;
                // An event loop that set its own descriptor still hears of
                // the signal.
                if (_previous >= 0) {
                    (void)!write(_previous, &bytes[i], 1);
                }
            }
        }
        if (signalled) {
            _signals.fetch_add(1, std::memory_order_acq_rel);
            call();
        }
        if (stop) {
            return;
        }
    }
}

void SignalWatch::call() {
    _calls.fetch_add(1, std::memory_order_acq_rel);
    _on_signal();
}

}  // namespace orvikm_python
