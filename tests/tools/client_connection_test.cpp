#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/client.hpp>
#include <orvikm/message.hpp>
#include <orvikm/payload.hpp>

#include "devnode_fixture.hpp"
#include "support/reserved_port.hpp"

// Connection events against orvik-devnode stopped, killed and restarted on
// the same ports, and against a node that was not there at first.
namespace devnodetest {
namespace {

using orvikm::Client;
using orvikm::Message;
using State = Client::ConnectionState;
using Steady = std::chrono::steady_clock;

constexpr auto kPromptly = 1s;
constexpr auto kLoopTimeout = std::chrono::milliseconds(20);

// The connection events a client reported, with when each came.
class ConnectionEvents {
public:
    std::function<void(State)> callback() {
        return [this](State state) {
            std::lock_guard<std::mutex> guard(_mutex);
            _events.emplace_back(state, Steady::now());
            _changed.notify_all();
        };
    }
    std::vector<State> states() const {
        std::lock_guard<std::mutex> guard(_mutex);
        std::vector<State> states;
        for (const auto& event : _events) {
            states.push_back(event.first);
        }
        return states;
    }
    // Waits until `count` events came; the time the last of them came.
    std::optional<Steady::time_point> waitForCount(std::size_t count,
                                                   std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(_mutex);
        if (!_changed.wait_for(lock, limit, [&] { return _events.size() >= count; })) {
            return std::nullopt;
        }
        return _events[count - 1].second;
    }

private:
    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::vector<std::pair<State, Steady::time_point>> _events;
};

// Lends a thread to the client for as long as the object lives, entering the
// loop again after each error: writes fail while the node is away.
class LoopAcrossOutages {
public:
    explicit LoopAcrossOutages(Client& client)
        : _client(client), _thread([this] {
              while (!_stopping.load()) {
                  _client.blockThreadForIO([](orviku::Exception&) {}, kLoopTimeout);
                  if (!_stopping.load()) {
                      std::this_thread::sleep_for(std::chrono::milliseconds(10));
                  }
              }
              _done.store(true);
          }) {}
    LoopAcrossOutages(const LoopAcrossOutages&) = delete;
    LoopAcrossOutages& operator=(const LoopAcrossOutages&) = delete;
    // A terminate() that comes between two loops is forgotten by the next
    // one, so it is repeated until the thread is done.
    ~LoopAcrossOutages() {
        _stopping.store(true);
        while (!_done.load()) {
            _client.terminate();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        _thread.join();
    }

private:
    Client& _client;
    std::atomic<bool> _stopping{false};
    std::atomic<bool> _done{false};
    std::thread _thread;
};

std::vector<std::string> nodeArguments(int listenerPort, int dispenserPort) {
    return {"--listener-port", std::to_string(listenerPort), "--dispenser-port",
            std::to_string(dispenserPort)};
}

class ClientConnectionTest : public ::testing::Test {
protected:
    // A node on the reserved ports (their reservation given up first).
    std::unique_ptr<DevNodeProcess> startNode() {
        _listener.release();
        _dispenser.release();
        auto node =
            std::make_unique<DevNodeProcess>(nodeArguments(_listener.port(), _dispenser.port()));
        EXPECT_TRUE(node->waitUntilReady(kStartLimit));
        return node;
    }

    int listenerPort() const { return _listener.port(); }
    int dispenserPort() const { return _dispenser.port(); }

private:
    testsupport::ReservedPort _listener;
    testsupport::ReservedPort _dispenser;
};

TEST_F(ClientConnectionTest, AClientOfARunningNodeHearsConnectedOnce) {
    const auto node = startNode();
    Client client("connection-app", listenerPort(), dispenserPort(), {"topic"});
    ConnectionEvents events;
    client.onConnectionChange(events.callback());
    LoopAcrossOutages loop(client);

    ASSERT_TRUE(events.waitForCount(1, kEventLimit));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));

    EXPECT_EQ(events.states(), std::vector<State>{State::Connected});
}

TEST_F(ClientConnectionTest, ANodeNeverThereIsReportedOnlyOnceItAppears) {
    Client client("connection-app", listenerPort(), dispenserPort(), {"topic"});
    ConnectionEvents events;
    client.onConnectionChange(events.callback());
    LoopAcrossOutages loop(client);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    ASSERT_TRUE(events.states().empty());

    const auto node = startNode();
    const Steady::time_point started = Steady::now();

    const auto connected = events.waitForCount(1, kEventLimit);
    ASSERT_TRUE(connected);
    EXPECT_LT(*connected - started, kPromptly);
    EXPECT_EQ(events.states(), std::vector<State>{State::Connected});
}

TEST_F(ClientConnectionTest, AStoppedNodeIsReportedDisconnected) {
    auto node = startNode();
    Client client("connection-app", listenerPort(), dispenserPort(), {"topic"});
    ConnectionEvents events;
    client.onConnectionChange(events.callback());
    LoopAcrossOutages loop(client);
    ASSERT_TRUE(events.waitForCount(1, kEventLimit));

    node->sendSignal(SIGTERM);
    ASSERT_TRUE(node->waitForExit(kEventLimit));
    const Steady::time_point stopped = Steady::now();

    const auto disconnected = events.waitForCount(2, kEventLimit);
    ASSERT_TRUE(disconnected);
    EXPECT_LT(*disconnected - stopped, kPromptly);
    EXPECT_EQ(events.states(), (std::vector<State>{State::Connected, State::Disconnected}));
}

// Killed and restarted on the same ports under load: each change within a
// second, and what was queued meanwhile written after the restart, most
// urgent first.
TEST_F(ClientConnectionTest, AKilledAndRestartedNodeIsReportedAndQueuedMessagesFollowByUrgency) {
    auto node = startNode();
    Client::Options options;
    options.sendTimeout = std::chrono::milliseconds(50);
    Client client("connection-app", listenerPort(), dispenserPort(), {"topic"}, options);
    ConnectionEvents events;
    client.onConnectionChange(events.callback());
    std::mutex ackedMutex;
    std::vector<std::int64_t> ackedValidities;
    const auto sendValidFor = [&](std::int64_t seconds) {
        client.send(Message(orvikm::Payload(0, "text/plain"),
                            Message::Config(client.id(), {"topic"}, std::chrono::seconds(seconds),
                                            Message::AckMode::ByNode)),
                    [&, seconds] {
                        std::lock_guard<std::mutex> guard(ackedMutex);
                        ackedValidities.push_back(seconds);
                    });
    };
    LoopAcrossOutages loop(client);
    ASSERT_TRUE(events.waitForCount(1, kEventLimit));
    std::atomic<bool> loading{true};
    std::thread load([&] {
        while (loading.load()) {
            sendValidFor(600);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });

    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    node->sendSignal(SIGKILL);
    ASSERT_TRUE(node->waitForExit(kEventLimit));
    const Steady::time_point killed = Steady::now();
    const auto disconnected = events.waitForCount(2, kEventLimit);
    loading.store(false);
    load.join();
    ASSERT_TRUE(disconnected);
    EXPECT_LT(*disconnected - killed, kPromptly);
    {
        std::lock_guard<std::mutex> guard(ackedMutex);
        ackedValidities.clear();
    }
    for (const std::int64_t seconds : {300, 100, 200}) {
        sendValidFor(seconds);
    }

    node = startNode();
    const Steady::time_point restarted = Steady::now();

    const auto connected = events.waitForCount(3, kEventLimit);
    ASSERT_TRUE(connected);
    EXPECT_LT(*connected - restarted, kPromptly);
    EXPECT_EQ(events.states(),
              (std::vector<State>{State::Connected, State::Disconnected, State::Connected}));
    const auto end = Steady::now() + kEventLimit;
    std::vector<std::int64_t> acked;
    while (Steady::now() < end) {
        {
            std::lock_guard<std::mutex> guard(ackedMutex);
            acked = ackedValidities;
        }
        if (acked.size() >= 3 && acked.back() == 600 && client.stats().queued == 0) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_GE(acked.size(), 3u);
    EXPECT_EQ(std::vector<std::int64_t>(acked.begin(), acked.begin() + 3),
              (std::vector<std::int64_t>{100, 200, 300}));
}

TEST_F(ClientConnectionTest, ACallbackSetWhileConnectedHearsConnectedOnTheNextPass) {
    const auto node = startNode();
    Client client("connection-app", listenerPort(), dispenserPort(), {"topic"});
    ASSERT_TRUE(client.flush(kEventLimit).complete);
    ConnectionEvents events;

    client.onConnectionChange(events.callback());
    ASSERT_TRUE(client.flush(kEventLimit).complete);

    EXPECT_EQ(events.states(), std::vector<State>{State::Connected});
}

TEST_F(ClientConnectionTest, ASecondCallbackHearsTheStateAgain) {
    const auto node = startNode();
    Client client("connection-app", listenerPort(), dispenserPort(), {"topic"});
    ConnectionEvents first;
    client.onConnectionChange(first.callback());
    {
        LoopAcrossOutages loop(client);
        ASSERT_TRUE(first.waitForCount(1, kEventLimit));
    }
    ConnectionEvents second;

    client.onConnectionChange(second.callback());
    ASSERT_TRUE(client.flush(kEventLimit).complete);

    EXPECT_EQ(second.states(), std::vector<State>{State::Connected});
    EXPECT_EQ(first.states(), std::vector<State>{State::Connected});
}

}  // namespace
}  // namespace devnodetest
