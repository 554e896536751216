#include <orvikm/client.hpp>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <utility>

#include <orvikm/errors.hpp>
#include <orviku/exception.hpp>
#include <wxblt/exception.hpp>

#include "intervals.hpp"
#include "loop_support.hpp"
#include "wakeup.hpp"
#include "watch_table.hpp"

namespace orvikm {

namespace {

// A header number that does not parse ("p_size", "valid_for") leaves the
// receiver as a standard exception, with the rest of its request unread. The
// rest is dropped here, so that it is not taken for the next request; the
// exception itself goes on unchanged.
std::unique_ptr<internal_objects::Request> receiveFrom(Receiver& receiver, wxblt::Socket& socket) {
    try {
        return receiver.receive();
    } catch (const orviku::Exception&) {
        throw;
    } catch (...) {
        socket.flushMessage();
        throw;
    }
}

}  // namespace

void Client::onMessage(std::function<void(std::unique_ptr<Message>)> callback) {
    _on_message = std::move(callback);
    _on_message_replaced = true;
}

void Client::obtainRegistry(std::function<void(std::shared_ptr<Registry>)> callback,
                            std::chrono::seconds timeout) {
    _on_registry = std::move(callback);
    _on_registry_replaced = true;
    _registry_interval = timeout;
    // One interval in the past: the next pass requests the registry at once.
    _last_registry_request = detail::earlierBy(std::chrono::system_clock::now(), timeout);
}

void Client::blockThreadForIO(std::function<void(orviku::Exception&)> errorHandler,
                              std::chrono::milliseconds timeout) {
    const detail::IoLoopEntry entry(_io_running, _io_thread, "While trying to run the I/O loop");
    forget_termination();
    try {
        std::unique_lock<std::mutex> guard(_term_data.termLock());
        while (!stop_requested()) {
            guard.unlock();
            report_connection();
            expire_due();
            send_all_msgs();
            read_until_quiet(timeout);
            guard.lock();
        }
    } catch (...) {
        report_loop_error(errorHandler);
    }
}

void Client::forget_termination() {
    // A terminate() from before this loop is forgotten.
    std::lock_guard<std::mutex> guard(_term_data.termLock());
    _term_data.isTermed() = false;
    _stop_signalled.store(false);
}

void Client::report_loop_error(const std::function<void(orviku::Exception&)>& errorHandler) {
    try {
        throw;
    } catch (wxblt::ZmqTermination&) {
    } catch (orviku::Exception& error) {
        if (errorHandler) {
            ++_errors;
            errorHandler(error);
        }
    } catch (...) {
        if (errorHandler) {
            ++_errors;
            orviku::GeneralException unknown(
                "An unknown error occured. We do not know how to handle it");
            errorHandler(unknown);
            throw;
        }
    }
}

void Client::read_until_quiet(std::chrono::milliseconds timeout) {
    if (_options.maxReadTime.count() <= 0) {
        while (poll_for_input(timeout) && !take_wake()) {
        }
        return;
    }
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = detail::steadyAfter(Clock::now(), _options.maxReadTime);
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        if (left.count() <= 0 || !poll_for_input(std::min(timeout, left)) || take_wake()) {
            return;
        }
    }
}

bool Client::take_wake() {
    return std::exchange(_woken, false);
}

bool Client::stop_requested() {
    // A terminate() that could not take the lock left only the atomic flag.
    if (_stop_signalled.load()) {
        _term_data.isTermed() = true;
    }
    return _term_data.isTermed();
}

bool Client::check(std::chrono::milliseconds timeout) {
    const detail::IoLoopEntry entry(_io_running, _io_thread, "While trying to check for input");
    return poll_once(timeout);
}

bool Client::poll_for_input(std::chrono::milliseconds timeout) {
    if (!_options.wakeOnSend || timeout.count() <= 0) {
        return poll_once(timeout);
    }
    _wakeup->beginWait();
    // Queued before the wait began, so its sender did not signal: what has
    // arrived is read without waiting, and the step ends as if woken, so that
    // the pass writes it.
    if (_msg_queue.size() > 0) {
        _wakeup->endWait();
        poll_once(std::chrono::milliseconds(0));
        _woken = true;
        return true;
    }
    const bool input = poll_once(timeout);
    _wakeup->endWait();
    return input;
}

bool Client::poll_once(std::chrono::milliseconds timeout) {
    // The selector's count is 32 bits wide: larger timeouts wrap.
    const auto wrapped = static_cast<std::int32_t>(static_cast<std::uint32_t>(timeout.count()));
    return _selector.run(std::chrono::duration<long, std::milli>(wrapped));
}

void Client::receive_on_listener(wxblt::Socket*) {
    try {
        try {
            // The node publishes every message behind a topic frame.
            _listener_receiver.readFrame();
            _listener_receiver.expectMore("Routes or delimiter");
        } catch (orviku::Exception&) {
            // The receiver flushes only what it reads itself.
            _listener.flushMessage();
            throw;
        }
        std::unique_ptr<internal_objects::Request> request =
            receiveFrom(_listener_receiver, _listener);
        if (std::strcmp(request->wireName(), Message::_wire_name) != 0) {
            throw ProtocolError(
                std::string("Don't expect other types of requests on listener other than "
                            "Message. Received a request with wire name: ") +
                request->wireName());
        }
        handle_request(std::move(request));
    } catch (orviku::Exception& error) {
        error.addContext("While trying to read request on Client listener");
        throw;
    }
}

void Client::receive_on_dispenser(wxblt::Socket*) {
    try {
        handle_request(receiveFrom(_dispenser_receiver, _dispenser));
    } catch (orviku::Exception& error) {
        error.addContext("While trying to read request on Client dispenser");
        throw;
    }
}

void Client::handle_request(std::unique_ptr<internal_objects::Request> request) {
    if (!request) {
        return;
    }
    if (dynamic_cast<Message*>(request.get()) != nullptr) {
        if (!_on_message) {
            return;
        }
        std::unique_ptr<Message> message(static_cast<Message*>(request.release()));
        ++_received;
        std::lock_guard<std::mutex> guard(*_lock);
        detail::callReplaceable(_on_message, _on_message_replaced, std::move(message));
        return;
    }
    if (dynamic_cast<Registry*>(request.get()) != nullptr) {
        std::shared_ptr<Registry> registry(static_cast<Registry*>(request.release()));
        if (_on_registry) {
            detail::callReplaceable(_on_registry, _on_registry_replaced, std::move(registry));
        }
        return;
    }
    if (auto* ack = dynamic_cast<internal_objects::Ack*>(request.get())) {
        if (!_watching.load(std::memory_order_relaxed)) {
            if (_result_callbacks.runCallback(*ack)) {
                ++_acknowledged;
            }
            return;
        }
        // Fetched while the callback runs; the watch ends whether it returns
        // or throws.
        const detail::WatchId id(ack->messageId());
        _watched->prefetch(id);
        bool ran = false;
        try {
            ran = _result_callbacks.runCallback(*ack);
        } catch (...) {
            note_acknowledged(id);
            throw;
        }
        note_acknowledged(id);
        if (ran) {
            ++_acknowledged;
        }
    }
}

}  // namespace orvikm
