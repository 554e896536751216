#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <orvikm/client.hpp>
#include <orvikm/message.hpp>

namespace devnodetest {

using namespace std::chrono_literals;

// Values that callbacks on a client's I/O thread hand over to the test thread.
template <typename T>
class Recorder {
public:
    void add(T value) {
        std::lock_guard<std::mutex> guard(_mutex);
        _values.push_back(std::move(value));
        _changed.notify_all();
    }

    // Waits at most `timeout` until `done` holds for the values recorded.
    bool waitUntil(const std::function<bool(const std::vector<T>&)>& done,
                   std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(_mutex);
        return _changed.wait_for(lock, timeout, [&] { return done(_values); });
    }

    bool waitForCount(std::size_t count, std::chrono::milliseconds timeout) {
        return waitUntil([count](const std::vector<T>& values) { return values.size() >= count; },
                         timeout);
    }

    std::vector<T> values() const {
        std::lock_guard<std::mutex> guard(_mutex);
        return _values;
    }

private:
    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::vector<T> _values;
};

// What a message carried when it reached a client.
struct ReceivedMessage {
    std::string id;
    std::string appId;
    std::string payload;
    std::string type;
    std::chrono::seconds validFor{0};
    std::list<std::string> routes;
    orvikm::Message::AckMode ackMode = orvikm::Message::AckMode::Unacknowledged;
};

ReceivedMessage describe(const orvikm::Message& message);

// A registry as it reached a client.
struct ReceivedRegistry {
    std::string type;
    std::string body;
};

// Sends every message the client receives to `inbox`. Set it before the loop
// starts.
void recordMessages(orvikm::Client& client, Recorder<ReceivedMessage>& inbox);

// Queues a message and returns its id; `acks`, when given, receives the id
// once the node acknowledges it.
std::string sendMessage(orvikm::Client& client, const std::string& payload,
                        std::list<std::string> routes, Recorder<std::string>* acks,
                        const std::string& type = "text/plain", std::chrono::seconds validFor = 30s,
                        orvikm::Message::AckMode ackMode = orvikm::Message::AckMode::ByNode);

// Runs a client's I/O loop on a thread of its own while the object lives. A
// write refused because the connection to the node is not set up yet is not
// an error during the first seconds: the loop is entered again. The destructor
// ends the loop and joins the thread, within a bounded time: a loop that does
// not end aborts the test process rather than hang it.
class ClientLoop {
public:
    explicit ClientLoop(orvikm::Client& client, std::chrono::milliseconds timeout = 20ms);
    ClientLoop(const ClientLoop&) = delete;
    ClientLoop& operator=(const ClientLoop&) = delete;
    ~ClientLoop();

    // Every error the loop reported, described; none while all is well.
    std::vector<std::string> errors() const;

private:
    orvikm::Client& _client;
    mutable std::mutex _mutex;
    std::vector<std::string> _errors;
    std::atomic<bool> _stopping{false};
    std::promise<void> _ended;
    std::future<void> _ended_future;
    std::thread _thread;
};

// Sends probe messages along `route` from `sender`, one every 100 ms, until
// `inbox` holds one of them (at most `timeout`): a subscription reaches the
// node's publisher some time after the client connects, and until then
// messages for it are not delivered.
bool probeUntilDelivered(orvikm::Client& sender, Recorder<ReceivedMessage>& inbox,
                         const std::string& route, std::chrono::milliseconds timeout);

// The payload type of the probes.
extern const std::string kProbeType;

}  // namespace devnodetest
