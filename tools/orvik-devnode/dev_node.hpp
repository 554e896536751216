#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <optional>
#include <ostream>
#include <string>

#include <orvikm/receiver.hpp>
#include <orvikm/sender.hpp>
#include <wxblt/socket.hpp>

namespace orvikdev {

struct DevNodeOptions {
    int listenerPort = 0;   // 0: a free port
    int dispenserPort = 0;  // 0: a free port
    std::optional<std::string> registryFile;
    bool verbose = false;
};

// A stand-in for the Orvik Node for local development: a PUB socket that
// publishes messages to client listeners and a ROUTER socket that takes what
// client dispensers write.
//
// - "MSG" is acknowledged to its sender, then published once per push route
//   with the route as topic frame; without routes it is only acknowledged.
// - "GREG" is answered with a "REG" holding the registry: the applications
//   seen (by inbox checks and messages) with when each was last seen, as JSON,
//   or the bytes of the registry file, read at every request; while the file
//   cannot be read, requests are logged and left unanswered.
// - "BOX" is recorded; nothing else is answered.
// - A malformed request is logged with its sender and skipped.
//
// Nothing the node sends is ever dropped for want of queue space: both
// sockets have no high-water mark and the router reports an unknown peer
// instead of dropping silently.
class DevNode {
public:
    DevNode(DevNodeOptions options, std::ostream& log);

    int listenerPort() const { return _listener_port; }
    int dispenserPort() const { return _dispenser_port; }

    // Serves until `stop` becomes true; checks it at least every 100 ms.
    void run(const std::atomic<bool>& stop);

private:
    void serveOne();
    void handleMessage(const std::string& sender, const orvikm::Message& message);
    void answerRegistry(const std::string& sender);
    void see(const std::string& appId);
    std::string registryDocument() const;
    void logLine(const std::string& line);

    DevNodeOptions _options;
    std::ostream& _log;
    wxblt::Socket _publisher;
    wxblt::Socket _router;
    orvikm::Sender _publisher_sender;
    orvikm::Sender _router_sender;
    orvikm::Receiver _router_receiver;
    int _listener_port;
    int _dispenser_port;
    std::map<std::string, std::chrono::system_clock::time_point> _seen;
};

}  // namespace orvikdev
