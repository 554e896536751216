// What orvik does with a command line it cannot use, and its help: no node
// is needed, as none of these runs gets as far as connecting.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include "orvik_fixture.hpp"

namespace orviktest {
namespace {

const std::vector<std::string> kPorts{"-l", "5555", "-d", "5556"};
// The largest payload orvik send takes, 64 MiB.
constexpr std::size_t kLargestPayload = std::size_t{64} << 20;
const std::vector<std::string> kPortVariables{"ORVIK_LISTENER_PORT=5555",
                                              "ORVIK_DISPENSER_PORT=5556"};

std::vector<std::string> withPorts(std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), kPorts.begin(), kPorts.end());
    return arguments;
}

// Exit status 2, nothing on standard output, and on standard error the
// complaint followed by the usage.
void expectUsageError(const Finished& finished, const std::string& complaint) {
    ASSERT_TRUE(finished.status.exited);
    EXPECT_EQ(finished.status.code, 2) << finished.error;
    EXPECT_EQ(finished.output, "");
    EXPECT_EQ(finished.error.rfind("orvik: ", 0), 0u) << finished.error;
    EXPECT_NE(finished.error.find(complaint), std::string::npos) << finished.error;
    EXPECT_NE(finished.error.find("Usage: "), std::string::npos) << finished.error;
}

TEST(OrvikUsageTest, MissingPortsAreAUsageErrorNamingBothWaysToGiveThem) {
    const Finished finished = runOrvik({"send", "x"});

    expectUsageError(finished,
                     "give -l/--listener-port and -d/--dispenser-port, or set "
                     "ORVIK_LISTENER_PORT and ORVIK_DISPENSER_PORT");
}

TEST(OrvikUsageTest, OnePortMissingIsAUsageError) {
    expectUsageError(runOrvik({"send", "x"}, {"ORVIK_LISTENER_PORT=5555"}), "ports are needed");
}

TEST(OrvikUsageTest, PortThatIsNoNumberInTheEnvironmentIsAUsageError) {
    expectUsageError(
        runOrvik({"send", "x"}, {"ORVIK_LISTENER_PORT=five", "ORVIK_DISPENSER_PORT=5556"}),
        "--listener-port");
}

TEST(OrvikUsageTest, PortOutOfRangeIsAUsageError) {
    expectUsageError(runOrvik({"send", "-l", "70000", "-d", "5556", "x"}), "--listener-port");
}

TEST(OrvikUsageTest, NoSubcommandIsAUsageError) {
    expectUsageError(runOrvik(kPorts), "subcommand");
}

TEST(OrvikUsageTest, UnknownSubcommandIsAUsageError) {
    expectUsageError(runOrvik(withPorts({"publish", "x"})), "publish");
}

TEST(OrvikUsageTest, UnknownOptionIsAUsageError) {
    expectUsageError(runOrvik(withPorts({"send", "--colour", "x"})), "--colour");
}

TEST(OrvikUsageTest, SendWithoutAPayloadIsAUsageError) {
    expectUsageError(runOrvik(withPorts({"send", "-r", "news"})), "DATA, -f FILE or -");
}

TEST(OrvikUsageTest, SendWithDataAndAFileIsAUsageError) {
    expectUsageError(runOrvik(withPorts({"send", "-f", "/etc/hostname", "x"})), "Excludes");
}

TEST(OrvikUsageTest, SendFromAFileThatDoesNotExistIsAUsageError) {
    expectUsageError(runOrvik(withPorts({"send", "-f", "/nonexistent/orvik-payload"})),
                     "/nonexistent/orvik-payload");
}

TEST(OrvikUsageTest, ValidityBelowOneSecondIsAUsageError) {
    expectUsageError(runOrvik(withPorts({"send", "--valid-for", "0", "--ack", "none", "hello"})),
                     "valid for at least 1 second");
}

TEST(OrvikUsageTest, PayloadFileLargerThanTheBoundIsAUsageErrorNamingIt) {
    const std::string path = ::testing::TempDir() + "orvik_payload_too_large.bin";
    std::ofstream(path, std::ios::binary).close();
    std::filesystem::resize_file(path, kLargestPayload + 1);

    const Finished finished = runOrvik(withPorts({"send", "--timeout", "1", "-f", path}));
    std::remove(path.c_str());

    expectUsageError(finished, "64 MiB");
}

TEST(OrvikUsageTest, StandardInputLargerThanTheBoundIsAUsageErrorNamingIt) {
    expectUsageError(runOrvik(withPorts({"send", "--timeout", "1", "-"}), {},
                              std::string(kLargestPayload + 1, 'p')),
                     "64 MiB");
}

TEST(OrvikUsageTest, UnknownAckModeIsAUsageError) {
    expectUsageError(runOrvik(withPorts({"send", "--ack", "sometimes", "x"})), "sometimes");
}

TEST(OrvikUsageTest, RouteTheNodeWouldRefuseIsAUsageErrorInTheLibrarysWords) {
    expectUsageError(runOrvik(withPorts({"send", "-r", std::string(101, 'r'), "x"})), "route");
}

TEST(OrvikUsageTest, AppIdTooLongIsAUsageError) {
    expectUsageError(runOrvik(withPorts({"--app-id", std::string(94, 'a'), "send", "x"})),
                     "93 bytes");
}

TEST(OrvikUsageTest, NegativeTimeoutIsAUsageError) {
    expectUsageError(runOrvik(withPorts({"send", "--timeout", "-1", "x"})), "--timeout");
}

TEST(OrvikUsageTest, ListenWithoutATopicIsAUsageError) {
    expectUsageError(runOrvik(withPorts({"listen"})), "--subscribe");
}

TEST(OrvikUsageTest, ListenInAnUnknownFormatIsAUsageError) {
    expectUsageError(runOrvik(withPorts({"listen", "-s", "news", "--format", "xml"})), "xml");
}

TEST(OrvikUsageTest, RegistryCountWithoutWatchIsAUsageError) {
    expectUsageError(runOrvik(withPorts({"registry", "-n", "2"})), "--watch");
}

TEST(OrvikUsageTest, BenchCountOfZeroIsAUsageError) {
    expectUsageError(runOrvik(withPorts({"bench", "-n", "0"})), "--count");
}

TEST(OrvikUsageTest, CommonOptionsMayComeBeforeOrAfterTheSubcommand) {
    // Both placements parse: each run gets as far as its own usage error.
    expectUsageError(runOrvik({"-l", "5555", "-d", "5556", "send", "--ack", "bad", "x"}), "bad");
    expectUsageError(runOrvik({"send", "--ack", "bad", "x", "-l", "5555", "-d", "5556"}), "bad");
}

TEST(OrvikUsageTest, VersionPrintsTheVersionAndSucceeds) {
    const Finished finished = runOrvik({"--version"});

    EXPECT_EQ(finished.status.code, 0);
    EXPECT_EQ(finished.output, std::string("orvik ") + ORVIK_VERSION + "\n");
}

TEST(OrvikUsageTest, HelpNamesEverySubcommandAndCommonOptionWithoutAnyPort) {
    const Finished finished = runOrvik({"--help"});

    EXPECT_EQ(finished.status.code, 0);
    for (const char* name : {"send", "listen", "registry", "bench", "--listener-port",
                             "--dispenser-port", "--app-id", "--timeout", "--verbose", "--version",
                             "ORVIK_LISTENER_PORT", "ORVIK_DISPENSER_PORT", "Exit status"}) {
        EXPECT_NE(finished.output.find(name), std::string::npos) << name;
    }
}

struct SubcommandHelp {
    const char* subcommand;
    std::vector<std::string> options;
};

void PrintTo(const SubcommandHelp& help, std::ostream* out) {
    *out << help.subcommand;
}

class OrvikSubcommandHelpTest : public ::testing::TestWithParam<SubcommandHelp> {};

TEST_P(OrvikSubcommandHelpTest, HelpNamesEveryOptionOfTheSubcommandAndTheCommonOnes) {
    const Finished finished = runOrvik({GetParam().subcommand, "--help"}, kPortVariables);

    EXPECT_EQ(finished.status.code, 0);
    EXPECT_NE(finished.output.find(std::string("Usage: orvik ") + GetParam().subcommand),
              std::string::npos)
        << finished.output;
    for (const std::string& option : GetParam().options) {
        EXPECT_NE(finished.output.find(option), std::string::npos) << option;
    }
    for (const char* common : {"--listener-port", "--dispenser-port", "ORVIK_LISTENER_PORT",
                               "ORVIK_DISPENSER_PORT", "--app-id", "--timeout", "--verbose"}) {
        EXPECT_NE(finished.output.find(common), std::string::npos) << common;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Subcommands, OrvikSubcommandHelpTest,
    ::testing::Values(SubcommandHelp{"send",
                                     {"--route", "--type", "--valid-for", "--ack", "--count",
                                      "--file", "data", "sent N, acknowledged M"}},
                      SubcommandHelp{"listen",
                                     {"--subscribe", "--count", "--no-ack", "--format",
                                      "body_base64", "routes_base64"}},
                      SubcommandHelp{"registry", {"--watch", "--count", "--format"}},
                      SubcommandHelp{"bench",
                                     {"--count", "--size", "--window", "--route", "--format"}}),
    [](const ::testing::TestParamInfo<SubcommandHelp>& info) {
        return std::string(info.param.subcommand);
    });

}  // namespace
}  // namespace orviktest
