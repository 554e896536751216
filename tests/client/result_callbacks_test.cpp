#include <orvikm/client.hpp>

#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include <orvikm/control_requests.hpp>

#include "support/background_work.hpp"

namespace {

using namespace std::chrono_literals;
using orvikm::Message;
using orvikm::Payload;
using orvikm::internal_objects::Ack;
using testsupport::BackgroundWork;
using MsgResultCallbacks = orvikm::Client::MsgResultCallbacks;

const std::string kAppId = "callbacks-app";
const std::string kPayloadType = "text/plain";
const std::string kBody = "acknowledge me";
const std::string kRoute = "route-1";
const std::string kUnknownId = "00000000-0000-4000-8000-000000000000";
const std::string kCallbackFailure = "callback failed";

// Long enough for a thread to be scheduled, also under valgrind; short enough
// that a lock that is never released fails the test instead of hanging it.
constexpr std::chrono::milliseconds kThreadTimeout = 10s;
// How long a call that must stay blocked is watched.
constexpr std::chrono::milliseconds kStaysBlockedFor = 200ms;

Message makeMessage() {
    Payload payload(static_cast<unsigned>(kBody.size()), kPayloadType);
    std::memcpy(payload.getBuffer(), kBody.data(), kBody.size());
    return Message(std::move(payload),
                   Message::Config(kAppId, {kRoute}, 30s, Message::AckMode::ByReceivers));
}

void acknowledge(MsgResultCallbacks& table, const std::string& id) {
    Ack ack(id);
    table.handleAck(ack);
}

std::function<void()> counting(std::shared_ptr<int> calls) {
    return [calls] { ++*calls; };
}

class CallbackFailure : public std::runtime_error {
public:
    CallbackFailure() : std::runtime_error(kCallbackFailure) {}
};

TEST(MsgResultCallbacksTest, NewTableIsEmpty) {
    MsgResultCallbacks table;

    EXPECT_EQ(table.size(), 0u);
}

TEST(MsgResultCallbacksTest, EmptyCallbackRegistersNothing) {
    MsgResultCallbacks table;
    Message message = makeMessage();

    table.registerCallback(message, std::function<void()>());

    EXPECT_EQ(table.size(), 0u);
}

TEST(MsgResultCallbacksTest, AckAfterEmptyRegistrationCallsNothing) {
    MsgResultCallbacks table;
    Message message = makeMessage();
    table.registerCallback(message, std::function<void()>());

    EXPECT_NO_THROW(acknowledge(table, message.msgId()));

    EXPECT_EQ(table.size(), 0u);
}

TEST(MsgResultCallbacksTest, EmptyCallbackLeavesEarlierCallbackInPlace) {
    MsgResultCallbacks table;
    Message message = makeMessage();
    auto calls = std::make_shared<int>(0);
    table.registerCallback(message, counting(calls));

    table.registerCallback(message, std::function<void()>());
    acknowledge(table, message.msgId());

    EXPECT_EQ(*calls, 1);
}

TEST(MsgResultCallbacksTest, ReRegistrationReplacesWithoutCallingEarlierCallback) {
    MsgResultCallbacks table;
    Message message = makeMessage();
    auto firstCalls = std::make_shared<int>(0);
    auto secondCalls = std::make_shared<int>(0);
    table.registerCallback(message, counting(firstCalls));

    table.registerCallback(message, counting(secondCalls));

    EXPECT_EQ(table.size(), 1u);
    EXPECT_EQ(*firstCalls, 0);
    EXPECT_EQ(*secondCalls, 0);
}

TEST(MsgResultCallbacksTest, AckAfterReRegistrationCallsOnlySecondCallbackOnce) {
    MsgResultCallbacks table;
    Message message = makeMessage();
    auto firstCalls = std::make_shared<int>(0);
    auto secondCalls = std::make_shared<int>(0);
    table.registerCallback(message, counting(firstCalls));
    table.registerCallback(message, counting(secondCalls));

    acknowledge(table, message.msgId());

    EXPECT_EQ(*firstCalls, 0);
    EXPECT_EQ(*secondCalls, 1);
}

TEST(MsgResultCallbacksTest, ReplacedCallbackIsDestroyed) {
    MsgResultCallbacks table;
    Message message = makeMessage();
    auto sentinel = std::make_shared<int>(0);
    std::weak_ptr<int> watched = sentinel;
    table.registerCallback(message, counting(std::move(sentinel)));

    table.registerCallback(message, [] {});

    EXPECT_TRUE(watched.expired());
}

TEST(MsgResultCallbacksTest, AckCallsCallbackOnce) {
    MsgResultCallbacks table;
    Message message = makeMessage();
    auto calls = std::make_shared<int>(0);
    table.registerCallback(message, counting(calls));

    acknowledge(table, message.msgId());

    EXPECT_EQ(*calls, 1);
}

TEST(MsgResultCallbacksTest, AckForgetsCallback) {
    MsgResultCallbacks table;
    Message message = makeMessage();
    auto sentinel = std::make_shared<int>(0);
    std::weak_ptr<int> watched = sentinel;
    table.registerCallback(message, counting(std::move(sentinel)));

    acknowledge(table, message.msgId());

    EXPECT_EQ(table.size(), 0u);
    EXPECT_TRUE(watched.expired());
}

TEST(MsgResultCallbacksTest, SecondAckCallsNothing) {
    MsgResultCallbacks table;
    Message message = makeMessage();
    auto calls = std::make_shared<int>(0);
    table.registerCallback(message, counting(calls));
    acknowledge(table, message.msgId());

    acknowledge(table, message.msgId());

    EXPECT_EQ(*calls, 1);
}

TEST(MsgResultCallbacksTest, AckForUnknownIdIsIgnored) {
    MsgResultCallbacks table;
    Message message = makeMessage();
    auto calls = std::make_shared<int>(0);
    table.registerCallback(message, counting(calls));

    EXPECT_NO_THROW(acknowledge(table, kUnknownId));

    EXPECT_EQ(*calls, 0);
    EXPECT_EQ(table.size(), 1u);
}

TEST(MsgResultCallbacksTest, AckCallsOnlyCallbackOfItsMessage) {
    MsgResultCallbacks table;
    Message acknowledged = makeMessage();
    Message other = makeMessage();
    auto acknowledgedCalls = std::make_shared<int>(0);
    auto otherCalls = std::make_shared<int>(0);
    table.registerCallback(acknowledged, counting(acknowledgedCalls));
    table.registerCallback(other, counting(otherCalls));

    acknowledge(table, acknowledged.msgId());

    EXPECT_EQ(*acknowledgedCalls, 1);
    EXPECT_EQ(*otherCalls, 0);
    EXPECT_EQ(table.size(), 1u);
}

TEST(MsgResultCallbacksTest, CallbackExceptionPassesToCaller) {
    MsgResultCallbacks table;
    Message message = makeMessage();
    table.registerCallback(message, [] { throw CallbackFailure(); });

    try {
        acknowledge(table, message.msgId());
        FAIL() << "the callback's exception did not leave handleAck";
    } catch (const CallbackFailure& error) {
        EXPECT_EQ(std::string(error.what()), kCallbackFailure);
    }
}

TEST(MsgResultCallbacksTest, CallbackThatThrowsStaysRegistered) {
    auto table = std::make_shared<MsgResultCallbacks>();
    Message message = makeMessage();
    const std::string id = message.msgId();
    auto calls = std::make_shared<int>(0);
    table->registerCallback(message, [calls] {
        if (++*calls == 1) {
            throw CallbackFailure();
        }
    });
    EXPECT_THROW(acknowledge(*table, id), CallbackFailure);

    BackgroundWork secondAck([table, id] { acknowledge(*table, id); });

    ASSERT_TRUE(secondAck.finishedWithin(kThreadTimeout));
    EXPECT_EQ(*calls, 2);
    EXPECT_EQ(table->size(), 0u);
}

TEST(MsgResultCallbacksTest, CallbackExceptionReleasesLock) {
    auto table = std::make_shared<MsgResultCallbacks>();
    Message message = makeMessage();
    table->registerCallback(message, [] { throw CallbackFailure(); });
    EXPECT_THROW(acknowledge(*table, message.msgId()), CallbackFailure);

    BackgroundWork registration([table] {
        Message another = makeMessage();
        table->registerCallback(another, [] {});
    });

    ASSERT_TRUE(registration.finishedWithin(kThreadTimeout));
    EXPECT_EQ(table->size(), 2u);
}

TEST(MsgResultCallbacksTest, RegistrationLeavesMessageUnchanged) {
    MsgResultCallbacks table;
    Message message = makeMessage();
    const std::string id = message.msgId();
    const char* const buffer = message.payload().getBuffer();

    table.registerCallback(message, [] {});

    EXPECT_EQ(message.msgId(), id);
    EXPECT_EQ(message.appId(), kAppId);
    EXPECT_EQ(message.ackMode(), Message::AckMode::ByReceivers);
    EXPECT_EQ(message.validFor(), 30s);
    EXPECT_EQ(message.pushRoutes(), std::list<std::string>{kRoute});
    EXPECT_EQ(message.payload().getBuffer(), buffer);
    EXPECT_EQ(std::string(message.payload().getBuffer(), message.payload().size()), kBody);
    EXPECT_EQ(message.payload().type(), kPayloadType);
}

TEST(MsgResultCallbacksTest, CallbackRunsUnderTableLock) {
    auto table = std::make_shared<MsgResultCallbacks>();
    Message message = makeMessage();
    auto callbackRunning = std::make_shared<std::promise<void>>();
    std::shared_future<void> running = callbackRunning->get_future().share();
    BackgroundWork registration([table, running] {
        if (running.wait_for(kThreadTimeout) == std::future_status::ready) {
            Message another = makeMessage();
            table->registerCallback(another, [] {});
        }
    });
    bool registeredDuringCallback = true;
    table->registerCallback(message, [&] {
        callbackRunning->set_value();
        registeredDuringCallback = registration.finishedWithin(kStaysBlockedFor);
    });

    acknowledge(*table, message.msgId());

    EXPECT_FALSE(registeredDuringCallback);
    ASSERT_TRUE(registration.finishedWithin(kThreadTimeout));
    EXPECT_EQ(table->size(), 1u);
}

TEST(MsgResultCallbacksTest, MoveConstructorTakesOverCallbacks) {
    MsgResultCallbacks source;
    Message message = makeMessage();
    auto calls = std::make_shared<int>(0);
    source.registerCallback(message, counting(calls));

    MsgResultCallbacks target(std::move(source));
    acknowledge(target, message.msgId());

    EXPECT_EQ(*calls, 1);
}

TEST(MsgResultCallbacksTest, MoveConstructorLeavesSourceCallingNothing) {
    MsgResultCallbacks source;
    Message message = makeMessage();
    auto calls = std::make_shared<int>(0);
    source.registerCallback(message, counting(calls));

    MsgResultCallbacks target(std::move(source));
    acknowledge(source, message.msgId());

    EXPECT_EQ(*calls, 0);
    EXPECT_EQ(source.size(), 0u);
    EXPECT_EQ(target.size(), 1u);
}

TEST(MsgResultCallbacksTest, MovedFromTableStaysUsable) {
    MsgResultCallbacks source;
    Message first = makeMessage();
    source.registerCallback(first, [] {});
    MsgResultCallbacks target(std::move(source));
    Message second = makeMessage();
    auto calls = std::make_shared<int>(0);

    source.registerCallback(second, counting(calls));
    acknowledge(source, second.msgId());

    EXPECT_EQ(*calls, 1);
    EXPECT_EQ(source.size(), 0u);
}

TEST(MsgResultCallbacksTest, DestroyingTableDestroysCallbacksUncalled) {
    auto calls = std::make_shared<int>(0);
    auto sentinel = std::make_shared<int>(0);
    std::weak_ptr<int> watched = sentinel;
    {
        MsgResultCallbacks table;
        Message message = makeMessage();
        table.registerCallback(message, [calls, sentinel = std::move(sentinel)] { ++*calls; });
        ASSERT_FALSE(watched.expired());
    }

    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(*calls, 0);
}

}  // namespace
