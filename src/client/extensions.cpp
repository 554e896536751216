#include <orvikm/client.hpp>

#include <algorithm>
#include <unordered_set>
#include <utility>

#include "intervals.hpp"
#include "loop_support.hpp"
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

}  // namespace

Client::Stats Client::stats() const {
    return Stats{_msg_queue.size(),     _result_callbacks.size(), _written.load(),
                 _acknowledged.load(),  _received.load(),         _errors.load(),
                 _unacknowledged.load()};
}

Client::FlushResult Client::flush(std::chrono::milliseconds deadline,
                                  std::function<void(orviku::Exception&)> errorHandler) {
    const detail::IoLoopEntry entry(_io_running, "While trying to flush");
    forget_termination();
    const Steady::time_point end =
        detail::steadyAfter(Steady::now(), std::max(deadline, deadline.zero()));
    const auto done = [this] { return _msg_queue.size() == 0 && _result_callbacks.size() == 0; };
    try {
        for (;;) {
            expire_due();
            send_all_msgs();
            if (done()) {
                break;
            }
            {
                std::lock_guard<std::mutex> guard(_term_data.termLock());
                if (stop_requested()) {
                    break;
                }
            }
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Steady::now());
            if (left.count() <= 0) {
                break;
            }
            // Input is read as it comes; the completion test follows each
            // batch of it.
            if (poll_once(std::min(left, flush_poll_limit))) {
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
    return FlushResult{queued == 0 && awaiting == 0, queued, awaiting};
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
    if (now < _next_expiry_check) {
        return;
    }
    _next_expiry_check = now + expiry_check_interval;

    std::vector<std::string> queued;
    std::vector<std::string> written;
    watch_sent();
    _watched->takeExpired(now, queued, written);
    if (!queued.empty()) {
        const std::unordered_set<std::string> expired(queued.begin(), queued.end());
        _msg_queue.removeIf(
            [&expired](const Message& message) { return expired.count(message.msgId()) > 0; });
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
        for (const std::string& id : *ids) {
            if (id.empty() || !_on_unacknowledged) {
                continue;
            }
            ++_unacknowledged;
            detail::callReplaceable(_on_unacknowledged, _on_unacknowledged_replaced, id);
        }
    }
}

}  // namespace orvikm
