#include <zmq.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "devnode_fixture.hpp"
#include "devnode_raw_peers.hpp"

// What a peer that does not read can cost the node: a bounded amount, each
// drop logged, while peers that read still get everything.
namespace devnodetest {
namespace {

const std::string kTopic = "q";
constexpr std::size_t kKiB = 1024;
// More than a subscriber's queue (10000 messages by default) and the socket
// buffers of its connection hold.
constexpr int kFlood = 30000;
constexpr auto kFloodLimit = 60s;
const std::string kSubscriberDropLog = "dropped for a subscriber of that route";
const std::string kRegistryDropLog = "registry for stuck-reader dropped: ";
const std::string kNotPublishedLog = "not published: ";
const std::string kAckDropLog = "for stuck-reader dropped: ";

// What the node may grow by for one peer that does not read, with room for
// the allocator's own slack.
constexpr long kGrowthLimitKb = 64 * 1024;

// A peer socket that takes in as little as it can: one message and the
// smallest socket buffer, so that what it leaves unread stays with the node.
std::unique_ptr<RawPeer> stuckPeer(int type, int port, const std::string& identity = "") {
    auto peer = std::make_unique<RawPeer>(type);
    peer->setIntOption(ZMQ_RCVHWM, 1);
    peer->setIntOption(ZMQ_RCVBUF, 4096);
    peer->setIntOption(ZMQ_SNDTIMEO, 10000);
    if (!identity.empty()) {
        peer->setBytesOption(ZMQ_ROUTING_ID, identity);
    }
    if (type == ZMQ_SUB) {
        peer->setBytesOption(ZMQ_SUBSCRIBE, kTopic);
    }
    peer->connect(testsupport::localhostEndpoint(port));
    return peer;
}

// Counts, on a thread of its own, the messages published to a subscriber
// that reads, probes aside.
class ReadingSubscriber {
public:
    explicit ReadingSubscriber(std::unique_ptr<RawPeer> subscriber)
        : _subscriber(std::move(subscriber)) {}
    ~ReadingSubscriber() { stop(); }

    RawPeer& peer() { return *_subscriber; }

    // Reads as it comes; with a pause, stops reading for that long after
    // every `every` messages.
    void start(int every = 0, std::chrono::milliseconds pause = 0ms) {
        _reader = std::thread([this, every, pause] {
            while (!_stopping.load()) {
                const auto frames = _subscriber->receiveMessage(50ms);
                if (frames && publishedId(*frames).rfind("flood-", 0) == 0) {
                    const int received = _received.fetch_add(1) + 1;
                    if (every > 0 && received % every == 0) {
                        std::this_thread::sleep_for(pause);
                    }
                }
            }
        });
    }

    bool waitForCount(int count, std::chrono::milliseconds limit) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (_received.load() < count && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(10ms);
        }
        return _received.load() >= count;
    }

    int received() const { return _received.load(); }

    void stop() {
        _stopping.store(true);
        if (_reader.joinable()) {
            _reader.join();
        }
    }

private:
    std::unique_ptr<RawPeer> _subscriber;
    std::atomic<bool> _stopping{false};
    std::atomic<int> _received{0};
    std::thread _reader;
};

bool isFloodAck(const std::optional<std::vector<Frame>>& frames) {
    return frames && frames->size() == 5 && frames->at(2).bytes.rfind("msg_id|flood-", 0) == 0;
}

// Sends `count` messages of 1 KiB along kTopic and reads their
// acknowledgements as they come; returns how many came.
int floodAndReadAcks(RawPeer& dealer, int count) {
    int acknowledged = 0;
    for (int i = 0; i < count; ++i) {
        dealer.sendMessage(routedMessage("flood-" + std::to_string(i), {kTopic}, kKiB));
        while (dealer.waitForInput(0ms)) {
            acknowledged += isFloodAck(dealer.receiveMessage(0ms)) ? 1 : 0;
        }
    }
    const auto deadline = std::chrono::steady_clock::now() + kFloodLimit;
    while (acknowledged < count && std::chrono::steady_clock::now() < deadline) {
        acknowledged += isFloodAck(dealer.receiveMessage(1s)) ? 1 : 0;
    }
    return acknowledged;
}

long nodeRssKb(const DevNodeProcess& node) {
    return residentKb(node.pid()).value_or(0);
}

TEST_F(DevNodeTest, SubscriberThatDoesNotReadLosesMessagesWhileOneThatReadsGetsThemAll) {
    const auto dealer = connectDealer(dispenserPort(), "flooder");
    const auto stuck = stuckPeer(ZMQ_SUB, listenerPort());
    // Like the library's listener, it takes everything off its connection at
    // once, whenever its own thread gets to read it.
    auto readingPeer = std::make_unique<RawPeer>(ZMQ_SUB);
    readingPeer->setIntOption(ZMQ_RCVHWM, 0);
    readingPeer->setBytesOption(ZMQ_SUBSCRIBE, kTopic);
    readingPeer->connect(testsupport::localhostEndpoint(listenerPort()));
    ReadingSubscriber reader(std::move(readingPeer));
    ASSERT_TRUE(waitUntilSubscribed(*dealer, *stuck, kTopic, kEventLimit));
    ASSERT_TRUE(waitUntilSubscribed(*dealer, reader.peer(), kTopic, kEventLimit));
    reader.start();
    const long before = nodeRssKb(node());

    const int acknowledged = floodAndReadAcks(*dealer, kFlood);

    EXPECT_EQ(acknowledged, kFlood);
    EXPECT_TRUE(reader.waitForCount(kFlood, kFloodLimit)) << reader.received();
    EXPECT_TRUE(node().waitForLine(kSubscriberDropLog, kEventLimit).has_value())
        << node().standardOutput();
    if (kMemoryCanBeMeasured) {
        EXPECT_LT(nodeRssKb(node()) - before, kGrowthLimitKb);
    }
}

// A node that answers registry requests with a file of 4 MiB.
class DevNodeLargeRegistryTest : public DevNodeTest {
protected:
    static constexpr std::size_t kRegistryBytes = 4 * kKiB * kKiB;

    void SetUp() override {
        char path[] = "/tmp/orvik-devnode-large-registry-XXXXXX";
        const int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        ::close(fd);
        _path = path;
        std::ofstream(_path, std::ios::binary) << std::string(kRegistryBytes, 'r');
        startNode({"--registry", _path});
    }

    void TearDown() override {
        if (!_path.empty()) {
            std::remove(_path.c_str());
        }
    }

private:
    std::string _path;
};

TEST_F(DevNodeLargeRegistryTest, DealerThatDoesNotReadItsRegistriesCostsTheNodeABoundedAmount) {
    constexpr int kRequests = 40;  // 160 MiB of answers
    const auto stuck = stuckPeer(ZMQ_DEALER, dispenserPort(), "stuck-reader");
    const long before = nodeRssKb(node());

    for (int i = 0; i < kRequests; ++i) {
        stuck->sendMessage(registryRequest());
    }
    const auto reader = connectDealer(dispenserPort(), "registry-reader");
    reader->sendMessage(registryRequest());
    const auto answer = receiveMatching(*reader, isRegistry, kEventLimit);

    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->back().bytes.size(), kRegistryBytes);
    EXPECT_TRUE(node().waitForLine(kRegistryDropLog, kEventLimit).has_value())
        << node().standardOutput();
    if (kMemoryCanBeMeasured) {
        EXPECT_LT(nodeRssKb(node()) - before, kGrowthLimitKb);
    }
}

TEST_F(DevNodeTest, DealerThatReadsGetsEveryAcknowledgementOfABurst) {
    const auto dealer = connectDealer(dispenserPort(), "burst-reader");

    const int acknowledged = floodAndReadAcks(*dealer, kFlood);

    EXPECT_EQ(acknowledged, kFlood);
}

// A node that keeps at most 1 MiB of messages for its subscribers.
class DevNodeQueueLimitTest : public DevNodeTest {
protected:
    void SetUp() override {
        startNode({"--subscriber-queue", "100000", "--publish-queue-bytes", "1048576"});
    }
};

TEST_F(DevNodeQueueLimitTest, MessagesBeyondThePublishedBytesLimitAreNotPublished) {
    constexpr int kMessages = 3000;  // 3 MiB of payload alone
    const auto dealer = connectDealer(dispenserPort(), "flooder");
    const auto stuck = stuckPeer(ZMQ_SUB, listenerPort());
    ASSERT_TRUE(waitUntilSubscribed(*dealer, *stuck, kTopic, kEventLimit));

    const int acknowledged = floodAndReadAcks(*dealer, kMessages);

    EXPECT_EQ(acknowledged, kMessages);
    const auto line = node().waitForLine(kNotPublishedLog, kEventLimit);
    ASSERT_TRUE(line.has_value()) << node().standardOutput();
    EXPECT_NE(line->find("(--publish-queue-bytes 1048576); a subscriber is not reading"),
              std::string::npos)
        << *line;
}

// A node that keeps at most 100 messages for a subscriber.
class DevNodeSubscriberQueueLimitTest : public DevNodeTest {
protected:
    void SetUp() override { startNode({"--subscriber-queue", "100"}); }
};

TEST_F(DevNodeSubscriberQueueLimitTest, SubscriberThatFallsBehindForAMomentGetsEveryMessage) {
    constexpr int kMessages = 2000;
    const auto dealer = connectDealer(dispenserPort(), "flooder");
    auto subscriber = stuckPeer(ZMQ_SUB, listenerPort());
    ASSERT_TRUE(waitUntilSubscribed(*dealer, *subscriber, kTopic, kEventLimit));
    ReadingSubscriber reader(std::move(subscriber));
    // Each pause leaves the subscriber's queue at the node full for a while.
    reader.start(100, 10ms);

    ASSERT_EQ(floodAndReadAcks(*dealer, kMessages), kMessages);

    EXPECT_TRUE(reader.waitForCount(kMessages, kFloodLimit)) << reader.received();
    EXPECT_EQ(logLinesContaining(kSubscriberDropLog), 0u) << node().standardOutput();
}

// A node that keeps at most 64 KiB of answers for a dealer.
class DevNodePeerQueueLimitTest : public DevNodeTest {
protected:
    void SetUp() override { startNode({"--peer-queue-bytes", "65536"}); }
};

TEST_F(DevNodePeerQueueLimitTest,
       AcknowledgementsBeyondTheLimitOfADealerThatDoesNotReadAreDropped) {
    // More acknowledgements than the connection's socket buffers hold (about
    // 1.5 MB on loopback) besides the node's 64 KiB: long ids make them large.
    constexpr int kMessages = 30000;
    const std::string longId(90, 'i');
    const auto stuck = stuckPeer(ZMQ_DEALER, dispenserPort(), "stuck-reader");

    for (int i = 0; i < kMessages; ++i) {
        stuck->sendMessage(routedMessage(std::to_string(i) + longId, {kTopic}));
    }

    const auto line = node().waitForLine(kAckDropLog, kEventLimit);
    ASSERT_TRUE(line.has_value()) << node().standardOutput();
    EXPECT_NE(line->find("acknowledgement of MSG "), std::string::npos) << *line;
    EXPECT_NE(line->find("(--peer-queue-bytes 65536); it is not reading"), std::string::npos)
        << *line;
}

}  // namespace
}  // namespace devnodetest
