#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <orvikm/message.hpp>
#include <orvikm/receiver.hpp>
#include <orvikm/request.hpp>
#include <wxblt/socket.hpp>

#include "log_limiter.hpp"
#include "outgoing.hpp"
#include "registry_file.hpp"
#include "request_frames.hpp"
#include "seen_applications.hpp"
#include "well_formed_message.hpp"

namespace orvikdev {

struct DevNodeOptions {
    int listenerPort = 0;   // 0: a free port
    int dispenserPort = 0;  // 0: a free port
    std::optional<std::string> registryFile;
    bool verbose = false;

    // What one peer can cost the node; main.cpp's usage text explains each.
    std::size_t maxRoutes = 1024;
    std::size_t maxRegistryBytes = 16 * 1024 * 1024;
    std::size_t maxApplications = 1024;
    int subscriberQueue = 10000;  // messages
    std::size_t publishQueueBytes = 64 * 1024 * 1024;
    // Two registries of the largest size, and acknowledgements besides.
    std::size_t peerQueueBytes = 48 * 1024 * 1024;
};

// A stand-in for the Orvik Node for local development: a PUB socket that
// publishes messages to client listeners and a ROUTER socket that takes what
// client dispensers write.
//
// - "MSG" is acknowledged to its sender, then published once per distinct
//   push route with the route as topic frame; without routes it is only
//   acknowledged. One with more than maxRoutes routes is refused: logged,
//   neither acknowledged nor published.
// - "GREG" is answered with a "REG" holding the registry: the last
//   maxApplications applications seen (by inbox checks and messages) with
//   when each was last seen, as JSON, or the bytes of the registry file
//   (see RegistryFile); while the file cannot be used, requests are logged
//   and left unanswered.
// - "BOX" is recorded; nothing else is answered.
// - A malformed request is logged with its sender and skipped.
//
// A peer that does not read costs a bounded amount: answers beyond
// peerQueueBytes waiting for one dealer are dropped, and so are publications
// beyond subscriberQueue messages waiting for one subscriber or beyond
// publishQueueBytes waiting for all subscribers together. Every drop is
// logged. Lines about what one peer did are rate-limited (LogLimiter), and
// bytes a peer chose are escaped (printable()).
//
// A client that connects with a routing identity already in use takes it
// over (ZMQ_ROUTER_HANDOVER): the node logs the clash, naming the identity,
// and no longer hears the earlier connection.
class DevNode {
public:
    DevNode(DevNodeOptions options, std::ostream& log);

    int listenerPort() const { return _listener_port; }
    int dispenserPort() const { return _dispenser_port; }

    // Serves until `stop` becomes true; checks it at least every 100 ms.
    void run(const std::atomic<bool>& stop);

private:
    // What the node knows of one dealer, by its routing identity.
    struct Peer {
        int connection = -1;  // descriptor of the connection last heard, -1 when gone
        std::shared_ptr<QueueAccount> answers = std::make_shared<QueueAccount>();
        std::list<std::string>::iterator recency;
    };

    // The route section of a request: the routes up to maxRoutes, and how
    // many there were in all.
    struct Routes {
        std::list<std::string> kept;
        std::size_t count = 0;
    };

    // Serves up to kRequestsPerWakeUp requests, as many as are waiting.
    void serveWaiting();
    // Reads one request from the router, waiting for it when `wait`; false
    // when there was none. A well-formed message is served from its frames
    // (serveWellFormed()); every other request is passed on to the library's
    // decoding (serveDecoded()), which serves it, or refuses it and logs why.
    bool serveOne(bool wait);
    void serveWellFormed(const std::string& sender, const WellFormedMessage& message);
    // Reads the request from _decoder_input.
    void serveDecoded(const std::string& sender);
    std::unique_ptr<orvikm::internal_objects::Request> receiveRequest(const std::string& sender);
    Routes receiveRoutes();
    void handleMessage(const std::string& sender, orvikm::Message& message);
    // What serving a message does before it is published: the application
    // seen, the acknowledgement, and for a message without routes the log
    // line. Returns whether there is anything to publish.
    bool acknowledge(const std::string& sender, std::string_view id, std::string_view appId,
                     const std::vector<std::string_view>& routes);
    // The routes each copy of a message goes along, in order: each once.
    void distinctRoutes(const std::vector<std::string_view>& routes);
    void logPublished(const std::string& sender, std::string_view id, std::size_t bytes,
                      std::size_t routes);
    void answerRegistry(const std::string& sender);
    // Sends `frames` (the identity first) and `body` as one answer to `peer`.
    // `what` names the answer in a log line; it is called only for one.
    void answer(const std::string& peer, const std::vector<std::string_view>& frames,
                std::shared_ptr<const void> owner, std::string_view body,
                const std::function<std::string()>& what);
    void publish(const std::string& sender, orvikm::Message& message);
    void publishFrames(const std::string& sender, const WellFormedMessage& message);
    // Whether a publication of `cost` bytes may be queued now; logs why not.
    bool admitPublication(const std::string& sender, std::string_view id, std::size_t cost);
    // Sends one copy per route of _distinct through `sendCopy(route, last)`,
    // `last` true for the last copy.
    template <typename SendCopy>
    void publishCopies(std::string_view id, SendCopy sendCopy);
    void setLossless(bool lossless);

    void readConnectionEvents();
    void noteConnection(const std::string& identity, int connection);
    Peer& peer(const std::string& identity);

    void logLine(const std::string& line);
    // Logs the line unless `key` has logged too much lately (LogLimiter).
    void logLimited(const std::string& key, const std::string& subject, const std::string& line);
    // `error` is log text already: escaped, on one line.
    void logMalformed(const std::string& sender, const std::string& error);
    void logSummaries();

    DevNodeOptions _options;
    std::ostream& _log;
    wxblt::Socket _publisher;
    wxblt::Socket _router;
    wxblt::Socket _connection_events;
    // Requests other than well-formed messages go through this pair of
    // sockets to the library's decoding, which reads a wxblt::Socket.
    wxblt::Socket _decoder_feed;
    wxblt::Socket _decoder_input;
    orvikm::Receiver _decoder;
    int _listener_port;
    int _dispenser_port;

    SeenApplications _seen;
    std::optional<RegistryFile> _registry_file;
    std::shared_ptr<QueueAccount> _published = std::make_shared<QueueAccount>();
    LogLimiter _limiter;
    LogLimiter::Clock::time_point _next_summaries;

    std::unordered_map<std::string, Peer> _peers;
    std::list<std::string> _peer_recency;  // least recently heard first
    // Open connections of the router by descriptor, with the peer's address.
    std::unordered_map<int, std::string> _connections;
    int _request_connection = -1;  // of the request being read

    // Reused from request to request.
    RequestFrames _frames;
    std::string _sender;
    std::string _id;  // of the message served from its frames
    std::string _ack_header;
    std::vector<std::string_view> _answer;
    std::vector<std::string_view> _routes;
    std::vector<std::string_view> _distinct;
    std::vector<zmq_msg_t*> _publication;              // the frames of a copy after its topic
    std::vector<std::string_view> _publication_bytes;  // a copy's, for its cost
};

}  // namespace orvikdev
