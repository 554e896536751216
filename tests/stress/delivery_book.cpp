#include "delivery_book.hpp"

#include <cstdlib>

namespace stresstest {

DeliveryBook::DeliveryBook(const std::vector<std::string>& appIds, int threads, int messages)
    : _threads(threads), _messages(messages) {
    for (const std::string& appId : appIds) {
        _counts[appId].assign(
            static_cast<std::size_t>(threads) * static_cast<std::size_t>(messages), 0);
    }
}

void DeliveryBook::record(const orvikm::Message& message) {
    const orvikm::Payload& payload = message.payload();
    const std::string text(payload.getBuffer(), payload.size());
    char* end = nullptr;
    const long thread = std::strtol(text.c_str(), &end, 10);
    const bool threadRead = end != text.c_str() && *end == ':';
    const char* sequenceStart = threadRead ? end + 1 : text.c_str();
    const long sequence = std::strtol(sequenceStart, &end, 10);
    const bool sequenceRead = threadRead && end != sequenceStart && *end == ':';

    std::lock_guard<std::mutex> guard(_mutex);
    ++_total;
    const auto sender = _counts.find(message.appId());
    if (sender == _counts.end() || !sequenceRead || thread < 0 || thread >= _threads ||
        sequence < 0 || sequence >= _messages) {
        ++_foreign;
    } else {
        unsigned char& count =
            sender->second[static_cast<std::size_t>(thread * _messages + sequence)];
        if (count < 255) {
            ++count;
        }
    }
    _changed.notify_all();
}

long DeliveryBook::total() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return _total;
}

long DeliveryBook::foreign() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return _foreign;
}

bool DeliveryBook::waitForTotal(long count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(_mutex);
    return _changed.wait_for(lock, timeout, [&] { return _total >= count; });
}

std::pair<long, long> DeliveryBook::missingAndDuplicated() const {
    std::lock_guard<std::mutex> guard(_mutex);
    long missing = 0;
    long duplicated = 0;
    for (const auto& [appId, counts] : _counts) {
        for (const unsigned char count : counts) {
            missing += count == 0 ? 1 : 0;
            duplicated += count > 1 ? 1 : 0;
        }
    }
    return {missing, duplicated};
}

}  // namespace stresstest
