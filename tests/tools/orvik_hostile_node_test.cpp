// orvik against a stand-in node that answers with what the library cannot
// read: every subcommand ends cleanly, with one line saying why.
#include <algorithm>
#include <string>
#include <vector>

#include "orvik_fixture.hpp"
#include "support/test_node.hpp"

namespace orviktest {
namespace {

// A registry whose size header is no number: the library passes on the
// standard exception its reading raises.
const std::vector<std::string> kUnreadableRegistry{
    testsupport::delimiter(), "REG", "p_size|abc", "p_type|json", testsupport::delimiter(), "{}"};

struct HostileCase {
    const char* subcommand;
    std::vector<std::string> arguments;
    const char* request;  // the request the node answers with kUnreadableRegistry
};

void PrintTo(const HostileCase& hostile, std::ostream* out) {
    *out << hostile.subcommand;
}

class OrvikHostileNodeTest : public ::testing::TestWithParam<HostileCase> {};

TEST_P(OrvikHostileNodeTest, AnAnswerTheLibraryCannotReadEndsTheRunWithOneLineAndStatusOne) {
    testsupport::TestNode node;
    std::vector<std::string> arguments{GetParam().subcommand,
                                       "-l",
                                       std::to_string(node.listenerPort()),
                                       "-d",
                                       std::to_string(node.dispenserPort()),
                                       "--timeout",
                                       "5"};
    arguments.insert(arguments.end(), GetParam().arguments.begin(), GetParam().arguments.end());
    OrvikCommand command(arguments);
    const std::optional<testsupport::WrittenRequest> request =
        node.receiveCommand(GetParam().request, kEventLimit);
    ASSERT_TRUE(request.has_value()) << command.standardError();

    node.sendTo(request->identity, kUnreadableRegistry);
    const std::optional<ExitStatus> status = command.waitForExit(kRunLimit);

    ASSERT_TRUE(status.has_value());
    ASSERT_TRUE(status->exited) << "ended by signal " << status->signal;
    EXPECT_EQ(status->code, 1);
    const std::string error = command.standardError();
    EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), 1) << error;
    EXPECT_EQ(error.rfind(std::string("orvik ") + GetParam().subcommand + ": ", 0), 0u) << error;
}

INSTANTIATE_TEST_SUITE_P(Subcommands, OrvikHostileNodeTest,
                         ::testing::Values(HostileCase{"send", {"x"}, "MSG"},
                                           HostileCase{"registry", {}, "GREG"},
                                           HostileCase{"bench", {"-n", "10"}, "MSG"}),
                         [](const ::testing::TestParamInfo<HostileCase>& info) {
                             return std::string(info.param.subcommand);
                         });

}  // namespace
}  // namespace orviktest
