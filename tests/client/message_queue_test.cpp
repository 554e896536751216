#include <orvikm/client.hpp>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/background_work.hpp"

namespace {

using namespace std::chrono_literals;
using orvikm::Message;
using orvikm::Payload;
using testsupport::BackgroundWork;
using MessageQueue = orvikm::Client::MessageQueue;

const std::string kAppId = "queue-app";
const std::string kPayloadType = "text/plain";
const std::string kBody = "queued body";
const std::string kRoute = "route-1";
const std::string kOperationFailure = "operation failed";

// Long enough for a thread to be scheduled, also under valgrind; short enough
// that a lock that is never released fails the test instead of hanging it.
constexpr std::chrono::milliseconds kThreadTimeout = 10s;
// How long a call that must stay blocked is watched.
constexpr std::chrono::milliseconds kStaysBlockedFor = 200ms;

Payload textPayload(const std::string& text) {
    Payload payload(static_cast<unsigned>(text.size()), kPayloadType);
    std::memcpy(payload.getBuffer(), text.data(), text.size());
    return payload;
}

Message messageValidFor(std::chrono::seconds validity, const std::string& body = kBody) {
    return Message(textPayload(body),
                   Message::Config(kAppId, {kRoute}, validity, Message::AckMode::ByNode));
}

// Pushes the message and returns its id, read before the push moves it away.
std::string pushMessage(MessageQueue& queue, std::chrono::seconds validity) {
    Message message = messageValidFor(validity);
    std::string id = message.msgId();
    queue.push(message);
    return id;
}

// Removes the top message and returns its validity in seconds.
std::chrono::seconds popValidity(MessageQueue& queue) {
    std::chrono::seconds seen(-1000);
    const bool removed = queue.performOperation([&seen](const Message& message) {
        seen = message.validFor();
        return true;
    });
    EXPECT_TRUE(removed);
    return seen;
}

// Removes the top message and returns its id.
std::string popId(MessageQueue& queue) {
    std::string seen;
    const bool removed = queue.performOperation([&seen](const Message& message) {
        seen = message.msgId();
        return true;
    });
    EXPECT_TRUE(removed);
    return seen;
}

// The id of the top message, which stays in the queue.
std::string topId(MessageQueue& queue) {
    std::string seen;
    queue.performOperation([&seen](const Message& message) {
        seen = message.msgId();
        return false;
    });
    return seen;
}

class OperationFailure : public std::runtime_error {
public:
    OperationFailure() : std::runtime_error(kOperationFailure) {}
};

// The id of the top message, read on another thread so that a queue whose lock
// was left taken fails the test instead of hanging it; nothing when the call
// did not return in time.
std::optional<std::string> topIdWithinTimeout(std::shared_ptr<MessageQueue> queue) {
    auto seen = std::make_shared<std::string>();
    BackgroundWork read([queue, seen] { *seen = topId(*queue); });
    if (!read.finishedWithin(kThreadTimeout)) {
        return std::nullopt;
    }
    return *seen;
}

TEST(MessageQueueTest, EmptyQueueReturnsFalseWithoutCallingOperation) {
    MessageQueue queue;
    int calls = 0;

    const bool result = queue.performOperation([&calls](const Message&) {
        ++calls;
        return true;
    });

    EXPECT_FALSE(result);
    EXPECT_EQ(calls, 0);
}

TEST(MessageQueueTest, EmptyOperationOnEmptyQueueReturnsFalse) {
    MessageQueue queue;
    std::function<bool(const Message&)> empty;

    EXPECT_FALSE(queue.performOperation(empty));
}

TEST(MessageQueueTest, ShortestValidityComesFirst) {
    MessageQueue queue;
    pushMessage(queue, 30s);
    pushMessage(queue, 5s);
    pushMessage(queue, 60s);

    const std::chrono::seconds first = popValidity(queue);
    const std::chrono::seconds second = popValidity(queue);
    const std::chrono::seconds third = popValidity(queue);

    EXPECT_EQ(first, 5s);
    EXPECT_EQ(second, 30s);
    EXPECT_EQ(third, 60s);
}

TEST(MessageQueueTest, NegativeValidityComesBeforeZero) {
    MessageQueue queue;
    pushMessage(queue, 0s);
    pushMessage(queue, -5s);

    const std::chrono::seconds first = popValidity(queue);

    EXPECT_EQ(first, -5s);
}

TEST(MessageQueueTest, ManyMessagesLeaveInValidityOrder) {
    MessageQueue queue;
    std::vector<std::chrono::seconds> validities;
    for (long i = 0; i < 64; ++i) {
        validities.emplace_back((i * 37) % 64 - 10);
    }
    for (const std::chrono::seconds validity : validities) {
        pushMessage(queue, validity);
    }

    std::vector<std::chrono::seconds> seen;
    while (queue.size() > 0) {
        seen.push_back(popValidity(queue));
    }

    std::sort(validities.begin(), validities.end());
    EXPECT_EQ(seen, validities);
}

TEST(MessageQueueTest, MessagesOfEqualValidityAllLeave) {
    MessageQueue queue;
    std::set<std::string> pushed;
    for (int i = 0; i < 5; ++i) {
        pushed.insert(pushMessage(queue, 10s));
    }

    std::set<std::string> left;
    for (int i = 0; i < 5; ++i) {
        left.insert(popId(queue));
    }

    EXPECT_EQ(left, pushed);
}

TEST(MessageQueueTest, OperationReturningTrueRemovesTopMessage) {
    MessageQueue queue;
    pushMessage(queue, 5s);
    const std::string second = pushMessage(queue, 30s);

    const bool result = queue.performOperation([](const Message&) { return true; });

    EXPECT_TRUE(result);
    EXPECT_EQ(queue.size(), 1u);
    EXPECT_EQ(topId(queue), second);
}

TEST(MessageQueueTest, OperationReturningFalseKeepsTopMessage) {
    MessageQueue queue;
    const std::string top = pushMessage(queue, 5s);
    pushMessage(queue, 30s);

    const bool result = queue.performOperation([](const Message&) { return false; });

    EXPECT_FALSE(result);
    EXPECT_EQ(queue.size(), 2u);
    EXPECT_EQ(topId(queue), top);
}

TEST(MessageQueueTest, OperationExceptionPassesToCaller) {
    MessageQueue queue;
    pushMessage(queue, 5s);

    try {
        queue.performOperation([](const Message&) -> bool { throw OperationFailure(); });
        FAIL() << "the operation's exception did not leave performOperation";
    } catch (const OperationFailure& error) {
        EXPECT_EQ(std::string(error.what()), kOperationFailure);
    }
}

TEST(MessageQueueTest, OperationExceptionKeepsTopMessage) {
    auto queue = std::make_shared<MessageQueue>();
    const std::string top = pushMessage(*queue, 5s);
    pushMessage(*queue, 30s);

    EXPECT_THROW(queue->performOperation([](const Message&) -> bool { throw OperationFailure(); }),
                 OperationFailure);

    ASSERT_EQ(topIdWithinTimeout(queue), top);
    EXPECT_EQ(queue->size(), 2u);
}

TEST(MessageQueueTest, OperationExceptionReleasesLock) {
    auto queue = std::make_shared<MessageQueue>();
    pushMessage(*queue, 5s);
    EXPECT_THROW(queue->performOperation([](const Message&) -> bool { throw OperationFailure(); }),
                 OperationFailure);

    BackgroundWork push([queue] { pushMessage(*queue, 30s); });

    ASSERT_TRUE(push.finishedWithin(kThreadTimeout));
    EXPECT_EQ(queue->size(), 2u);
}

TEST(MessageQueueTest, EmptyOperationOnNonEmptyQueueThrowsBadFunctionCall) {
    MessageQueue queue;
    pushMessage(queue, 5s);
    std::function<bool(const Message&)> empty;

    EXPECT_THROW(queue.performOperation(empty), std::bad_function_call);
}

TEST(MessageQueueTest, EmptyOperationLeavesQueueUnchanged) {
    auto queue = std::make_shared<MessageQueue>();
    const std::string top = pushMessage(*queue, 5s);
    pushMessage(*queue, 30s);
    std::function<bool(const Message&)> empty;

    EXPECT_THROW(queue->performOperation(empty), std::bad_function_call);

    ASSERT_EQ(topIdWithinTimeout(queue), top);
    EXPECT_EQ(queue->size(), 2u);
}

TEST(MessageQueueTest, PushLeavesCallersMessageMovedFrom) {
    MessageQueue queue;
    Message message = messageValidFor(5s);

    queue.push(message);

    EXPECT_EQ(message.payload().getBuffer(), nullptr);
}

TEST(MessageQueueTest, PushMovesPayloadBufferWithoutCopying) {
    MessageQueue queue;
    Message message = messageValidFor(5s);
    const char* const buffer = message.payload().getBuffer();
    queue.push(message);

    const char* seen = nullptr;
    queue.performOperation([&seen](const Message& top) {
        seen = top.payload().getBuffer();
        return false;
    });

    EXPECT_EQ(seen, buffer);
}

TEST(MessageQueueTest, MessagesKeepTheirIdsThroughQueue) {
    MessageQueue queue;
    std::vector<std::string> idsByUrgency(16);
    for (int i = 15; i >= 0; --i) {
        idsByUrgency[i] = pushMessage(queue, std::chrono::seconds(i));
    }

    std::vector<std::string> left;
    while (queue.size() > 0) {
        left.push_back(popId(queue));
    }

    EXPECT_EQ(left, idsByUrgency);
}

TEST(MessageQueueTest, MessagesKeepTheirContentThroughQueue) {
    MessageQueue queue;
    pushMessage(queue, 60s);
    Message message = messageValidFor(5s, kBody);
    queue.push(message);
    pushMessage(queue, 30s);

    std::string body;
    std::string type;
    std::list<std::string> routes;
    std::string appId;
    Message::AckMode ackMode = Message::AckMode::Unacknowledged;
    queue.performOperation([&](const Message& top) {
        body.assign(top.payload().getBuffer(), top.payload().size());
        type = top.payload().type();
        routes = top.pushRoutes();
        appId = top.appId();
        ackMode = top.ackMode();
        return true;
    });

    EXPECT_EQ(body, kBody);
    EXPECT_EQ(type, kPayloadType);
    EXPECT_EQ(routes, std::list<std::string>{kRoute});
    EXPECT_EQ(appId, kAppId);
    EXPECT_EQ(ackMode, Message::AckMode::ByNode);
}

TEST(MessageQueueTest, MessagePushedDuringOperationIsSeenByNextCall) {
    auto queue = std::make_shared<MessageQueue>();
    pushMessage(*queue, 60s);
    auto urgent = std::make_shared<Message>(messageValidFor(5s));
    const std::string urgentId = urgent->msgId();
    auto operationRunning = std::make_shared<std::promise<void>>();
    std::shared_future<void> running = operationRunning->get_future().share();
    auto pusherStarting = std::make_shared<std::promise<void>>();
    std::future<void> starting = pusherStarting->get_future();
    BackgroundWork pusher([queue, urgent, running, pusherStarting] {
        if (running.wait_for(kThreadTimeout) == std::future_status::ready) {
            pusherStarting->set_value();
            queue->push(*urgent);
        }
    });

    queue->performOperation([&](const Message&) {
        operationRunning->set_value();
        starting.wait_for(kThreadTimeout);
        return false;
    });
    ASSERT_TRUE(pusher.finishedWithin(kThreadTimeout));
    const std::string top = topId(*queue);

    EXPECT_EQ(top, urgentId);
}

TEST(MessageQueueTest, PushWaitsForRunningOperation) {
    auto queue = std::make_shared<MessageQueue>();
    pushMessage(*queue, 60s);
    auto operationRunning = std::make_shared<std::promise<void>>();
    std::shared_future<void> running = operationRunning->get_future().share();
    BackgroundWork pusher([queue, running] {
        if (running.wait_for(kThreadTimeout) == std::future_status::ready) {
            pushMessage(*queue, 5s);
        }
    });

    bool pushFinishedDuringOperation = true;
    queue->performOperation([&](const Message&) {
        operationRunning->set_value();
        pushFinishedDuringOperation = pusher.finishedWithin(kStaysBlockedFor);
        return true;
    });

    EXPECT_FALSE(pushFinishedDuringOperation);
    ASSERT_TRUE(pusher.finishedWithin(kThreadTimeout));
    EXPECT_EQ(queue->size(), 1u);
}

TEST(MessageQueueTest, PushesFromManyThreadsAllArrive) {
    auto queue = std::make_shared<MessageQueue>();
    constexpr int kThreads = 4;
    constexpr int kPerThread = 50;
    std::vector<std::unique_ptr<BackgroundWork>> pushers;
    for (int t = 0; t < kThreads; ++t) {
        pushers.push_back(std::make_unique<BackgroundWork>([queue, t] {
            for (int i = 0; i < kPerThread; ++i) {
                pushMessage(*queue, std::chrono::seconds(t * kPerThread + i));
            }
        }));
    }

    for (auto& pusher : pushers) {
        ASSERT_TRUE(pusher->finishedWithin(kThreadTimeout));
    }

    EXPECT_EQ(queue->size(), static_cast<std::size_t>(kThreads * kPerThread));
}

TEST(MessageQueueTest, MoveConstructorTakesOverMessagesInOrder) {
    MessageQueue source;
    const std::string late = pushMessage(source, 60s);
    const std::string early = pushMessage(source, 5s);

    MessageQueue target(std::move(source));

    EXPECT_EQ(target.size(), 2u);
    EXPECT_EQ(popId(target), early);
    EXPECT_EQ(popId(target), late);
}

TEST(MessageQueueTest, MoveConstructorLeavesSourceEmpty) {
    MessageQueue source;
    pushMessage(source, 5s);
    pushMessage(source, 30s);

    MessageQueue target(std::move(source));

    EXPECT_EQ(source.size(), 0u);
    EXPECT_FALSE(source.performOperation([](const Message&) { return true; }));
}

TEST(MessageQueueTest, MovedFromQueueStaysUsable) {
    MessageQueue source;
    pushMessage(source, 5s);
    MessageQueue target(std::move(source));

    pushMessage(source, 30s);
    const std::string urgent = pushMessage(source, 1s);
    pushMessage(source, 60s);

    EXPECT_EQ(source.size(), 3u);
    EXPECT_EQ(popId(source), urgent);
}

TEST(MessageQueueTest, DestroyingQueueReleasesQueuedPayloads) {
    auto released = std::make_shared<int>(0);
    {
        MessageQueue queue;
        for (int i = 0; i < 3; ++i) {
            Payload payload(new char[4](), 4, kPayloadType, [released](char* buffer) {
                ++*released;
                delete[] buffer;
            });
            Message message(std::move(payload),
                            Message::Config(kAppId, {}, std::chrono::seconds(10 * i),
                                            Message::AckMode::Unacknowledged));
            queue.push(message);
        }
        ASSERT_EQ(*released, 0);
    }

    EXPECT_EQ(*released, 3);
}

TEST(MessageQueueTest, DeterminePriorityIsTrueWhenFirstStaysValidLonger) {
    const Message longer = messageValidFor(60s);
    const Message shorter = messageValidFor(5s);

    EXPECT_TRUE(MessageQueue::determine_priority(longer, shorter));
}

TEST(MessageQueueTest, DeterminePriorityIsFalseWhenFirstExpiresSooner) {
    const Message shorter = messageValidFor(5s);
    const Message longer = messageValidFor(60s);

    EXPECT_FALSE(MessageQueue::determine_priority(shorter, longer));
}

TEST(MessageQueueTest, DeterminePriorityIsFalseForEqualValidity) {
    const Message first = messageValidFor(30s);
    const Message second = messageValidFor(30s);

    EXPECT_FALSE(MessageQueue::determine_priority(first, second));
    EXPECT_FALSE(MessageQueue::determine_priority(second, first));
}

TEST(MessageQueueTest, DeterminePriorityIgnoresEverythingButValidity) {
    const Message bigLongLived(
        textPayload(std::string(1000, 'x')),
        Message::Config(kAppId, {kRoute, kRoute}, 60s, Message::AckMode::ByReceivers));
    const Message smallShortLived(
        textPayload(""), Message::Config(kAppId, {}, 5s, Message::AckMode::Unacknowledged));

    EXPECT_TRUE(MessageQueue::determine_priority(bigLongLived, smallShortLived));
    EXPECT_FALSE(MessageQueue::determine_priority(smallShortLived, bigLongLived));
}

}  // namespace
