#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <asio/io_context.hpp>

#include <orvikm/asio.hpp>
#include <orvikm/client.hpp>
#include <orvikm/message.hpp>

#include "client_harness.hpp"
#include "devnode_fixture.hpp"

// Two clients driven from one asio::io_context by AsioDriver, through
// orvik-devnode: one sends a burst from a worker thread, the other receives
// and acknowledges it, all on the context's thread.
namespace devnodetest {
namespace {

using orvikm::AsioDriver;
using orvikm::Client;
using Steady = std::chrono::steady_clock;

constexpr int kBurst = 500;
const std::string kRoute = "asio-driven";
constexpr auto kProbeInterval = 100ms;

// Runs the context in short slices until `done` holds or `limit` passes.
bool runUntil(asio::io_context& context, const std::function<bool()>& done,
              std::chrono::milliseconds limit) {
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

TEST_F(DevNodeTest, TwoClientsOnOneAsioContextExchangeABurstThroughTheNode) {
    Client sender("asio-sender", listenerPort(), dispenserPort(), {});
    Client receiver("asio-receiver", listenerPort(), dispenserPort(), {kRoute});
    std::vector<std::string> errors;
    const auto keep = [&errors](orviku::Exception& error) { errors.push_back(error.describe()); };
    int probes = 0;
    int received = 0;
    receiver.onMessage([&](std::unique_ptr<orvikm::Message> message) {
        ++(message->payload().type() == kProbeType ? probes : received);
        receiver.sendAck(*message);
    });
    asio::io_context context;
    AsioDriver sending(context, sender, keep);
    AsioDriver receiving(context, receiver, keep);
    // What is published before the receiver's subscription reaches the node
    // is not delivered to it.
    auto nextProbe = Steady::now();
    ASSERT_TRUE(runUntil(
        context,
        [&] {
            if (Steady::now() >= nextProbe) {
                sendMessage(sender, "probe", {kRoute}, nullptr, kProbeType);
                nextProbe += kProbeInterval;
            }
            return probes > 0;
        },
        kEventLimit));
    std::atomic<int> acknowledged{0};

    std::thread worker([&] {
        for (int i = 0; i < kBurst; ++i) {
            sender.send(
                orvikm::Payload(10, "text/plain"), {kRoute}, std::chrono::seconds(30),
                [&acknowledged] { ++acknowledged; }, orvikm::Message::AckMode::ByNode);
        }
    });
    const bool all = runUntil(
        context, [&] { return acknowledged.load() == kBurst && received == kBurst; }, kEventLimit);
    worker.join();

    EXPECT_TRUE(all) << acknowledged.load() << " acknowledged, " << received << " received";
    EXPECT_TRUE(errors.empty()) << errors.front();
    EXPECT_EQ(receiver.stats().errors, 0u);
}

}  // namespace
}  // namespace devnodetest
