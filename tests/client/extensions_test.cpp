#include <orvikm/client.hpp>

#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/errors.hpp>
#include <orvikm/message.hpp>
#include <orvikm/payload.hpp>
#include <wxblt/exception.hpp>

#include "support/error_capture.hpp"
#include "support/loop_thread.hpp"
#include "support/payload_helpers.hpp"
#include "support/raw_peer.hpp"
#include "support/reserved_port.hpp"
#include "support/test_node.hpp"

// The calls beyond the original surface, against a test node that answers
// only when told to: flush, the counters, the delivery-failure report and the
// options.
namespace {

using namespace std::chrono_literals;
using orvikm::Client;
using orvikm::Message;
using testsupport::LoopThread;
using testsupport::TestNode;
using Steady = std::chrono::steady_clock;

const std::string kAppId = "extensions-app";
const std::string kDispenserIdentity = "extensions-app|disp";
const std::string kTopic = "extensions-topic";
const std::string kMessageCommand = "MSG";
const std::string kInboxCommand = "BOX";
const std::string kNotAvailable = "Orvik Node is not available";

constexpr auto kEventLimit = 5s;
constexpr auto kQuietTime = 300ms;
constexpr auto kShortValidity = 1s;
constexpr auto kLongValidity = 60s;

Message messageValidFor(std::chrono::seconds validFor) {
    return Message(testsupport::payloadOf("body", "text/plain"),
                   Message::Config(kAppId, {}, validFor, Message::AckMode::ByNode));
}

// Sends a message with an acknowledgement callback that counts; returns its
// id.
std::string sendCounted(Client& client, std::atomic<int>& acknowledged,
                        std::chrono::seconds validFor = kLongValidity) {
    Message message = messageValidFor(validFor);
    const std::string id = message.msgId();
    client.send(std::move(message), [&acknowledged] { ++acknowledged; });
    return id;
}

// Sends `count` such messages; returns their ids in the order sent.
std::vector<std::string> sendManyCounted(Client& client, std::atomic<int>& acknowledged, int count,
                                         std::chrono::seconds validFor) {
    std::vector<std::string> ids;
    for (int i = 0; i < count; ++i) {
        ids.push_back(sendCounted(client, acknowledged, validFor));
    }
    return ids;
}

std::vector<std::string> sorted(std::vector<std::string> ids) {
    std::sort(ids.begin(), ids.end());
    return ids;
}

std::vector<std::string> published(const std::string& id) {
    std::vector<std::string> frames = testsupport::messageFrames(id, "published");
    frames.insert(frames.begin(), kTopic);
    return frames;
}

// The node acknowledges the first `count` messages it reads, on a thread of
// its own.
std::future<int> acknowledgeEach(TestNode& node, int count) {
    return testsupport::acknowledgeMessages(node, kDispenserIdentity, count);
}

// A flush of one message by a client whose node is not there: how long it
// took, what it left, and the error numbers its handler received.
struct AbsentNodeFlush {
    std::chrono::steady_clock::duration took;
    Client::FlushResult result;
    std::vector<int> errorNumbers;
};

AbsentNodeFlush flushWithTheNodeAbsent(std::chrono::milliseconds sendTimeout,
                                       std::chrono::milliseconds deadline) {
    testsupport::ReservedPort listener;
    testsupport::ReservedPort dispenser;
    Client::Options options;
    options.sendTimeout = sendTimeout;
    Client client(kAppId, listener.port(), dispenser.port(), {}, options);
    std::atomic<int> acknowledged{0};
    sendCounted(client, acknowledged);
    AbsentNodeFlush flushed{};
    const auto start = Steady::now();
    flushed.result = client.flush(deadline, [&flushed](orviku::Exception& error) {
        auto* socketError = dynamic_cast<wxblt::Exception*>(&error);
        flushed.errorNumbers.push_back(socketError ? socketError->errorNumber() : 0);
    });
    flushed.took = Steady::now() - start;
    return flushed;
}

// Report callbacks run on the I/O thread; the test reads what they recorded.
class Reports {
public:
    std::function<void(const std::string&)> callback() {
        return [this](const std::string& id) {
            std::lock_guard<std::mutex> guard(_mutex);
            _ids.push_back(id);
        };
    }
    std::vector<std::string> ids() const {
        std::lock_guard<std::mutex> guard(_mutex);
        return _ids;
    }
    bool waitForCount(std::size_t count, std::chrono::milliseconds limit) const {
        const auto end = Steady::now() + limit;
        while (Steady::now() < end) {
            if (ids().size() >= count) {
                return true;
            }
            std::this_thread::sleep_for(10ms);
        }
        return ids().size() >= count;
    }

private:
    mutable std::mutex _mutex;
    std::vector<std::string> _ids;
};

// Flush

TEST(ClientFlushTest, FlushWithNothingToDoIsCompleteAtOnce) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    ASSERT_TRUE(node.waitForDispenserPeer());

    const Client::FlushResult result = client.flush(kEventLimit);

    EXPECT_TRUE(result.complete);
    EXPECT_EQ(result.queued, 0u);
    EXPECT_EQ(result.awaitingAck, 0u);
}

TEST(ClientFlushTest, FlushReturnsCompleteOnceEveryMessageIsAcknowledged) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::atomic<int> acknowledged{0};
    const std::string first = sendCounted(client, acknowledged);
    const std::string second = sendCounted(client, acknowledged);
    // The node acknowledges both once it has read them.
    auto answering = std::async(std::launch::async, [&] {
        for (int i = 0; i < 2; ++i) {
            const auto written = node.receiveCommand(kMessageCommand);
            if (written) {
                node.sendTo(kDispenserIdentity, testsupport::ackFrames(written->headers.at("id")));
            }
        }
    });

    const Client::FlushResult result = client.flush(kEventLimit);

    answering.wait();
    EXPECT_TRUE(result.complete);
    EXPECT_EQ(result.queued, 0u);
    EXPECT_EQ(result.awaitingAck, 0u);
    EXPECT_EQ(acknowledged.load(), 2);
}

TEST(ClientFlushTest, FlushEndsIncompleteAtItsDeadlineWhenAcknowledgementsAreMissing) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::atomic<int> acknowledged{0};
    sendCounted(client, acknowledged);
    ASSERT_TRUE(node.waitForDispenserPeer());
    const auto start = Steady::now();

    const Client::FlushResult result = client.flush(300ms);

    const auto took = Steady::now() - start;
    EXPECT_FALSE(result.complete);
    EXPECT_EQ(result.queued, 0u);
    EXPECT_EQ(result.awaitingAck, 1u);
    EXPECT_GE(took, 300ms);
    EXPECT_LT(took, 3s);
    EXPECT_TRUE(node.receiveCommand(kMessageCommand));
}

TEST(ClientFlushTest, FlushWithTheNodeAbsentHandsTheErrorOverAndEndsIncomplete) {
    testsupport::ReservedPort listener;
    testsupport::ReservedPort dispenser;
    Client client(kAppId, listener.port(), dispenser.port(), {});
    std::atomic<int> acknowledged{0};
    const std::string id = sendCounted(client, acknowledged);
    std::vector<std::string> errors;

    const Client::FlushResult result = client.flush(
        kEventLimit, [&errors](orviku::Exception& error) { errors.push_back(error.describe()); });

    EXPECT_FALSE(result.complete);
    EXPECT_EQ(result.queued, 1u);
    EXPECT_EQ(result.awaitingAck, 1u);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find(kNotAvailable), std::string::npos) << errors[0];
    EXPECT_NE(errors[0].find(id), std::string::npos) << errors[0];
    EXPECT_EQ(client.stats().errors, 1u);
}

// A deadline too large for the clock means "until complete", not "already
// passed".
TEST(ClientFlushTest, FlushWithTheLargestDeadlineWaitsUntilComplete) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::atomic<int> acknowledged{0};
    sendCounted(client, acknowledged);
    auto answering = acknowledgeEach(node, 1);

    const Client::FlushResult result = client.flush(std::chrono::milliseconds::max());

    answering.wait();
    EXPECT_TRUE(result.complete);
    EXPECT_EQ(result.awaitingAck, 0u);
    EXPECT_EQ(acknowledged.load(), 1);
}

// A message whose acknowledgement never came is not delivered, though the
// report took its callback away.
TEST(ClientFlushTest, MessageReportedUnacknowledgedDuringAFlushLeavesItIncomplete) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Reports reports;
    client.onUnacknowledged(reports.callback());
    std::atomic<int> acknowledged{0};
    const std::string id = sendCounted(client, acknowledged, kShortValidity);

    const Client::FlushResult result = client.flush(kEventLimit);

    EXPECT_FALSE(result.complete);
    EXPECT_EQ(result.queued, 0u);
    EXPECT_EQ(result.awaitingAck, 0u);
    EXPECT_EQ(result.unacknowledged, 1u);
    EXPECT_EQ(reports.ids(), std::vector<std::string>{id});
    EXPECT_TRUE(node.receiveCommand(kMessageCommand));
}

TEST(ClientFlushTest, FlushCountsOnlyTheReportsMadeDuringIt) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Reports reports;
    client.onUnacknowledged(reports.callback());
    std::atomic<int> acknowledged{0};
    sendCounted(client, acknowledged, kShortValidity);
    ASSERT_FALSE(client.flush(kEventLimit).complete);
    sendCounted(client, acknowledged);
    auto answering = acknowledgeEach(node, 2);

    const Client::FlushResult result = client.flush(kEventLimit);

    answering.wait();
    EXPECT_TRUE(result.complete);
    EXPECT_EQ(result.unacknowledged, 0u);
    EXPECT_EQ(client.stats().unacknowledged, 1u);
}

// A write waits for an absent node at most until the flush's deadline, not
// for the whole send timeout.
TEST(ClientFlushTest, FlushWithTheNodeAbsentReturnsWithinItsDeadline) {
    const AbsentNodeFlush flushed = flushWithTheNodeAbsent(5s, 100ms);

    EXPECT_LT(flushed.took, 400ms);
    EXPECT_FALSE(flushed.result.complete);
    EXPECT_EQ(flushed.result.queued, 1u);
    EXPECT_EQ(flushed.errorNumbers, std::vector<int>{11});
}

// The send timeout a flush shortens for its last writes is the client's own
// again afterwards: a later flush with time enough waits it out in full.
TEST(ClientFlushTest, AShortFlushLeavesTheSendTimeoutAsItWas) {
    testsupport::ReservedPort listener;
    testsupport::ReservedPort dispenser;
    Client::Options options;
    options.sendTimeout = 600ms;
    Client client(kAppId, listener.port(), dispenser.port(), {}, options);
    std::atomic<int> acknowledged{0};
    sendCounted(client, acknowledged);
    client.flush(50ms, [](orviku::Exception&) {});
    const auto start = Steady::now();

    client.flush(kEventLimit, [](orviku::Exception&) {});

    const auto took = Steady::now() - start;
    EXPECT_GE(took, 550ms);
    EXPECT_LT(took, 3s);
}

TEST(ClientFlushTest, FlushWhileTheLoopRunsIsRefused) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    LoopThread loop(client, nullptr);
    ASSERT_TRUE(node.receiveCommand(kInboxCommand));

    const std::exception_ptr thrown = testsupport::thrownBy([&] { client.flush(100ms); });

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(testsupport::isA<orvikm::Exception>(thrown));
    EXPECT_EQ(testsupport::whatOf(thrown).find("The I/O loop is already running"), 0u);
}

TEST(ClientFlushTest, TerminateEndsAFlush) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::atomic<int> acknowledged{0};
    sendCounted(client, acknowledged);
    auto flushed = std::async(std::launch::async, [&] { return client.flush(60s); });
    ASSERT_TRUE(node.receiveCommand(kMessageCommand));

    client.terminate();

    ASSERT_EQ(flushed.wait_for(kEventLimit), std::future_status::ready);
    EXPECT_FALSE(flushed.get().complete);
}

// Counters

TEST(ClientStatsTest, NewClientCountsNothing) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});

    const Client::Stats stats = client.stats();

    EXPECT_EQ(stats.queued, 0u);
    EXPECT_EQ(stats.awaitingAck, 0u);
    EXPECT_EQ(stats.written, 0u);
    EXPECT_EQ(stats.acknowledged, 0u);
    EXPECT_EQ(stats.received, 0u);
    EXPECT_EQ(stats.errors, 0u);
    EXPECT_EQ(stats.unacknowledged, 0u);
}

TEST(ClientStatsTest, QueuedMessagesAndTheirCallbacksAreCountedBeforeTheLoopRuns) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::atomic<int> acknowledged{0};

    sendCounted(client, acknowledged);
    sendCounted(client, acknowledged);
    client.send(messageValidFor(kLongValidity), nullptr);

    const Client::Stats stats = client.stats();
    EXPECT_EQ(stats.queued, 3u);
    EXPECT_EQ(stats.awaitingAck, 2u);
    EXPECT_EQ(stats.written, 0u);
}

TEST(ClientStatsTest, RunOfSendsAndReceivesIsCountedExactly) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {kTopic});
    ASSERT_TRUE(node.waitForSubscription(kTopic));
    std::atomic<int> acknowledged{0};
    std::atomic<int> delivered{0};
    client.onMessage([&](std::unique_ptr<Message>) { ++delivered; });
    std::vector<std::string> ids;
    for (int i = 0; i < 5; ++i) {
        ids.push_back(sendCounted(client, acknowledged));
    }
    client.send(messageValidFor(kLongValidity), nullptr);
    LoopThread loop(client, nullptr);
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(node.receiveCommand(kMessageCommand));
    }

    for (int i = 0; i < 3; ++i) {
        node.sendTo(kDispenserIdentity, testsupport::ackFrames(ids[i]));
    }
    for (int i = 0; i < 4; ++i) {
        node.publish(published("4d2c0b1a-9e8f-4a7b-8c6d-5e4f3a2b1c0" + std::to_string(i)));
    }
    const auto end = Steady::now() + kEventLimit;
    while ((acknowledged.load() < 3 || delivered.load() < 4) && Steady::now() < end) {
        std::this_thread::sleep_for(10ms);
    }

    const Client::Stats stats = client.stats();
    EXPECT_EQ(stats.queued, 0u);
    EXPECT_EQ(stats.awaitingAck, 2u);
    EXPECT_EQ(stats.written, 6u);
    EXPECT_EQ(stats.acknowledged, 3u);
    EXPECT_EQ(stats.received, 4u);
    EXPECT_EQ(stats.errors, 0u);
    EXPECT_EQ(stats.unacknowledged, 0u);
}

TEST(ClientStatsTest, StatsFromInsideAnAcknowledgementCallbackDoesNotWait) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::promise<Client::Stats> inside;
    Message message = messageValidFor(kLongValidity);
    const std::string id = message.msgId();
    client.send(std::move(message), [&] { inside.set_value(client.stats()); });
    LoopThread loop(client, nullptr);
    ASSERT_TRUE(node.receiveCommand(kMessageCommand));

    node.sendTo(kDispenserIdentity, testsupport::ackFrames(id));

    auto future = inside.get_future();
    ASSERT_EQ(future.wait_for(kEventLimit), std::future_status::ready);
    EXPECT_EQ(future.get().written, 1u);
}

TEST(ClientStatsTest, AnErrorHandedToTheHandlerIsCounted) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::promise<void> reported;
    LoopThread loop(client, [&](orviku::Exception&) { reported.set_value(); });
    ASSERT_TRUE(node.receiveCommand(kInboxCommand));

    node.sendTo(kDispenserIdentity, {"not a request"});

    ASSERT_EQ(reported.get_future().wait_for(kEventLimit), std::future_status::ready);
    ASSERT_TRUE(loop.endsWithin(kEventLimit));
    EXPECT_EQ(client.stats().errors, 1u);
}

// The delivery-failure report

TEST(ClientUnacknowledgedTest, WrittenMessageNeverAcknowledgedIsReportedOnceAndForgotten) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Reports reports;
    client.onUnacknowledged(reports.callback());
    std::atomic<int> acknowledged{0};
    const std::string id = sendCounted(client, acknowledged, kShortValidity);
    LoopThread loop(client, nullptr);
    ASSERT_TRUE(node.receiveCommand(kMessageCommand));

    ASSERT_TRUE(reports.waitForCount(1, kEventLimit));
    // A late acknowledgement finds no callback any more.
    node.sendTo(kDispenserIdentity, testsupport::ackFrames(id));
    std::this_thread::sleep_for(kQuietTime);

    EXPECT_EQ(reports.ids(), std::vector<std::string>{id});
    EXPECT_EQ(acknowledged.load(), 0);
    const Client::Stats stats = client.stats();
    EXPECT_EQ(stats.unacknowledged, 1u);
    EXPECT_EQ(stats.awaitingAck, 0u);
}

// The wait for an acknowledgement starts at the write, not at send(): a
// message that was queued for most of its validity still gets all of it once
// written. More messages than the loop notes in one group.
TEST(ClientUnacknowledgedTest, WrittenMessagesGetTheirWholeValidityFromTheirWrite) {
    constexpr int kMessages = 70;
    constexpr auto kValidity = 2s;
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Reports reports;
    client.onUnacknowledged(reports.callback());
    std::atomic<int> acknowledged{0};
    const std::vector<std::string> ids =
        sendManyCounted(client, acknowledged, kMessages, kValidity);
    std::this_thread::sleep_for(1500ms);

    const auto writing = Steady::now();
    LoopThread loop(client, nullptr);
    for (int i = 0; i < kMessages; ++i) {
        ASSERT_TRUE(node.receiveCommand(kMessageCommand));
    }
    std::this_thread::sleep_until(writing + kValidity - kQuietTime);
    EXPECT_TRUE(reports.ids().empty());

    ASSERT_TRUE(reports.waitForCount(ids.size(), kEventLimit));
    EXPECT_EQ(sorted(reports.ids()), sorted(ids));
}

TEST(ClientUnacknowledgedTest, MessageAcknowledgedInTimeIsNotReported) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Reports reports;
    client.onUnacknowledged(reports.callback());
    std::atomic<int> acknowledged{0};
    const std::string id = sendCounted(client, acknowledged, kShortValidity);
    LoopThread loop(client, nullptr);
    ASSERT_TRUE(node.receiveCommand(kMessageCommand));

    node.sendTo(kDispenserIdentity, testsupport::ackFrames(id));
    std::this_thread::sleep_for(kShortValidity + 500ms);

    EXPECT_EQ(acknowledged.load(), 1);
    EXPECT_TRUE(reports.ids().empty());
}

// An acknowledgement ends the watch even when its callback throws (the
// callback stays registered, as it does without the report).
TEST(ClientUnacknowledgedTest, AcknowledgedMessageWhoseCallbackThrowsIsNotReported) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Reports reports;
    client.onUnacknowledged(reports.callback());
    Message message = messageValidFor(kShortValidity);
    const std::string id = message.msgId();
    client.send(std::move(message), [] { throw orviku::GeneralException("callback failed"); });
    std::vector<std::string> errors;
    {
        LoopThread loop(client,
                        [&errors](orviku::Exception& error) { errors.push_back(error.what()); });
        ASSERT_TRUE(node.receiveCommand(kMessageCommand));
        node.sendTo(kDispenserIdentity, testsupport::ackFrames(id));
        ASSERT_TRUE(loop.endsWithin(kEventLimit));
    }
    ASSERT_EQ(errors, std::vector<std::string>{"callback failed"});

    std::this_thread::sleep_for(kShortValidity + 200ms);
    LoopThread again(client, nullptr);
    std::this_thread::sleep_for(500ms);

    EXPECT_TRUE(reports.ids().empty());
    EXPECT_EQ(client.stats().awaitingAck, 1u);
}

TEST(ClientUnacknowledgedTest, AmongManyWatchedMessagesExactlyTheUnacknowledgedAreReported) {
    constexpr int kMessages = 2000;
    constexpr int kEveryUnacknowledged = 100;
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Reports reports;
    client.onUnacknowledged(reports.callback());
    std::atomic<int> acknowledged{0};
    const std::vector<std::string> ids =
        sendManyCounted(client, acknowledged, kMessages, kShortValidity);
    LoopThread loop(client, nullptr);
    for (int i = 0; i < kMessages; ++i) {
        ASSERT_TRUE(node.receiveCommand(kMessageCommand));
    }
    std::vector<std::string> unacknowledged;
    // Acknowledged newest first, so that entries leave the table out of the
    // order in which they came.
    for (int i = kMessages - 1; i >= 0; --i) {
        if (i % kEveryUnacknowledged == 0) {
            unacknowledged.push_back(ids[i]);
        } else {
            node.sendTo(kDispenserIdentity, testsupport::ackFrames(ids[i]));
        }
    }

    ASSERT_TRUE(reports.waitForCount(unacknowledged.size(), kEventLimit));
    std::this_thread::sleep_for(kQuietTime);

    EXPECT_EQ(sorted(reports.ids()), sorted(unacknowledged));
    EXPECT_EQ(acknowledged.load(), kMessages - static_cast<int>(unacknowledged.size()));
}

// Sending threads only hand their messages over; the loop takes them in while
// it runs. The node acknowledges every message but one in ten, each as it
// arrives, so that acknowledgements are read while more messages are sent.
TEST(ClientUnacknowledgedTest,
     MessagesSentFromSeveralThreadsWhileTheLoopRunsAreReportedWhenUnacknowledged) {
    constexpr int kThreads = 4;
    constexpr int kMessagesEach = 150;
    constexpr int kMessages = kThreads * kMessagesEach;
    constexpr int kEveryUnacknowledged = 10;
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Reports reports;
    client.onUnacknowledged(reports.callback());
    LoopThread loop(client, nullptr);
    std::atomic<int> acknowledged{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&client, &acknowledged] {
            for (int i = 0; i < kMessagesEach; ++i) {
                sendCounted(client, acknowledged, kShortValidity);
                if (i % 16 == 0) {
                    std::this_thread::sleep_for(1ms);
                }
            }
        });
    }
    std::vector<std::string> unacknowledged;
    int written = 0;
    for (; written < kMessages; ++written) {
        const auto request = node.receiveCommand(kMessageCommand);
        if (!request) {
            break;
        }
        const std::string id = request->headers.at("id");
        if (written % kEveryUnacknowledged == 0) {
            unacknowledged.push_back(id);
        } else {
            node.sendTo(kDispenserIdentity, testsupport::ackFrames(id));
        }
    }
    // Joined before any assertion can return.
    for (std::thread& sender : senders) {
        sender.join();
    }
    ASSERT_EQ(written, kMessages) << "messages written";

    ASSERT_TRUE(reports.waitForCount(unacknowledged.size(), kEventLimit));
    std::this_thread::sleep_for(kQuietTime);

    EXPECT_EQ(sorted(reports.ids()), sorted(unacknowledged));
    EXPECT_EQ(acknowledged.load(), kMessages - static_cast<int>(unacknowledged.size()));
    EXPECT_EQ(client.stats().awaitingAck, 0u);
}

// A report callback that throws ends the loop as an acknowledgement callback
// would; the messages that expired with its message are reported by the next
// loop, each once.
TEST(ClientUnacknowledgedTest, AReportCallbackThatThrowsLosesNoOtherReport) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::vector<std::string> reported;
    client.onUnacknowledged([&reported](const std::string& id) {
        reported.push_back(id);
        if (reported.size() == 1) {
            throw orvikm::Exception("the report's first callback fails");
        }
    });
    std::atomic<int> acknowledged{0};
    const std::vector<std::string> ids = sendManyCounted(client, acknowledged, 3, kShortValidity);
    std::vector<std::string> errors;
    const auto keepError = [&errors](orviku::Exception& error) { errors.push_back(error.what()); };
    {
        LoopThread loop(client, keepError);
        ASSERT_TRUE(loop.endsWithin(kEventLimit));
    }
    ASSERT_EQ(errors, std::vector<std::string>{"the report's first callback fails"});
    ASSERT_EQ(reported.size(), 1u);

    const Client::FlushResult result = client.flush(kEventLimit, keepError);

    EXPECT_EQ(sorted(reported), sorted(ids));
    EXPECT_EQ(result.unacknowledged, 2u);
    EXPECT_EQ(errors.size(), 1u);
    const Client::Stats stats = client.stats();
    EXPECT_EQ(stats.unacknowledged, 3u);
    EXPECT_EQ(stats.queued, 0u);
    EXPECT_EQ(stats.awaitingAck, 0u);
    EXPECT_EQ(stats.written, 3u);
}

TEST(ClientUnacknowledgedTest, MessageWithoutCallbackIsNotReported) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Reports reports;
    client.onUnacknowledged(reports.callback());
    client.send(messageValidFor(kShortValidity), nullptr);
    LoopThread loop(client, nullptr);
    ASSERT_TRUE(node.receiveCommand(kMessageCommand));

    std::this_thread::sleep_for(kShortValidity + 500ms);

    EXPECT_TRUE(reports.ids().empty());
}

TEST(ClientUnacknowledgedTest, QueuedMessageWhoseValidityRanOutIsTakenOutAndReported) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Reports reports;
    client.onUnacknowledged(reports.callback());
    std::atomic<int> acknowledged{0};
    const std::string expired = sendCounted(client, acknowledged, kShortValidity);
    const std::string kept = sendCounted(client, acknowledged, kLongValidity);
    std::this_thread::sleep_for(kShortValidity + 200ms);

    LoopThread loop(client, nullptr);

    const auto written = node.receiveCommand(kMessageCommand);
    ASSERT_TRUE(written);
    EXPECT_EQ(written->headers.at("id"), kept);
    EXPECT_FALSE(node.receiveCommand(kMessageCommand, kQuietTime));
    ASSERT_TRUE(reports.waitForCount(1, kEventLimit));
    EXPECT_EQ(reports.ids(), std::vector<std::string>{expired});
    EXPECT_EQ(client.stats().awaitingAck, 1u);
}

TEST(ClientUnacknowledgedTest, WithoutAReportCallbackNothingExpires) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::atomic<int> acknowledged{0};
    const std::string id = sendCounted(client, acknowledged, kShortValidity);
    std::this_thread::sleep_for(kShortValidity + 200ms);
    LoopThread loop(client, nullptr);
    ASSERT_TRUE(node.receiveCommand(kMessageCommand));
    std::this_thread::sleep_for(kShortValidity + 200ms);

    node.sendTo(kDispenserIdentity, testsupport::ackFrames(id));

    const auto end = Steady::now() + kEventLimit;
    while (acknowledged.load() == 0 && Steady::now() < end) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_EQ(acknowledged.load(), 1);
    EXPECT_EQ(client.stats().unacknowledged, 0u);
}

// Options

// Publishes on kTopic every 5 ms, far more often than a loop's quiet time,
// while the object lives.
class SteadyStream {
public:
    explicit SteadyStream(TestNode& node)
        : _publishing(std::async(std::launch::async, [this, &node] {
              int i = 0;
              while (_streaming.load()) {
                  node.publish(
                      published("1a2b3c4d-0000-4000-8000-" + std::to_string(100000000000 + i++)));
                  std::this_thread::sleep_for(5ms);
              }
          })) {}
    SteadyStream(const SteadyStream&) = delete;
    SteadyStream& operator=(const SteadyStream&) = delete;
    ~SteadyStream() { stop(); }

    void stop() {
        _streaming.store(false);
        _publishing.wait();
    }

private:
    std::atomic<bool> _streaming{true};
    std::future<void> _publishing;
};

// Where a message queued under a steady stream got to.
struct WrittenUnderStream {
    bool whileStreaming = false;  // within the wait given, the stream going on
    bool onceStopped = false;     // by the time the stream had stopped
};

// Queues a message while a client whose loop waits 500 ms for quiet is fed a
// steady stream, and looks for it at the node for `wait`, then once the
// stream has stopped.
WrittenUnderStream queueUnderSteadyStream(const Client::Options& options,
                                          std::chrono::milliseconds wait) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {kTopic}, options);
    if (!node.waitForSubscription(kTopic)) {
        return {};
    }
    client.onMessage([](std::unique_ptr<Message>) {});
    SteadyStream stream(node);
    LoopThread loop(client, nullptr, 500ms);
    if (!node.receiveCommand(kInboxCommand)) {
        return {};
    }

    client.send(messageValidFor(kLongValidity), nullptr);

    WrittenUnderStream written;
    written.whileStreaming = node.receiveCommand(kMessageCommand, wait).has_value();
    stream.stop();
    written.onceStopped =
        written.whileStreaming || node.receiveCommand(kMessageCommand, kEventLimit).has_value();
    return written;
}

TEST(ClientOptionsTest, MaxReadTimeLetsQueuedMessagesOutUnderASteadyStream) {
    Client::Options options;
    options.maxReadTime = 100ms;

    EXPECT_TRUE(queueUnderSteadyStream(options, 2s).whileStreaming);
}

// Without maxReadTime a pass reads for as long as input keeps coming: what is
// queued meanwhile waits for the stream to pause.
TEST(ClientOptionsTest, WithoutMaxReadTimeASteadyStreamHoldsQueuedMessagesBack) {
    const WrittenUnderStream written = queueUnderSteadyStream(Client::Options{}, 1500ms);

    EXPECT_FALSE(written.whileStreaming);
    EXPECT_TRUE(written.onceStopped);
}

TEST(ClientOptionsTest, SendTimeoutSetsHowLongAWriteWaitsForAnAbsentNode) {
    testsupport::ReservedPort listener;
    testsupport::ReservedPort dispenser;
    Client::Options options;
    options.sendTimeout = 50ms;
    Client client(kAppId, listener.port(), dispenser.port(), {}, options);
    client.send(messageValidFor(kLongValidity), nullptr);
    std::vector<int> errorNumbers;
    const auto start = Steady::now();

    client.flush(kEventLimit, [&](orviku::Exception& error) {
        auto* socketError = dynamic_cast<wxblt::Exception*>(&error);
        errorNumbers.push_back(socketError ? socketError->errorNumber() : 0);
    });

    const auto took = Steady::now() - start;
    EXPECT_EQ(errorNumbers, std::vector<int>{11});
    EXPECT_LT(took, 400ms);
}

// A bound too large to add to the clock is no bound: the loop reads and
// writes as without one.
TEST(ClientOptionsTest, TheLargestMaxReadTimeMeansNoBound) {
    constexpr int kMessages = 5;
    TestNode node;
    Client::Options options;
    options.maxReadTime = std::chrono::milliseconds::max();
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, options);
    std::atomic<int> acknowledged{0};
    sendManyCounted(client, acknowledged, kMessages, kLongValidity);
    auto answering = acknowledgeEach(node, kMessages);
    LoopThread loop(client, nullptr);

    answering.wait();
    const auto end = Steady::now() + kEventLimit;
    while (acknowledged.load() < kMessages && Steady::now() < end) {
        std::this_thread::sleep_for(10ms);
    }

    EXPECT_EQ(acknowledged.load(), kMessages);
}

// With a send timeout of 0 a write never waits; a flush tries a write that
// found the connection not yet set up again until its deadline.
TEST(ClientOptionsTest, WithNoSendTimeoutAFlushRightAfterConstructionCompletes) {
    TestNode node;
    Client::Options options;
    options.sendTimeout = 0ms;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, options);
    std::atomic<int> acknowledged{0};
    sendCounted(client, acknowledged);
    auto answering = acknowledgeEach(node, 1);
    std::vector<std::string> errors;

    const Client::FlushResult result = client.flush(
        kEventLimit, [&errors](orviku::Exception& error) { errors.push_back(error.describe()); });

    answering.wait();
    EXPECT_TRUE(errors.empty()) << errors.front();
    EXPECT_TRUE(result.complete);
    EXPECT_EQ(acknowledged.load(), 1);
}

TEST(ClientOptionsTest, WithNoSendTimeoutAFlushReportsAnAbsentNodeAtItsDeadline) {
    const AbsentNodeFlush flushed = flushWithTheNodeAbsent(0ms, 300ms);

    EXPECT_GE(flushed.took, 250ms);
    EXPECT_LT(flushed.took, 1s);
    EXPECT_FALSE(flushed.result.complete);
    EXPECT_EQ(flushed.result.queued, 1u);
    EXPECT_EQ(flushed.errorNumbers, std::vector<int>{11});
}

TEST(ClientOptionsTest, NegativeOptionsAreRefused) {
    TestNode node;
    Client::Options options;
    options.receiveLimit = -1;

    const std::exception_ptr thrown = testsupport::thrownBy(
        [&] { Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, options); });

    ASSERT_TRUE(thrown);
    EXPECT_TRUE(testsupport::isA<orvikm::Exception>(thrown));
}

TEST(ClientOptionsTest, MaxWriteBatchWritesABurstInBatchesWithAcknowledgementsBetween) {
    constexpr int kBurst = 10;
    TestNode node;
    Client::Options options;
    options.maxWriteBatch = 3;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {}, options);
    std::promise<std::uint64_t> writtenAtFirstAck;
    std::vector<std::string> ids;
    // Validities 10 s to 19 s, queued longest first: the queue writes them
    // shortest first.
    for (int i = kBurst - 1; i >= 0; --i) {
        Message message = messageValidFor(std::chrono::seconds(10 + i));
        ids.insert(ids.begin(), message.msgId());
        client.send(std::move(message), i == 0 ? std::function<void()>([&] {
                        writtenAtFirstAck.set_value(client.stats().written);
                    })
                                               : std::function<void()>());
    }
    LoopThread loop(client, nullptr);

    std::vector<std::string> written;
    for (int i = 0; i < kBurst; ++i) {
        const auto request = node.receiveCommand(kMessageCommand);
        ASSERT_TRUE(request);
        written.push_back(request->headers.at("id"));
        if (i == 0) {
            node.sendTo(kDispenserIdentity, testsupport::ackFrames(ids[0]));
        }
    }

    auto atFirstAck = writtenAtFirstAck.get_future();
    ASSERT_EQ(atFirstAck.wait_for(kEventLimit), std::future_status::ready);
    EXPECT_LE(atFirstAck.get(), 3u);
    EXPECT_EQ(written, ids);
    // The count goes up just after the write the node has already seen.
    const auto end = Steady::now() + kEventLimit;
    while (client.stats().written < static_cast<std::uint64_t>(kBurst) && Steady::now() < end) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(client.stats().written, static_cast<std::uint64_t>(kBurst));
}

TEST(ClientOptionsTest, WithoutMaxWriteBatchAPassWritesTheWholeQueue) {
    constexpr int kBurst = 10;
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::promise<std::uint64_t> writtenAtFirstAck;
    Message first = messageValidFor(1s);
    const std::string firstId = first.msgId();
    client.send(std::move(first), [&] { writtenAtFirstAck.set_value(client.stats().written); });
    for (int i = 1; i < kBurst; ++i) {
        client.send(messageValidFor(kLongValidity), nullptr);
    }
    LoopThread loop(client, nullptr);
    ASSERT_TRUE(node.receiveCommand(kMessageCommand));

    node.sendTo(kDispenserIdentity, testsupport::ackFrames(firstId));

    auto atFirstAck = writtenAtFirstAck.get_future();
    ASSERT_EQ(atFirstAck.wait_for(kEventLimit), std::future_status::ready);
    EXPECT_EQ(atFirstAck.get(), static_cast<std::uint64_t>(kBurst));
}

// Publications to two clients that do not read, paced by a reading raw
// subscriber so that a reader misses none: the client with a receive limit
// keeps only what its queues and the publisher's hold, the other keeps
// far more. The publisher holds up to kPublisherQueue for each subscriber;
// an unbounded client whose I/O thread falls that far behind (a busy machine,
// ThreadSanitizer) loses some too, so the two are compared, not counted.
TEST(ClientOptionsTest, ReceiveLimitBoundsWhatWaitsUnread) {
    constexpr int kPublications = 8000;
    constexpr int kPublisherQueue = 2000;
    const std::string body(5000, 'x');
    testsupport::RawPeer publisher(ZMQ_PUB);
    publisher.setIntOption(ZMQ_SNDHWM, kPublisherQueue);
    const int listenerPort = publisher.bindLoopback();
    testsupport::RawPeer pacer(ZMQ_SUB);
    pacer.setIntOption(ZMQ_RCVHWM, 0);
    pacer.setBytesOption(ZMQ_SUBSCRIBE, kTopic);
    pacer.connect(testsupport::localhostEndpoint(listenerPort));
    TestNode node;
    Client::Options limited;
    limited.receiveLimit = 10;
    Client bounded("bounded-app", listenerPort, node.dispenserPort(), {kTopic}, limited);
    Client unbounded("unbounded-app", listenerPort, node.dispenserPort(), {kTopic});
    std::atomic<int> boundedReceived{0};
    std::atomic<int> unboundedReceived{0};
    bounded.onMessage([&](std::unique_ptr<Message>) { ++boundedReceived; });
    unbounded.onMessage([&](std::unique_ptr<Message>) { ++unboundedReceived; });
    // Every subscriber is in once a probe reaches the pacer and both clients
    // have been connected for a while.
    std::this_thread::sleep_for(500ms);
    for (int i = 0; i < kPublications; ++i) {
        std::vector<std::string> frames = testsupport::messageFrames(
            "5f5f5f5f-0000-4000-8000-" + std::to_string(200000000000 + i), body);
        frames.insert(frames.begin(), kTopic);
        publisher.sendMessage(frames);
        ASSERT_TRUE(pacer.receiveMessage(kEventLimit));
    }

    LoopThread boundedLoop(bounded, nullptr);
    LoopThread unboundedLoop(unbounded, nullptr);
    // Each client has what it has once its count stops moving.
    const auto end = Steady::now() + 20s;
    int lastBounded = -1;
    int lastUnbounded = -1;
    while (Steady::now() < end &&
           (boundedReceived.load() == 0 || boundedReceived.load() != lastBounded ||
            unboundedReceived.load() != lastUnbounded)) {
        lastBounded = boundedReceived.load();
        lastUnbounded = unboundedReceived.load();
        std::this_thread::sleep_for(500ms);
    }

    EXPECT_GT(unboundedReceived.load(), 2 * boundedReceived.load());
    EXPECT_GT(boundedReceived.load(), 0);
    EXPECT_LT(boundedReceived.load(), kPublications * 3 / 4);
}

}  // namespace
