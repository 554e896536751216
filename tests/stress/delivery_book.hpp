#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <orvikm/message.hpp>

namespace stresstest {

// Counts the messages of an orvik-stress-client run that reached a receiving
// client, by sender, thread and sequence number (the payload starts with
// "THREAD:SEQUENCE:").
class DeliveryBook {
public:
    DeliveryBook(const std::vector<std::string>& appIds, int threads, int messages);

    // Called on the receiving client's I/O thread.
    void record(const orvikm::Message& message);

    long total() const;
    // Messages that matched no sender, thread or sequence number.
    long foreign() const;
    bool waitForTotal(long count, std::chrono::milliseconds timeout);
    // Messages never delivered, and messages delivered more than once.
    std::pair<long, long> missingAndDuplicated() const;

private:
    int _threads;
    int _messages;
    std::map<std::string, std::vector<unsigned char>> _counts;
    long _total = 0;
    long _foreign = 0;
    mutable std::mutex _mutex;
    std::condition_variable _changed;
};

}  // namespace stresstest
