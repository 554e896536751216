#include <orvikm/client.hpp>

#include <poll.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/errors.hpp>
#include <orvikm/message.hpp>
#include <orvikm/registry.hpp>

#include "support/error_capture.hpp"
#include "support/loop_thread.hpp"
#include "support/payload_helpers.hpp"
#include "support/test_node.hpp"

// A client woken by send() and terminate() (wakeOnSend), and a client driven
// by the application's own event loop (eventHandle, processEvents), here a
// plain poll(2) loop, against a test node over loopback.
namespace {

using namespace std::chrono_literals;
using orvikm::Client;
using orvikm::Message;
using testsupport::LoopThread;
using testsupport::TestNode;
using Steady = std::chrono::steady_clock;

const std::string kAppId = "event-loop-app";
const std::string kDispenserIdentity = "event-loop-app|disp";
const std::string kTopic = "event-loop-topic";
const std::string kMessageCommand = "MSG";
const std::string kInboxCommand = "BOX";
const std::string kRegistryRequestCommand = "GREG";
const std::string kRegistryBody = "{\"applications\":[]}";

constexpr auto kEventLimit = 5s;
// Far longer than any wait a test allows for: a message that leaves within
// the test's wait did not wait for the loop's quiet timeout.
constexpr auto kLongQuietTimeout = 10s;
// What "at once" allows for, on a busy machine under a sanitizer.
constexpr auto kPromptly = 500ms;

Message messageFor(const std::string& body = "body") {
    return Message(testsupport::payloadOf(body, "text/plain"),
                   Message::Config(kAppId, {}, std::chrono::seconds(60), Message::AckMode::ByNode));
}

Client::Options wakingOptions() {
    Client::Options options;
    options.wakeOnSend = true;
    return options;
}

// Waits until the loop has written the inbox check of its first pass, and so
// sits in its reading step.
void waitForFirstPass(TestNode& node) {
    ASSERT_TRUE(node.receiveCommand(kInboxCommand));
    std::this_thread::sleep_for(50ms);
}

// Wake on send

TEST(ClientWakeOnSendTest, AMessageQueuedDuringALongQuietTimeoutIsWrittenAtOnce) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, wakingOptions());
    std::promise<void> acknowledged;
    LoopThread loop(client, nullptr, kLongQuietTimeout);
    waitForFirstPass(node);
    Message message = messageFor();
    const std::string id = message.msgId();
    const auto start = Steady::now();

    client.send(std::move(message), [&acknowledged] { acknowledged.set_value(); });

    const auto written = node.receiveCommand(kMessageCommand, kPromptly);
    ASSERT_TRUE(written);
    EXPECT_EQ(written->headers.at("id"), id);
    node.sendTo(kDispenserIdentity, testsupport::ackFrames(id));
    EXPECT_EQ(acknowledged.get_future().wait_for(kPromptly), std::future_status::ready);
    EXPECT_LT(Steady::now() - start, 2 * kPromptly);
}

TEST(ClientWakeOnSendTest, WithoutItAMessageWaitsForTheQuietTimeout) {
    constexpr auto kQuietTimeout = 1500ms;
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    LoopThread loop(client, nullptr, kQuietTimeout);
    waitForFirstPass(node);

    client.send(messageFor(), nullptr);

    EXPECT_FALSE(node.receiveCommand(kMessageCommand, 1000ms));
    EXPECT_TRUE(node.receiveCommand(kMessageCommand, kEventLimit));
}

TEST(ClientWakeOnSendTest, EveryMessageOfABurstFromSeveralThreadsIsWritten) {
    constexpr int kThreads = 4;
    constexpr int kEach = 500;
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, wakingOptions());
    LoopThread loop(client, nullptr, kLongQuietTimeout);
    waitForFirstPass(node);

    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&client] {
            for (int i = 0; i < kEach; ++i) {
                client.send(messageFor(), nullptr);
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }

    int written = 0;
    while (written < kThreads * kEach && node.receiveCommand(kMessageCommand, kPromptly)) {
        ++written;
    }
    EXPECT_EQ(written, kThreads * kEach);
}

TEST(ClientWakeOnSendTest, TerminateEndsALoopWithALongQuietTimeoutAtOnce) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, wakingOptions());
    auto loop = std::async(std::launch::async,
                           [&client] { client.blockThreadForIO(nullptr, kLongQuietTimeout); });
    waitForFirstPass(node);
    const auto start = Steady::now();

    client.terminate();

    ASSERT_EQ(loop.wait_for(kEventLimit), std::future_status::ready);
    EXPECT_LT(Steady::now() - start, kPromptly);
}

TEST(ClientWakeOnSendTest, AFlushIsWokenByAMessageFromAnotherThread) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, wakingOptions());
    std::atomic<int> acknowledged{0};
    client.send(messageFor(), [&acknowledged] { ++acknowledged; });
    auto answering = std::async(std::launch::async, [&] {
        for (int i = 0; i < 2; ++i) {
            const auto written = node.receiveCommand(kMessageCommand);
            if (!written) {
                return;
            }
            if (i == 0) {
                client.send(messageFor(), [&acknowledged] { ++acknowledged; });
            }
            node.sendTo(kDispenserIdentity, testsupport::ackFrames(written->headers.at("id")));
        }
    });

    const Client::FlushResult result = client.flush(kEventLimit);

    answering.wait();
    EXPECT_TRUE(result.complete);
    EXPECT_EQ(acknowledged.load(), 2);
}

// Your own event loop

// A plain poll(2) loop over the client's handle: processEvents whenever the
// handle is readable or the wait it returned has passed, until `done` holds or
// `limit` passes. Returns whether `done` held.
bool pollLoop(Client& client, const std::function<bool()>& done,
              std::chrono::milliseconds limit = kEventLimit,
              std::function<void(orviku::Exception&)> errorHandler = nullptr) {
    const int handle = client.eventHandle();
    const auto end = Steady::now() + limit;
    std::chrono::milliseconds wait(0);
    while (!done()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Steady::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd item{handle, POLLIN, 0};
        ::poll(&item, 1, static_cast<int>(std::min(wait, left).count()));
        wait = client.processEvents(errorHandler);
    }
    return true;
}

bool readable(int handle) {
    pollfd item{handle, POLLIN, 0};
    return ::poll(&item, 1, 0) == 1;
}

TEST(ClientEventLoopTest, TenThousandMessagesFromAWorkerThreadAreAllAcknowledged) {
    constexpr int kMessages = 10000;
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::atomic<int> acknowledged{0};
    const int handle = client.eventHandle();
    ASSERT_GE(handle, 0);
    auto answering = testsupport::acknowledgeMessages(node, kDispenserIdentity, kMessages);
    std::thread worker([&client, &acknowledged] {
        for (int i = 0; i < kMessages; ++i) {
            client.send(messageFor(), [&acknowledged] { ++acknowledged; });
        }
    });

    const bool all = pollLoop(
        client, [&acknowledged] { return acknowledged.load() == kMessages; }, 60s);

    worker.join();
    answering.wait();
    EXPECT_TRUE(all);
    EXPECT_EQ(acknowledged.load(), kMessages);
    EXPECT_EQ(client.stats().written, static_cast<std::uint64_t>(kMessages));
}

TEST(ClientEventLoopTest, PublishedMessagesReachTheMessageCallback) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {kTopic});
    ASSERT_TRUE(node.waitForSubscription(kTopic));
    std::vector<std::string> ids;
    client.onMessage([&ids](std::unique_ptr<Message> message) { ids.push_back(message->msgId()); });
    const std::vector<std::string> published{"0a0b0c0d-0000-4000-8000-000000000001",
                                             "0a0b0c0d-0000-4000-8000-000000000002"};

    for (const std::string& id : published) {
        std::vector<std::string> frames = testsupport::messageFrames(id, "news");
        frames.insert(frames.begin(), kTopic);
        node.publish(frames);
    }

    EXPECT_TRUE(pollLoop(client, [&ids] { return ids.size() == 2; }));
    EXPECT_EQ(ids, published);
}

TEST(ClientEventLoopTest, TheRegistryIsRequestedAndDelivered) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::vector<std::string> registries;
    client.obtainRegistry(
        [&registries](std::shared_ptr<orvikm::Registry> registry) {
            registries.emplace_back(registry->payload().getBuffer(), registry->payload().size());
        },
        std::chrono::seconds(60));
    auto answering = std::async(std::launch::async, [&node] {
        if (node.receiveCommand(kRegistryRequestCommand)) {
            node.sendTo(kDispenserIdentity, testsupport::registryFrames(kRegistryBody));
        }
    });

    EXPECT_TRUE(pollLoop(client, [&registries] { return !registries.empty(); }));
    answering.wait();
    EXPECT_EQ(registries, std::vector<std::string>{kRegistryBody});
}

TEST(ClientEventLoopTest, AnErrorGoesToTheHandlerAndTheClientStaysUsable) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::vector<std::string> errors;
    const auto keep = [&errors](orviku::Exception& error) { errors.push_back(error.describe()); };
    ASSERT_TRUE(pollLoop(
        client, [&node] { return node.receiveCommand(kInboxCommand, 10ms).has_value(); },
        kEventLimit, keep));

    node.sendTo(kDispenserIdentity, {"not a request"});
    ASSERT_TRUE(pollLoop(
        client, [&errors] { return !errors.empty(); }, kEventLimit, keep));
    std::atomic<int> acknowledged{0};
    Message message = messageFor();
    const std::string id = message.msgId();
    client.send(std::move(message), [&acknowledged] { ++acknowledged; });
    auto answering = std::async(std::launch::async, [&node, &id] {
        if (node.receiveCommand(kMessageCommand)) {
            node.sendTo(kDispenserIdentity, testsupport::ackFrames(id));
        }
    });

    EXPECT_TRUE(pollLoop(
        client, [&acknowledged] { return acknowledged.load() == 1; }, kEventLimit, keep));
    answering.wait();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find("While trying to read request on Client dispenser"), std::string::npos)
        << errors[0];
}

TEST(ClientEventLoopTest, AStandardExceptionOfACallbackIsRethrownAfterTheHandler) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Message message = messageFor();
    const std::string id = message.msgId();
    client.send(std::move(message), [] { throw std::runtime_error("callback failed"); });
    ASSERT_TRUE(pollLoop(
        client, [&node] { return node.receiveCommand(kMessageCommand, 10ms).has_value(); }));
    node.sendTo(kDispenserIdentity, testsupport::ackFrames(id));
    std::vector<std::string> errors;

    const std::exception_ptr thrown = testsupport::thrownBy([&] {
        pollLoop(
            client, [] { return false; }, 2s,
            [&errors](orviku::Exception& error) { errors.push_back(error.what()); });
    });

    ASSERT_TRUE(thrown);
    EXPECT_EQ(testsupport::whatOf(thrown), "callback failed");
    EXPECT_EQ(errors, std::vector<std::string>{
                          "An unknown error occured. We do not know how to handle it"});
}

TEST(ClientEventLoopTest, TheHandleIsQuietOnceThePassHasDoneItsWork) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    const int handle = client.eventHandle();
    ASSERT_TRUE(readable(handle));
    ASSERT_TRUE(
        pollLoop(client, [&node] { return node.receiveCommand(kInboxCommand, 10ms).has_value(); }));
    std::this_thread::sleep_for(100ms);
    client.processEvents(nullptr);

    EXPECT_FALSE(readable(handle));
    client.send(messageFor(), nullptr);
    EXPECT_TRUE(readable(handle));
}

TEST(ClientEventLoopTest, TheHandleStaysReadableWhileAWriteBatchBoundLeavesMessagesQueued) {
    TestNode node;
    Client::Options options;
    options.maxWriteBatch = 2;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, options);
    const int handle = client.eventHandle();
    for (int i = 0; i < 5; ++i) {
        client.send(messageFor(), nullptr);
    }

    std::vector<std::size_t> queuedAfterEachPass;
    while (readable(handle) && queuedAfterEachPass.size() < 10) {
        client.processEvents(nullptr);
        queuedAfterEachPass.push_back(client.stats().queued);
    }

    EXPECT_EQ(queuedAfterEachPass, (std::vector<std::size_t>{3, 1, 0}));
}

TEST(ClientEventLoopTest, TheWaitReturnedIsTheTimeUntilTheNextRegistryRequest) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    client.obtainRegistry([](std::shared_ptr<orvikm::Registry>) {}, std::chrono::seconds(2));
    ASSERT_TRUE(node.waitForDispenserPeer());

    const std::chrono::milliseconds first = client.processEvents(nullptr);
    const std::chrono::milliseconds second = client.processEvents(nullptr);

    ASSERT_TRUE(node.receiveCommand(kRegistryRequestCommand));
    EXPECT_GT(first.count(), 1500);
    EXPECT_LE(first.count(), 2001);
    EXPECT_LE(second, first);
}

TEST(ClientEventLoopTest, WithoutPeriodicWorkDueTheWaitIsUntilTheNextInboxCheck) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    ASSERT_TRUE(node.waitForDispenserPeer());

    const std::chrono::milliseconds wait = client.processEvents(nullptr);

    ASSERT_TRUE(node.receiveCommand(kInboxCommand));
    EXPECT_GT(wait.count(), 19000);
    EXPECT_LE(wait.count(), 20001);
}

TEST(ClientEventLoopTest, ProcessEventsWhileTheLoopRunsIsRefused) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    LoopThread loop(client, nullptr);
    ASSERT_TRUE(node.receiveCommand(kInboxCommand));

    const std::exception_ptr thrown = testsupport::thrownBy([&] { client.processEvents(nullptr); });

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(testsupport::isA<orvikm::Exception>(thrown));
    EXPECT_EQ(testsupport::whatOf(thrown).find("The I/O loop is already running"), 0u);
}

TEST(ClientEventLoopTest, TheLoopIsRefusedFromInsideACallbackOfProcessEvents) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Message message = messageFor();
    const std::string id = message.msgId();
    std::exception_ptr refused;
    bool called = false;
    client.send(std::move(message), [&] {
        called = true;
        refused = testsupport::thrownBy([&] { client.blockThreadForIO(nullptr, 10ms); });
    });
    ASSERT_TRUE(pollLoop(
        client, [&node] { return node.receiveCommand(kMessageCommand, 10ms).has_value(); }));

    node.sendTo(kDispenserIdentity, testsupport::ackFrames(id));
    ASSERT_TRUE(pollLoop(client, [&called] { return called; }));

    ASSERT_TRUE(refused);
    EXPECT_EQ(testsupport::whatOf(refused).find("The I/O loop is already running"), 0u);
}

TEST(ClientEventLoopTest, TheHandleIsTheSameDescriptorAtEveryCall) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});

    const int first = client.eventHandle();

    EXPECT_EQ(client.eventHandle(), first);
}

}  // namespace
