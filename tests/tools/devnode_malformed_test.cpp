#include <zmq.h>

#include <chrono>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/client.hpp>

#include "client_harness.hpp"
#include "devnode_fixture.hpp"
#include "support/raw_peer.hpp"
#include "support/test_node.hpp"

// A malformed request is logged with its sender and skipped; the node goes on
// serving, the sender's connection included.
namespace devnodetest {
namespace {

using orvikm::Client;
using testsupport::RawPeer;

const std::string kRawIdentity = "raw-peer";
const std::string kMalformedLog = "malformed request from " + kRawIdentity + ": ";
const std::string kTopic = "t";

std::map<std::string, std::string> messageHeaders(const std::string& id, const std::string& size,
                                                  const std::string& validFor) {
    return {{"ack_mode", "1"},      {"app_id", "raw-app"}, {"id", id},
            {"origin", ","},        {"p_size", size},      {"p_type", "text"},
            {"valid_for", validFor}};
}

struct Malformed {
    std::string name;
    std::vector<std::string> frames;
    std::string error;  // what the log line says went wrong
};

void PrintTo(const Malformed& malformed, std::ostream* out) {
    *out << malformed.name;
}

class DevNodeMalformedTest : public DevNodeTest, public ::testing::WithParamInterface<Malformed> {
protected:
    void SetUp() override {
        DevNodeTest::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        _peer.setBytesOption(ZMQ_ROUTING_ID, kRawIdentity);
        _peer.connect(testsupport::localhostEndpoint(dispenserPort()));
    }

    RawPeer& peer() { return _peer; }

private:
    RawPeer _peer{ZMQ_DEALER};
};

TEST_P(DevNodeMalformedTest, IsLoggedOnceWithItsSenderAndError) {
    peer().sendMessage(GetParam().frames);
    // Served after the malformed request: once its line is there, every line
    // about the malformed one is too.
    peer().sendMessage(testsupport::messageFrames("after-id", "after", {kTopic}));
    ASSERT_TRUE(node().waitForLine("MSG after-id", kEventLimit).has_value())
        << node().standardOutput();

    EXPECT_EQ(logLinesContaining(kMalformedLog), 1u) << node().standardOutput();
    const auto line = node().waitForLine(kMalformedLog, kEventLimit);
    ASSERT_TRUE(line.has_value()) << node().standardOutput();
    EXPECT_NE(line->find(GetParam().error), std::string::npos) << *line;
}

TEST_P(DevNodeMalformedTest, LeavesTheSendersConnectionWorking) {
    peer().sendMessage(GetParam().frames);

    peer().sendMessage(testsupport::messageFrames("after-id", "after", {kTopic}));

    const auto answer = peer().receiveMessage(kEventLimit);
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(frameBytes(*answer), testsupport::ackFrames("after-id"));
}

TEST_P(DevNodeMalformedTest, LeavesTheNodeServingClients) {
    peer().sendMessage(GetParam().frames);
    ASSERT_TRUE(node().waitForLine(kMalformedLog, kEventLimit).has_value())
        << node().standardOutput();

    Recorder<std::string> acks;
    Client client("after-malformed", listenerPort(), dispenserPort(), {});
    const std::string id = sendMessage(client, "valid", {kTopic}, &acks);
    ClientLoop loop(client);

    EXPECT_TRUE(acks.waitForCount(1, kEventLimit));
    EXPECT_TRUE(node().running());
    EXPECT_TRUE(loop.errors().empty()) << loop.errors().front();
}

const std::string kDelimiter = testsupport::delimiter();

INSTANTIATE_TEST_SUITE_P(
    Requests, DevNodeMalformedTest,
    ::testing::Values(
        Malformed{"HeaderWithoutSeparator",
                  {kDelimiter, "GREG", "no-separator", kDelimiter, kDelimiter},
                  R"(No "|" found in "no-separator")"},
        Malformed{"UnknownCommand",
                  {kDelimiter, "FETCH", kDelimiter, kDelimiter},
                  "Unrecognised command name: FETCH"},
        Malformed{
            "UnreadablePayloadSize",
            testsupport::messageFrames({kTopic}, messageHeaders("bad-size", "abc", "30"), "abc"),
            "a numeric header holds no number"},
        Malformed{
            "PayloadSizeOutOfRange",
            testsupport::messageFrames(
                {kTopic}, messageHeaders("huge-size", "99999999999999999999999", "30"), "abc"),
            "a numeric header holds a number out of range"},
        Malformed{"UnreadableValidity",
                  testsupport::messageFrames({kTopic}, messageHeaders("bad-validity", "3", "soon"),
                                             "abc"),
                  "a numeric header holds no number"},
        Malformed{"PayloadShorterThanDeclared",
                  testsupport::messageFrames({kTopic}, messageHeaders("short", "10", "30"), "abc"),
                  R"(Payload frame holds 3 bytes but "p_size" declares 10)"},
        Malformed{"SingleEmptyFrame", {""}, "Expected more frames"},
        Malformed{"RequestCutShortAfterTheCommand",
                  {kDelimiter, "GREG"},
                  "Expected more frames. Next section: Headers"}),
    [](const ::testing::TestParamInfo<Malformed>& info) { return info.param.name; });

}  // namespace
}  // namespace devnodetest
