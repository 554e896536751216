#include <orvikm/client.hpp>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/errors.hpp>
#include <orvikm/message.hpp>
#include <orvikm/payload.hpp>
#include <orvikm/registry.hpp>
#include <orviku/exception.hpp>

#include "support/child_process.hpp"
#include "support/error_capture.hpp"
#include "support/loop_thread.hpp"
#include "support/test_node.hpp"

// What an application does from inside its own callbacks: replace or clear
// the callback that is running, or enter the I/O loop again. The first is
// safe and takes effect from the next delivery; the second is refused at
// once, and the loop that runs goes on.
namespace {

using namespace std::chrono_literals;
using orvikm::Client;
using orvikm::Message;
using orvikm::Payload;
using orvikm::Registry;
using testsupport::LoopThread;
using testsupport::TestNode;

const std::string kAppId = "reentrant-app";
const std::string kDispenserIdentity = "reentrant-app|disp";
const std::string kTopic = "reentrant-topic";
const std::string kFirstId = "2f4e6a8c-0b1d-4f3a-9c5e-7a9b1c3d5e7f";
const std::string kSecondId = "8d6b4f2a-0e1c-4a3b-8f7d-6c5b4a3f2e1d";
const std::string kFirstRegistry = "{\"registry\":1}";
const std::string kSecondRegistry = "{\"registry\":2}";
const std::string kRegistryRequestCommand = "GREG";
const std::string kMessageCommand = "MSG";
const std::string kAlreadyRunning = "The I/O loop is already running";

constexpr auto kEventLimit = 5s;
constexpr auto kQuietTime = 300ms;
constexpr auto kChildLimit = 20s;
constexpr auto kRegistryInterval = 3600s;

// Sets a flag that lives outside the callback when the callback's captured
// state is destroyed, so a callback can tell, without touching its own
// captures, whether it is still alive.
class Sentinel {
public:
    explicit Sentinel(std::atomic<bool>& destroyed) : _destroyed(destroyed) {}
    ~Sentinel() { _destroyed.store(true); }

private:
    std::atomic<bool>& _destroyed;
};

std::vector<std::string> published(std::vector<std::string> frames) {
    frames.insert(frames.begin(), kTopic);
    return frames;
}

Message outgoing() {
    return Message(Payload(1, "text/plain"),
                   Message::Config(kAppId, {}, 30s, Message::AckMode::ByNode));
}

template <typename T>
bool arrives(std::future<T>& future) {
    return future.wait_for(kEventLimit) == std::future_status::ready;
}

class ClientReentrancyTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(node.waitForSubscription(kTopic)); }

    void publish(const std::string& id) {
        node.publish(published(testsupport::messageFrames(id, "body")));
    }

    TestNode node;
    Client client{kAppId, node.listenerPort(), node.dispenserPort(), {kTopic}};
};

TEST_F(ClientReentrancyTest, ClearingTheMessageCallbackFromInsideItIsSafe) {
    std::atomic<bool> captureDestroyed{false};
    std::promise<bool> aliveAfterClearing;
    auto sentinel = std::make_shared<Sentinel>(captureDestroyed);
    client.onMessage(
        [this, &captureDestroyed, &aliveAfterClearing, sentinel](std::unique_ptr<Message>) {
            client.onMessage(nullptr);
            aliveAfterClearing.set_value(!captureDestroyed.load());
        });
    sentinel.reset();  // the callback now holds the only reference
    LoopThread loop(client, nullptr);

    publish(kFirstId);

    auto alive = aliveAfterClearing.get_future();
    ASSERT_TRUE(arrives(alive));
    EXPECT_TRUE(alive.get());
}

TEST_F(ClientReentrancyTest, ReplacedMessageCallbackTakesEffectFromTheNextDelivery) {
    std::promise<std::string> toFirst;
    std::promise<std::string> toSecond;
    client.onMessage([&](std::unique_ptr<Message> message) {
        client.onMessage(
            [&](std::unique_ptr<Message> later) { toSecond.set_value(later->msgId()); });
        toFirst.set_value(message->msgId());
    });
    LoopThread loop(client, nullptr);

    publish(kFirstId);
    auto first = toFirst.get_future();
    ASSERT_TRUE(arrives(first));
    publish(kSecondId);

    auto second = toSecond.get_future();
    ASSERT_TRUE(arrives(second));
    EXPECT_EQ(first.get(), kFirstId);
    EXPECT_EQ(second.get(), kSecondId);
}

TEST_F(ClientReentrancyTest, MessageCallbackClearedFromInsideItGetsNothingMore) {
    std::atomic<int> calls{0};
    Message marker = outgoing();
    const std::string markerId = marker.msgId();
    std::promise<void> markerAcknowledged;
    client.send(std::move(marker), [&] { markerAcknowledged.set_value(); });
    client.onMessage([&](std::unique_ptr<Message>) {
        ++calls;
        client.onMessage(nullptr);
    });
    LoopThread loop(client, nullptr);
    ASSERT_TRUE(node.receiveCommand(kMessageCommand));

    publish(kFirstId);
    publish(kSecondId);
    // The listener is read before the dispenser: once the marker's
    // acknowledgement has run, both publications have been handled.
    std::this_thread::sleep_for(kQuietTime);
    node.sendTo(kDispenserIdentity, testsupport::ackFrames(markerId));

    ASSERT_EQ(markerAcknowledged.get_future().wait_for(kEventLimit), std::future_status::ready);
    EXPECT_EQ(calls.load(), 1);
}

TEST_F(ClientReentrancyTest, ReplacingTheRegistryCallbackFromInsideItIsSafe) {
    std::atomic<bool> captureDestroyed{false};
    std::promise<bool> aliveAfterReplacing;
    std::promise<std::string> toSecond;
    auto sentinel = std::make_shared<Sentinel>(captureDestroyed);
    client.obtainRegistry(
        [this, &captureDestroyed, &aliveAfterReplacing, &toSecond,
         sentinel](std::shared_ptr<Registry>) {
            client.obtainRegistry(
                [&toSecond](std::shared_ptr<Registry> registry) {
                    toSecond.set_value(
                        std::string(registry->payload().getBuffer(), registry->payload().size()));
                },
                kRegistryInterval);
            aliveAfterReplacing.set_value(!captureDestroyed.load());
        },
        kRegistryInterval);
    sentinel.reset();
    LoopThread loop(client, nullptr);
    ASSERT_TRUE(node.receiveCommand(kRegistryRequestCommand));

    node.sendTo(kDispenserIdentity, testsupport::registryFrames(kFirstRegistry));
    auto alive = aliveAfterReplacing.get_future();
    ASSERT_TRUE(arrives(alive));
    node.sendTo(kDispenserIdentity, testsupport::registryFrames(kSecondRegistry));

    auto second = toSecond.get_future();
    ASSERT_TRUE(arrives(second));
    EXPECT_TRUE(alive.get());
    EXPECT_EQ(second.get(), kSecondRegistry);
}

// What a call made while the loop runs threw: whether it was refused as an
// orvikm::Exception saying that the loop runs.
struct Refusal {
    bool refused = false;
    std::string what;
};

template <typename Call>
Refusal refusalOf(Call&& call) {
    const std::exception_ptr thrown = testsupport::thrownBy(std::forward<Call>(call));
    if (!thrown) {
        return {};
    }
    return Refusal{testsupport::isA<orvikm::Exception>(thrown), testsupport::whatOf(thrown)};
}

// A second loop, or a check, while one runs would use the sockets from two
// places at once or wait for a lock its own thread holds: run where a hang or
// a crash fails the test instead of the run.
template <typename Body>
void inChildProcess(Body&& body) {
    if (testsupport::inChild()) {
        std::_Exit(body() ? 0 : 1);
    }
    const testsupport::ChildResult child = testsupport::runCurrentTestInChild(kChildLimit);
    EXPECT_FALSE(child.timedOut);
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.exitCode, 0);
}

bool acknowledgedThroughRunningLoop(TestNode& node, Client& client) {
    Message message = outgoing();
    const std::string id = message.msgId();
    std::promise<void> acknowledged;
    client.send(std::move(message), [&] { acknowledged.set_value(); });
    if (!node.receiveCommand(kMessageCommand)) {
        return false;
    }
    node.sendTo(kDispenserIdentity, testsupport::ackFrames(id));
    return acknowledged.get_future().wait_for(kEventLimit) == std::future_status::ready;
}

TEST_F(ClientReentrancyTest, SecondLoopOnAnotherThreadIsRefusedAndTheFirstGoesOn) {
    inChildProcess([this] {
        LoopThread loop(client, nullptr);
        if (!node.receiveCommand("BOX")) {
            return false;
        }

        const Refusal second = refusalOf([this] { client.blockThreadForIO(nullptr, 20ms); });

        return second.refused && second.what.find(kAlreadyRunning) == 0 &&
               acknowledgedThroughRunningLoop(node, client) && loop.stop();
    });
}

TEST_F(ClientReentrancyTest, CheckOnAnotherThreadWhileTheLoopRunsIsRefused) {
    inChildProcess([this] {
        LoopThread loop(client, nullptr);
        if (!node.receiveCommand("BOX")) {
            return false;
        }

        const Refusal check = refusalOf([this] { client.check(20ms); });

        return check.refused && check.what.find(kAlreadyRunning) == 0 &&
               acknowledgedThroughRunningLoop(node, client) && loop.stop();
    });
}

TEST_F(ClientReentrancyTest, LoopEnteredFromInsideACallbackIsRefused) {
    inChildProcess([this] {
        std::promise<Refusal> nested;
        client.onMessage([&](std::unique_ptr<Message>) {
            nested.set_value(refusalOf([this] { client.blockThreadForIO(nullptr, 20ms); }));
        });
        LoopThread loop(client, nullptr);

        publish(kFirstId);

        auto future = nested.get_future();
        if (future.wait_for(kEventLimit) != std::future_status::ready) {
            return false;
        }
        const Refusal refusal = future.get();
        return refusal.refused && refusal.what.find(kAlreadyRunning) == 0 &&
               acknowledgedThroughRunningLoop(node, client) && loop.stop();
    });
}

TEST_F(ClientReentrancyTest, CheckFromInsideACallbackIsRefused) {
    inChildProcess([this] {
        std::promise<Refusal> nested;
        client.onMessage([&](std::unique_ptr<Message>) {
            // A second publication waits, so that a check that were let
            // through would read it and deliver it under the held lock.
            publish(kSecondId);
            std::this_thread::sleep_for(100ms);
            nested.set_value(refusalOf([this] { client.check(20ms); }));
        });
        LoopThread loop(client, nullptr);

        publish(kFirstId);

        auto future = nested.get_future();
        if (future.wait_for(kEventLimit) != std::future_status::ready) {
            return false;
        }
        const Refusal refusal = future.get();
        return refusal.refused && refusal.what.find(kAlreadyRunning) == 0 && loop.stop();
    });
}

TEST_F(ClientReentrancyTest, LoopCanBeEnteredAgainAfterItEnded) {
    {
        LoopThread first(client, nullptr);
        ASSERT_TRUE(node.receiveCommand("BOX"));
        ASSERT_TRUE(first.stop());
    }

    LoopThread second(client, nullptr);

    EXPECT_TRUE(acknowledgedThroughRunningLoop(node, client));
}

TEST_F(ClientReentrancyTest, CheckWorksAgainOnceTheLoopEnded) {
    {
        LoopThread loop(client, nullptr);
        ASSERT_TRUE(node.receiveCommand("BOX"));
        ASSERT_TRUE(loop.stop());
    }

    EXPECT_NO_THROW(client.check(1ms));
}

}  // namespace
