#include <zmq.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/client.hpp>
#include <orvikm/message.hpp>
#include <orvikm/payload.hpp>

#include "ack_book.hpp"
#include "app_loop.hpp"
#include "client_harness.hpp"
#include "delivery_book.hpp"
#include "devnode_process.hpp"
#include "rss.hpp"
#include "stress_scale.hpp"
#include "support/raw_peer.hpp"
#include "support/test_node.hpp"

// Bursts: a large number of messages queued before the I/O loop starts and
// written in one pass, to a node that is running or paused; and bursts that a
// node with ZeroMQ's default queue limits (1000 messages) writes on either
// socket while the client's loop is not running.
namespace stresstest {
namespace {

using devnodetest::ClientLoop;
using devnodetest::DevNodeProcess;
using devnodetest::ReceivedMessage;
using devnodetest::Recorder;
using orvikm::Client;
using testsupport::RawPeer;

using Clock = std::chrono::steady_clock;

const std::string kSenderId = "burst-sender";
const std::string kRoute = "burst";
const std::string kWarmUpRoute = "burst-warm-up";
const std::string kPayloadType = "application/x-burst";
// The app id of the hand-made messages of testsupport::messageFrames.
const std::string kHandMadeSender = "sender-app";
constexpr auto kValidity = 60s;
constexpr auto kStartLimit = 10s;
constexpr auto kProbeLimit = 10s;
constexpr auto kWarmUpLimit = 10s;
constexpr auto kLinger = 300ms;
// A node that is not overloaded itself publishes at the pace its connection
// carries: a short pause after every so many messages.
constexpr int kPublishChunk = 20;
constexpr auto kPublishPause = 1ms;

// What is left until `deadline`, so that waits one after the other share one
// limit.
std::chrono::milliseconds until(Clock::time_point deadline) {
    return std::max(std::chrono::milliseconds(0),
                    std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()));
}

long msBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(to - from).count();
}

// "0:INDEX:" padded to the burst's payload size, as orvik-stress-client
// numbers the messages of its thread 0, so that a DeliveryBook counts them.
std::string numbered(std::size_t index) {
    std::string text = "0:" + std::to_string(index) + ":";
    text.resize(static_cast<std::size_t>(scale().burstPayloadBytes), 'x');
    return text;
}

orvikm::Payload payloadOf(const std::string& text) {
    orvikm::Payload payload(static_cast<unsigned>(text.size()), kPayloadType);
    std::memcpy(payload.getBuffer(), text.data(), text.size());
    return payload;
}

void queueBurst(Client& sender, AckBook& acks, int count) {
    for (int i = 0; i < count; ++i) {
        const auto index = static_cast<std::size_t>(i);
        sender.send(payloadOf(numbered(index)), {kRoute}, kValidity, acks.callbackFor(index),
                    orvikm::Message::AckMode::ByNode);
    }
}

// Runs one message through the sender and its loop, so that its connection
// is set up before the burst is queued.
bool warmUp(Client& sender) {
    AckBook acks(1);
    sender.send(payloadOf("warm-up"), {kWarmUpRoute}, kValidity, acks.callbackFor(0),
                orvikm::Message::AckMode::ByNode);
    AppLoop loop(sender);
    const bool acknowledged = acks.waitForTotal(1, kWarmUpLimit);
    return loop.stop() && acknowledged;
}

void expectNoErrors(const AppLoop& loop) {
    for (const ReportedError& error : loop.errors()) {
        ADD_FAILURE() << "reported: " << error.describe();
    }
    for (const std::string& escaped : loop.escaped()) {
        ADD_FAILURE() << "escaped blockThreadForIO: " << escaped;
    }
}

// orvik-devnode with a client that receives everything published along the
// burst's route.
class BurstThroughDevNodeTest : public ::testing::Test {
protected:
    void SetUp() override {
        _node = std::make_unique<DevNodeProcess>(
            std::vector<std::string>{"--listener-port", "0", "--dispenser-port", "0"});
        ASSERT_TRUE(_node->waitUntilReady(kStartLimit)) << _node->standardError();
        _delivered =
            std::make_unique<DeliveryBook>(std::vector<std::string>{kSenderId}, 1, scale().burst);
        _receiver =
            std::make_unique<Client>("burst-receiver", _node->listenerPort(),
                                     _node->dispenserPort(), std::vector<std::string>{kRoute});
        _receiver->onMessage([this](std::unique_ptr<orvikm::Message> message) {
            if (message->payload().type() == devnodetest::kProbeType) {
                _probes.add(devnodetest::describe(*message));
            } else {
                _delivered->record(*message);
            }
        });
        _prober = std::make_unique<Client>("burst-prober", _node->listenerPort(),
                                           _node->dispenserPort(), std::vector<std::string>{});
        _receiver_loop = std::make_unique<ClientLoop>(*_receiver);
        _prober_loop = std::make_unique<ClientLoop>(*_prober);
        ASSERT_TRUE(devnodetest::probeUntilDelivered(*_prober, _probes, kRoute, kProbeLimit));
    }

    void TearDown() override {
        // The loops end before their clients, the clients before the node.
        _prober_loop.reset();
        _receiver_loop.reset();
        _prober.reset();
        _receiver.reset();
        _node.reset();
    }

    DevNodeProcess& node() { return *_node; }
    DeliveryBook& delivered() { return *_delivered; }
    const ClientLoop& receiverLoop() const { return *_receiver_loop; }

private:
    std::unique_ptr<DevNodeProcess> _node;
    std::unique_ptr<DeliveryBook> _delivered;
    Recorder<ReceivedMessage> _probes;
    std::unique_ptr<Client> _receiver;
    std::unique_ptr<Client> _prober;
    std::unique_ptr<ClientLoop> _receiver_loop;
    std::unique_ptr<ClientLoop> _prober_loop;
};

TEST_F(BurstThroughDevNodeTest, QueuedBurstIsWrittenInOnePassAndEachMessageAcknowledgedOnce) {
    const int burst = scale().burst;
    Client sender(kSenderId, node().listenerPort(), node().dispenserPort(), {});
    ASSERT_TRUE(warmUp(sender));
    AckBook acks(static_cast<std::size_t>(burst));
    const long rssBeforeKb = residentKb().value_or(0);
    const auto queueStart = Clock::now();
    queueBurst(sender, acks, burst);
    const auto loopStart = Clock::now();

    AppLoop loop(sender);
    const auto deadline = Clock::now() + scale().burstLimit;
    const bool allAcknowledged = acks.waitForTotal(burst, until(deadline));
    const bool allDelivered = delivered().waitForTotal(burst, until(deadline));
    const auto deliveredAt = Clock::now();
    std::this_thread::sleep_for(kLinger);
    ASSERT_TRUE(loop.stop());

    EXPECT_TRUE(allAcknowledged) << acks.total() << " of " << burst;
    EXPECT_TRUE(allDelivered) << delivered().total() << " of " << burst;
    const auto [missingAcks, duplicatedAcks] = acks.missingAndDuplicated();
    const auto [missing, duplicated] = delivered().missingAndDuplicated();
    EXPECT_EQ(missingAcks, 0);
    EXPECT_EQ(duplicatedAcks, 0);
    EXPECT_EQ(missing, 0);
    EXPECT_EQ(duplicated, 0);
    expectNoErrors(loop);
    EXPECT_EQ(loop.entries(), 1u);
    EXPECT_TRUE(receiverLoop().errors().empty());

    std::ostringstream text;
    text << burst << " messages queued in " << msBetween(queueStart, loopStart)
         << " ms; first acknowledgement (end of the write pass) after "
         << msBetween(loopStart, acks.first()) << " ms, all acknowledged after "
         << msBetween(loopStart, acks.last()) << " ms, all delivered after "
         << msBetween(loopStart, deliveredAt) << " ms; acknowledgements missing " << missingAcks
         << ", duplicated " << duplicatedAcks << "; deliveries missing " << missing
         << ", duplicated " << duplicated << "; errors " << loop.errorCount()
         << "; test process VmRSS " << rssBeforeKb << " -> " << residentKb().value_or(0) << " KiB";
    figure("burst", text.str());
}

TEST_F(BurstThroughDevNodeTest, BurstToPausedNodeIsNotReportedAsUnavailable) {
    const int burst = scale().burst;
    Client sender(kSenderId, node().listenerPort(), node().dispenserPort(), {});
    ASSERT_TRUE(warmUp(sender));
    AckBook acks(static_cast<std::size_t>(burst));
    queueBurst(sender, acks, burst);

    // The node stays connected but reads nothing: it is busy, not gone.
    node().sendSignal(SIGSTOP);
    const auto loopStart = Clock::now();
    AppLoop loop(sender);
    std::this_thread::sleep_for(scale().nodePause);
    const std::size_t errorsWhilePaused = loop.errorCount();
    node().sendSignal(SIGCONT);
    const auto resumed = Clock::now();
    const auto deadline = Clock::now() + scale().burstLimit;
    const bool allAcknowledged = acks.waitForTotal(burst, until(deadline));
    const bool allDelivered = delivered().waitForTotal(burst, until(deadline));
    std::this_thread::sleep_for(kLinger);
    ASSERT_TRUE(loop.stop());

    EXPECT_TRUE(allAcknowledged) << acks.total() << " of " << burst;
    EXPECT_TRUE(allDelivered) << delivered().total() << " of " << burst;
    const auto [missingAcks, duplicatedAcks] = acks.missingAndDuplicated();
    const auto [missing, duplicated] = delivered().missingAndDuplicated();
    EXPECT_EQ(missingAcks, 0);
    EXPECT_EQ(duplicatedAcks, 0);
    EXPECT_EQ(missing, 0);
    EXPECT_EQ(duplicated, 0);
    expectNoErrors(loop);

    std::ostringstream text;
    text << burst << " messages to a node paused for " << scale().nodePause.count()
         << " ms: errors while paused " << errorsWhilePaused << ", in all " << loop.errorCount()
         << "; all acknowledged " << msBetween(resumed, acks.last())
         << " ms after the node resumed (" << msBetween(loopStart, acks.last())
         << " ms after the loop started); acknowledgements missing " << missingAcks
         << ", duplicated " << duplicatedAcks << "; deliveries missing " << missing
         << ", duplicated " << duplicated;
    figure("burst", text.str());
}

// The frames of hand-made message number `index` of a burst.
std::vector<std::string> handMade(int index, const std::vector<std::string>& routes) {
    return testsupport::messageFrames("burst-" + std::to_string(index),
                                      numbered(static_cast<std::size_t>(index)), routes);
}

// Runs the loop of a client that a burst was written to while its loop was
// not running, and checks that every message of it arrives exactly once.
// The figure reads: burst, `written`, the writing time, `how`, the outcome.
void receiveWholeBurst(Client& receiver, DeliveryBook& delivered, int burst,
                       Clock::time_point writeStart, const char* written, const char* how) {
    const auto loopStart = Clock::now();
    AppLoop loop(receiver);
    const bool allDelivered = delivered.waitForTotal(burst, scale().burstLimit);
    const auto deliveredAt = Clock::now();
    std::this_thread::sleep_for(kLinger);
    ASSERT_TRUE(loop.stop());

    EXPECT_TRUE(allDelivered) << delivered.total() << " of " << burst;
    const auto [missing, duplicated] = delivered.missingAndDuplicated();
    EXPECT_EQ(missing, 0);
    EXPECT_EQ(duplicated, 0);
    expectNoErrors(loop);

    std::ostringstream text;
    text << burst << written << msBetween(writeStart, loopStart) << how << "delivered "
         << delivered.total() << " (missing " << missing << ", duplicated " << duplicated << ") "
         << msBetween(loopStart, deliveredAt) << " ms after the loop started";
    figure("burst", text.str());
}

TEST(BurstTest, BurstOnDispenserWhileTheLoopIsNotRunningIsDeliveredWhole) {
    const int burst = scale().burst;
    // A router that keeps ZeroMQ's default limits drops, silently, what does
    // not fit into its queue towards the client.
    RawPeer publisher(ZMQ_PUB);
    RawPeer router(ZMQ_ROUTER);
    const int listenerPort = publisher.bindLoopback();
    const int dispenserPort = router.bindLoopback();
    Client receiver("burst-receiver", listenerPort, dispenserPort, {});
    DeliveryBook delivered({kHandMadeSender}, 1, burst);
    receiver.onMessage(
        [&delivered](std::unique_ptr<orvikm::Message> message) { delivered.record(*message); });
    std::string identity;
    {
        // The client's first write tells the router who it is.
        receiver.send(payloadOf("hello"), {}, kValidity, nullptr, orvikm::Message::AckMode::ByNode);
        AppLoop loop(receiver);
        const auto first = router.receiveMessage(kWarmUpLimit);
        ASSERT_TRUE(first.has_value() && !first->empty());
        identity = first->front().bytes;
        ASSERT_TRUE(loop.stop());
    }

    // The application is busy elsewhere while the node writes.
    const auto sendStart = Clock::now();
    for (int i = 0; i < burst; ++i) {
        router.sendFrame(identity, true);
        router.sendMessage(handMade(i, {}));
        if ((i + 1) % kPublishChunk == 0) {
            std::this_thread::sleep_for(kPublishPause);
        }
    }
    receiveWholeBurst(receiver, delivered, burst, sendStart,
                      " messages written to the dispenser in ",
                      " ms by a router with ZeroMQ's default limits while the loop was not "
                      "running: ");
}

TEST(BurstTest, BurstPublishedWhileTheLoopIsNotRunningIsDeliveredWhole) {
    const int burst = scale().burst;
    const std::string topic = "burst-topic";
    testsupport::TestNode node;
    Client receiver("burst-receiver", node.listenerPort(), node.dispenserPort(), {topic});
    DeliveryBook delivered({kHandMadeSender}, 1, burst);
    receiver.onMessage(
        [&delivered](std::unique_ptr<orvikm::Message> message) { delivered.record(*message); });
    ASSERT_TRUE(node.waitForSubscription(topic));

    // The application is busy elsewhere while the node publishes.
    const auto publishStart = Clock::now();
    for (int i = 0; i < burst; ++i) {
        std::vector<std::string> frames = handMade(i, {topic});
        frames.insert(frames.begin(), topic);
        node.publish(frames);
        if ((i + 1) % kPublishChunk == 0) {
            std::this_thread::sleep_for(kPublishPause);
        }
    }
    receiveWholeBurst(receiver, delivered, burst, publishStart, " messages published in ",
                      " ms by a publisher with ZeroMQ's default limits while the loop was not "
                      "running: ");
}

}  // namespace
}  // namespace stresstest
