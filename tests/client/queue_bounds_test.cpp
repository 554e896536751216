#include <orvikm/client.hpp>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/errors.hpp>
#include <orvikm/message.hpp>

#include "support/error_capture.hpp"
#include "support/loop_thread.hpp"
#include "support/payload_helpers.hpp"
#include "support/reserved_port.hpp"
#include "support/test_node.hpp"

// The bounded outgoing queue: send() refuses, or waits for room, once
// Options::maxQueued or maxQueuedBytes is reached; against a test node over
// loopback.
namespace {

using namespace std::chrono_literals;
using orvikm::Client;
using orvikm::Message;
using testsupport::LoopThread;
using testsupport::TestNode;
using Steady = std::chrono::steady_clock;

const std::string kAppId = "bounded-app";
const std::string kDispenserIdentity = "bounded-app|disp";
const std::string kMessageCommand = "MSG";
const std::string kInboxCommand = "BOX";
const std::string kQueueFull = "The outgoing queue is full";
const std::string kMaxQueuedName = "Options::maxQueued ";
const std::string kMaxQueuedBytesName = "Options::maxQueuedBytes";

constexpr auto kEventLimit = 5s;

Message messageOf(std::size_t bytes, std::chrono::seconds validFor = 60s) {
    return Message(testsupport::payloadOf(std::string(bytes, 'b'), "text/plain"),
                   Message::Config(kAppId, {}, validFor, Message::AckMode::ByNode));
}

Client::Options bounds(std::size_t messages, std::size_t bytes,
                       std::chrono::milliseconds wait = 0ms) {
    Client::Options options;
    options.maxQueued = messages;
    options.maxQueuedBytes = bytes;
    options.queueFullWait = wait;
    return options;
}

// What sending a message of `bytes` threw, or nothing.
std::exception_ptr sendRefused(Client& client, std::size_t bytes,
                               std::function<void()> onAck = nullptr) {
    return testsupport::thrownBy([&] { client.send(messageOf(bytes), std::move(onAck)); });
}

void expectQueueFull(const std::exception_ptr& thrown, const std::string& bound) {
    ASSERT_TRUE(thrown);
    EXPECT_TRUE(testsupport::isA<orvikm::Exception>(thrown));
    const std::string what = testsupport::whatOf(thrown);
    EXPECT_EQ(what.find(kQueueFull), 0u) << what;
    EXPECT_NE(what.find(bound), std::string::npos) << what;
}

TEST(ClientQueueBoundTest, AMessageBeyondTheCountIsRefusedAndNothingOfItStays) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, bounds(3, 0));
    for (int i = 0; i < 3; ++i) {
        client.send(messageOf(10), [] {});
    }

    const std::exception_ptr thrown = sendRefused(client, 10, [] {});

    expectQueueFull(thrown, kMaxQueuedName);
    EXPECT_NE(testsupport::whatOf(thrown).find("3"), std::string::npos);
    const Client::Stats stats = client.stats();
    EXPECT_EQ(stats.queued, 3u);
    EXPECT_EQ(stats.awaitingAck, 3u);
    EXPECT_EQ(stats.queuedBytes, 30u);
    EXPECT_EQ(stats.refused, 1u);
}

TEST(ClientQueueBoundTest, AMessageBeyondTheBytesIsRefused) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, bounds(0, 100));
    client.send(messageOf(60), nullptr);
    client.send(messageOf(40), nullptr);

    const std::exception_ptr thrown = sendRefused(client, 1);

    expectQueueFull(thrown, kMaxQueuedBytesName);
    EXPECT_EQ(client.stats().queuedBytes, 100u);
    EXPECT_EQ(client.stats().queued, 2u);
}

TEST(ClientQueueBoundTest, AMessageLargerThanTheByteBoundIsRefusedEvenWithTheQueueEmpty) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, bounds(0, 100, 2s));
    const auto start = Steady::now();

    const std::exception_ptr thrown = sendRefused(client, 101);

    expectQueueFull(thrown, kMaxQueuedBytesName);
    EXPECT_LT(Steady::now() - start, 1s);
    EXPECT_EQ(client.stats().queued, 0u);
}

TEST(ClientQueueBoundTest, WithBothBoundsTheFirstReachedRefuses) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, bounds(5, 100));
    client.send(messageOf(90), nullptr);
    expectQueueFull(sendRefused(client, 20), kMaxQueuedBytesName);
    for (int i = 0; i < 4; ++i) {
        client.send(messageOf(1), nullptr);
    }

    const std::exception_ptr thrown = sendRefused(client, 1);

    expectQueueFull(thrown, kMaxQueuedName);
    EXPECT_EQ(client.stats().refused, 2u);
}

TEST(ClientQueueBoundTest, TheRawBufferFormIsRefusedAndReleasesItsBuffer) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, bounds(1, 0));
    client.send(messageOf(1), nullptr);

    const std::exception_ptr thrown = testsupport::thrownBy([&] {
        client.send(new char[8]{}, 8, "text/plain", {}, 60s, nullptr, Message::AckMode::ByNode);
    });

    expectQueueFull(thrown, kMaxQueuedName);
    EXPECT_EQ(client.stats().queued, 1u);
}

TEST(ClientQueueBoundTest, WrittenMessagesMakeRoomAgain) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, bounds(2, 0));
    client.send(messageOf(1), nullptr);
    client.send(messageOf(1), nullptr);
    ASSERT_TRUE(sendRefused(client, 1));

    ASSERT_TRUE(client.flush(kEventLimit).complete);

    EXPECT_FALSE(sendRefused(client, 1));
    EXPECT_FALSE(sendRefused(client, 1));
    EXPECT_EQ(client.stats().queued, 2u);
    EXPECT_EQ(client.stats().queuedBytes, 2u);
}

TEST(ClientQueueBoundTest, ASenderWaitingForRoomGoesOnOnceTheLoopHasWritten) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, bounds(1, 0, 10s));
    client.send(messageOf(1), nullptr);
    auto waiting = std::async(std::launch::async, [&client] { return sendRefused(client, 1); });
    ASSERT_EQ(waiting.wait_for(200ms), std::future_status::timeout);

    LoopThread loop(client, nullptr);

    ASSERT_EQ(waiting.wait_for(kEventLimit), std::future_status::ready);
    EXPECT_FALSE(waiting.get());
    EXPECT_TRUE(node.receiveCommand(kMessageCommand));
    EXPECT_TRUE(node.receiveCommand(kMessageCommand));
}

TEST(ClientQueueBoundTest, AWaitForRoomThatRunsOutRefuses) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, bounds(1, 0, 300ms));
    client.send(messageOf(1), nullptr);
    const auto start = Steady::now();

    const std::exception_ptr thrown = sendRefused(client, 1);

    const auto took = Steady::now() - start;
    expectQueueFull(thrown, kMaxQueuedName);
    EXPECT_GE(took, 300ms);
    EXPECT_LT(took, 3s);
}

TEST(ClientQueueBoundTest, TerminateEndsAWaitForRoom) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, bounds(1, 0, 30s));
    client.send(messageOf(1), nullptr);
    auto waiting = std::async(std::launch::async, [&client] { return sendRefused(client, 1); });
    ASSERT_EQ(waiting.wait_for(200ms), std::future_status::timeout);

    client.terminate();

    ASSERT_EQ(waiting.wait_for(kEventLimit), std::future_status::ready);
    expectQueueFull(waiting.get(), kMaxQueuedName);
}

// The I/O thread itself would wait for ever: only it writes.
TEST(ClientQueueBoundTest, OnTheIoThreadASendNeverWaitsForRoom) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, bounds(1, 0, 30s));
    Message first = messageOf(1);
    const std::string id = first.msgId();
    std::promise<std::exception_ptr> fromCallback;
    client.send(std::move(first), [&] {
        client.send(messageOf(1), nullptr);
        fromCallback.set_value(sendRefused(client, 1));
    });
    LoopThread loop(client, nullptr);
    ASSERT_TRUE(node.receiveCommand(kMessageCommand));
    const auto start = Steady::now();

    node.sendTo(kDispenserIdentity, testsupport::ackFrames(id));

    auto refused = fromCallback.get_future();
    ASSERT_EQ(refused.wait_for(kEventLimit), std::future_status::ready);
    expectQueueFull(refused.get(), kMaxQueuedName);
    EXPECT_LT(Steady::now() - start, 3s);
}

TEST(ClientQueueBoundTest, QueuedBytesAreCountedWithoutABound) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});

    client.send(messageOf(7), nullptr);
    client.send(messageOf(5), nullptr);

    EXPECT_EQ(client.stats().queuedBytes, 12u);
    EXPECT_EQ(client.stats().refused, 0u);
    ASSERT_TRUE(client.flush(kEventLimit).complete);
    EXPECT_EQ(client.stats().queuedBytes, 0u);
}

// Messages taken out of the queue by the delivery-failure report leave room.
TEST(ClientQueueBoundTest, ExpiredQueuedMessagesMakeRoom) {
    testsupport::ReservedPort listener;
    testsupport::ReservedPort dispenser;
    Client client(kAppId, listener.port(), dispenser.port(), {}, bounds(1, 0));
    client.onUnacknowledged([](const std::string&) {});
    client.send(messageOf(1, 1s), [] {});
    ASSERT_TRUE(sendRefused(client, 1));
    std::this_thread::sleep_for(1100ms);

    client.flush(200ms, [](orviku::Exception&) {});

    EXPECT_EQ(client.stats().queued, 0u);
    EXPECT_FALSE(sendRefused(client, 1));
}

TEST(ClientQueueBoundTest, ANegativeWaitIsRefused) {
    TestNode node;

    const std::exception_ptr thrown = testsupport::thrownBy([&] {
        Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, bounds(1, 0, -1ms));
    });

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(testsupport::isA<orvikm::Exception>(thrown));
}

}  // namespace
