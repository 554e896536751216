#include <zmq.h>

#include <chrono>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "devnode_fixture.hpp"
#include "devnode_raw_peers.hpp"

// How many applications the registry lists: the node remembers a bounded
// number, forgetting the one seen longest ago first, however many app ids
// peers make up.
namespace devnodetest {
namespace {

constexpr std::size_t kDefaultLimit = 1024;
constexpr std::size_t kMadeUp = 1500;

std::string appId(std::size_t index) {
    return "app-" + std::to_string(index);
}

// The app ids a registry document lists, in its order.
std::vector<std::string> listedAppIds(const std::string& document) {
    static const std::regex entry(R"re(\{"app_id":"([^"]*)","last_seen":"[^"]*"\})re");
    std::vector<std::string> ids;
    for (auto match = std::sregex_iterator(document.begin(), document.end(), entry);
         match != std::sregex_iterator(); ++match) {
        ids.push_back((*match)[1].str());
    }
    return ids;
}

bool lists(const std::vector<std::string>& ids, const std::string& id) {
    for (const std::string& listed : ids) {
        if (listed == id) {
            return true;
        }
    }
    return false;
}

// Sends an inbox check for each app id, then asks for the registry; the
// registry's document.
std::optional<std::string> registryAfterInboxChecks(int dispenserPort,
                                                    const std::vector<std::string>& appIds) {
    const auto dealer = connectDealer(dispenserPort, "inbox-peer");
    for (const std::string& id : appIds) {
        dealer->sendMessage(testsupport::inboxFrames(id));
    }
    dealer->sendMessage(registryRequest());
    const auto answer = receiveMatching(*dealer, isRegistry, kEventLimit);
    if (!answer) {
        return std::nullopt;
    }
    return answer->back().bytes;
}

TEST_F(DevNodeTest, RegistryListsNoMoreApplicationsThanTheLimit) {
    std::vector<std::string> ids;
    for (std::size_t i = 0; i < kMadeUp; ++i) {
        ids.push_back(appId(i));
    }

    const auto document = registryAfterInboxChecks(dispenserPort(), ids);

    ASSERT_TRUE(document.has_value());
    EXPECT_EQ(listedAppIds(*document).size(), kDefaultLimit);
}

TEST_F(DevNodeTest, RegistryForgetsTheApplicationsSeenLongestAgo) {
    std::vector<std::string> ids;
    for (std::size_t i = 0; i < kMadeUp; ++i) {
        ids.push_back(appId(i));
    }

    const auto document = registryAfterInboxChecks(dispenserPort(), ids);

    ASSERT_TRUE(document.has_value());
    const std::vector<std::string> listed = listedAppIds(*document);
    EXPECT_FALSE(lists(listed, appId(0)));
    EXPECT_FALSE(lists(listed, appId(kMadeUp - kDefaultLimit - 1)));
    EXPECT_TRUE(lists(listed, appId(kMadeUp - kDefaultLimit)));
    EXPECT_TRUE(lists(listed, appId(kMadeUp - 1)));
}

// A node that remembers three applications.
class DevNodeApplicationLimitTest : public DevNodeTest {
protected:
    void SetUp() override { startNode({"--max-applications", "3"}); }
};

TEST_F(DevNodeApplicationLimitTest, ApplicationSeenAgainStaysWhileOneSeenLongerAgoGoes) {
    const auto document = registryAfterInboxChecks(dispenserPort(), {"a", "b", "c", "a", "d"});

    ASSERT_TRUE(document.has_value());
    EXPECT_EQ(listedAppIds(*document), (std::vector<std::string>{"a", "c", "d"}));
}

TEST_F(DevNodeApplicationLimitTest, ApplicationSeenByItsMessageCountsAsSeenAgain) {
    const auto dealer = connectDealer(dispenserPort(), "message-peer");
    dealer->sendMessage(testsupport::inboxFrames("sender-app"));
    dealer->sendMessage(testsupport::inboxFrames("b"));
    dealer->sendMessage(testsupport::inboxFrames("c"));
    // The hand-made message carries the app id "sender-app".
    dealer->sendMessage(routedMessage("seen-again", {}));
    dealer->sendMessage(testsupport::inboxFrames("d"));
    dealer->sendMessage(registryRequest());

    const auto answer = receiveMatching(*dealer, isRegistry, kEventLimit);

    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(listedAppIds(answer->back().bytes),
              (std::vector<std::string>{"c", "d", "sender-app"}));
}

}  // namespace
}  // namespace devnodetest
