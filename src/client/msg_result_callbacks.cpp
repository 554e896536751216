#include <orvikm/client.hpp>

#include <utility>

namespace orvikm {

Client::MsgResultCallbacks::MsgResultCallbacks() = default;

Client::MsgResultCallbacks::MsgResultCallbacks(MsgResultCallbacks&& other)
    : callbacks(std::move(other.callbacks)) {
    other.callbacks.clear();
}

void Client::MsgResultCallbacks::registerCallback(Message& message,
                                                  std::function<void()> callback) {
    if (!callback) {
        return;
    }
    std::lock_guard<std::mutex> guard(mutex);
    callbacks[message.msgId()] = std::move(callback);
}

void Client::MsgResultCallbacks::handleAck(internal_objects::Ack& ack) {
    std::lock_guard<std::mutex> guard(mutex);
    const auto entry = callbacks.find(ack.messageId());
    if (entry == callbacks.end()) {
        return;
    }
    // Erased only after a normal return: a callback that throws is called
    // again by a later acknowledgement of the same message.
    entry->second();
    callbacks.erase(entry);
}

std::size_t Client::MsgResultCallbacks::size() {
    std::lock_guard<std::mutex> guard(mutex);
    return callbacks.size();
}

}  // namespace orvikm
