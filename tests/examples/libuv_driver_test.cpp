#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "example_run.hpp"
#include "support/program_process.hpp"
#include "support/reserved_port.hpp"

// examples/libuv_driver, a client driven from a libuv loop, run against
// orvik-devnode.
namespace {

using namespace std::chrono_literals;
using exampletest::ExampleTest;
using testsupport::ProgramProcess;

constexpr int kMessages = 200;
const std::string kAllAcknowledged =
    "libuv_driver: 200 of 200 messages acknowledged along route news";
const std::string kNoneAcknowledged = "libuv_driver: 0 of 3 messages acknowledged along route news";
const std::string kPublishedFromTheExample = " from example-libuv-driver|disp (";
// Error 11, whichever write (a message, the inbox check) fails first.
const std::string kNotAvailable = "libuv_driver: Resource temporarily unavailable\n";

using LibuvDriverExampleTest = ExampleTest;

TEST_F(LibuvDriverExampleTest, SendsItsMessagesAndExitsOnceTheNodeHasAcknowledgedEveryOne) {
    std::vector<std::string> arguments = portArguments();
    arguments.insert(arguments.end(), {"--count", std::to_string(kMessages), "--timeout",
                                       exampletest::kExampleTimeout});
    ProgramProcess example(LIBUV_DRIVER_PATH, arguments);

    const auto status = example.waitForExit(exampletest::kExitLimit);

    ASSERT_TRUE(status) << example.standardError();
    EXPECT_TRUE(status->exited);
    EXPECT_EQ(status->code, 0) << example.standardError();
    EXPECT_EQ(example.outputLines(), std::vector<std::string>{kAllAcknowledged});
    EXPECT_TRUE(waitForLogLines(kPublishedFromTheExample, kMessages, 5s))
        << logLinesContaining(kPublishedFromTheExample);
}

TEST_F(LibuvDriverExampleTest, ExitsWithOneAndTheErrorWhenNoNodeListens) {
    const testsupport::ReservedPort nobody;
    ProgramProcess example(
        LIBUV_DRIVER_PATH,
        {"--listener-port", std::to_string(nobody.port()), "--dispenser-port",
         std::to_string(nobody.port()), "--count", "3", "--timeout", exampletest::kExampleTimeout});

    const auto status = example.waitForExit(exampletest::kExitLimit);

    ASSERT_TRUE(status) << example.standardError();
    EXPECT_TRUE(status->exited);
    EXPECT_EQ(status->code, 1);
    EXPECT_EQ(example.outputLines(), std::vector<std::string>{kNoneAcknowledged});
    EXPECT_EQ(example.standardError().rfind(kNotAvailable, 0), 0u) << example.standardError();
}

}  // namespace
