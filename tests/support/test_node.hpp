#pragma once

#include <chrono>
#include <future>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "raw_peer.hpp"

namespace testsupport {

using namespace std::chrono_literals;

// One request as a client wrote it on its dispenser, split into its sections
// by the test node's own reading of the frame layout.
struct WrittenRequest {
    std::string identity;       // the client socket's routing identity
    std::vector<Frame> frames;  // every frame after the identity
    std::vector<std::string> routes;
    std::string command;
    std::map<std::string, std::string> headers;
    std::optional<std::string> payload;  // the last frame of "MSG" and "REG"
};

// Frames of hand-made requests, laid out as a node writes them.
std::string delimiter();
std::vector<std::string> messageFrames(const std::vector<std::string>& routes,
                                       const std::map<std::string, std::string>& headers,
                                       const std::string& payload);
// A well-formed "MSG" with the usual headers.
std::vector<std::string> messageFrames(const std::string& id, const std::string& payload,
                                       const std::vector<std::string>& routes = {},
                                       const std::string& type = "text");
std::vector<std::string> ackFrames(const std::string& messageId);
std::vector<std::string> registryFrames(const std::string& payload,
                                        const std::string& type = "json");
std::vector<std::string> inboxFrames(const std::string& appId);

// A stand-in node made of raw ZeroMQ sockets on free loopback ports: an XPUB
// for the client's listener (it sees subscriptions arrive, so a test can wait
// for them) and a ROUTER for the client's dispenser.
class TestNode {
public:
    TestNode();

    int listenerPort() const { return _listener_port; }
    int dispenserPort() const { return _dispenser_port; }

    // The next request any client wrote, or nothing within `timeout`.
    std::optional<WrittenRequest> receive(std::chrono::milliseconds timeout = 5s);
    // The next request with this command; others that come first are skipped.
    std::optional<WrittenRequest> receiveCommand(const std::string& command,
                                                 std::chrono::milliseconds timeout = 5s);
    // True when nothing arrives within `timeout`.
    bool quietFor(std::chrono::milliseconds timeout);

    // Sends frames to the client socket with this identity.
    void sendTo(const std::string& identity, const std::vector<std::string>& frames);
    // Publishes frames (topic frame first) to subscribed listeners.
    void publish(const std::vector<std::string>& frames);
    // Waits until a listener has subscribed to `topic`.
    bool waitForSubscription(const std::string& topic, std::chrono::milliseconds timeout = 5s);

    // A node on the given loopback ports: a client that was connected to them
    // while nothing listened finds this node when it next reconnects.
    TestNode(int listenerPort, int dispenserPort);
    // Waits until a client's dispenser has connected, so that the node can
    // route to it and the client's next write reaches the node.
    bool waitForDispenserPeer(std::chrono::milliseconds timeout = 5s);

private:
    RawPeer _publisher;
    RawPeer _router;
    int _listener_port;
    int _dispenser_port;
};

// Acknowledges the first `count` messages ("MSG") the clients write, on a
// thread of its own, each to the client socket with identity `identity`; the
// future holds how many it acknowledged (fewer when the wait for one ran out).
// The node must outlive the future.
std::future<int> acknowledgeMessages(TestNode& node, const std::string& identity, int count);

}  // namespace testsupport
