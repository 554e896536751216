#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/client.hpp>
#include <orvikm/message.hpp>

#include "client_harness.hpp"
#include "devnode_fixture.hpp"

// The client's extensions against orvik-devnode, which acknowledges every
// message: flush completes, the counters add up, nothing is reported as
// unacknowledged, and a burst written in batches arrives whole.
namespace devnodetest {
namespace {

using orvikm::Client;
using orvikm::Message;

constexpr int kBurst = 500;
// Small, so that the burst takes many passes of the loop.
constexpr std::size_t kBatch = 8;
constexpr auto kFlushLimit = std::chrono::seconds(20);

TEST_F(DevNodeTest, FlushBeforeExitWritesAndAcknowledgesEveryMessage) {
    Client client("flush-sender", listenerPort(), dispenserPort(), {});
    std::atomic<int> acknowledged{0};
    for (int i = 0; i < kBurst; ++i) {
        client.send(
            orvikm::Payload(10, "text/plain"), {}, std::chrono::seconds(30),
            [&acknowledged] { ++acknowledged; }, Message::AckMode::ByNode);
    }

    const Client::FlushResult result = client.flush(kFlushLimit);

    EXPECT_TRUE(result.complete);
    EXPECT_EQ(acknowledged.load(), kBurst);
    const Client::Stats stats = client.stats();
    EXPECT_EQ(stats.queued, 0u);
    EXPECT_EQ(stats.awaitingAck, 0u);
    EXPECT_EQ(stats.written, static_cast<std::uint64_t>(kBurst));
    EXPECT_EQ(stats.acknowledged, static_cast<std::uint64_t>(kBurst));
    EXPECT_EQ(stats.errors, 0u);
}

TEST_F(DevNodeTest, AcknowledgedMessagesAreNeverReportedAsUnacknowledged) {
    Client client("report-sender", listenerPort(), dispenserPort(), {});
    std::vector<std::string> reported;
    client.onUnacknowledged([&reported](const std::string& id) { reported.push_back(id); });
    for (int i = 0; i < kBurst; ++i) {
        client.send(
            orvikm::Payload(10, "text/plain"), {}, std::chrono::seconds(1), [] {},
            Message::AckMode::ByNode);
    }

    const Client::FlushResult result = client.flush(kFlushLimit);
    // Past every validity: a report would be due by now.
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    client.flush(std::chrono::milliseconds(300));

    EXPECT_TRUE(result.complete);
    EXPECT_TRUE(reported.empty());
    EXPECT_EQ(client.stats().unacknowledged, 0u);
}

TEST_F(DevNodeTest, BurstWrittenInBatchesIsDeliveredWholeInQueueOrder) {
    Recorder<ReceivedMessage> inbox;
    Client::Options options;
    options.maxWriteBatch = kBatch;
    Client sender("batch-sender", listenerPort(), dispenserPort(), {}, options);
    Client receiver("batch-receiver", listenerPort(), dispenserPort(), {"batch"});
    recordMessages(receiver, inbox);
    ClientLoop receiverLoop(receiver);
    {
        ClientLoop probeLoop(sender);
        ASSERT_TRUE(probeUntilDelivered(sender, inbox, "batch", kEventLimit));
    }
    const std::size_t probes = inbox.values().size();
    std::vector<std::string> ids;
    std::atomic<int> acknowledged{0};
    std::atomic<std::uint64_t> writtenAtFirstAck{0};
    for (int i = 0; i < kBurst; ++i) {
        Message message(orvikm::Payload(10, "text/plain"),
                        Message::Config("batch-sender", {"batch"}, std::chrono::seconds(30),
                                        Message::AckMode::ByNode));
        ids.push_back(message.msgId());
        sender.send(std::move(message), [&] {
            if (acknowledged++ == 0) {
                writtenAtFirstAck = sender.stats().written;
            }
        });
    }

    const Client::FlushResult result = sender.flush(kFlushLimit);

    ASSERT_TRUE(result.complete);
    EXPECT_EQ(acknowledged.load(), kBurst);
    // Acknowledgements flow while the burst is being written. When none has
    // come, a flush waits up to 10 ms before its next batch, so writing the
    // burst takes at least 600 ms, and half of it 300 ms: more than an
    // acknowledgement needs even from a node under ThreadSanitizer on a
    // loaded machine. Written in one pass, the whole burst would go first.
    EXPECT_LE(writtenAtFirstAck.load(), static_cast<std::uint64_t>(kBurst / 2));
    ASSERT_TRUE(inbox.waitForCount(probes + kBurst, kEventLimit));
    std::vector<std::string> delivered;
    for (const ReceivedMessage& message : inbox.values()) {
        if (message.type != kProbeType) {
            delivered.push_back(message.id);
        }
    }
    // Equal validities leave the queue in no particular order: the burst
    // arrives whole and once each.
    std::sort(delivered.begin(), delivered.end());
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(delivered, ids);
}

}  // namespace
}  // namespace devnodetest
