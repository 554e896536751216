#include <orvikm/client.hpp>

#include <cerrno>
#include <cstddef>
#include <utility>

#include <wxblt/exception.hpp>

#include <orvikm/errors.hpp>

#include "limits.hpp"
#include "queue_room.hpp"
#include "wakeup.hpp"
#include "watch_table.hpp"

namespace orvikm {

namespace {

// Few enough that the slots prefetched at their writes are still in the
// cache when the group is noted, and that a deadline starts at most a few
// writes late.
constexpr std::size_t written_ids_noted_together = 32;

}  // namespace

void Client::send(Message message, std::function<void()> onAck) {
    // The node refuses what does not fit its frames without a word back: the
    // application hears of it here or never.
    detail::check_sendable(message);
    if (_room) {
        const std::size_t bytes = message.payload().size();
        take_room(bytes);
        try {
            enqueue(message, std::move(onAck));
        } catch (...) {
            _room->giveBack(bytes);
            throw;
        }
    } else {
        enqueue(message, std::move(onAck));
    }
    if (_wake_enabled.load(std::memory_order_acquire)) {
        _wakeup->signalSend();
    }
}

void Client::enqueue(Message& message, std::function<void()> onAck) {
    if (!_watching.load(std::memory_order_relaxed)) {
        // Registered first: an acknowledgement can never outrun its callback.
        _result_callbacks.registerCallback(message, std::move(onAck));
        _msg_queue.push(message);
    } else {
        // Both come before the message can be written.
        const detail::WatchId id(message.msgIdView());
        const bool hasCallback = static_cast<bool>(onAck);
        _result_callbacks.registerCallback(message, std::move(onAck));
        watch_queued(id, message, hasCallback);
        _msg_queue.push(message);
    }
}

void Client::take_room(std::size_t bytes) {
    const bool ioThread = _io_thread.load(std::memory_order_relaxed) == std::this_thread::get_id();
    const detail::QueueRoom::Full full = _room->take(
        bytes, ioThread ? std::chrono::milliseconds(0) : _options.queueFullWait, _terminations);
    if (full == detail::QueueRoom::Full::No) {
        return;
    }
    ++_refused;
    if (full == detail::QueueRoom::Full::Messages) {
        throw Exception("The outgoing queue is full: it holds the " +
                        std::to_string(_room->maxMessages()) +
                        " messages that Options::maxQueued allows");
    }
    throw Exception("The outgoing queue is full: a message of " + std::to_string(bytes) +
                    " payload bytes would take it beyond the " + std::to_string(_room->maxBytes()) +
                    " bytes that Options::maxQueuedBytes allows");
}

void Client::send(char* buffer, unsigned int size, std::string payloadType,
                  std::list<std::string> routes, std::chrono::seconds validFor,
                  std::function<void()> onAck, Message::AckMode ackMode) {
    send(Payload(buffer, size, std::move(payloadType)), std::move(routes), validFor,
         std::move(onAck), ackMode);
}

void Client::send(Payload payload, std::list<std::string> routes, std::chrono::seconds validFor,
                  std::function<void()> onAck, Message::AckMode ackMode) {
    send(Message(std::move(payload), Message::Config(_id, std::move(routes), validFor, ackMode)),
         std::move(onAck));
}

bool Client::send_one_msg() {
    std::size_t bytes = 0;
    const bool written = _msg_queue.performOperation([this, &bytes](const Message& message) {
        const bool watching = _watching.load(std::memory_order_relaxed);
        // Fetched during the write, used just after.
        const detail::WatchId id(watching ? message.msgIdView() : std::string_view());
        if (watching) {
            _watched->prefetch(id);
        }
        try {
            _sender.send(message, nullptr);
        } catch (wxblt::Exception& error) {
            if (error.errorNumber() == EAGAIN) {
                error.addContext("Orvik Node is not available");
            }
            error.throwWithContext("While trying to send queued message id=" + message.msgId());
        } catch (orviku::Exception& error) {
            error.throwWithContext("While trying to send queued message id=" + message.msgId());
        }
        ++_written;
        if (watching) {
            _written_ids->add(id);
            if (_written_ids->size() >= written_ids_noted_together) {
                note_written();
            }
        }
        bytes = message.payload().size();
        return true;
    });
    // Outside the queue's lock: a sender waiting for room takes the queue's
    // lock next.
    if (written && _room) {
        _room->giveBack(bytes);
    }
    return written;
}

void Client::send_all_msgs() {
    if (_watching.load(std::memory_order_relaxed)) {
        // Before the writes, so that the slots they fetch ahead are the ones
        // their notes use.
        watch_sent();
    }
    try {
        // Without a batch bound a pass writes until the queue is empty.
        const std::size_t batch = _options.maxWriteBatch;
        for (std::size_t written = 0; batch == 0 || written < batch; ++written) {
            if (!send_one_msg()) {
                break;
            }
        }
    } catch (orviku::Exception& error) {
        note_written();
        error.addContext("While trying to send all queued messages");
        throw;
    } catch (...) {
        note_written();
        throw;
    }
    note_written();
    if (_on_registry) {
        send_get_registry();
    }
    send_inbox();
}

void Client::sendAck(const Message& message) {
    try {
        _sender.send(message.generate_ack(), nullptr);
    } catch (wxblt::Exception& error) {
        if (error.errorNumber() == EAGAIN) {
            error.addContext("OrVik Node is not available!");
        }
        error.throwWithContext("While trying to acknowledge message with id: " + message.msgId());
    } catch (orviku::Exception& error) {
        error.throwWithContext("While trying to acknowledge message with id: " + message.msgId());
    }
}

}  // namespace orvikm
