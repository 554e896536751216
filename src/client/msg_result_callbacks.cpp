#include <orvikm/client.hpp>

#include <utility>

namespace orvikm {

Client::MsgResultCallbacks::MsgResultCallbacks() = default;

Client::MsgResultCallbacks::MsgResultCallbacks(MsgResultCallbacks&& other)
    : callbacks(std::move(other.callbacks)), count(other.count.exchange(0)) {
    other.callbacks.clear();
}

void Client::MsgResultCallbacks::registerCallback(Message& message,
                                                  std::function<void()> callback) {
    if (!callback) {
        return;
    }
    std::lock_guard<std::mutex> guard(mutex);
    callbacks[message.msgId()] = std::move(callback);
    count.store(callbacks.size(), std::memory_order_relaxed);
}

void Client::MsgResultCallbacks::handleAck(internal_objects::Ack& ack) {
    runCallback(ack);
}

bool Client::MsgResultCallbacks::runCallback(internal_objects::Ack& ack) {
    std::lock_guard<std::mutex> guard(mutex);
    const auto entry = callbacks.find(ack.messageId());
    if (entry == callbacks.end()) {
        return false;
    }
    // Erased only after a normal return: a callback that throws is called
    // again by a later acknowledgement of the same message.
    entry->second();
    callbacks.erase(entry);
    count.store(callbacks.size(), std::memory_order_relaxed);
    return true;
}

bool Client::MsgResultCallbacks::forget(const std::string& messageId) {
    std::lock_guard<std::mutex> guard(mutex);
    const bool found = callbacks.erase(messageId) > 0;
    count.store(callbacks.size(), std::memory_order_relaxed);
    return found;
}

std::size_t Client::MsgResultCallbacks::size() const {
    return count.load(std::memory_order_relaxed);
}

}  // namespace orvikm
