// orvik bench against orvik-devnode, with a small count.
#include <zmq.h>

#include <csignal>
#include <regex>
#include <string>

#include <nlohmann/json.hpp>

#include "orvik_fixture.hpp"
#include "support/raw_peer.hpp"
#include "support/reserved_port.hpp"

namespace orviktest {
namespace {

TEST_F(OrvikTest, BenchJsonReportsEveryMessageAcknowledgedWithConsistentFigures) {
    const Finished bench =
        runOrvik(withPorts({"bench", "-n", "2000", "--size", "64", "--format", "json"}));

    ASSERT_EQ(bench.status.code, 0) << bench.error;
    const nlohmann::json figures = nlohmann::json::parse(bench.output);
    EXPECT_EQ(figures.at("messages"), 2000);
    EXPECT_EQ(figures.at("acknowledged"), 2000);
    EXPECT_EQ(figures.at("size"), 64);
    EXPECT_TRUE(figures.at("window").is_null());
    const double seconds = figures.at("seconds");
    const double rate = figures.at("messages_per_second");
    EXPECT_GT(seconds, 0);
    EXPECT_NEAR(rate * seconds, 2000, 1);
    EXPECT_NEAR(figures.at("mb_per_second").get<double>(), rate * 64 / 1e6, 1e-6);
    const nlohmann::json& latency = figures.at("latency_ms");
    EXPECT_GT(latency.at("p50").get<double>(), 0);
    EXPECT_LE(latency.at("p50").get<double>(), latency.at("p99").get<double>());
    EXPECT_LE(latency.at("p99").get<double>(), latency.at("max").get<double>());
    EXPECT_EQ(logLinesContaining(") acknowledged and published"), 2000u);
}

TEST_F(OrvikTest, BenchWithAWindowSendsAlongTheRouteGiven) {
    const Finished bench = runOrvik(withPorts(
        {"bench", "-n", "500", "--window", "10", "-r", "bench-route", "--format", "json"}));

    ASSERT_EQ(bench.status.code, 0) << bench.error;
    const nlohmann::json figures = nlohmann::json::parse(bench.output);
    EXPECT_EQ(figures.at("acknowledged"), 500);
    EXPECT_EQ(figures.at("window"), 10);
}

TEST_F(OrvikTest, BenchTextReportsRatesAndLatenciesInThreeLines) {
    const Finished bench = runOrvik(withPorts({"bench", "-n", "300"}));

    ASSERT_EQ(bench.status.code, 0) << bench.error;
    ASSERT_EQ(bench.lines.size(), 3u) << bench.output;
    EXPECT_TRUE(std::regex_match(
        bench.lines[0],
        std::regex(R"(acknowledged 300 of 300 messages of 100 bytes in \d+\.\d{3} s)")))
        << bench.lines[0];
    EXPECT_TRUE(std::regex_match(bench.lines[1],
                                 std::regex(R"(throughput \d+ messages/s, \d+\.\d{2} MB/s)")))
        << bench.lines[1];
    EXPECT_TRUE(std::regex_match(
        bench.lines[2],
        std::regex(R"(latency p50 \d+\.\d{3} ms, p99 \d+\.\d{3} ms, max \d+\.\d{3} ms)")))
        << bench.lines[2];
    // Standard error is no terminal here: no progress line.
    EXPECT_EQ(bench.error, "");
}

TEST_F(OrvikTest, BenchWithAClosedStandardOutputStillEndsByItself) {
    OrvikCommand bench(withPorts({"bench", "-n", "100"}), {}, outputReadFor(0));
    const std::optional<ExitStatus> status = bench.waitForExit(kRunLimit);

    ASSERT_TRUE(status.has_value()) << "orvik bench did not end";
    ASSERT_TRUE(status->exited) << "ended by signal " << status->signal;
    EXPECT_EQ(status->code, 0) << bench.standardError();
    EXPECT_EQ(logLinesContaining(") acknowledged and published"), 100u);
}

// More than any test waits for: only a signal ends such a run.
const std::string kEndless = "10000000";

TEST_F(OrvikTest, CtrlCDuringALongRunPrintsWhatWasMeasuredAndFails) {
    OrvikCommand bench(withPorts({"bench", "-n", kEndless, "--window", "1000", "--timeout", "0"}));
    ASSERT_TRUE(node().waitForLine("acknowledged and published", kEventLimit));

    bench.sendSignal(SIGINT);
    const std::optional<ExitStatus> status = bench.waitForExit(kEventLimit);

    ASSERT_TRUE(status.has_value()) << "orvik bench did not end after Ctrl-C";
    ASSERT_TRUE(status->exited);
    EXPECT_EQ(status->code, 1);
    const std::vector<std::string> lines = bench.outputLines();
    ASSERT_EQ(lines.size(), 3u) << bench.standardOutput();
    std::smatch measured;
    ASSERT_TRUE(std::regex_match(
        lines[0], measured,
        std::regex(R"(acknowledged (\d+) of )" + kEndless + R"( messages of 100 bytes in .*)")))
        << lines[0];
    // Standard error is a pipe: the one line that says why, and no progress.
    EXPECT_EQ(bench.standardError(), "orvik bench: interrupted (acknowledged " + measured[1].str() +
                                         " of " + kEndless + ")\n");
}

TEST_F(OrvikTest, ProgressLineGoesToStandardErrorWhenItIsATerminal) {
    OrvikCommand bench(withPorts({"bench", "-n", kEndless, "--window", "1000", "--timeout", "0"}),
                       {}, errorOnTerminal());
    const bool progressed = bench.waitForErrorText(" of " + kEndless, kEventLimit);
    bench.sendSignal(SIGINT);
    const std::optional<ExitStatus> status = bench.waitForExit(kEventLimit);

    ASSERT_TRUE(progressed) << bench.standardError();
    const std::string terminal = bench.standardError();
    EXPECT_TRUE(std::regex_search(
        terminal, std::regex("\\rsent \\d+, acknowledged \\d+ of " + kEndless + "(\\r|$)")))
        << terminal;
    ASSERT_TRUE(status.has_value()) << "orvik bench did not end after Ctrl-C";
    EXPECT_EQ(status->code, 1);
    EXPECT_NE(terminal.find("orvik bench: interrupted (acknowledged "), std::string::npos)
        << terminal;
}

TEST(OrvikBenchAloneTest, UnacknowledgedMessagesFailAtTheDeadlineWithWhatWasMeasured) {
    const testsupport::ReservedPort listener;
    testsupport::RawPeer silentRouter(ZMQ_ROUTER);
    const int dispenser = silentRouter.bindLoopback();

    const Finished bench =
        runOrvik({"bench", "-n", "50", "--timeout", "1", "--format", "json", "-l",
                  std::to_string(listener.port()), "-d", std::to_string(dispenser)});

    EXPECT_EQ(bench.status.code, 1);
    EXPECT_EQ(nlohmann::json::parse(bench.output).at("acknowledged"), 0);
    EXPECT_EQ(bench.error, "orvik bench: deadline passed (acknowledged 0 of 50)\n");
}

TEST(OrvikBenchAloneTest, AbsentNodeFailsWithinTheDeadline) {
    const testsupport::ReservedPort listener;
    const testsupport::ReservedPort dispenser;
    const auto start = std::chrono::steady_clock::now();

    const Finished bench =
        runOrvik({"bench", "-n", "10", "--timeout", "2", "-l", std::to_string(listener.port()),
                  "-d", std::to_string(dispenser.port())});

    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
    EXPECT_EQ(bench.status.code, 1);
    EXPECT_NE(bench.error.find("Orvik Node is not available"), std::string::npos) << bench.error;
}

}  // namespace
}  // namespace orviktest
