#include <zmq.h>

#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "devnode_fixture.hpp"
#include "devnode_raw_peers.hpp"

// Two clients with one app id give their dealers one routing identity. The
// node cannot refuse the second, but it must not lose it in silence: the
// newer connection takes the identity over, and the log names the clash.
namespace devnodetest {
namespace {

const std::string kIdentity = "twin|disp";
const std::string kClashLog = "identity twin|disp is used by two connections at once";

// Sends a message through the peer and waits for its acknowledgement.
bool acknowledged(RawPeer& peer, const std::string& id) {
    peer.sendMessage(routedMessage(id, {"t"}));
    return receiveMatching(
               peer, [&id](const std::vector<Frame>& frames) { return isAckOf(frames, id); },
               kEventLimit)
        .has_value();
}

TEST_F(DevNodeTest, SecondConnectionWithAnIdentityInUseIsLoggedNamingTheIdentity) {
    const auto first = connectDealer(dispenserPort(), kIdentity);
    ASSERT_TRUE(acknowledged(*first, "from-first"));
    const auto second = connectDealer(dispenserPort(), kIdentity);

    second->sendMessage(routedMessage("from-second", {"t"}));

    const auto line = node().waitForLine(kClashLog, kEventLimit);
    ASSERT_TRUE(line.has_value()) << node().standardOutput();
    EXPECT_NE(line->find("still open"), std::string::npos) << *line;
}

TEST_F(DevNodeTest, SecondConnectionWithAnIdentityInUseIsServed) {
    const auto first = connectDealer(dispenserPort(), kIdentity);
    ASSERT_TRUE(acknowledged(*first, "from-first"));
    const auto second = connectDealer(dispenserPort(), kIdentity);

    EXPECT_TRUE(acknowledged(*second, "from-second"));
}

TEST_F(DevNodeTest, IdentityTakenUpAgainAfterItsConnectionClosedIsNoClash) {
    {
        const auto first = connectDealer(dispenserPort(), kIdentity);
        ASSERT_TRUE(acknowledged(*first, "from-first"));
    }
    // Long enough for the node to see the first connection close.
    std::this_thread::sleep_for(500ms);
    const auto second = connectDealer(dispenserPort(), kIdentity);

    ASSERT_TRUE(acknowledged(*second, "from-second"));

    EXPECT_EQ(logLinesContaining(kClashLog), 0u) << node().standardOutput();
}

}  // namespace
}  // namespace devnodetest
