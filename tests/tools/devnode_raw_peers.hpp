#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/program_process.hpp"
#include "support/raw_peer.hpp"
#include "support/resident_memory.hpp"
#include "support/test_node.hpp"

// Helpers of the tests that drive orvik-devnode with raw libzmq peers, which
// can send what no client would and leave unread what a client reads.
namespace devnodetest {

using testsupport::kMemoryCanBeMeasured;

using testsupport::Frame;
using testsupport::RawPeer;

using testsupport::residentKb;

// A DEALER connected to the dispenser port, with `identity` when it is not
// empty. A send that finds its queue full fails after 10 s (RawPeer throws).
std::unique_ptr<RawPeer> connectDealer(int dispenserPort, const std::string& identity = "");
// A SUB connected to the listener port and subscribed to each topic.
std::unique_ptr<RawPeer> connectSubscriber(int listenerPort,
                                           const std::vector<std::string>& topics);

// "GREG" as a client writes it.
std::vector<std::string> registryRequest();
// A well-formed "MSG" with these routes, of `payloadBytes` bytes.
std::vector<std::string> routedMessage(const std::string& id,
                                       const std::vector<std::string>& routes,
                                       std::size_t payloadBytes = 5);

// The next message that `wanted` accepts, skipping others; nothing when none
// came within `timeout`.
std::optional<std::vector<Frame>> receiveMatching(
    RawPeer& peer, const std::function<bool(const std::vector<Frame>&)>& wanted,
    std::chrono::milliseconds timeout);
bool isAckOf(const std::vector<Frame>& frames, const std::string& id);
bool isRegistry(const std::vector<Frame>& frames);
// The value of the "id" header of a published message, "" when there is none.
std::string publishedId(const std::vector<Frame>& frames);

// Sends probe messages along `topic` through `dealer` until `subscriber` gets
// one, so that the node is known to have the subscription; false when none
// arrived within `timeout`. The probes' acknowledgements are left unread.
bool waitUntilSubscribed(RawPeer& dealer, RawPeer& subscriber, const std::string& topic,
                         std::chrono::milliseconds timeout);

// The listener and dispenser ports of the ready line of an orvik-devnode run
// under another program; nothing when it did not come within `timeout`.
std::optional<std::pair<int, int>> readyPorts(testsupport::ProgramProcess& node,
                                              std::chrono::milliseconds timeout);

// Lines of a log that contain `fragment`.
std::size_t countContaining(const std::vector<std::string>& lines, const std::string& fragment);

}  // namespace devnodetest
