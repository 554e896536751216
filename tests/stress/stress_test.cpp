#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/client.hpp>
#include <orvikm/message.hpp>

#include "client_harness.hpp"
#include "delivery_book.hpp"
#include "devnode_process.hpp"
#include "rss.hpp"
#include "stress_scale.hpp"
#include "support/program_process.hpp"

// Several client processes, each with several threads sending with
// acknowledgement callbacks while its I/O loop runs, through one orvik-devnode
// to one receiving client.
namespace stresstest {
namespace {

using devnodetest::ClientLoop;
using devnodetest::DevNodeProcess;
using devnodetest::ReceivedMessage;
using devnodetest::Recorder;
using orvikm::Client;
using testsupport::ExitStatus;
using testsupport::ProgramProcess;

const std::string kRoute = "stress";
const std::string kResultLine = "stress-client result: ";
constexpr auto kStartLimit = 10s;
constexpr auto kProbeLimit = 10s;
constexpr auto kExitMargin = 30s;
constexpr auto kLinger = 300ms;
// What a process may keep after acknowledging 90% of its messages: a leak of
// even 64 bytes per message of the full run would exceed it. Checked only
// without a sanitizer, whose shadow memory grows with what a run touched.
constexpr long kRssGrowthLimitKb = 8 * 1024;

// The key=value fields of a result line.
std::map<std::string, std::string> fieldsOf(const std::string& line) {
    std::map<std::string, std::string> fields;
    std::istringstream words(line.substr(line.find(kResultLine) + kResultLine.size()));
    std::string word;
    while (words >> word) {
        const auto equals = word.find('=');
        if (equals != std::string::npos) {
            fields[word.substr(0, equals)] = word.substr(equals + 1);
        }
    }
    return fields;
}

long number(const std::map<std::string, std::string>& fields, const std::string& key) {
    const auto field = fields.find(key);
    return field == fields.end() ? -1 : std::stol(field->second);
}

TEST(StressTest, SendersInSeveralProcessesGetEachAcknowledgementOnceAndEachMessageArrivesOnce) {
    const Scale& run = scale();
    DevNodeProcess node({"--listener-port", "0", "--dispenser-port", "0"});
    ASSERT_TRUE(node.waitUntilReady(kStartLimit)) << node.standardError();

    std::vector<std::string> appIds;
    for (int i = 0; i < run.processes; ++i) {
        appIds.push_back("stress-client-" + std::to_string(i));
    }
    DeliveryBook delivered(appIds, run.threadsPerProcess, run.messagesPerThread);
    Recorder<ReceivedMessage> probes;
    Client receiver("stress-receiver", node.listenerPort(), node.dispenserPort(), {kRoute});
    receiver.onMessage([&](std::unique_ptr<orvikm::Message> message) {
        if (message->payload().type() == devnodetest::kProbeType) {
            probes.add(devnodetest::describe(*message));
        } else {
            delivered.record(*message);
        }
    });
    Client prober("stress-prober", node.listenerPort(), node.dispenserPort(), {});
    ClientLoop receiverLoop(receiver);
    ClientLoop proberLoop(prober);
    ASSERT_TRUE(devnodetest::probeUntilDelivered(prober, probes, kRoute, kProbeLimit));

    RssSampler sampler;
    sampler.watch("orvik-devnode", node.pid());
    std::vector<std::unique_ptr<ProgramProcess>> clients;
    const auto start = std::chrono::steady_clock::now();
    for (const std::string& appId : appIds) {
        clients.push_back(std::make_unique<ProgramProcess>(
            ORVIK_STRESS_CLIENT_PATH,
            std::vector<std::string>{
                "--listener-port", std::to_string(node.listenerPort()), "--dispenser-port",
                std::to_string(node.dispenserPort()), "--app-id", appId, "--route", kRoute,
                "--threads", std::to_string(run.threadsPerProcess), "--messages",
                std::to_string(run.messagesPerThread), "--window", std::to_string(run.window),
                "--time-limit", std::to_string(run.clientLimit.count())}));
        sampler.watch(appId, clients.back()->pid());
    }

    std::vector<std::map<std::string, std::string>> results;
    const auto exitDeadline = start + run.clientLimit + kExitMargin;
    for (std::size_t i = 0; i < clients.size(); ++i) {
        const auto left = std::max(std::chrono::milliseconds(0),
                                   std::chrono::duration_cast<std::chrono::milliseconds>(
                                       exitDeadline - std::chrono::steady_clock::now()));
        const std::optional<ExitStatus> status = clients[i]->waitForExit(left);
        ASSERT_TRUE(status.has_value()) << appIds[i] << " still running";
        const std::optional<std::string> line = clients[i]->waitForLine(kResultLine, 0ms);
        ASSERT_TRUE(line.has_value())
            << appIds[i] << ":\n"
            << clients[i]->standardOutput() << clients[i]->standardError();
        EXPECT_TRUE(status->exited && status->code == 0) << *line << '\n'
                                                         << clients[i]->standardError();
        results.push_back(fieldsOf(*line));
    }
    const long all =
        static_cast<long>(run.processes) * run.threadsPerProcess * run.messagesPerThread;
    const bool allDelivered = delivered.waitForTotal(all, run.deliveryLimit);
    const auto end = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(kLinger);
    sampler.stop();

    EXPECT_TRUE(allDelivered) << delivered.total() << " of " << all << " delivered";
    const auto [missing, duplicated] = delivered.missingAndDuplicated();
    EXPECT_EQ(missing, 0);
    EXPECT_EQ(duplicated, 0);
    EXPECT_EQ(delivered.foreign(), 0);
    for (std::size_t i = 0; i < results.size(); ++i) {
        const auto& result = results[i];
        EXPECT_EQ(number(result, "acknowledged"), number(result, "sent")) << appIds[i];
        EXPECT_EQ(number(result, "missing"), 0) << appIds[i];
        EXPECT_EQ(number(result, "duplicated"), 0) << appIds[i];
        EXPECT_EQ(number(result, "errors"), 0) << appIds[i];
        if (testsupport::kMemoryCanBeMeasured) {
            EXPECT_LE(number(result, "rss-kb-end") - number(result, "rss-kb-tenth"),
                      kRssGrowthLimitKb)
                << appIds[i];
        }
    }
    EXPECT_TRUE(receiverLoop.errors().empty()) << receiverLoop.errors().front();

    const auto elapsedMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(end - start).count();
    std::ostringstream summary;
    summary << run.processes << " processes x " << run.threadsPerProcess << " threads x "
            << run.messagesPerThread << " messages = " << all << " sent, window " << run.window
            << " per thread; delivered " << delivered.total() << " (missing " << missing
            << ", duplicated " << duplicated << ") in " << elapsedMs << " ms ("
            << (elapsedMs > 0 ? all * 1000 / elapsedMs : 0) << " messages/s)";
    figure("stress", summary.str());
    for (const auto& result : results) {
        std::ostringstream line;
        line << result.at("app-id") << ": acknowledged " << result.at("acknowledged")
             << ", missing " << result.at("missing") << ", duplicated " << result.at("duplicated")
             << ", errors " << result.at("errors") << ", startup refusals "
             << result.at("startup-refusals") << ", VmRSS at 10%/50%/100% "
             << result.at("rss-kb-tenth") << "/" << result.at("rss-kb-half") << "/"
             << result.at("rss-kb-end") << " KiB, " << result.at("elapsed-ms") << " ms";
        figure("stress", line.str());
    }
    for (const RssSeries& series : sampler.series()) {
        figure("stress", series.summary());
    }
}

}  // namespace
}  // namespace stresstest
