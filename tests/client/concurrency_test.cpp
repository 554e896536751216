#include <orvikm/client.hpp>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/message.hpp>
#include <orvikm/payload.hpp>
#include <orviku/exception.hpp>

#include "support/loop_thread.hpp"
#include "support/test_node.hpp"

// The client's threads: send from any thread while the I/O thread writes and
// runs the callbacks, and send from inside the callbacks themselves.
namespace {

using namespace std::chrono_literals;
using orvikm::Client;
using orvikm::Message;
using orvikm::Payload;
using testsupport::LoopThread;
using testsupport::TestNode;
using testsupport::WrittenRequest;

const std::string kAppId = "busy-app";
const std::string kDispenserIdentity = "busy-app|disp";
const std::string kBody = "hello";
const std::string kPayloadType = "text/plain";
const std::string kReceivedId = "d4c3b2a1-0f9e-4d8c-b7a6-958473625140";
const std::string kMessageCommand = "MSG";
const std::string kIdHeader = "id";

constexpr int kSenderThreads = 4;
constexpr int kSendsPerThread = 500;
constexpr int kAllSends = kSenderThreads * kSendsPerThread;

constexpr auto kValidity = 30s;
constexpr auto kEventLimit = 5s;
constexpr auto kTrafficLimit = 60s;

// A thread that does not finish in time is stuck for good: waiting on would
// hang the test run, and so would the future's destructor.
void finishOrAbort(std::future<void>& work, std::chrono::milliseconds limit) {
    if (work.wait_for(limit) != std::future_status::ready) {
        std::fputs("a sending thread did not finish\n", stderr);
        std::abort();
    }
    work.get();
}

Payload payloadOf(const std::string& bytes) {
    Payload payload(static_cast<unsigned>(bytes.size()), kPayloadType);
    std::memcpy(payload.getBuffer(), bytes.data(), bytes.size());
    return payload;
}

Message outgoing() {
    return Message(payloadOf(kBody),
                   Message::Config(kAppId, {}, kValidity, Message::AckMode::ByNode));
}

TEST(ClientConcurrencyTest, SendsFromManyThreadsAreEachWrittenOnceAndAcknowledgedOnce) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::vector<std::atomic<int>> callbackCalls(kAllSends);
    std::atomic<int> acknowledged{0};
    std::promise<void> allAcknowledged;
    int handlerCalls = 0;
    LoopThread loop(client, [&](orviku::Exception&) { ++handlerCalls; });

    std::vector<std::future<void>> senders;
    for (int thread = 0; thread < kSenderThreads; ++thread) {
        senders.push_back(std::async(std::launch::async, [&, thread] {
            for (int i = 0; i < kSendsPerThread; ++i) {
                const int index = thread * kSendsPerThread + i;
                client.send(
                    payloadOf(std::to_string(index)), {}, kValidity,
                    [&, index] {
                        ++callbackCalls[index];
                        if (++acknowledged == kAllSends) {
                            allAcknowledged.set_value();
                        }
                    },
                    Message::AckMode::ByNode);
            }
        }));
    }
    std::map<std::string, int> writtenPerId;
    std::map<std::string, int> writtenPerBody;
    const auto deadline = std::chrono::steady_clock::now() + kTrafficLimit;
    int written = 0;
    while (written < kAllSends && std::chrono::steady_clock::now() < deadline) {
        const std::optional<WrittenRequest> request = node.receiveCommand(kMessageCommand);
        if (!request) {
            break;
        }
        const std::string& id = request->headers.at(kIdHeader);
        ++writtenPerId[id];
        ++writtenPerBody[request->payload.value_or("")];
        node.sendTo(request->identity, testsupport::ackFrames(id));
        ++written;
    }
    for (std::future<void>& sender : senders) {
        finishOrAbort(sender, kEventLimit);
    }

    EXPECT_EQ(written, kAllSends);
    ASSERT_EQ(allAcknowledged.get_future().wait_for(kEventLimit), std::future_status::ready);
    ASSERT_TRUE(loop.stop());
    EXPECT_EQ(writtenPerId.size(), static_cast<std::size_t>(kAllSends));
    EXPECT_EQ(writtenPerBody.size(), static_cast<std::size_t>(kAllSends));
    for (const auto& [id, count] : writtenPerId) {
        EXPECT_EQ(count, 1) << "message " << id;
    }
    for (int index = 0; index < kAllSends; ++index) {
        EXPECT_EQ(callbackCalls[index].load(), 1) << "message " << index;
    }
    EXPECT_EQ(handlerCalls, 0);
}

TEST(ClientConcurrencyTest, SendWithAckCallbackFromMessageCallbackIsWrittenAndAcknowledged) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    std::promise<void> acknowledged;
    client.onMessage([&](std::unique_ptr<Message>) {
        client.send(outgoing(), [&] { acknowledged.set_value(); });
    });
    LoopThread loop(client, nullptr);
    ASSERT_TRUE(node.waitForDispenserPeer());

    node.sendTo(kDispenserIdentity, testsupport::messageFrames(kReceivedId, kBody));
    const std::optional<WrittenRequest> request = node.receiveCommand(kMessageCommand);
    ASSERT_TRUE(request);
    node.sendTo(request->identity, testsupport::ackFrames(request->headers.at(kIdHeader)));

    EXPECT_EQ(acknowledged.get_future().wait_for(kEventLimit), std::future_status::ready);
}

TEST(ClientConcurrencyTest, SendWithoutAckCallbackFromAckCallbackIsWritten) {
    TestNode node;
    Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
    Message first = outgoing();
    const std::string firstId = first.msgId();
    Message second = outgoing();
    const std::string secondId = second.msgId();
    auto pending = std::make_shared<Message>(std::move(second));
    client.send(std::move(first),
                [&client, pending] { client.send(std::move(*pending), nullptr); });
    LoopThread loop(client, nullptr);
    const std::optional<WrittenRequest> firstWritten = node.receiveCommand(kMessageCommand);
    ASSERT_TRUE(firstWritten);

    node.sendTo(firstWritten->identity, testsupport::ackFrames(firstId));
    const std::optional<WrittenRequest> secondWritten = node.receiveCommand(kMessageCommand);

    ASSERT_TRUE(secondWritten);
    EXPECT_EQ(secondWritten->headers.at(kIdHeader), secondId);
}

}  // namespace
