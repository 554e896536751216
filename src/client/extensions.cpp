#include <orvikm/client.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <exception>
#include <unordered_set>
#include <utility>

#include <wxblt/exception.hpp>

#include "connection_monitor.hpp"
#include "intervals.hpp"
#include "loop_support.hpp"
#include "queue_room.hpp"
#include "wakeup.hpp"
#include "watch_table.hpp"

// The calls beyond the client's original surface: counters, flush and the
// delivery-failure report.
namespace orvikm {

namespace {

using Steady = std::chrono::steady_clock;

// Often enough for validity periods counted in seconds; rarely enough that a
// sweep over every watched message costs nothing worth measuring.
constexpr std::chrono::milliseconds expiry_check_interval(100);
// The longest a flush waits for input before it looks at the queue again, so
// that messages queued by other threads meanwhile are written.
constexpr std::chrono::milliseconds flush_poll_limit(10);

// A flush's writes wait for the node at most until its deadline: the
// dispenser's send timeout is shortened for the writes that come close to it,
// and set back to the client's own when the flush returns.
class FlushSendTimeout {
public:
    FlushSendTimeout(wxblt::Socket& dispenser, std::chrono::milliseconds own)
        : _dispenser(dispenser), _own(own), _set(own) {}
    FlushSendTimeout(const FlushSendTimeout&) = delete;
    FlushSendTimeout& operator=(const FlushSendTimeout&) = delete;
    ~FlushSendTimeout() {
        if (_set == _own) {
            return;
        }
        try {
            _dispenser.setSendTimeout(_own);
        } catch (const orviku::Exception&) {
            // Only a context being shut down refuses it; nothing writes then.
        }
    }

    // A timeout of 0 stays 0: it is left to retriesUnavailable().
    void limitTo(std::chrono::milliseconds left) const {
        const std::chrono::milliseconds wanted =
            _own.count() == 0 ? _own : std::clamp(left, std::chrono::milliseconds(1), _own);
        if (wanted != _set) {
            _dispenser.setSendTimeout(wanted);
            _set = wanted;
        }
    }
    bool retriesUnavailable() const { return _own.count() == 0; }

private:
    wxblt::Socket& _dispenser;
    const std::chrono::milliseconds _own;
    mutable std::chrono::milliseconds _set;
};

}  // namespace

Client::Stats Client::stats() const {
    return Stats{_msg_queue.size(),      _result_callbacks.size(),  _written.load(),
                 _acknowledged.load(),   _received.load(),          _errors.load(),
                 _unacknowledged.load(), _msg_queue.payloadBytes(), _refused.load()};
}

Client::FlushResult Client::flush(std::chrono::milliseconds deadline,
                                  std::function<void(orviku::Exception&)> errorHandler) {
    const detail::IoLoopEntry entry(_io_running, _io_thread, "While trying to flush");
    forget_termination();
    const Steady::time_point end =
        detail::steadyAfter(Steady::now(), std::max(deadline, deadline.zero()));
    const auto timeLeft = [end] {
        return std::chrono::ceil<std::chrono::milliseconds>(end - Steady::now());
    };
    const std::uint64_t reportedBefore = _unacknowledged.load();
    const auto done = [this] { return _msg_queue.size() == 0 && _result_callbacks.size() == 0; };
    const FlushSendTimeout sendTimeout(_dispenser, _options.sendTimeout);
    try {
        // Without a send timeout a write never waits, so one that finds the
        // connection still being set up is tried again after the wait for
        // input below; its error is reported only at the deadline.
        std::exception_ptr unavailable;
        for (;;) {
            report_connection();
            expire_due();
            try {
                sendTimeout.limitTo(timeLeft());
                send_all_msgs();
                unavailable = nullptr;
            } catch (wxblt::Exception& error) {
                if (!sendTimeout.retriesUnavailable() || error.errorNumber() != EAGAIN) {
                    throw;
                }
                unavailable = std::current_exception();
            }
            if (done()) {
                break;
            }
            {
                std::lock_guard<std::mutex> guard(_term_data.termLock());
                if (stop_requested()) {
                    break;
                }
            }
            const auto left = timeLeft();
            if (left.count() <= 0) {
                if (unavailable) {
                    std::rethrow_exception(unavailable);
                }
                break;
            }
            // Input is read as it comes; the completion test follows each
            // batch of it.
            if (poll_for_input(std::min(left, flush_poll_limit))) {
                const Steady::time_point readEnd = Steady::now() + flush_poll_limit;
                while (!done() && Steady::now() < readEnd &&
                       poll_once(std::chrono::milliseconds(0))) {
                }
            }
        }
    } catch (...) {
        report_loop_error(errorHandler);
    }
    const std::size_t queued = _msg_queue.size();
    const std::size_t awaiting = _result_callbacks.size();
    const auto unacknowledged = static_cast<std::size_t>(_unacknowledged.load() - reportedBefore);
    return FlushResult{queued == 0 && awaiting == 0 && unacknowledged == 0, queued, awaiting,
                       unacknowledged};
}

void Client::onConnectionChange(std::function<void(ConnectionState)> callback) {
    _on_connection_change = std::move(callback);
    _on_connection_change_replaced = true;
    if (!_on_connection_change) {
        return;
    }
    if (!_monitor) {
        _monitor = std::make_unique<detail::ConnectionMonitor>(_listener, _dispenser);
        _selector.watchSocket(&_monitor->listenerEvents(), [this](wxblt::Socket*) {
            _monitor->readListenerEvent();
            report_connection();
        });
        _selector.watchSocket(&_monitor->dispenserEvents(), [this](wxblt::Socket*) {
            _monitor->readDispenserEvent();
            report_connection();
        });
        if (_wakeup) {
            _wakeup->addToPoll(_monitor->listenerEvents().descriptor());
            _wakeup->addToPoll(_monitor->dispenserEvents().descriptor());
        }
    }
    // A new callback has heard nothing yet: a connection that is up is
    // reported to it on the next pass.
    _monitor->setReported(ConnectionState::Disconnected);
}

void Client::report_connection() {
    if (!_on_connection_change || !_monitor) {
        return;
    }
    const ConnectionState state = _monitor->state();
    if (state == _monitor->reported()) {
        return;
    }
    _monitor->setReported(state);
    detail::callReplaceable(_on_connection_change, _on_connection_change_replaced, state);
}

void Client::onUnacknowledged(std::function<void(const std::string& msgId)> callback) {
    _on_unacknowledged = std::move(callback);
    _on_unacknowledged_replaced = true;
    const bool watching = static_cast<bool>(_on_unacknowledged);
    _watching.store(watching);
    if (!watching) {
        {
            std::lock_guard<std::mutex> guard(_watch_lock);
            _sent_watches->clear();
        }
        _watched->clear();
        _pending_reports.clear();
    }
}

void Client::watch_queued(const detail::WatchId& msgId, const Message& message, bool hasCallback) {
    const Steady::time_point deadline = detail::steadyAfter(Steady::now(), message.validFor());
    std::lock_guard<std::mutex> guard(_watch_lock);
    _sent_watches->add(msgId, deadline, message.validFor(), hasCallback);
}

void Client::watch_sent() {
    {
        std::lock_guard<std::mutex> guard(_watch_lock);
        if (_sent_watches->empty()) {
            return;
        }
        _sent_watches->swap(*_moving_watches);
    }
    _moving_watches->moveInto(*_watched);
}

void Client::note_written() {
    if (_written_ids->size() == 0) {
        return;
    }
    // Every message written was sent, and so added, before it was queued.
    watch_sent();
    _written_ids->noteIn(*_watched, Steady::now());
}

void Client::note_acknowledged(const detail::WatchId& msgId) {
    // The message's write was noted before anything was read, and with it
    // the message taken into the table.
    _watched->erase(msgId);
}

void Client::expire_due() {
    if (!_watching.load(std::memory_order_relaxed)) {
        return;
    }
    const Steady::time_point now = Steady::now();
    if (now >= _next_expiry_check) {
        _next_expiry_check = now + expiry_check_interval;
        take_expired(now);
    }
    // One at a time off the front: when a report callback throws, the reports
    // after it stay for the loop's next pass, or its next run.
    while (!_pending_reports.empty()) {
        std::string id = std::move(_pending_reports.front());
        _pending_reports.pop_front();
        if (!_on_unacknowledged) {
            continue;
        }
        ++_unacknowledged;
        detail::callReplaceable(_on_unacknowledged, _on_unacknowledged_replaced, id);
    }
}

void Client::take_expired(std::chrono::steady_clock::time_point now) {
    std::vector<std::string> queued;
    std::vector<std::string> written;
    watch_sent();
    _watched->takeExpired(now, queued, written);
    if (!queued.empty()) {
        const std::unordered_set<std::string> expired(queued.begin(), queued.end());
        std::size_t bytes = 0;
        const std::size_t removed = _msg_queue.removeIf([&expired, &bytes](const Message& message) {
            if (expired.count(message.msgId()) == 0) {
                return false;
            }
            bytes += message.payload().size();
            return true;
        });
        if (_room) {
            _room->giveBack(removed, bytes);
        }
        for (const std::string& id : queued) {
            _result_callbacks.forget(id);
        }
    }
    for (std::string& id : written) {
        if (!_result_callbacks.forget(id)) {
            // Acknowledged meanwhile.
            id.clear();
        }
    }
    for (std::vector<std::string>* ids : {&queued, &written}) {
        for (std::string& id : *ids) {
            if (!id.empty()) {
                _pending_reports.push_back(std::move(id));
            }
        }
    }
}

}  // namespace orvikm
