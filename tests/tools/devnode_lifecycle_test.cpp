#include <chrono>
#include <csignal>
#include <optional>
#include <ostream>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/client.hpp>

#include "client_harness.hpp"
#include "devnode_fixture.hpp"
#include "devnode_process.hpp"

// How the program starts and ends: its command line, its exit statuses and
// its clean stop on SIGINT and SIGTERM.
namespace devnodetest {
namespace {

using orvikm::Client;

constexpr auto kExitLimit = 10s;
const std::string kUsageStart = "Usage: orvik-devnode ";
const std::string kBadArguments = "orvik-devnode: bad arguments (";
const std::string kReadyLine = "orvik-devnode ready: ";
const std::string kStoppedLine = "orvik-devnode stopped";
const std::string kMissingRegistry = "/nonexistent/orvik-devnode-registry.json";
constexpr int kBadArgumentsStatus = 2;

TEST(DevNodeCommandLineTest, HelpPrintsUsageAndExitsWithZero) {
    DevNodeProcess node({"--help"});

    const std::optional<ExitStatus> status = node.waitForExit(kExitLimit);

    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(status->exited);
    EXPECT_EQ(status->code, 0);
    EXPECT_EQ(node.standardOutput().rfind(kUsageStart, 0), 0u) << node.standardOutput();
    EXPECT_EQ(node.standardError(), "");
}

// Everything the command line accepts, and what a person needs besides: the
// address the node listens on and how many clients it keeps a record of.
const std::vector<std::string> kHelpMentions{"--listener-port",
                                             "--dispenser-port",
                                             "--registry FILE",
                                             "--verbose",
                                             "--help",
                                             "--max-routes N",
                                             "--max-registry-bytes N",
                                             "--max-applications N",
                                             "--subscriber-queue N",
                                             "--publish-queue-bytes N",
                                             "--peer-queue-bytes N",
                                             "127.0.0.1",
                                             "the last 4096 clients"};

TEST(DevNodeCommandLineTest, HelpNamesEveryOptionTheAddressAndTheClientsRemembered) {
    DevNodeProcess node({"--help"});

    const std::optional<ExitStatus> status = node.waitForExit(kExitLimit);

    ASSERT_TRUE(status.has_value());
    const std::string usage = node.standardOutput();
    // The usage wraps its lines; the options are never split across two.
    std::string joined = std::regex_replace(usage, std::regex("\\s+"), " ");
    for (const std::string& mention : kHelpMentions) {
        EXPECT_NE(joined.find(mention), std::string::npos) << "--help does not say " << mention;
    }
}

struct BadArguments {
    std::string name;
    std::vector<std::string> arguments;
};

void PrintTo(const BadArguments& bad, std::ostream* out) {
    *out << bad.name;
}

class DevNodeBadArgumentsTest : public ::testing::TestWithParam<BadArguments> {};

TEST_P(DevNodeBadArgumentsTest, ExitWithStatusTwoAndUsageOnStandardError) {
    DevNodeProcess node(GetParam().arguments);

    const std::optional<ExitStatus> status = node.waitForExit(kExitLimit);

    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(status->exited);
    EXPECT_EQ(status->code, kBadArgumentsStatus);
    EXPECT_EQ(node.standardError().rfind(kBadArguments, 0), 0u) << node.standardError();
    EXPECT_NE(node.standardError().find(kUsageStart), std::string::npos) << node.standardError();
    EXPECT_EQ(node.standardOutput(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Arguments, DevNodeBadArgumentsTest,
    ::testing::Values(BadArguments{"UnknownOption", {"--bogus"}},
                      BadArguments{"OptionWithoutValue", {"--listener-port"}},
                      BadArguments{"PortThatIsNoNumber", {"--dispenser-port", "abc"}},
                      BadArguments{"PortWithTrailingText", {"--listener-port", "12x"}},
                      BadArguments{"PortAboveRange", {"--listener-port", "65536"}},
                      BadArguments{"NegativePort", {"--dispenser-port", "-1"}},
                      BadArguments{"PortBeyondInt", {"--listener-port", "99999999999"}},
                      BadArguments{"RegistryWithoutFile", {"--registry"}}),
    [](const ::testing::TestParamInfo<BadArguments>& info) { return info.param.name; });

// A limit given a value it does not take: the first line of standard error
// names the value and the range.
struct BadLimit {
    std::string name;
    std::vector<std::string> arguments;
    std::string firstLine;
};

void PrintTo(const BadLimit& bad, std::ostream* out) {
    *out << bad.name;
}

class DevNodeBadLimitTest : public ::testing::TestWithParam<BadLimit> {};

TEST_P(DevNodeBadLimitTest, ExitWithStatusTwoNamingTheValue) {
    DevNodeProcess node(GetParam().arguments);

    const std::optional<ExitStatus> status = node.waitForExit(kExitLimit);

    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(status->exited);
    EXPECT_EQ(status->code, kBadArgumentsStatus);
    const std::string error = node.standardError();
    EXPECT_EQ(error.substr(0, error.find('\n')), GetParam().firstLine) << error;
    EXPECT_NE(error.find(kUsageStart), std::string::npos) << error;
    EXPECT_EQ(node.standardOutput(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Limits, DevNodeBadLimitTest,
    ::testing::Values(
        BadLimit{"RoutesThatAreNoNumber",
                 {"--max-routes", "many"},
                 "orvik-devnode: bad arguments (many)"},
        BadLimit{"NegativeRoutes", {"--max-routes", "-1"}, "orvik-devnode: bad arguments (-1)"},
        BadLimit{"RoutesAboveRange",
                 {"--max-routes", "100000001"},
                 "orvik-devnode: bad arguments (100000001 is not between 0 and 100000000)"},
        BadLimit{"RegistryBytesAboveRange",
                 {"--max-registry-bytes", "1073741825"},
                 "orvik-devnode: bad arguments (1073741825 is not between 0 and 1073741824)"},
        BadLimit{"NoApplications",
                 {"--max-applications", "0"},
                 "orvik-devnode: bad arguments (0 is not between 1 and 100000000)"},
        BadLimit{"EmptySubscriberQueue",
                 {"--subscriber-queue", "0"},
                 "orvik-devnode: bad arguments (0 is not between 1 and 100000000)"},
        BadLimit{"PublishQueueWithUnit",
                 {"--publish-queue-bytes", "64M"},
                 "orvik-devnode: bad arguments (64M)"},
        BadLimit{"PeerQueueAboveRange",
                 {"--peer-queue-bytes", "1099511627777"},
                 "orvik-devnode: bad arguments (1099511627777 is not between 1 and 1099511627776)"},
        BadLimit{"LimitWithoutValue",
                 {"--max-registry-bytes"},
                 "orvik-devnode: bad arguments (--max-registry-bytes needs a value)"}),
    [](const ::testing::TestParamInfo<BadLimit>& info) { return info.param.name; });

TEST(DevNodeCommandLineTest, UnreadableRegistryFileEndsTheStartWithStatusOne) {
    DevNodeProcess node(
        {"--listener-port", "0", "--dispenser-port", "0", "--registry", kMissingRegistry});

    const std::optional<ExitStatus> status = node.waitForExit(kExitLimit);

    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(status->exited);
    EXPECT_EQ(status->code, 1);
    EXPECT_NE(node.standardError().find(kMissingRegistry), std::string::npos)
        << node.standardError();
    EXPECT_EQ(node.standardOutput().find(kReadyLine), std::string::npos);
}

class DevNodeStopSignalTest : public DevNodeTest, public ::testing::WithParamInterface<int> {};

TEST_P(DevNodeStopSignalTest, StopsTheNodeCleanlyWithStatusZero) {
    // A client that has been served and is still connected.
    Recorder<std::string> acks;
    Client client("stop-client", listenerPort(), dispenserPort(), {"t"});
    sendMessage(client, "before the stop", {"t"}, &acks);
    ClientLoop loop(client);
    ASSERT_TRUE(acks.waitForCount(1, kEventLimit));

    node().sendSignal(GetParam());
    const std::optional<ExitStatus> status = node().waitForExit(kExitLimit);

    ASSERT_TRUE(status.has_value()) << "still running " << kExitLimit.count() << " s after signal";
    EXPECT_TRUE(status->exited) << "killed by signal " << status->signal;
    EXPECT_EQ(status->code, 0);
    const std::vector<std::string> lines = node().outputLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), kStoppedLine);
    EXPECT_EQ(node().standardError(), "");
}

INSTANTIATE_TEST_SUITE_P(Signals, DevNodeStopSignalTest, ::testing::Values(SIGTERM, SIGINT),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return std::string(info.param == SIGTERM ? "Sigterm" : "Sigint");
                         });

}  // namespace
}  // namespace devnodetest
