#include <zmq.h>

#include <chrono>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "devnode_fixture.hpp"
#include "devnode_raw_peers.hpp"

// What peers can do to the node's log: bytes they chose show escaped, so
// they cannot forge lines or drive the terminal, and a peer that keeps
// sending malformed requests fills the log with a summary a second, not a
// line per request.
namespace devnodetest {
namespace {

const std::string kEvilIdentity = "ev\x1b[1mil";
const std::string kEvilIdentityLogged = "ev\\x1b[1mil";
const std::string kEvilCommand(
    "\r\x1b[2J\x00"
    "FAKE",
    10);
// what() of an error ends at its first zero byte; its context line has all.
const std::string kEvilCommandLogged =
    "Unrecognised command name: \\x0d\\x1b[2J;"
    "While trying to decode a received request (\\x0d\\x1b[2J\\x00FAKE)";
const std::string kEvilHeader = "\x1b]0;owned\x07\n2001-01-01T00:00:00Z forged\x7f\xff";
const std::string kEvilHeaderLogged =
    "\\x1b]0;owned\\x07\\x0a2001-01-01T00:00:00Z forged\\x7f\\xff";
const std::string kSentinelId = "sentinel\x1b[0m";
const std::string kSentinelLogged = "MSG sentinel\\x1b[0m from " + kEvilIdentityLogged;
const std::string kBackslashAppId = "back\\slash";
const std::string kBackslashLogged = "app_id=back\\\\slash";

const std::string kFloodIdentity = "flood-peer";
const std::string kMalformedLine = "malformed request from " + kFloodIdentity + ": ";
const std::regex kSummaryLine("malformed requests from " + kFloodIdentity +
                              ": (\\d+) more not logged in the last \\d+ seconds?");
constexpr std::size_t kFlood = 200;
// At once, and earned back during the test at one a second.
constexpr std::size_t kMostLinesLogged = 10 + 5;
constexpr auto kSummaryLimit = 5s;

// Bytes of the log other than printable ASCII and the line ends.
std::string unprintableBytes(const std::string& log) {
    std::string found;
    for (const unsigned char c : log) {
        if (c != '\n' && (c < 0x20 || c >= 0x7f)) {
            found += std::to_string(c) + " ";
        }
    }
    return found;
}

class DevNodeLogTest : public DevNodeTest {
protected:
    // Sends what a client never would through a peer named kEvilIdentity,
    // then a message whose line marks the end.
    void sendEvilRequests() {
        const auto peer = connectDealer(dispenserPort(), kEvilIdentity);
        const std::string delimiter = testsupport::delimiter();
        peer->sendMessage({delimiter, kEvilCommand, delimiter, delimiter});
        peer->sendMessage({delimiter, "GREG", kEvilHeader, delimiter, delimiter});
        peer->sendMessage(testsupport::inboxFrames(kBackslashAppId));
        peer->sendMessage(routedMessage(kSentinelId, {"t"}));
        ASSERT_TRUE(node().waitForLine(kSentinelLogged, kEventLimit).has_value())
            << node().standardOutput();
    }
};

TEST_F(DevNodeLogTest, LogHoldsNothingButPrintableTextWhateverPeersSend) {
    sendEvilRequests();

    EXPECT_EQ(unprintableBytes(node().standardOutput()), "");
}

TEST_F(DevNodeLogTest, UnknownCommandNameIsLoggedEscaped) {
    sendEvilRequests();

    const auto line = node().waitForLine(kEvilCommandLogged, kEventLimit);
    ASSERT_TRUE(line.has_value()) << node().standardOutput();
    EXPECT_NE(line->find("malformed request from " + kEvilIdentityLogged), std::string::npos)
        << *line;
}

TEST_F(DevNodeLogTest, HeaderWithoutSeparatorIsLoggedEscaped) {
    sendEvilRequests();

    EXPECT_TRUE(node().waitForLine(kEvilHeaderLogged, kEventLimit).has_value())
        << node().standardOutput();
}

TEST_F(DevNodeLogTest, BackslashOfAPeerIsLoggedDoubled) {
    sendEvilRequests();

    EXPECT_TRUE(node().waitForLine(kBackslashLogged, kEventLimit).has_value())
        << node().standardOutput();
}

// Individual lines and summed-up ones, for the flood peer.
struct FloodLog {
    std::size_t lines = 0;
    std::size_t summaries = 0;
    std::size_t summed = 0;
};

FloodLog readFloodLog(const std::vector<std::string>& log) {
    FloodLog result;
    for (const std::string& line : log) {
        std::smatch match;
        if (line.find(kMalformedLine) != std::string::npos) {
            ++result.lines;
        } else if (std::regex_search(line, match, kSummaryLine)) {
            ++result.summaries;
            result.summed += std::stoul(match[1]);
        }
    }
    return result;
}

TEST_F(DevNodeLogTest, MalformedRequestsBeyondABurstAreSummedUpOnceASecond) {
    const auto peer = connectDealer(dispenserPort(), kFloodIdentity);
    const std::string delimiter = testsupport::delimiter();

    for (std::size_t i = 0; i < kFlood; ++i) {
        peer->sendMessage({delimiter, "FETCH", delimiter, delimiter});
    }

    const auto deadline = std::chrono::steady_clock::now() + kSummaryLimit;
    FloodLog log = readFloodLog(node().outputLines());
    while (log.lines + log.summed < kFlood && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(50ms);
        log = readFloodLog(node().outputLines());
    }
    EXPECT_LE(log.lines, kMostLinesLogged) << node().standardOutput();
    EXPECT_GE(log.summaries, 1u) << node().standardOutput();
    EXPECT_EQ(log.lines + log.summed, kFlood) << node().standardOutput();
}

}  // namespace
}  // namespace devnodetest
