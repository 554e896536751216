#include <unistd.h>
#include <zmq.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/client.hpp>
#include <orvikm/registry.hpp>

#include "client_harness.hpp"
#include "devnode_fixture.hpp"
#include "support/raw_peer.hpp"
#include "support/test_node.hpp"

// What the node answers to "GREG": the applications it has seen, as JSON, or
// the bytes of the registry file it was given.
namespace devnodetest {
namespace {

using orvikm::Client;
using testsupport::Frame;
using testsupport::RawPeer;

const std::string kJsonType = "json";
const std::string kTimestampPattern = R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}Z)";
constexpr auto kRegistryInterval = std::chrono::seconds(1);
// Inbox checks this far apart fall into different seconds of the registry's
// timestamps.
constexpr auto kBetweenChecks = 1500ms;
// The registry's clock and the test's differ by no more than this.
constexpr auto kClockTolerance = std::chrono::seconds(5);

// Any bytes at all, a zero byte included: the node passes them on untouched.
const char kFileBytes[] = "{\"applications\":[{\"app_id\":\"from-file\"}]}\n\x00\xc3\xa9 tail";
const std::string kFileRegistry(kFileBytes, sizeof kFileBytes - 1);

const std::string kUnreadableRegistryLog = "cannot read registry file ";

std::vector<std::string> greg() {
    return {testsupport::delimiter(), "GREG", testsupport::delimiter(), testsupport::delimiter()};
}

// The payload of the registry a raw peer received, or nothing when it got
// something else.
std::optional<std::string> registryBody(const std::optional<std::vector<Frame>>& frames) {
    if (!frames || frames->size() < 2 || (*frames)[1].bytes != "REG") {
        return std::nullopt;
    }
    return frames->back().bytes;
}

std::optional<std::chrono::system_clock::time_point> parseTimestamp(const std::string& text) {
    std::tm utc{};
    if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2dZ", &utc.tm_year, &utc.tm_mon,
                    &utc.tm_mday, &utc.tm_hour, &utc.tm_min, &utc.tm_sec) != 6) {
        return std::nullopt;
    }
    utc.tm_year -= 1900;
    utc.tm_mon -= 1;
    return std::chrono::system_clock::from_time_t(timegm(&utc));
}

// The last_seen text of the application in a registry document; appIdJson is
// the app id as the document writes it, quotes included.
std::optional<std::string> lastSeen(const std::string& document, const std::string& appIdJson) {
    const std::string special = R"(\^$.|?*+()[]{})";
    std::string escaped;
    for (const char c : appIdJson) {
        if (special.find(c) != std::string::npos) {
            escaped += '\\';
        }
        escaped += c;
    }
    const std::regex entry(R"re(\{"app_id":)re" + escaped + R"re(,"last_seen":"()re" +
                           kTimestampPattern + R"re()"\})re");
    std::smatch match;
    if (!std::regex_search(document, match, entry)) {
        return std::nullopt;
    }
    return match[1].str();
}

void recordRegistries(Client& client, Recorder<ReceivedRegistry>& registries) {
    client.obtainRegistry(
        [&registries](std::shared_ptr<orvikm::Registry> registry) {
            const orvikm::Payload& payload = registry->payload();
            registries.add(
                ReceivedRegistry{payload.type(), std::string(payload.getBuffer(), payload.size())});
        },
        kRegistryInterval);
}

TEST_F(DevNodeTest, RegistryListsAnApplicationSeenByItsInboxCheck) {
    Recorder<ReceivedRegistry> registries;
    Client watcher("registry-watcher", listenerPort(), dispenserPort(), {});
    recordRegistries(watcher, registries);

    ClientLoop loop(watcher);
    // The first pass asks for the registry before it checks the inbox: the
    // second registry is the first that can list the watcher.
    ASSERT_TRUE(registries.waitForCount(2, kEventLimit));

    const ReceivedRegistry second = registries.values()[1];
    EXPECT_EQ(second.type, kJsonType);
    EXPECT_TRUE(std::regex_match(
        second.body,
        std::regex(R"(\{"applications":\[\{"app_id":"registry-watcher","last_seen":")" +
                   kTimestampPattern + R"("\}\]\})")))
        << second.body;
}

TEST_F(DevNodeTest, RegistryListsAnApplicationSeenByItsMessage) {
    RawPeer peer(ZMQ_DEALER);
    peer.connect(testsupport::localhostEndpoint(dispenserPort()));
    // The hand-made message carries the app id "sender-app".
    peer.sendMessage(testsupport::messageFrames("seen-id", "hello", {}));
    ASSERT_TRUE(peer.receiveMessage(kEventLimit).has_value());

    peer.sendMessage(greg());
    const std::optional<std::string> body = registryBody(peer.receiveMessage(kEventLimit));

    ASSERT_TRUE(body.has_value());
    EXPECT_TRUE(lastSeen(*body, "\"sender-app\"").has_value()) << *body;
}

TEST_F(DevNodeTest, RegistryGivesTheTimeOfTheLatestSighting) {
    RawPeer peer(ZMQ_DEALER);
    peer.connect(testsupport::localhostEndpoint(dispenserPort()));
    peer.sendMessage(testsupport::inboxFrames("checker"));
    ASSERT_TRUE(node().waitForLine("app_id=checker", kEventLimit).has_value());
    std::this_thread::sleep_for(kBetweenChecks);
    const auto secondCheck =
        std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
    peer.sendMessage(testsupport::inboxFrames("checker"));

    peer.sendMessage(greg());
    const std::optional<std::string> body = registryBody(peer.receiveMessage(kEventLimit));

    ASSERT_TRUE(body.has_value());
    const std::optional<std::string> seen = lastSeen(*body, "\"checker\"");
    ASSERT_TRUE(seen.has_value()) << *body;
    const auto when = parseTimestamp(*seen);
    ASSERT_TRUE(when.has_value()) << *seen;
    EXPECT_GE(*when, secondCheck) << *seen;
    EXPECT_LE(*when, std::chrono::system_clock::now() + kClockTolerance) << *seen;
}

TEST_F(DevNodeTest, RegistryWritesApplicationIdsAsJsonStrings) {
    RawPeer peer(ZMQ_DEALER);
    peer.connect(testsupport::localhostEndpoint(dispenserPort()));
    peer.sendMessage(testsupport::inboxFrames("say \"hi\"\\now\tthen"));

    peer.sendMessage(greg());
    const std::optional<std::string> body = registryBody(peer.receiveMessage(kEventLimit));

    ASSERT_TRUE(body.has_value());
    EXPECT_TRUE(lastSeen(*body, R"("say \"hi\"\\now\u0009then")").has_value()) << *body;
}

// A node that answers registry requests with the bytes of a file.
class DevNodeRegistryFileTest : public DevNodeTest {
protected:
    void SetUp() override {
        char path[] = "/tmp/orvik-devnode-registry-XXXXXX";
        const int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        ::close(fd);
        _path = path;
        std::ofstream(_path, std::ios::binary) << contents();
        startNode({"--verbose", "--registry", _path});
    }

    void TearDown() override {
        if (!_path.empty()) {
            std::remove(_path.c_str());
        }
    }

    virtual std::string contents() const { return kFileRegistry; }
    const std::string& registryPath() const { return _path; }

private:
    std::string _path;
};

TEST_F(DevNodeRegistryFileTest, RegistryIsTheFilesBytesTypedJson) {
    Recorder<ReceivedRegistry> registries;
    Client watcher("file-watcher", listenerPort(), dispenserPort(), {});
    recordRegistries(watcher, registries);

    ClientLoop loop(watcher);
    ASSERT_TRUE(registries.waitForCount(1, kEventLimit));

    const ReceivedRegistry first = registries.values()[0];
    EXPECT_EQ(first.type, kJsonType);
    EXPECT_EQ(first.body, kFileRegistry);
}

TEST_F(DevNodeRegistryFileTest, RegistryRequestIsLeftUnansweredWhileTheFileCannotBeRead) {
    ASSERT_EQ(std::remove(registryPath().c_str()), 0);
    RawPeer peer(ZMQ_DEALER);
    peer.connect(testsupport::localhostEndpoint(dispenserPort()));

    peer.sendMessage(greg());
    peer.sendMessage(testsupport::messageFrames("after-id", "after", {}));

    // A registry would come before the acknowledgement.
    const auto answer = peer.receiveMessage(kEventLimit);
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(frameBytes(*answer), testsupport::ackFrames("after-id"));
    EXPECT_TRUE(node().running());
}

TEST_F(DevNodeRegistryFileTest, RegistryFileThatCannotBeReadIsLoggedOnceWithItsPath) {
    ASSERT_EQ(std::remove(registryPath().c_str()), 0);
    RawPeer peer(ZMQ_DEALER);
    peer.connect(testsupport::localhostEndpoint(dispenserPort()));

    peer.sendMessage(greg());
    peer.sendMessage(testsupport::messageFrames("after-id", "after", {"t"}));
    ASSERT_TRUE(node().waitForLine("MSG after-id", kEventLimit).has_value())
        << node().standardOutput();

    EXPECT_EQ(logLinesContaining(kUnreadableRegistryLog + registryPath()), 1u)
        << node().standardOutput();
}

class DevNodeEmptyRegistryFileTest : public DevNodeRegistryFileTest {
protected:
    std::string contents() const override { return ""; }
};

TEST_F(DevNodeEmptyRegistryFileTest, EmptyFileGivesAnEmptyRegistryTypedJson) {
    Recorder<ReceivedRegistry> registries;
    Client watcher("empty-file-watcher", listenerPort(), dispenserPort(), {});
    recordRegistries(watcher, registries);

    ClientLoop loop(watcher);
    ASSERT_TRUE(registries.waitForCount(1, kEventLimit));

    const ReceivedRegistry first = registries.values()[0];
    EXPECT_EQ(first.type, kJsonType);
    EXPECT_EQ(first.body, "");
    EXPECT_TRUE(loop.errors().empty()) << loop.errors().front();
}

}  // namespace
}  // namespace devnodetest
