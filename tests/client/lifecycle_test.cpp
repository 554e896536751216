#include <orvikm/client.hpp>

#include <zmq.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/errors.hpp>
#include <orvikm/message.hpp>
#include <orvikm/payload.hpp>
#include <orviku/exception.hpp>
#include <wxblt/exception.hpp>

#include "support/loop_thread.hpp"
#include "support/raw_peer.hpp"
#include "support/reserved_port.hpp"
#include "support/test_node.hpp"

namespace {

using namespace std::chrono_literals;
using orvikm::Client;
using orvikm::Message;
using orvikm::Payload;
using testsupport::Frame;
using testsupport::RawPeer;
using testsupport::TestNode;
using testsupport::WrittenRequest;
using TerminationData = orvikm::Client::TerminationData;
using Clock = std::chrono::steady_clock;

const std::string kAppId = "lifecycle-app";
const std::string kDispenserIdentity = "lifecycle-app|disp";
const std::string kTopic = "weather";
const std::vector<std::string> kTopics = {"weather", "alerts", "news/local"};
const std::string kPublishedId = "6f0c2a4e-1b3d-4c5e-8f70-91a2b3c4d5e6";
const std::string kPayloadType = "text/plain";
const std::string kBody = "lifecycle body";

const std::string kInboxCommand = "BOX";
const std::string kRegistryRequestCommand = "GREG";
const std::string kMessageCommand = "MSG";
const std::string kAppIdHeader = "app_id";
const std::string kBoxTypeHeader = "box_type";
const std::string kClientBoxType = "clnt";

const std::string kSubscriberContext = "While trying to connect subscriber to tcp:://localhost:";
const std::string kTwoWayContext = "While trying to connect two way comms to tcp:://localhost:";
const std::string kSendFramesContext = "While trying to send frames of request";
const std::string kNodeUnavailable = "OrVik Node is not available!";
const std::string kInboxContext =
    "While trying to check inbox of our application id: lifecycle-app";
const std::string kRegistryContext = "While trying to send registry request";
const std::string kNotReachableText = "Resource temporarily unavailable";

constexpr int kNotReachable = 11;  // EAGAIN
// A port outside 1..65535, refused by the client before libzmq sees it.
constexpr int kRejectedPort = -5;
// An application id far too long for its header line.
constexpr std::size_t kOverlongIdLength = 251;

// One pass of the loop lasts this long once the sockets are quiet.
constexpr std::chrono::milliseconds kPassTimeout = 20ms;
// What "at once" allows for: a few passes, also on a loaded machine.
constexpr std::chrono::milliseconds kArrivalTimeout = 2s;
// How long nothing must arrive where nothing is due.
constexpr std::chrono::milliseconds kQuietPeriod = 500ms;
// How long a loop that must go on is watched.
constexpr std::chrono::milliseconds kStillRunningFor = 200ms;
constexpr std::chrono::milliseconds kLoopEndTimeout = 5s;
// The gap between two requests seen by the node may be shorter, by this much,
// than the gap between the times at which the client sent them.
constexpr std::chrono::milliseconds kClockTolerance = 100ms;
constexpr std::chrono::seconds kInboxInterval = 20s;

// What reached the error handler, copied on the I/O thread.
struct ReportedError {
    bool socketError = false;
    int errorNumber = 0;
    std::string what;
    std::vector<std::string> context;
};

// blockThreadForIO on a thread of its own, recording what reaches the error
// handler. Going out of scope ends the loop.
class RunningLoop {
public:
    explicit RunningLoop(Client& client)
        : _errors(std::make_shared<Errors>()),
          _loop(
              client, [errors = _errors](orviku::Exception& error) { errors->record(error); },
              kPassTimeout) {}

    bool endsWithin(std::chrono::milliseconds timeout) { return _loop.endsWithin(timeout); }

    std::vector<ReportedError> errors() { return _errors->all(); }

private:
    class Errors {
    public:
        void record(orviku::Exception& error) {
            ReportedError reported;
            if (auto* socketError = dynamic_cast<wxblt::Exception*>(&error)) {
                reported.socketError = true;
                reported.errorNumber = socketError->errorNumber();
            }
            reported.what = error.what();
            reported.context = error.context();
            std::lock_guard<std::mutex> guard(_mutex);
            _errors.push_back(std::move(reported));
        }

        std::vector<ReportedError> all() {
            std::lock_guard<std::mutex> guard(_mutex);
            return _errors;
        }

    private:
        std::mutex _mutex;
        std::vector<ReportedError> _errors;
    };

    std::shared_ptr<Errors> _errors;
    testsupport::LoopThread _loop;
};

// The ids of the messages handed to a client's message callback.
class ReceivedMessages {
public:
    std::function<void(std::unique_ptr<Message>)> callback() {
        return [this](std::unique_ptr<Message> message) {
            std::lock_guard<std::mutex> guard(_mutex);
            _ids.push_back(message->msgId());
            _arrived.notify_all();
        };
    }

    bool waitForCount(std::size_t count, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> guard(_mutex);
        return _arrived.wait_for(guard, timeout, [&] { return _ids.size() >= count; });
    }

    std::vector<std::string> ids() {
        std::lock_guard<std::mutex> guard(_mutex);
        return _ids;
    }

private:
    std::mutex _mutex;
    std::condition_variable _arrived;
    std::vector<std::string> _ids;
};

// A loopback port that refuses every connection for as long as the object
// lives. (The ports of a node that was just closed are not as safe: ZeroMQ
// closes a listening socket in the background, and a freed port may be bound
// again by a test running in parallel.)
using RefusingPort = testsupport::ReservedPort;

// The parts as one multi-part message: the more flag on all but the last.
std::vector<Frame> asOneMessage(const std::vector<std::string>& parts) {
    std::vector<Frame> frames;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        frames.push_back(Frame{parts[i], i + 1 < parts.size()});
    }
    return frames;
}

Payload textPayload(const std::string& text) {
    Payload payload(static_cast<unsigned>(text.size()), kPayloadType);
    std::memcpy(payload.getBuffer(), text.data(), text.size());
    return payload;
}

// Queues a message; the loop writes it at the start of its next pass.
void queueMessage(Client& client) {
    client.send(textPayload(kBody), {}, 30s, nullptr, Message::AckMode::Unacknowledged);
}

// What a failed construction threw: the client's own refusal of an argument.
template <typename Construct>
std::optional<orvikm::Exception> constructionError(Construct construct) {
    try {
        construct();
    } catch (orvikm::Exception& error) {
        return error;
    }
    return std::nullopt;
}

// The termination flag

TEST(TerminationDataTest, NewFlagIsUnset) {
    TerminationData data;

    std::lock_guard<std::mutex> guard(data.termLock());
    EXPECT_FALSE(data.isTermed());
}

TEST(TerminationDataTest, TerminateSetsFlag) {
    TerminationData data;

    data.terminate();

    std::lock_guard<std::mutex> guard(data.termLock());
    EXPECT_TRUE(data.isTermed());
}

TEST(TerminationDataTest, CopyOfSetFlagIsUnset) {
    TerminationData source;
    source.terminate();

    TerminationData copy(source);

    std::lock_guard<std::mutex> guard(copy.termLock());
    EXPECT_FALSE(copy.isTermed());
}

TEST(TerminationDataTest, CopyLeavesSourceSet) {
    TerminationData source;
    source.terminate();

    TerminationData copy(source);

    std::lock_guard<std::mutex> guard(source.termLock());
    EXPECT_TRUE(source.isTermed());
}

TEST(TerminationDataTest, CopyHasLockOfItsOwn) {
    TerminationData source;

    TerminationData copy(source);

    std::lock_guard<std::mutex> sourceGuard(source.termLock());
    EXPECT_NE(&copy.termLock(), &source.termLock());
    ASSERT_TRUE(copy.termLock().try_lock());
    copy.termLock().unlock();
}

TEST(TerminationDataTest, CopyAssignmentLeavesSetTargetSet) {
    TerminationData target;
    target.terminate();
    TerminationData source;

    target = source;

    std::lock_guard<std::mutex> guard(target.termLock());
    EXPECT_TRUE(target.isTermed());
}

TEST(TerminationDataTest, CopyAssignmentLeavesUnsetTargetUnset) {
    TerminationData target;
    TerminationData source;
    source.terminate();

    target = source;

    std::lock_guard<std::mutex> guard(target.termLock());
    EXPECT_FALSE(target.isTermed());
}

TEST(TerminationDataTest, CopyAssignmentReturnsTarget) {
    TerminationData target;
    TerminationData source;

    TerminationData& result = (target = source);

    EXPECT_EQ(&result, &target);
}

TEST(TerminationDataTest, TerminateSetsFlagUnderTermLock) {
    auto data = std::make_shared<TerminationData>();
    std::unique_lock<std::mutex> held(data->termLock());
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> terminated = done->get_future();
    std::thread([data, done] {
        data->terminate();
        done->set_value();
    }).detach();

    const bool finishedWhileLockHeld =
        terminated.wait_for(kStillRunningFor) == std::future_status::ready;
    const bool setWhileLockHeld = data->isTermed();
    held.unlock();

    EXPECT_FALSE(finishedWhileLockHeld);
    EXPECT_FALSE(setWhileLockHeld);
    ASSERT_EQ(terminated.wait_for(kLoopEndTimeout), std::future_status::ready);
    std::lock_guard<std::mutex> guard(data->termLock());
    EXPECT_TRUE(data->isTermed());
}

TEST(TerminationDataTest, IsTermedIsReferenceToFlag) {
    TerminationData data;
    std::unique_lock<std::mutex> guard(data.termLock());
    bool& flag = data.isTermed();

    flag = true;

    EXPECT_EQ(&data.isTermed(), &flag);
    EXPECT_TRUE(data.isTermed());
}

TEST(TerminationDataTest, TerminateIsSeenThroughEarlierReference) {
    TerminationData data;
    bool& flag = data.isTermed();

    data.terminate();

    std::lock_guard<std::mutex> guard(data.termLock());
    EXPECT_TRUE(flag);
}

TEST(TerminationDataTest, TermLockIsSameMutexEachTime) {
    TerminationData data;

    std::mutex& first = data.termLock();
    std::mutex& second = data.termLock();

    EXPECT_EQ(&first, &second);
}

// Construction and identities

TEST(ClientLifecycleTest, IdIsApplicationId) {
    TestNode node;

    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});

    EXPECT_EQ(client.id(), kAppId);
}

TEST(ClientLifecycleTest, NewClientIsNotTerminated) {
    TestNode node;

    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});

    std::lock_guard<std::mutex> guard(client.termData().termLock());
    EXPECT_FALSE(client.termData().isTermed());
}

TEST(ClientLifecycleTest, TerminateSetsTerminationFlag) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});

    client.terminate();

    std::lock_guard<std::mutex> guard(client.termData().termLock());
    EXPECT_TRUE(client.termData().isTermed());
}

TEST(ClientLifecycleTest, DispenserIdentityIsIdFollowedByDisp) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    RunningLoop loop(client);

    const std::optional<WrittenRequest> written = node.receive(kArrivalTimeout);

    ASSERT_TRUE(written);
    EXPECT_EQ(written->identity, kDispenserIdentity);
}

TEST(ClientLifecycleTest, ListenerSubscribesToEveryTopic) {
    TestNode node;
    RawPeer publisher(ZMQ_XPUB);
    const int listenerPort = publisher.bindLoopback();
    Client client(kAppId, listenerPort, node.dispenserPort(), kTopics);
    // The listener hands its subscriptions to a new connection only while its
    // owner polls it.
    RunningLoop loop(client);

    std::vector<std::string> subscribed;
    const Clock::time_point deadline = Clock::now() + kArrivalTimeout;
    while (subscribed.size() < kTopics.size() && Clock::now() < deadline) {
        const auto message = publisher.receiveMessage(kPassTimeout);
        if (message && !message->empty()) {
            subscribed.push_back(message->front().bytes);
        }
    }

    // A subscriber replays its subscriptions from its own table when it
    // connects, so the node sees them in that table's order.
    std::vector<std::string> expected;
    for (const std::string& topic : kTopics) {
        expected.push_back(std::string(1, '\1') + topic);
    }
    std::sort(expected.begin(), expected.end());
    std::sort(subscribed.begin(), subscribed.end());
    EXPECT_EQ(subscribed, expected);
    EXPECT_FALSE(publisher.waitForInput(kQuietPeriod));
}

TEST(ClientLifecycleTest, ListenerReceivesMessagesPublishedUnderItsTopic) {
    TestNode node;
    ReceivedMessages received;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {kTopic});
    client.onMessage(received.callback());
    RunningLoop loop(client);
    ASSERT_TRUE(node.waitForSubscription(kTopic, kArrivalTimeout));

    std::vector<std::string> frames = {kTopic};
    const std::vector<std::string> message = testsupport::messageFrames(kPublishedId, kBody);
    frames.insert(frames.end(), message.begin(), message.end());
    node.publish(frames);

    ASSERT_TRUE(received.waitForCount(1, kArrivalTimeout));
    EXPECT_EQ(received.ids(), std::vector<std::string>{kPublishedId});
}

TEST(ClientLifecycleTest, EmptySubscriptionListReceivesNothing) {
    TestNode node;
    ReceivedMessages silentReceived;
    Client silent(kAppId, node.listenerPort(), node.dispenserPort(), {});
    silent.onMessage(silentReceived.callback());
    RunningLoop silentLoop(silent);
    ASSERT_TRUE(node.receiveCommand(kInboxCommand, kArrivalTimeout));
    ReceivedMessages subscribedReceived;
    Client subscribed(kAppId + "-subscribed", node.listenerPort(), node.dispenserPort(), {kTopic});
    subscribed.onMessage(subscribedReceived.callback());
    RunningLoop subscribedLoop(subscribed);
    ASSERT_TRUE(node.waitForSubscription(kTopic, kArrivalTimeout));

    std::vector<std::string> frames = {kTopic};
    const std::vector<std::string> message = testsupport::messageFrames(kPublishedId, kBody);
    frames.insert(frames.end(), message.begin(), message.end());
    for (std::size_t published = 1; published <= 3; ++published) {
        node.publish(frames);
        ASSERT_TRUE(subscribedReceived.waitForCount(published, kArrivalTimeout));
    }

    EXPECT_FALSE(silentReceived.waitForCount(1, kStillRunningFor));
}

TEST(ClientLifecycleTest, OverlongIdFailsWithSubscriberContext) {
    TestNode node;
    const std::string overlongId(kOverlongIdLength, 'a');

    const std::optional<orvikm::Exception> error = constructionError(
        [&] { Client client(overlongId, node.listenerPort(), node.dispenserPort(), {}); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->context(),
              std::vector<std::string>{kSubscriberContext + std::to_string(node.listenerPort())});
}

TEST(ClientLifecycleTest, ConstructionWithPortsNothingListensOnDoesNotThrow) {
    const RefusingPort listenerPort;
    const RefusingPort dispenserPort;

    EXPECT_NO_THROW(
        { Client client(kAppId, listenerPort.port(), dispenserPort.port(), {kTopic}); });
}

TEST(ClientLifecycleTest, ListenerConnectFailureCarriesSubscriberContext) {
    TestNode node;

    const std::optional<orvikm::Exception> error = constructionError(
        [&] { Client client(kAppId, kRejectedPort, node.dispenserPort(), {kTopic}); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->context(),
              std::vector<std::string>{kSubscriberContext + std::to_string(kRejectedPort)});
}

TEST(ClientLifecycleTest, DispenserConnectFailureNamesListenerPort) {
    TestNode node;

    const std::optional<orvikm::Exception> error = constructionError(
        [&] { Client client(kAppId, node.listenerPort(), kRejectedPort, {kTopic}); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->context(),
              std::vector<std::string>{kTwoWayContext + std::to_string(node.listenerPort())});
}

TEST(ClientLifecycleTest, ConstructionSendsNothing) {
    TestNode node;

    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {kTopic});

    EXPECT_TRUE(node.quietFor(kQuietPeriod));
}

// Destruction

TEST(ClientLifecycleTest, DestructionSendsNothing) {
    TestNode node;
    {
        Client client(kAppId, node.listenerPort(), node.dispenserPort(), {kTopic});
        {
            RunningLoop loop(client);
            ASSERT_TRUE(node.receiveCommand(kInboxCommand, kArrivalTimeout));
        }
        queueMessage(client);
    }

    EXPECT_TRUE(node.quietFor(kQuietPeriod));
}

TEST(ClientLifecycleTest, DestructionReleasesQueuedMessagesUnsent) {
    TestNode node;
    auto released = std::make_shared<int>(0);
    {
        Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
        Payload payload(new char[4](), 4, kPayloadType, [released](char* buffer) {
            ++*released;
            delete[] buffer;
        });
        client.send(std::move(payload), {}, 30s, nullptr, Message::AckMode::Unacknowledged);
        ASSERT_EQ(*released, 0);
    }

    EXPECT_EQ(*released, 1);
}

TEST(ClientLifecycleTest, DestructionDestroysAckCallbacksUncalled) {
    TestNode node;
    auto calls = std::make_shared<int>(0);
    auto sentinel = std::make_shared<int>(0);
    std::weak_ptr<int> watched = sentinel;
    {
        Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
        client.send(
            textPayload(kBody), {}, 30s, [calls, sentinel = std::move(sentinel)] { ++*calls; },
            Message::AckMode::ByNode);
        ASSERT_FALSE(watched.expired());
    }

    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(*calls, 0);
}

// The inbox check

TEST(ClientLifecycleTest, FirstPassSendsInboxCheckAtOnce) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    RunningLoop loop(client);

    const std::optional<WrittenRequest> written = node.receive(kArrivalTimeout);

    ASSERT_TRUE(written);
    EXPECT_EQ(written->command, kInboxCommand);
    EXPECT_EQ(written->headers, (std::map<std::string, std::string>{
                                    {kAppIdHeader, kAppId}, {kBoxTypeHeader, kClientBoxType}}));
    EXPECT_EQ(written->frames, asOneMessage(testsupport::inboxFrames(kAppId)));
}

TEST(ClientLifecycleTest, PassWithinTwentySecondsSendsNoInboxCheck) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    RunningLoop loop(client);
    ASSERT_TRUE(node.receiveCommand(kInboxCommand, kArrivalTimeout));

    queueMessage(client);
    const std::optional<WrittenRequest> nextPass = node.receive(kArrivalTimeout);

    ASSERT_TRUE(nextPass);
    EXPECT_EQ(nextPass->command, kMessageCommand);
    EXPECT_TRUE(node.quietFor(kQuietPeriod));
}

TEST(ClientLifecycleTest, PassMoreThanTwentySecondsLaterSendsInboxCheckAgain) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    RunningLoop loop(client);
    ASSERT_TRUE(node.receiveCommand(kInboxCommand, kArrivalTimeout));
    const Clock::time_point firstArrival = Clock::now();

    const std::optional<WrittenRequest> next = node.receive(kInboxInterval + kArrivalTimeout);
    const Clock::duration gap = Clock::now() - firstArrival;

    ASSERT_TRUE(next);
    EXPECT_EQ(next->command, kInboxCommand);
    EXPECT_EQ(next->headers.at(kAppIdHeader), kAppId);
    EXPECT_GT(gap, kInboxInterval - kClockTolerance);
}

TEST(ClientLifecycleTest, LoopStartedRightAfterConstructionSendsInboxCheckWithoutError) {
    TestNode node;
    for (int attempt = 0; attempt < 10; ++attempt) {
        const std::string id = kAppId + "-" + std::to_string(attempt);
        Client client(id, node.listenerPort(), node.dispenserPort(), {});
        RunningLoop loop(client);

        const std::optional<WrittenRequest> written = node.receive(kArrivalTimeout);
        client.terminate();

        ASSERT_TRUE(written) << "attempt " << attempt;
        EXPECT_EQ(written->command, kInboxCommand) << "attempt " << attempt;
        EXPECT_EQ(written->headers.at(kAppIdHeader), id) << "attempt " << attempt;
        ASSERT_TRUE(loop.endsWithin(kLoopEndTimeout)) << "attempt " << attempt;
        EXPECT_TRUE(loop.errors().empty()) << "attempt " << attempt;
    }
}

TEST(ClientLifecycleTest, InboxCheckToUnreachableNodeReportsNodeNotAvailable) {
    const RefusingPort listenerPort;
    const RefusingPort dispenserPort;
    Client client(kAppId, listenerPort.port(), dispenserPort.port(), {});
    RunningLoop loop(client);

    ASSERT_TRUE(loop.endsWithin(kLoopEndTimeout));

    const std::vector<ReportedError> errors = loop.errors();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(errors[0].socketError);
    EXPECT_EQ(errors[0].errorNumber, kNotReachable);
    EXPECT_EQ(errors[0].what, kNotReachableText);
    EXPECT_EQ(errors[0].context,
              (std::vector<std::string>{kSendFramesContext, kNodeUnavailable, kInboxContext}));
}

TEST(ClientLifecycleTest, FailedInboxCheckIsSentAgainByNextLoop) {
    const RefusingPort listenerPort;
    const RefusingPort dispenserPort;
    Client client(kAppId, listenerPort.port(), dispenserPort.port(), {});
    {
        RunningLoop first(client);
        ASSERT_TRUE(first.endsWithin(kLoopEndTimeout));
        ASSERT_EQ(first.errors().size(), 1u);
    }

    RunningLoop second(client);

    ASSERT_TRUE(second.endsWithin(kLoopEndTimeout));
    const std::vector<ReportedError> errors = second.errors();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].context,
              (std::vector<std::string>{kSendFramesContext, kNodeUnavailable, kInboxContext}));
}

// The registry request

TEST(ClientLifecycleTest, NoRegistryRequestWithoutObtainRegistry) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    RunningLoop loop(client);

    const std::optional<WrittenRequest> first = node.receive(kArrivalTimeout);

    ASSERT_TRUE(first);
    EXPECT_EQ(first->command, kInboxCommand);
    EXPECT_TRUE(node.quietFor(kQuietPeriod));
}

TEST(ClientLifecycleTest, EmptyRegistryCallbackRequestsNoRegistry) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    client.obtainRegistry(nullptr, 1s);
    RunningLoop loop(client);

    const std::optional<WrittenRequest> first = node.receive(kArrivalTimeout);

    ASSERT_TRUE(first);
    EXPECT_EQ(first->command, kInboxCommand);
    EXPECT_TRUE(node.quietFor(kQuietPeriod));
}

TEST(ClientLifecycleTest, FirstPassRequestsRegistryAtOnce) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    client.obtainRegistry([](std::shared_ptr<orvikm::Registry>) {}, 2s);
    RunningLoop loop(client);

    const std::optional<WrittenRequest> written =
        node.receiveCommand(kRegistryRequestCommand, kArrivalTimeout);

    ASSERT_TRUE(written);
    EXPECT_EQ(written->frames, asOneMessage({testsupport::delimiter(), kRegistryRequestCommand,
                                             testsupport::delimiter(), testsupport::delimiter()}));
}

TEST(ClientLifecycleTest, RegistryRequestPrecedesInboxCheck) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    client.obtainRegistry([](std::shared_ptr<orvikm::Registry>) {}, 2s);
    RunningLoop loop(client);

    const std::optional<WrittenRequest> first = node.receive(kArrivalTimeout);
    const std::optional<WrittenRequest> second = node.receive(kArrivalTimeout);

    ASSERT_TRUE(first);
    ASSERT_TRUE(second);
    EXPECT_EQ(first->command, kRegistryRequestCommand);
    EXPECT_EQ(second->command, kInboxCommand);
}

TEST(ClientLifecycleTest, RegistryNotRequestedAgainWithinInterval) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    client.obtainRegistry([](std::shared_ptr<orvikm::Registry>) {}, 2s);
    RunningLoop loop(client);
    ASSERT_TRUE(node.receiveCommand(kRegistryRequestCommand, kArrivalTimeout));
    ASSERT_TRUE(node.receiveCommand(kInboxCommand, kArrivalTimeout));

    queueMessage(client);
    const std::optional<WrittenRequest> nextPass = node.receive(kArrivalTimeout);

    ASSERT_TRUE(nextPass);
    EXPECT_EQ(nextPass->command, kMessageCommand);
    EXPECT_TRUE(node.quietFor(1s));
}

TEST(ClientLifecycleTest, RegistryRequestedAgainOnlyAfterInterval) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    client.obtainRegistry([](std::shared_ptr<orvikm::Registry>) {}, 1s);
    RunningLoop loop(client);
    ASSERT_TRUE(node.receiveCommand(kRegistryRequestCommand, kArrivalTimeout));
    const Clock::time_point firstArrival = Clock::now();

    const std::optional<WrittenRequest> again =
        node.receiveCommand(kRegistryRequestCommand, 1s + kArrivalTimeout);
    const Clock::duration gap = Clock::now() - firstArrival;

    ASSERT_TRUE(again);
    EXPECT_GT(gap, 1s - kClockTolerance);
}

TEST(ClientLifecycleTest, RegistryRequestToUnreachableNodeReportsNodeNotAvailable) {
    const RefusingPort listenerPort;
    const RefusingPort dispenserPort;
    Client client(kAppId, listenerPort.port(), dispenserPort.port(), {});
    client.obtainRegistry([](std::shared_ptr<orvikm::Registry>) {}, 2s);
    RunningLoop loop(client);

    ASSERT_TRUE(loop.endsWithin(kLoopEndTimeout));

    const std::vector<ReportedError> errors = loop.errors();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(errors[0].socketError);
    EXPECT_EQ(errors[0].errorNumber, kNotReachable);
    EXPECT_EQ(errors[0].what, kNotReachableText);
    EXPECT_EQ(errors[0].context,
              (std::vector<std::string>{kSendFramesContext, kNodeUnavailable, kRegistryContext}));
}

TEST(ClientLifecycleTest, FailedRegistryRequestIsSentAgainByNextLoop) {
    const RefusingPort listenerPort;
    const RefusingPort dispenserPort;
    Client client(kAppId, listenerPort.port(), dispenserPort.port(), {});
    client.obtainRegistry([](std::shared_ptr<orvikm::Registry>) {}, 60s);
    {
        RunningLoop first(client);
        ASSERT_TRUE(first.endsWithin(kLoopEndTimeout));
        ASSERT_EQ(first.errors().size(), 1u);
    }

    RunningLoop second(client);

    ASSERT_TRUE(second.endsWithin(kLoopEndTimeout));
    const std::vector<ReportedError> errors = second.errors();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].context,
              (std::vector<std::string>{kSendFramesContext, kNodeUnavailable, kRegistryContext}));
}

// Termination

TEST(ClientLifecycleTest, TerminateBeforeLoopDoesNotStopIt) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    client.terminate();

    RunningLoop loop(client);

    ASSERT_TRUE(node.receiveCommand(kInboxCommand, kArrivalTimeout));
    EXPECT_FALSE(loop.endsWithin(kStillRunningFor));
}

TEST(ClientLifecycleTest, TerminateFromAnotherThreadEndsLoopWithoutError) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    RunningLoop loop(client);
    ASSERT_TRUE(node.receiveCommand(kInboxCommand, kArrivalTimeout));

    client.terminate();

    ASSERT_TRUE(loop.endsWithin(kLoopEndTimeout));
    EXPECT_TRUE(loop.errors().empty());
}

}  // namespace
