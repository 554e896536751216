#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/client.hpp>

#include "client_harness.hpp"
#include "example_run.hpp"
#include "support/program_process.hpp"

// examples/asio_receiver, a client driven from an asio::io_context by
// AsioDriver, run against orvik-devnode with a client of the test sending.
namespace {

using namespace std::chrono_literals;
using exampletest::ExampleTest;
using testsupport::ProgramProcess;

const std::string kTopic = "news";
const std::string kAllReceived = "asio_receiver: 3 of 3 messages received";
const std::string kGot = "asio_receiver: got \"";
constexpr auto kSendInterval = 100ms;

using AsioReceiverExampleTest = ExampleTest;

TEST_F(AsioReceiverExampleTest, PrintsAndAcknowledgesWhatArrivesAndExitsAfterItsCount) {
    std::vector<std::string> arguments = portArguments();
    arguments.insert(arguments.end(), {"--topic", kTopic, "--count", "3", "--timeout",
                                       exampletest::kExampleTimeout});
    ProgramProcess example(ASIO_RECEIVER_PATH, arguments);
    orvikm::Client sender("asio-receiver-test-sender", listenerPort(), dispenserPort(), {});
    devnodetest::ClientLoop loop(sender);

    // The example hears only what is published once its subscription has
    // reached the node, so the test sends until it has exited.
    std::optional<testsupport::ExitStatus> status;
    const auto end = std::chrono::steady_clock::now() + exampletest::kExitLimit;
    for (int i = 1; !status && std::chrono::steady_clock::now() < end; ++i) {
        devnodetest::sendMessage(sender, "probe #" + std::to_string(i), {kTopic}, nullptr);
        status = example.waitForExit(kSendInterval);
    }

    ASSERT_TRUE(status) << example.standardError();
    EXPECT_TRUE(status->exited);
    EXPECT_EQ(status->code, 0) << example.standardError();
    const std::vector<std::string> lines = example.outputLines();
    ASSERT_EQ(lines.size(), 4u) << example.standardOutput();
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(lines[i].rfind(kGot + "probe #", 0), 0u) << lines[i];
    }
    EXPECT_EQ(lines[3], kAllReceived);
}

}  // namespace
