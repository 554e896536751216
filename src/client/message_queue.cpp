#include <orvikm/client.hpp>

#include <utility>

namespace orvikm {

Client::MessageQueue::MessageQueue() : queue(&MessageQueue::determine_priority) {}

Client::MessageQueue::MessageQueue(MessageQueue&& other) : queue(std::move(other.queue)) {
    other.queue = Queue(&MessageQueue::determine_priority);
}

void Client::MessageQueue::push(Message& message) {
    std::lock_guard<std::mutex> guard(mutex);
    queue.push(std::move(message));
}

bool Client::MessageQueue::performOperation(std::function<bool(const Message&)> operation) {
    std::lock_guard<std::mutex> guard(mutex);
    if (queue.empty()) {
        return false;
    }
    const bool done = operation(queue.top());
    if (done) {
        queue.pop();
    }
    return done;
}

std::size_t Client::MessageQueue::size() {
    std::lock_guard<std::mutex> guard(mutex);
    return queue.size();
}

bool Client::MessageQueue::determine_priority(const Message& a, const Message& b) {
    return a.validFor() > b.validFor();
}

}  // namespace orvikm
