// orvik listen against orvik-devnode, with messages sent by orvik send.
#include <csignal>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "orvik_fixture.hpp"
#include "support/reserved_port.hpp"
#include "support/test_node.hpp"

namespace orviktest {
namespace {

const std::string kRoute = "news";
const std::string kProbeRoute = "probe";

class OrvikListenTest : public OrvikTest {
protected:
    // Starts `orvik listen` subscribed to kRoute and then kProbeRoute, and
    // returns once it prints the probes: the subscription to kRoute, made
    // first, has reached the node too.
    std::unique_ptr<OrvikCommand> startListening(std::vector<std::string> options) {
        std::vector<std::string> arguments{"listen",    "-s",        kRoute, "-s",
                                           kProbeRoute, "--timeout", "0"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        auto listener = std::make_unique<OrvikCommand>(withPorts(arguments));
        EXPECT_TRUE(probeUntilListening(*listener, kProbeRoute, kEventLimit))
            << listener->standardError();
        return listener;
    }

    // Sends with orvik send along kRoute and returns the message's id.
    std::string send(std::vector<std::string> options, std::optional<std::string> input = {}) {
        std::vector<std::string> arguments{"send", "-v", "-r", kRoute, "--app-id", "the-sender"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        const Finished sent = runOrvik(withPorts(arguments), {}, std::move(input));
        EXPECT_EQ(sent.status.code, 0) << sent.error;
        const std::vector<std::string> ids = queuedIds(sent.error);
        return ids.empty() ? "" : ids.front();
    }

    // Ends the listener with Ctrl-C and checks that it exits 0.
    void interrupt(OrvikCommand& listener) {
        listener.sendSignal(SIGINT);
        const std::optional<ExitStatus> status = listener.waitForExit(kRunLimit);
        ASSERT_TRUE(status.has_value());
        EXPECT_TRUE(status->exited);
        EXPECT_EQ(status->code, 0) << listener.standardError();
    }
};

TEST_F(OrvikListenTest, JsonFormatPrintsOneObjectALineWithEveryField) {
    auto listener = startListening({"--format", "json"});
    const std::string id = send({"-t", "text/x-note", "--valid-for", "30", "hello"});
    const std::optional<std::string> line = listener->waitForLine(id, kEventLimit);
    interrupt(*listener);

    ASSERT_TRUE(line.has_value());
    const nlohmann::json message = nlohmann::json::parse(*line);
    EXPECT_EQ(message.at("id"), id);
    EXPECT_EQ(message.at("app_id"), "the-sender");
    EXPECT_EQ(message.at("routes"), nlohmann::json::array({kRoute}));
    EXPECT_EQ(message.at("type"), "text/x-note");
    EXPECT_EQ(message.at("size"), 5);
    EXPECT_EQ(message.at("valid_for"), 30);
    EXPECT_EQ(message.at("ack_mode"), 1);
    EXPECT_EQ(message.at("origin"), nlohmann::json::array());
    EXPECT_EQ(message.at("body"), "hello");
    EXPECT_EQ(message.at("body_base64"), "aGVsbG8=");
    EXPECT_EQ(message.size(), 10u);
}

TEST_F(OrvikListenTest, JsonBodyIsNullForAPayloadThatIsNotUtf8) {
    auto listener = startListening({"--format", "json"});
    const std::string id = send({"-"}, std::string("\xff\x00\x01", 3));
    const std::optional<std::string> line = listener->waitForLine(id, kEventLimit);
    interrupt(*listener);

    ASSERT_TRUE(line.has_value());
    const nlohmann::json message = nlohmann::json::parse(*line);
    EXPECT_TRUE(message.at("body").is_null());
    EXPECT_EQ(message.at("body_base64"), "/wAB");
    EXPECT_EQ(message.at("size"), 3);
}

TEST_F(OrvikListenTest, TextFormatPrintsOneReadableLineAMessage) {
    auto listener = startListening({});
    const std::string id = send({"--valid-for", "30", "--ack", "receivers", "two\nlines"});
    const std::optional<std::string> line = listener->waitForLine(id, kEventLimit);
    interrupt(*listener);

    ASSERT_TRUE(line.has_value());
    EXPECT_EQ(*line, id + " from the-sender on news (text/plain, 9 bytes, valid 30 s, ack "
                          "receivers): two\\nlines");
}

TEST_F(OrvikListenTest, EveryMessageIsAcknowledged) {
    auto listener = startListening({"--app-id", "the-listener"});
    const std::string id = send({"ack me"});
    ASSERT_TRUE(listener->waitForLine(id, kEventLimit));

    EXPECT_TRUE(node().waitForLine("ACK from the-listener|disp msg_id=" + id, kEventLimit));
    interrupt(*listener);
}

TEST_F(OrvikListenTest, NoAckLeavesTheMessagesUnacknowledged) {
    auto listener = startListening({"--app-id", "the-listener", "--no-ack"});
    const std::string id = send({"leave me"});
    ASSERT_TRUE(listener->waitForLine(id, kEventLimit));
    interrupt(*listener);
    // A later message from elsewhere has been handled: an acknowledgement
    // written before the listener printed would have been logged by now.
    const std::string later = send({"later"});
    ASSERT_TRUE(node().waitForLine("MSG " + later, kEventLimit));

    EXPECT_EQ(logLinesContaining("ACK from the-listener|disp"), 0u);
}

TEST_F(OrvikListenTest, CountEndsListeningWithSuccessAfterThatManyMessages) {
    OrvikCommand listener(withPorts({"listen", "-s", kRoute, "-n", "1"}));

    ASSERT_TRUE(probeUntilListening(listener, kRoute, kEventLimit));
    const std::optional<ExitStatus> status = listener.waitForExit(kRunLimit);

    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->code, 0) << listener.standardError();
    EXPECT_EQ(listener.outputLines().size(), 1u);
}

TEST_F(OrvikListenTest, CountNotReachedByTheDeadlineFails) {
    const auto start = std::chrono::steady_clock::now();

    const Finished listened =
        runOrvik(withPorts({"listen", "-s", kRoute, "-n", "2", "--timeout", "1"}));

    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_EQ(listened.status.code, 1);
    EXPECT_EQ(listened.error, "orvik listen: deadline passed (received 0 of 2)\n");
}

TEST_F(OrvikListenTest, WithoutACountTheDeadlineEndsListeningWithSuccess) {
    const auto start = std::chrono::steady_clock::now();

    const Finished listened = runOrvik(withPorts({"listen", "-s", kRoute, "--timeout", "1"}));

    EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);
    EXPECT_EQ(listened.status.code, 0) << listened.error;
    EXPECT_EQ(listened.output, "");
}

TEST_F(OrvikListenTest, CtrlCBeforeTheCountIsReachedFails) {
    auto listener = startListening({"-n", "100"});

    listener->sendSignal(SIGINT);
    const std::optional<ExitStatus> status = listener->waitForExit(kRunLimit);

    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(status->exited);
    EXPECT_EQ(status->code, 1);
    EXPECT_NE(listener->standardError().find("orvik listen: interrupted (received "),
              std::string::npos)
        << listener->standardError();
}

TEST_F(OrvikListenTest, AClosedStandardOutputEndsListeningLikeCtrlCAndEveryPrintedMessageIsAcked) {
    OrvikCommand listener(
        withPorts({"listen", "-s", kRoute, "--timeout", "0", "--app-id", "the-listener"}), {},
        outputReadFor(1));
    ASSERT_TRUE(probeUntilListening(listener, kRoute, kEventLimit));

    const std::string unprinted = send({"after the reader left"});
    const std::optional<ExitStatus> status = listener.waitForExit(kRunLimit);

    ASSERT_TRUE(status.has_value());
    ASSERT_TRUE(status->exited) << "ended by signal " << status->signal;
    EXPECT_EQ(status->code, 0) << listener.standardError();
    std::smatch summary;
    const std::string error = listener.standardError();
    ASSERT_TRUE(std::regex_match(
        error, summary, std::regex("orvik listen: standard output closed \\(received (\\d+)\\)\n")))
        << error;
    // Handled after everything the listener wrote before it ended.
    const std::string later = send({"later"});
    ASSERT_TRUE(node().waitForLine("MSG " + later, kEventLimit));
    EXPECT_EQ(std::to_string(logLinesContaining("ACK from the-listener|disp")), summary[1]);
    EXPECT_EQ(logLinesContaining("ACK from the-listener|disp msg_id=" + unprinted), 0u);
}

// Ends listening without a count by `signal`; the lines printed and the
// number in the summary on standard error agree.
class OrvikListenStopTest : public OrvikListenTest, public ::testing::WithParamInterface<int> {};

TEST_P(OrvikListenStopTest, WithoutACountASignalEndsWithSuccessAndSaysHowManyCame) {
    auto listener = startListening({});
    const std::string id = send({"hello"});
    ASSERT_TRUE(listener->waitForLine(id, kEventLimit));

    listener->sendSignal(GetParam());
    const std::optional<ExitStatus> status = listener->waitForExit(kEventLimit);

    ASSERT_TRUE(status.has_value()) << "orvik listen did not end after the signal";
    ASSERT_TRUE(status->exited);
    EXPECT_EQ(status->code, 0) << listener->standardError();
    std::smatch summary;
    const std::string error = listener->standardError();
    ASSERT_TRUE(std::regex_match(error, summary,
                                 std::regex("orvik listen: interrupted \\(received (\\d+)\\)\n")))
        << error;
    EXPECT_EQ(summary[1], std::to_string(listener->outputLines().size()));
}

INSTANTIATE_TEST_SUITE_P(Signals, OrvikListenStopTest, ::testing::Values(SIGINT, SIGTERM),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return std::string(info.param == SIGTERM ? "Sigterm" : "Sigint");
                         });

const std::string kDropped =
    "orvik listen: dropped a message from the node that could not be read: ";

// A header of a published message that the library cannot read; no value:
// the header is left out.
struct HostileHeader {
    const char* name;
    const char* key;
    std::optional<std::string> value;
};

void PrintTo(const HostileHeader& header, std::ostream* out) {
    *out << header.name;
}

// What a node publishes along kRoute: the topic frame, then the message's
// frames.
std::vector<std::string> publication(const std::map<std::string, std::string>& headers,
                                     const std::string& payload) {
    std::vector<std::string> frames{kRoute};
    const std::vector<std::string> message = testsupport::messageFrames({kRoute}, headers, payload);
    frames.insert(frames.end(), message.begin(), message.end());
    return frames;
}

std::map<std::string, std::string> usualHeaders(const std::string& id, const std::string& payload) {
    return {{"ack_mode", "1"},
            {"app_id", "hostile-app"},
            {"id", id},
            {"origin", ","},
            {"p_size", std::to_string(payload.size())},
            {"p_type", "text/plain"},
            {"valid_for", "30"}};
}

class OrvikListenHostileTest : public ::testing::TestWithParam<HostileHeader> {};

TEST_P(OrvikListenHostileTest, AMessageThatCannotBeReadIsReportedDroppedAndListeningGoesOn) {
    testsupport::TestNode node;
    OrvikCommand listener({"listen", "-l", std::to_string(node.listenerPort()), "-d",
                           std::to_string(node.dispenserPort()), "-s", kRoute, "--timeout", "0"});
    ASSERT_TRUE(node.waitForSubscription(kRoute, kEventLimit)) << listener.standardError();
    std::map<std::string, std::string> hostile = usualHeaders("hostile-id", "bad");
    if (GetParam().value) {
        hostile[GetParam().key] = *GetParam().value;
    } else {
        hostile.erase(GetParam().key);
    }
    const std::string goodId = "0b5ad2a4-3d69-4c4a-9d7e-2f4f1c3e8a10";

    node.publish(publication(hostile, "bad"));
    node.publish(publication(usualHeaders(goodId, "good"), "good"));

    ASSERT_TRUE(listener.waitForLine(goodId, kEventLimit)) << listener.standardError();
    const std::optional<testsupport::WrittenRequest> ack = node.receiveCommand("ACK", kEventLimit);
    ASSERT_TRUE(ack.has_value());
    EXPECT_EQ(ack->headers.at("msg_id"), goodId);
    listener.sendSignal(SIGINT);
    const std::optional<ExitStatus> status = listener.waitForExit(kRunLimit);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(status->exited);
    EXPECT_EQ(status->code, 0) << listener.standardError();
    const std::vector<std::string> errors =
        testsupport::program_process_detail::splitLines(listener.standardError());
    ASSERT_EQ(errors.size(), 2u) << listener.standardError();
    EXPECT_EQ(errors[0].rfind(kDropped, 0), 0u) << errors[0];
    EXPECT_GT(errors[0].size(), kDropped.size()) << "the error's own text is missing";
    EXPECT_EQ(errors[1], "orvik listen: interrupted (received 1)");
}

INSTANTIATE_TEST_SUITE_P(
    Headers, OrvikListenHostileTest,
    ::testing::Values(HostileHeader{"SizeThatIsNoNumber", "p_size", "abc"},
                      HostileHeader{"ValidityOutOfRange", "valid_for", "99999999999999999999"},
                      HostileHeader{"AckModeThatIsNoNumber", "ack_mode", "one"},
                      HostileHeader{"TypeMissing", "p_type", std::nullopt}),
    [](const ::testing::TestParamInfo<HostileHeader>& info) { return info.param.name; });

TEST(OrvikListenAloneTest, CtrlCWhileStandardOutputIsFullEndsListeningWithinASecond) {
    testsupport::TestNode node;
    OrvikCommand listener({"listen", "-l", std::to_string(node.listenerPort()), "-d",
                           std::to_string(node.dispenserPort()), "-s", kRoute, "--timeout", "0"},
                          {}, outputStalled());
    ASSERT_TRUE(node.waitForSubscription(kRoute, kEventLimit)) << listener.standardError();
    // Lines of 32 KiB: a few of them fill the pipe, and the listener waits in
    // a write.
    const std::string payload(32 * 1024, 'f');
    for (int i = 0; i < 8; ++i) {
        node.publish(publication(usualHeaders("filler-" + std::to_string(i), payload), payload));
    }
    std::this_thread::sleep_for(200ms);

    const auto signalled = std::chrono::steady_clock::now();
    listener.sendSignal(SIGINT);
    const std::optional<ExitStatus> status = listener.waitForExit(kEventLimit);

    ASSERT_TRUE(status.has_value()) << "orvik listen did not end after Ctrl-C";
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - signalled);
    EXPECT_LT(took, 1s) << took.count() << " ms";
    ASSERT_TRUE(status->exited);
    EXPECT_EQ(status->code, 0);
    EXPECT_TRUE(std::regex_match(listener.standardError(),
                                 std::regex("orvik listen: interrupted \\(received \\d\\)\n")))
        << listener.standardError();
}

TEST(OrvikListenAloneTest, AbsentNodeFailsWithinTheDeadline) {
    const testsupport::ReservedPort listenerPort;
    const testsupport::ReservedPort dispenserPort;
    const auto start = std::chrono::steady_clock::now();

    const Finished listened =
        runOrvik({"listen", "-s", kRoute, "--timeout", "2"},
                 {"ORVIK_LISTENER_PORT=" + std::to_string(listenerPort.port()),
                  "ORVIK_DISPENSER_PORT=" + std::to_string(dispenserPort.port())});

    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
    EXPECT_EQ(listened.status.code, 1);
    EXPECT_EQ(listened.error.rfind("orvik listen: Resource temporarily unavailable", 0), 0u)
        << listened.error;
}

// A listener outlives the node: it says when the node goes away and when it
// is back, and prints what is published after that.
TEST_F(OrvikListenTest, ANodeThatGoesAwayAndComesBackIsSaidAndListeningGoesOn) {
    const std::unique_ptr<OrvikCommand> listener = startListening({});

    killNode();
    ASSERT_TRUE(
        listener->waitForErrorText("orvik listen: the node went away (listener port ", kEventLimit))
        << listener->standardError();
    restartNode();
    ASSERT_TRUE(listener->waitForErrorText("orvik listen: the node is back", kEventLimit))
        << listener->standardError();
    ASSERT_TRUE(probeUntilListening(*listener, kProbeRoute, kEventLimit));
    const std::string id = send({"after the return"});

    EXPECT_TRUE(listener->waitForLine(id, kEventLimit)) << listener->standardError();
    interrupt(*listener);
}

}  // namespace
}  // namespace orviktest
