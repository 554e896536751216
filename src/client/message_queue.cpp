#include <orvikm/client.hpp>

#include <algorithm>
#include <utility>

namespace orvikm {

namespace {

// The priority queue keeps its container protected; removing from the middle
// needs it. A member pointer taken through a derived class reaches it without
// changing the queue's type.
template <typename Queue>
typename Queue::container_type& containerOf(Queue& queue) {
    struct Access : Queue {
        static typename Queue::container_type Queue::*member() { return &Access::c; }
    };
    return queue.*Access::member();
}

}  // namespace

Client::MessageQueue::MessageQueue() : queue(&MessageQueue::determine_priority) {}

Client::MessageQueue::MessageQueue(MessageQueue&& other)
    : queue(std::move(other.queue)),
      count(other.count.exchange(0)),
      bytes(other.bytes.exchange(0)) {
    other.queue = Queue(&MessageQueue::determine_priority);
}

void Client::MessageQueue::push(Message& message) {
    std::lock_guard<std::mutex> guard(mutex);
    const std::size_t size = message.payload().size();
    queue.push(std::move(message));
    count.store(queue.size(), std::memory_order_relaxed);
    bytes.store(bytes.load(std::memory_order_relaxed) + size, std::memory_order_relaxed);
}

bool Client::MessageQueue::performOperation(std::function<bool(const Message&)> operation) {
    std::lock_guard<std::mutex> guard(mutex);
    if (queue.empty()) {
        return false;
    }
    const bool done = operation(queue.top());
    if (done) {
        const std::size_t size = queue.top().payload().size();
        queue.pop();
        count.store(queue.size(), std::memory_order_relaxed);
        bytes.store(bytes.load(std::memory_order_relaxed) - size, std::memory_order_relaxed);
    }
    return done;
}

std::size_t Client::MessageQueue::size() const {
    return count.load(std::memory_order_relaxed);
}

std::size_t Client::MessageQueue::payloadBytes() const {
    return bytes.load(std::memory_order_relaxed);
}

std::size_t Client::MessageQueue::removeIf(const std::function<bool(const Message&)>& drop) {
    std::lock_guard<std::mutex> guard(mutex);
    auto& messages = containerOf(queue);
    std::size_t removedBytes = 0;
    const auto kept = std::remove_if(messages.begin(), messages.end(),
                                     [&drop, &removedBytes](const Message& message) {
                                         if (!drop(message)) {
                                             return false;
                                         }
                                         removedBytes += message.payload().size();
                                         return true;
                                     });
    const auto removed = static_cast<std::size_t>(messages.end() - kept);
    if (removed > 0) {
        bytes.store(bytes.load(std::memory_order_relaxed) - removedBytes,
                    std::memory_order_relaxed);
        messages.erase(kept, messages.end());
        std::make_heap(messages.begin(), messages.end(), &MessageQueue::determine_priority);
        count.store(queue.size(), std::memory_order_relaxed);
    }
    return removed;
}

bool Client::MessageQueue::determine_priority(const Message& a, const Message& b) {
    return a.validFor() > b.validFor();
}

}  // namespace orvikm
