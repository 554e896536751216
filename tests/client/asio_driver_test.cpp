#include <orvikm/asio.hpp>

#include <fcntl.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <asio/error.hpp>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <asio/system_error.hpp>

#include <orvikm/errors.hpp>
#include <orvikm/message.hpp>
#include <orvikm/registry.hpp>

#include "support/error_capture.hpp"
#include "support/loop_thread.hpp"
#include "support/payload_helpers.hpp"
#include "support/test_node.hpp"

// A client driven from an asio::io_context by AsioDriver, against a test node
// over loopback.
namespace {

using namespace std::chrono_literals;
using orvikm::AsioDriver;
using orvikm::Client;
using orvikm::Message;
using testsupport::LoopThread;
using testsupport::TestNode;
using Steady = std::chrono::steady_clock;

const std::string kAppId = "asio-driver-app";
const std::string kDispenserIdentity = "asio-driver-app|disp";
const std::string kTopic = "asio-driver-topic";
const std::string kMessageCommand = "MSG";
const std::string kInboxCommand = "BOX";
const std::string kRegistryRequestCommand = "GREG";
const std::string kRegistryBody = "{\"applications\":[]}";
const std::string kLoopRunning = "The I/O loop is already running";
const std::string kCallbackFailure = "callback failed";
const std::string kGeneralError = "An unknown error occured. We do not know how to handle it";
const std::string kDispenserReadError = "While trying to read request on Client dispenser";

constexpr auto kEventLimit = 5s;
// What "at once" allows for, on a busy machine under a sanitizer.
constexpr auto kPromptly = 500ms;
// How long a test watches for something that must not happen.
constexpr auto kQuietSpell = 300ms;

Message messageFor(const std::string& body = "body") {
    return Message(testsupport::payloadOf(body, "text/plain"),
                   Message::Config(kAppId, {}, std::chrono::seconds(60), Message::AckMode::ByNode));
}

// Runs the context in short slices until `done` holds or `limit` passes;
// true when `done` held. What a handler throws leaves it as it leaves run().
bool runUntil(asio::io_context& context, const std::function<bool()>& done,
              std::chrono::milliseconds limit = kEventLimit) {
    const auto end = Steady::now() + limit;
    while (!done()) {
        if (Steady::now() >= end) {
            return false;
        }
        context.restart();
        context.run_for(10ms);
    }
    return true;
}

// How long run() takes to return when it is allowed kEventLimit: short only
// when nothing is pending on the context.
Steady::duration timeToRunOutOfWork(asio::io_context& context) {
    context.restart();
    const auto start = Steady::now();
    context.run_for(kEventLimit);
    return Steady::now() - start;
}

// Acknowledges the first `count` messages the client writes, on a thread of
// its own; the future holds how many it acknowledged.
std::future<int> acknowledgeMessages(TestNode& node, int count) {
    return testsupport::acknowledgeMessages(node, kDispenserIdentity, count);
}

bool readable(int handle) {
    pollfd item{handle, POLLIN, 0};
    return ::poll(&item, 1, 0) == 1;
}

bool descriptorOpen(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) != -1;
}

// Traffic

TEST(AsioDriverTest, TenThousandMessagesFromAWorkerThreadAreAllAcknowledged) {
    constexpr int kMessages = 10000;
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    asio::io_context context;
    AsioDriver driver(context, client, nullptr);
    std::atomic<int> acknowledged{0};
    auto answering = acknowledgeMessages(node, kMessages);
    std::thread worker([&client, &acknowledged] {
        for (int i = 0; i < kMessages; ++i) {
            client.send(messageFor(), [&acknowledged] { ++acknowledged; });
        }
    });

    const bool all = runUntil(
        context, [&acknowledged] { return acknowledged.load() == kMessages; }, 60s);

    worker.join();
    EXPECT_TRUE(all);
    EXPECT_EQ(answering.get(), kMessages);
    EXPECT_EQ(acknowledged.load(), kMessages);
    EXPECT_EQ(client.stats().written, static_cast<std::uint64_t>(kMessages));
}

TEST(AsioDriverTest, PublishedMessagesReachTheMessageCallback) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {kTopic});
    ASSERT_TRUE(node.waitForSubscription(kTopic));
    std::vector<std::string> ids;
    client.onMessage([&ids](std::unique_ptr<Message> message) { ids.push_back(message->msgId()); });
    asio::io_context context;
    AsioDriver driver(context, client, nullptr);
    const std::vector<std::string> published{"0a0b0c0d-0000-4000-8000-000000000001",
                                             "0a0b0c0d-0000-4000-8000-000000000002"};

    for (const std::string& id : published) {
        std::vector<std::string> frames = testsupport::messageFrames(id, "news");
        frames.insert(frames.begin(), kTopic);
        node.publish(frames);
    }

    EXPECT_TRUE(runUntil(context, [&ids] { return ids.size() == 2; }));
    EXPECT_EQ(ids, published);
}

TEST(AsioDriverTest, TheRegistryIsRequestedAndDelivered) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::vector<std::string> registries;
    client.obtainRegistry(
        [&registries](std::shared_ptr<orvikm::Registry> registry) {
            registries.emplace_back(registry->payload().getBuffer(), registry->payload().size());
        },
        std::chrono::seconds(60));
    asio::io_context context;
    AsioDriver driver(context, client, nullptr);
    auto answering = std::async(std::launch::async, [&node] {
        if (node.receiveCommand(kRegistryRequestCommand)) {
            node.sendTo(kDispenserIdentity, testsupport::registryFrames(kRegistryBody));
        }
    });

    EXPECT_TRUE(runUntil(context, [&registries] { return !registries.empty(); }));
    answering.wait();
    EXPECT_EQ(registries, std::vector<std::string>{kRegistryBody});
}

TEST(AsioDriverTest, TheFirstPassRunsAtOnceEvenWhenTheHandleIsQuiet) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    ASSERT_TRUE(node.waitForDispenserPeer());
    const int handle = client.eventHandle();
    client.processEvents(nullptr);
    ASSERT_TRUE(node.receiveCommand(kInboxCommand));
    std::this_thread::sleep_for(100ms);
    client.processEvents(nullptr);
    ASSERT_FALSE(readable(handle));
    // Due at once, yet announced by nothing on the handle.
    bool delivered = false;
    client.obtainRegistry([&delivered](std::shared_ptr<orvikm::Registry>) { delivered = true; },
                          std::chrono::seconds(60));
    auto answering = std::async(std::launch::async, [&node] {
        if (node.receiveCommand(kRegistryRequestCommand)) {
            node.sendTo(kDispenserIdentity, testsupport::registryFrames(kRegistryBody));
        }
    });
    asio::io_context context;

    AsioDriver driver(context, client, nullptr);

    EXPECT_TRUE(runUntil(
        context, [&delivered] { return delivered; }, kPromptly));
    answering.wait();
}

TEST(AsioDriverTest, EveryCallbackRunsOnTheContextsThread) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {kTopic});
    ASSERT_TRUE(node.waitForSubscription(kTopic));
    std::mutex mutex;
    std::vector<std::thread::id> callers;
    std::atomic<int> calls{0};
    const auto note = [&] {
        std::lock_guard<std::mutex> guard(mutex);
        callers.push_back(std::this_thread::get_id());
        ++calls;
    };
    client.onMessage([&note](std::unique_ptr<Message>) { note(); });
    client.obtainRegistry([&note](std::shared_ptr<orvikm::Registry>) { note(); },
                          std::chrono::seconds(60));
    asio::io_context context;
    AsioDriver driver(context, client, [&note](orviku::Exception&) { note(); });
    std::promise<std::thread::id> runner;
    std::thread contextThread([&] {
        runner.set_value(std::this_thread::get_id());
        runUntil(context, [&calls] { return calls.load() == 4; });
    });

    // A registry callback, an acknowledgement callback, a message callback and
    // the error handler.
    client.send(messageFor(), [&note] { note(); });
    bool answeredRegistry = false;
    bool answeredMessage = false;
    const auto end = Steady::now() + kEventLimit;
    while (!(answeredRegistry && answeredMessage) && Steady::now() < end) {
        const auto written = node.receive(100ms);
        if (written && written->command == kRegistryRequestCommand) {
            node.sendTo(kDispenserIdentity, testsupport::registryFrames(kRegistryBody));
            answeredRegistry = true;
        } else if (written && written->command == kMessageCommand) {
            node.sendTo(kDispenserIdentity, testsupport::ackFrames(written->headers.at("id")));
            answeredMessage = true;
        }
    }
    std::vector<std::string> frames =
        testsupport::messageFrames("0a0b0c0d-0000-4000-8000-000000000003", "news");
    frames.insert(frames.begin(), kTopic);
    node.publish(frames);
    node.sendTo(kDispenserIdentity, {"not a request"});

    contextThread.join();
    const std::thread::id contextId = runner.get_future().get();
    EXPECT_TRUE(answeredRegistry && answeredMessage);
    ASSERT_EQ(calls.load(), 4);
    EXPECT_EQ(callers, std::vector<std::thread::id>(4, contextId));
}

// Errors

TEST(AsioDriverTest, AnErrorOfTheClientGoesToTheHandlerAndTheDriverGoesOn) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::vector<std::string> errors;
    asio::io_context context;
    AsioDriver driver(context, client,
                      [&errors](orviku::Exception& error) { errors.push_back(error.describe()); });
    ASSERT_TRUE(runUntil(context,
                         [&node] { return node.receiveCommand(kInboxCommand, 10ms).has_value(); }));

    node.sendTo(kDispenserIdentity, {"not a request"});
    ASSERT_TRUE(runUntil(context, [&errors] { return !errors.empty(); }));
    std::atomic<int> acknowledged{0};
    client.send(messageFor(), [&acknowledged] { ++acknowledged; });
    auto answering = acknowledgeMessages(node, 1);

    EXPECT_TRUE(runUntil(context, [&acknowledged] { return acknowledged.load() == 1; }));
    EXPECT_EQ(answering.get(), 1);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find(kDispenserReadError), std::string::npos) << errors[0];
}

TEST(AsioDriverTest, AStandardExceptionLeavesRunAndTheDriverGoesOnWhenRunAgain) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::vector<std::string> errors;
    asio::io_context context;
    AsioDriver driver(context, client,
                      [&errors](orviku::Exception& error) { errors.push_back(error.what()); });
    Message throwing = messageFor("throwing");
    Message counted = messageFor("counted");
    const std::vector<std::string> ids{throwing.msgId(), counted.msgId()};
    std::atomic<int> acknowledged{0};
    client.send(std::move(throwing), [] { throw std::runtime_error(kCallbackFailure); });
    client.send(std::move(counted), [&acknowledged] { ++acknowledged; });
    int written = 0;
    ASSERT_TRUE(runUntil(context, [&] {
        written += node.receiveCommand(kMessageCommand, 10ms).has_value() ? 1 : 0;
        return written == 2;
    }));
    // Both together, the throwing one first: the pass that throws may leave
    // the second unread, with nothing on the handle to announce it.
    for (const std::string& id : ids) {
        node.sendTo(kDispenserIdentity, testsupport::ackFrames(id));
    }

    const std::exception_ptr thrown =
        testsupport::thrownBy([&] { runUntil(context, [] { return false; }); });

    ASSERT_TRUE(thrown);
    EXPECT_EQ(testsupport::whatOf(thrown), kCallbackFailure);
    EXPECT_EQ(errors, std::vector<std::string>{kGeneralError});
    EXPECT_TRUE(runUntil(context, [&acknowledged] { return acknowledged.load() == 1; }));
}

// Sharing the client with the other loops

TEST(AsioDriverTest, APassWhileBlockThreadForIORunsIsRefusedOutOfRunAndTheDriverGoesOnAfter) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    asio::io_context context;
    AsioDriver driver(context, client, nullptr);
    std::exception_ptr refused;
    {
        LoopThread loop(client, nullptr);
        ASSERT_TRUE(node.receiveCommand(kInboxCommand));

        refused = testsupport::thrownBy([&] { context.run_for(kEventLimit); });

        ASSERT_TRUE(loop.stop());
    }
    ASSERT_TRUE(refused);
    EXPECT_TRUE(testsupport::isA<orvikm::Exception>(refused));
    EXPECT_EQ(testsupport::whatOf(refused).find(kLoopRunning), 0u);
    std::atomic<int> acknowledged{0};
    client.send(messageFor(), [&acknowledged] { ++acknowledged; });
    auto answering = acknowledgeMessages(node, 1);
    EXPECT_TRUE(runUntil(context, [&acknowledged] { return acknowledged.load() == 1; }));
    EXPECT_EQ(answering.get(), 1);
}

TEST(AsioDriverTest, BlockThreadForIOFromInsideACallbackOfAPassIsRefused) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    asio::io_context context;
    AsioDriver driver(context, client, nullptr);
    std::exception_ptr refused;
    bool called = false;
    client.send(messageFor(), [&] {
        called = true;
        refused = testsupport::thrownBy([&] { client.blockThreadForIO(nullptr, 10ms); });
    });
    auto answering = acknowledgeMessages(node, 1);

    ASSERT_TRUE(runUntil(context, [&called] { return called; }));

    EXPECT_EQ(answering.get(), 1);
    ASSERT_TRUE(refused);
    EXPECT_EQ(testsupport::whatOf(refused).find(kLoopRunning), 0u);
}

TEST(AsioDriverTest, ASecondDriverOfTheClientOnTheSameContextIsRefused) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    asio::io_context context;
    AsioDriver first(context, client, nullptr);

    const std::exception_ptr thrown =
        testsupport::thrownBy([&] { AsioDriver second(context, client, nullptr); });

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(testsupport::isA<asio::system_error>(thrown));
    std::atomic<int> acknowledged{0};
    client.send(messageFor(), [&acknowledged] { ++acknowledged; });
    auto answering = acknowledgeMessages(node, 1);
    EXPECT_TRUE(runUntil(context, [&acknowledged] { return acknowledged.load() == 1; }));
    EXPECT_EQ(answering.get(), 1);
}

// Detaching and destroying

TEST(AsioDriverTest, DetachLeavesNothingPendingAndTheClientsHandleOpen) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    asio::io_context context;
    AsioDriver driver(context, client, nullptr);
    ASSERT_TRUE(runUntil(context,
                         [&node] { return node.receiveCommand(kInboxCommand, 10ms).has_value(); }));

    driver.detach();

    EXPECT_LT(timeToRunOutOfWork(context), kPromptly);
    client.send(messageFor(), nullptr);
    context.restart();
    context.run_for(kQuietSpell);
    EXPECT_FALSE(node.receiveCommand(kMessageCommand, kQuietSpell));
    EXPECT_EQ(client.stats().written, 0u);
    EXPECT_TRUE(descriptorOpen(client.eventHandle()));
}

TEST(AsioDriverTest, DestroyingTheDriverWithoutDetachLeavesNothingPending) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    asio::io_context context;
    auto driver = std::make_unique<AsioDriver>(context, client, nullptr);
    ASSERT_TRUE(runUntil(context,
                         [&node] { return node.receiveCommand(kInboxCommand, 10ms).has_value(); }));

    driver.reset();

    EXPECT_LT(timeToRunOutOfWork(context), kPromptly);
    client.send(messageFor(), nullptr);
    context.restart();
    context.run_for(kQuietSpell);
    EXPECT_FALSE(node.receiveCommand(kMessageCommand, kQuietSpell));
    EXPECT_TRUE(descriptorOpen(client.eventHandle()));
}

TEST(AsioDriverTest, ASecondDetachAndTheDestructionAfterItDoNothingMore) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    asio::io_context context;
    auto driver = std::make_unique<AsioDriver>(context, client, nullptr);
    ASSERT_TRUE(runUntil(context,
                         [&node] { return node.receiveCommand(kInboxCommand, 10ms).has_value(); }));

    driver->detach();
    driver->detach();
    driver.reset();

    EXPECT_LT(timeToRunOutOfWork(context), kPromptly);
    EXPECT_TRUE(descriptorOpen(client.eventHandle()));
}

TEST(AsioDriverTest, ADriverDestroyedBeforeItsFirstPassCallsNothingWhenTheContextRuns) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    bool acknowledged = false;
    client.send(messageFor(), [&acknowledged] { acknowledged = true; });
    asio::io_context context;
    auto driver = std::make_unique<AsioDriver>(context, client, nullptr);

    driver.reset();

    EXPECT_LT(timeToRunOutOfWork(context), kPromptly);
    EXPECT_TRUE(node.quietFor(kQuietSpell));
    EXPECT_EQ(client.stats().written, 0u);
    EXPECT_FALSE(acknowledged);
}

TEST(AsioDriverTest, ADriverDestroyedWithItsWaitsPendingCallsNothingWhenTheContextRuns) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    asio::io_context context;
    auto driver = std::make_unique<AsioDriver>(context, client, nullptr);
    ASSERT_TRUE(runUntil(context,
                         [&node] { return node.receiveCommand(kInboxCommand, 10ms).has_value(); }));
    // The handle turns readable: its wait would complete at the next run.
    client.send(messageFor(), nullptr);
    ASSERT_TRUE(readable(client.eventHandle()));

    driver.reset();

    EXPECT_LT(timeToRunOutOfWork(context), kPromptly);
    EXPECT_FALSE(node.receiveCommand(kMessageCommand, kQuietSpell));
    EXPECT_EQ(client.stats().written, 0u);
}

TEST(AsioDriverTest, AWaitThatCompletedBeforeTheDriverWasDestroyedCallsNothing) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    // The expiry checks of the report make the driver's timer due within 100 ms.
    client.onUnacknowledged([](const std::string&) {});
    asio::io_context context;
    auto driver = std::make_unique<AsioDriver>(context, client, nullptr);
    ASSERT_TRUE(runUntil(context,
                         [&node] { return node.receiveCommand(kInboxCommand, 10ms).has_value(); }));
    context.run_for(100ms);
    // Due before the driver's timer, so its handler runs first once both have
    // expired.
    asio::steady_timer earlier(context);
    earlier.expires_at(Steady::now() - 1s);
    earlier.async_wait([&](const asio::error_code&) {
        driver.reset();
        client.send(messageFor(), nullptr);
    });
    std::this_thread::sleep_for(kQuietSpell);

    const Steady::duration ranFor = timeToRunOutOfWork(context);

    EXPECT_LT(ranFor, kPromptly);
    EXPECT_FALSE(driver);
    EXPECT_EQ(client.stats().written, 0u);
    EXPECT_FALSE(node.receiveCommand(kMessageCommand, kQuietSpell));
}

TEST(AsioDriverTest, ACallbackMayDestroyTheDriverAndNoPassFollows) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    asio::io_context context;
    auto driver = std::make_unique<AsioDriver>(context, client, nullptr);
    bool acknowledged = false;
    client.send(messageFor(), [&] {
        acknowledged = true;
        driver.reset();
    });
    auto answering = acknowledgeMessages(node, 1);
    ASSERT_TRUE(runUntil(context, [&acknowledged] { return acknowledged; }));
    ASSERT_EQ(answering.get(), 1);

    client.send(messageFor(), nullptr);

    EXPECT_LT(timeToRunOutOfWork(context), kPromptly);
    EXPECT_FALSE(node.receiveCommand(kMessageCommand, kQuietSpell));
    EXPECT_EQ(client.stats().written, 1u);
}

TEST(AsioDriverTest, ANewDriverTakesOverTheClientOfADetachedOne) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    asio::io_context context;
    {
        AsioDriver first(context, client, nullptr);
        ASSERT_TRUE(runUntil(
            context, [&node] { return node.receiveCommand(kInboxCommand, 10ms).has_value(); }));
        first.detach();
    }
    std::atomic<int> acknowledged{0};
    client.send(messageFor(), [&acknowledged] { ++acknowledged; });
    auto answering = acknowledgeMessages(node, 1);

    AsioDriver second(context, client, nullptr);

    EXPECT_TRUE(runUntil(context, [&acknowledged] { return acknowledged.load() == 1; }));
    EXPECT_EQ(answering.get(), 1);
}

}  // namespace
