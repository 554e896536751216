#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "devnode_fixture.hpp"
#include "devnode_raw_peers.hpp"

// How the node publishes a message with many push routes: once per distinct
// route, and not at all beyond its route limit, so that a small request
// cannot make the node write for seconds or grow by gigabytes.
namespace devnodetest {
namespace {

const std::string kSubscribedTopic = "r";
constexpr std::size_t kManyRoutes = 6000;
const std::string kRefusedLog = "refused: 6000 push routes, more than 1024 (--max-routes)";
// The registry must come this soon after a refused message.
constexpr auto kAnswerLimit = 1500ms;
constexpr long kRssLimitKb = 300 * 1024;

// Routes "r0", "r1", ...: each is matched by a subscription to "r".
std::vector<std::string> numberedRoutes(std::size_t count) {
    std::vector<std::string> routes;
    for (std::size_t i = 0; i < count; ++i) {
        routes.push_back(kSubscribedTopic + std::to_string(i));
    }
    return routes;
}

// A node, a dealer and a subscriber that takes every route of numberedRoutes().
class DevNodeRoutesTest : public DevNodeTest {
protected:
    void SetUp() override {
        DevNodeTest::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        _dealer = connectDealer(dispenserPort(), "routes-peer");
        _subscriber = connectSubscriber(listenerPort(), {kSubscribedTopic});
        ASSERT_TRUE(waitUntilSubscribed(*_dealer, *_subscriber, kSubscribedTopic, kEventLimit));
    }

    RawPeer& dealer() { return *_dealer; }
    RawPeer& subscriber() { return *_subscriber; }

    std::optional<std::vector<Frame>> nextAnswer() {
        return receiveMatching(
            dealer(),
            [](const std::vector<Frame>& frames) {
                return publishedId(frames).rfind("subscription-probe-", 0) != 0 &&
                       !(frames.size() > 2 &&
                         frames[2].bytes.rfind("msg_id|subscription-probe-", 0) == 0);
            },
            kEventLimit);
    }

    std::optional<std::vector<Frame>> nextPublished(std::chrono::milliseconds limit) {
        return receiveMatching(
            subscriber(),
            [](const std::vector<Frame>& frames) {
                return publishedId(frames).rfind("subscription-probe-", 0) != 0;
            },
            limit);
    }

private:
    std::unique_ptr<RawPeer> _dealer;
    std::unique_ptr<RawPeer> _subscriber;
};

TEST_F(DevNodeRoutesTest, MessageWithMoreRoutesThanTheLimitIsNotAcknowledged) {
    dealer().sendMessage(routedMessage("too-many", numberedRoutes(kManyRoutes)));
    dealer().sendMessage(routedMessage("after", {"r-after"}));

    const auto answer = nextAnswer();

    ASSERT_TRUE(answer.has_value());
    EXPECT_TRUE(isAckOf(*answer, "after")) << answer->at(2).bytes;
}

TEST_F(DevNodeRoutesTest, MessageWithMoreRoutesThanTheLimitIsNotPublished) {
    dealer().sendMessage(routedMessage("too-many", numberedRoutes(kManyRoutes)));
    dealer().sendMessage(routedMessage("after", {"r-after"}));

    const auto published = nextPublished(kEventLimit);

    ASSERT_TRUE(published.has_value());
    EXPECT_EQ(publishedId(*published), "after");
}

TEST_F(DevNodeRoutesTest, MessageWithMoreRoutesThanTheLimitIsLoggedWithItsIdAndSender) {
    dealer().sendMessage(routedMessage("too-many", numberedRoutes(kManyRoutes)));

    const auto line = node().waitForLine(kRefusedLog, kEventLimit);

    ASSERT_TRUE(line.has_value()) << node().standardOutput();
    EXPECT_NE(line->find("MSG too-many from routes-peer"), std::string::npos) << *line;
}

TEST_F(DevNodeRoutesTest, NodeAnswersAtOnceAndStaysSmallAfterAMessageWithThousandsOfRoutes) {
    dealer().sendMessage(routedMessage("too-many", numberedRoutes(kManyRoutes)));
    const auto sent = std::chrono::steady_clock::now();
    dealer().sendMessage(registryRequest());

    const auto answer = receiveMatching(dealer(), isRegistry, kEventLimit);
    const auto answered = std::chrono::steady_clock::now();

    ASSERT_TRUE(answer.has_value());
    EXPECT_LT(answered - sent, kAnswerLimit);
    if (kMemoryCanBeMeasured) {
        const std::optional<long> rss = residentKb(node().pid());
        ASSERT_TRUE(rss.has_value());
        EXPECT_LT(*rss, kRssLimitKb);
    }
}

TEST_F(DevNodeRoutesTest, MessageIsPublishedOncePerDistinctRoute) {
    dealer().sendMessage(routedMessage("repeated", {"r-a", "r-a", "r-b", "r-a", "r-b"}));
    dealer().sendMessage(routedMessage("after", {"r-after"}));

    std::vector<std::string> topics;
    while (true) {
        const auto published = nextPublished(kEventLimit);
        ASSERT_TRUE(published.has_value());
        if (publishedId(*published) == "after") {
            break;
        }
        topics.push_back(published->front().bytes);
    }

    EXPECT_EQ(topics, (std::vector<std::string>{"r-a", "r-b"}));
}

TEST_F(DevNodeRoutesTest, EachCopyCarriesEveryRouteOfTheMessage) {
    const std::vector<std::string> routes{"r-a", "r-a", "r-b"};
    dealer().sendMessage(routedMessage("repeated", routes));

    const auto published = nextPublished(kEventLimit);

    ASSERT_TRUE(published.has_value());
    const std::vector<std::string> frames = frameBytes(*published);
    const std::vector<std::string> expected{"r-a", "r-a", "r-a", "r-b", testsupport::delimiter(),
                                            "MSG"};
    ASSERT_GE(frames.size(), expected.size());
    EXPECT_EQ(std::vector<std::string>(frames.begin(), frames.begin() + 6), expected);
}

// A node whose route limit is three.
class DevNodeRouteLimitTest : public DevNodeTest {
protected:
    void SetUp() override { startNode({"--verbose", "--max-routes", "3"}); }
};

TEST_F(DevNodeRouteLimitTest, MessageWithAsManyRoutesAsTheLimitIsAcknowledged) {
    const auto dealer = connectDealer(dispenserPort());

    dealer->sendMessage(routedMessage("three", {"a", "b", "c"}));

    const auto answer = dealer->receiveMessage(kEventLimit);
    ASSERT_TRUE(answer.has_value());
    EXPECT_TRUE(isAckOf(*answer, "three"));
}

TEST_F(DevNodeRouteLimitTest, MessageWithOneRouteMoreThanTheLimitIsRefused) {
    const auto dealer = connectDealer(dispenserPort());

    dealer->sendMessage(routedMessage("four", {"a", "b", "c", "d"}));
    dealer->sendMessage(routedMessage("after", {"a"}));

    const auto answer = dealer->receiveMessage(kEventLimit);
    ASSERT_TRUE(answer.has_value());
    EXPECT_TRUE(isAckOf(*answer, "after"));
    EXPECT_TRUE(node().waitForLine("MSG four from", kEventLimit).has_value());
    EXPECT_EQ(logLinesContaining("refused: 4 push routes, more than 3 (--max-routes)"), 1u)
        << node().standardOutput();
}

}  // namespace
}  // namespace devnodetest
