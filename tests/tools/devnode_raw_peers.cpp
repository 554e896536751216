#include "devnode_raw_peers.hpp"

#include <zmq.h>

#include <fstream>
#include <regex>
#include <sstream>

namespace devnodetest {

namespace {

// A send that finds the dealer's queue full (a node that stopped reading)
// fails after this long instead of waiting for ever.
constexpr int kSendLimitMs = 10000;

}  // namespace

std::unique_ptr<RawPeer> connectDealer(int dispenserPort, const std::string& identity) {
    auto dealer = std::make_unique<RawPeer>(ZMQ_DEALER);
    dealer->setIntOption(ZMQ_SNDTIMEO, kSendLimitMs);
    if (!identity.empty()) {
        dealer->setBytesOption(ZMQ_ROUTING_ID, identity);
    }
    dealer->connect(testsupport::localhostEndpoint(dispenserPort));
    return dealer;
}

std::unique_ptr<RawPeer> connectSubscriber(int listenerPort,
                                           const std::vector<std::string>& topics) {
    auto subscriber = std::make_unique<RawPeer>(ZMQ_SUB);
    for (const std::string& topic : topics) {
        subscriber->setBytesOption(ZMQ_SUBSCRIBE, topic);
    }
    subscriber->connect(testsupport::localhostEndpoint(listenerPort));
    return subscriber;
}

std::vector<std::string> registryRequest() {
    return {testsupport::delimiter(), "GREG", testsupport::delimiter(), testsupport::delimiter()};
}

std::vector<std::string> routedMessage(const std::string& id,
                                       const std::vector<std::string>& routes,
                                       std::size_t payloadBytes) {
    return testsupport::messageFrames(id, std::string(payloadBytes, 'p'), routes);
}

std::optional<std::vector<Frame>> receiveMatching(
    RawPeer& peer, const std::function<bool(const std::vector<Frame>&)>& wanted,
    std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return std::nullopt;
        }
        auto frames = peer.receiveMessage(left);
        if (!frames) {
            return std::nullopt;
        }
        if (wanted(*frames)) {
            return frames;
        }
    }
}

bool isAckOf(const std::vector<Frame>& frames, const std::string& id) {
    return frames.size() == 5 && frames[1].bytes == "ACK" && frames[2].bytes == "msg_id|" + id;
}

bool isRegistry(const std::vector<Frame>& frames) {
    return frames.size() >= 2 && frames[1].bytes == "REG";
}

std::string publishedId(const std::vector<Frame>& frames) {
    for (const Frame& frame : frames) {
        if (frame.bytes.rfind("id|", 0) == 0) {
            return frame.bytes.substr(3);
        }
    }
    return "";
}

bool waitUntilSubscribed(RawPeer& dealer, RawPeer& subscriber, const std::string& topic,
                         std::chrono::milliseconds timeout) {
    constexpr auto kProbeInterval = std::chrono::milliseconds(100);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (int probe = 0; std::chrono::steady_clock::now() < deadline; ++probe) {
        const std::string id = "subscription-probe-" + std::to_string(probe);
        dealer.sendMessage(routedMessage(id, {topic}));
        const auto arrived = receiveMatching(
            subscriber,
            [&id](const std::vector<Frame>& frames) { return publishedId(frames) == id; },
            kProbeInterval);
        if (arrived) {
            return true;
        }
    }
    return false;
}

std::optional<std::pair<int, int>> readyPorts(testsupport::ProgramProcess& node,
                                              std::chrono::milliseconds timeout) {
    static const std::regex ready(
        R"(orvik-devnode ready: listener-port=(\d+) dispenser-port=(\d+))");
    const std::optional<std::string> line = node.waitForLine("orvik-devnode ready: ", timeout);
    std::smatch match;
    if (!line || !std::regex_search(*line, match, ready)) {
        return std::nullopt;
    }
    return std::make_pair(std::stoi(match[1]), std::stoi(match[2]));
}

std::size_t countContaining(const std::vector<std::string>& lines, const std::string& fragment) {
    std::size_t count = 0;
    for (const std::string& line : lines) {
        count += line.find(fragment) != std::string::npos ? 1 : 0;
    }
    return count;
}

}  // namespace devnodetest
