#include "dev_node.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <zmq.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>
#include <thread>
#include <unordered_set>
#include <utility>

#include <orvikm/control_requests.hpp>
#include <orvikm/errors.hpp>
#include <orvikm/registry.hpp>
#include <wxblt/exception.hpp>
#include <wxblt/input_selector.hpp>

#include "log_text.hpp"

namespace orvikdev {

namespace {

using orvikm::internal_objects::HeaderMap;
using orvikm::internal_objects::Request;

const char kDelimiterByte = 0;
const std::string_view kDelimiter(&kDelimiterByte, 1);

// Requests read ahead from one dealer's connection. Beyond it the connection
// waits until the node has caught up; nothing is lost.
constexpr int kInboundQueue = 1000;
// Requests served per wake-up at most before the node looks at its
// connection events again.
constexpr std::size_t kRequestsPerWakeUp = 64;
// Dealers remembered for their queue accounts and connections.
constexpr std::size_t kPeersRemembered = 4096;
// Lines one peer may log at once; then one a second and a summary.
constexpr unsigned kLogBurst = 10;
constexpr auto kSummaryInterval = std::chrono::milliseconds(100);
// How long a publication waits for a subscriber whose queue is full before
// it is dropped for it, and how often it tries again meanwhile.
constexpr auto kSubscriberGrace = std::chrono::milliseconds(100);
constexpr auto kSubscriberRetry = std::chrono::milliseconds(1);

int boundPort(const wxblt::Socket& socket) {
    const std::string endpoint = socket.lastEndpoint();
    return std::stoi(endpoint.substr(endpoint.rfind(':') + 1));
}

void setIntOption(wxblt::Socket& socket, int option, int value) {
    if (zmq_setsockopt(socket.handle(), option, &value, sizeof value) != 0) {
        throw wxblt::Exception(zmq_errno());
    }
}

// One frame received with libzmq's own call, which tells the connection it
// came from; closed however the reading ends.
class ReceivedFrame {
public:
    explicit ReceivedFrame(void* socket) {
        zmq_msg_init(&_message);
        while (zmq_msg_recv(&_message, socket, 0) < 0) {
            const int error = zmq_errno();
            if (error != EINTR) {
                zmq_msg_close(&_message);
                if (error == ETERM) {
                    throw wxblt::ZmqTermination();
                }
                throw wxblt::Exception(error);
            }
        }
    }
    ReceivedFrame(const ReceivedFrame&) = delete;
    ReceivedFrame& operator=(const ReceivedFrame&) = delete;
    ~ReceivedFrame() { zmq_msg_close(&_message); }

    std::string_view bytes() {
        return {static_cast<const char*>(zmq_msg_data(&_message)), zmq_msg_size(&_message)};
    }
    bool more() { return zmq_msg_more(&_message) != 0; }

private:
    zmq_msg_t _message;
};

// "127.0.0.1:PORT" of the peer at the other end of a connection, or "" once
// it has gone.
std::string peerAddress(int connection) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    if (getpeername(connection, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        return "";
    }
    char host[INET6_ADDRSTRLEN] = "";
    int port = 0;
    if (address.ss_family == AF_INET) {
        const auto* ip4 = reinterpret_cast<const sockaddr_in*>(&address);
        inet_ntop(AF_INET, &ip4->sin_addr, host, sizeof host);
        port = ntohs(ip4->sin_port);
    } else if (address.ss_family == AF_INET6) {
        const auto* ip6 = reinterpret_cast<const sockaddr_in6*>(&address);
        inet_ntop(AF_INET6, &ip6->sin6_addr, host, sizeof host);
        port = ntohs(ip6->sin6_port);
    }
    return std::string(host) + ":" + std::to_string(port);
}

// The header frames of a request, "key|value", in key order.
std::vector<std::string> headerFrames(const Request& request) {
    std::vector<std::string> frames;
    for (const auto& [key, value] : request.create_protocol_headers()) {
        frames.push_back(key + Request::_hdr_sep + value);
    }
    return frames;
}

std::string headerOr(const HeaderMap& headers, const std::string& key, const std::string& absent) {
    const auto found = headers.find(key);
    return found == headers.end() ? absent : printable(found->second);
}

}  // namespace

DevNode::DevNode(DevNodeOptions options, std::ostream& log)
    : _options(std::move(options)),
      _log(log),
      _publisher(wxblt::SocketType::Pub),
      _router(wxblt::SocketType::Router),
      _connection_events(wxblt::SocketType::Pair),
      _decoder_feed(wxblt::SocketType::Pair),
      _decoder_input(wxblt::SocketType::Pair),
      _decoder(&_decoder_input),
      _listener_port(0),
      _dispenser_port(0),
      _seen(_options.maxApplications),
      _limiter(kLogBurst, kPeersRemembered),
      _next_summaries(LogLimiter::Clock::now()) {
    // A subscriber that does not read holds at most subscriberQueue messages;
    // lossless sending makes the publisher say so (EAGAIN) instead of dropping
    // in silence, and publish() decides what follows.
    _publisher.setSendHighWaterMark(_options.subscriberQueue);
    setLossless(true);
    // The node reads the router's frames with libzmq's own calls
    // (RequestFrames), so the socket must not read ahead (setReadAhead()).
    // Answers are limited in bytes per dealer (answer()), not in number.
    _router.setSendHighWaterMark(0);
    _router.setReceiveHighWaterMark(kInboundQueue);
    _router.setRouterMandatory(true);
    // Without hand-over, a second connection with an identity in use is
    // ignored for good, even after the first one has gone, and nothing tells
    // the node. With it, the newcomer takes the identity over, and its
    // requests show the clash (noteConnection()).
    setIntOption(_router, ZMQ_ROUTER_HANDOVER, 1);

    // Which connection is which: the router's monitor reports each accepted
    // and each closed connection by its descriptor, which is also what a
    // received frame names. The events are never held back: this end has no
    // queue limit, so the monitor never waits for the node.
    const std::string events = "inproc://orvik-devnode-connections-" +
                               std::to_string(reinterpret_cast<std::uintptr_t>(this));
    if (zmq_socket_monitor(_router.handle(), events.c_str(),
                           ZMQ_EVENT_ACCEPTED | ZMQ_EVENT_DISCONNECTED) != 0) {
        throw wxblt::Exception(zmq_errno());
    }
    _connection_events.setReceiveHighWaterMark(0);
    _connection_events.connect(events);

    // The pair holds one request at a time, which it must take whole, however
    // many frames it has.
    const std::string decoding =
        "inproc://orvik-devnode-decoding-" + std::to_string(reinterpret_cast<std::uintptr_t>(this));
    _decoder_feed.setSendHighWaterMark(0);
    _decoder_input.setReceiveHighWaterMark(0);
    _decoder_feed.bind(decoding);
    _decoder_input.connect(decoding);

    _publisher.bind("tcp://127.0.0.1:" + std::to_string(_options.listenerPort));
    _router.bind("tcp://127.0.0.1:" + std::to_string(_options.dispenserPort));
    _listener_port = boundPort(_publisher);
    _dispenser_port = boundPort(_router);
    if (_options.registryFile) {
        _registry_file.emplace(*_options.registryFile, _options.maxRegistryBytes);
        _registry_file->read();  // fail at start, not at the first request
    }
}

void DevNode::run(const std::atomic<bool>& stop) {
    // Every request waiting is served per wake-up, up to a bound that lets
    // connection events through in between: one poll for many requests.
    wxblt::InputSelector selector(
        {
            {&_connection_events, [this](wxblt::Socket*) { readConnectionEvents(); }},
            {&_router, [this](wxblt::Socket*) { serveWaiting(); }},
        },
        1);
    while (!stop.load()) {
        selector.run(std::chrono::milliseconds(100));
        logSummaries();
    }
}

// The first request is there: the selector saw it. The others are read
// without waiting, which costs hardly a system call while requests wait;
// asking the socket whether one is (ZMQ_EVENTS) costs one or two each time.
void DevNode::serveWaiting() {
    for (std::size_t served = 0; served < kRequestsPerWakeUp && serveOne(served == 0); ++served) {
    }
}

bool DevNode::serveOne(bool wait) {
    try {
        // No well-formed message has more frames than that; the decoding
        // reads the rest of a longer request.
        if (!_frames.receive(_router.handle(), _options.maxRoutes + kMessageFramesBesidesRoutes,
                             wait)) {
            return false;
        }
    } catch (const std::bad_alloc&) {
        _router.flushMessage();
        const std::string sender(_frames.size() > 0 ? _frames.bytes(0) : std::string_view());
        logLimited("malformed|" + sender, "malformed requests from " + printable(sender),
                   "request from " + printable(sender) + " dropped: not enough memory for it");
        return true;
    }
    _sender.assign(_frames.bytes(0));
    if (_frames.size() == 1 && _frames.complete()) {
        logMalformed(_sender, "no frames after the identity");
        return true;
    }
    _request_connection = _frames.connection();
    if (const std::optional<WellFormedMessage> message =
            wellFormedMessage(_frames, _options.maxRoutes)) {
        noteConnection(_sender, _request_connection);
        serveWellFormed(_sender, *message);
        return true;
    }
    // Decoded as it always was, so that whatever the decoding refuses or
    // changes is refused, logged or changed exactly as before.
    _frames.passOn(_decoder_feed.handle(), _router.handle());
    serveDecoded(_sender);
    return true;
}

// Serves the message as handleMessage() serves the Message decoded from it.
// Its frames are passed on as they came: Message would encode them again to
// the same bytes (WellFormedMessage).
void DevNode::serveWellFormed(const std::string& sender, const WellFormedMessage& message) {
    try {
        // Publishing gives the frames up, the id's among them.
        _id.assign(message.id);
        _routes.clear();
        for (std::size_t route = 1; route <= message.routes; ++route) {
            _routes.push_back(_frames.bytes(route));
        }
        if (!acknowledge(sender, _id, message.appId, _routes)) {
            return;
        }
        distinctRoutes(_routes);
        const std::size_t bytes = _frames.bytes(message.payload).size();
        publishFrames(sender, message);
        logPublished(sender, _id, bytes, _routes.size());
    } catch (const std::bad_alloc&) {
        logLimited("memory|" + sender, "requests dropped for want of memory",
                   std::string(orvikm::Message::_wire_name) + " from " + printable(sender) +
                       " dropped: not enough memory to serve it");
    }
}

void DevNode::serveDecoded(const std::string& sender) {
    std::unique_ptr<Request> request;
    try {
        request = receiveRequest(sender);
    } catch (const wxblt::ZmqTermination&) {
        throw;
    } catch (const orviku::Exception& error) {
        noteConnection(sender, _request_connection);
        logMalformed(sender, describeOnOneLine(error));
        return;
    } catch (const std::bad_alloc&) {
        _decoder_input.flushMessage();
        logLimited("malformed|" + sender, "malformed requests from " + printable(sender),
                   "request from " + printable(sender) + " dropped: not enough memory for it");
        return;
    } catch (const std::exception& error) {
        // Errors outside the orviku family leave the rest of the request unread.
        _decoder_input.flushMessage();
        noteConnection(sender, _request_connection);
        logMalformed(sender, describeForeign(error));
        return;
    }
    noteConnection(sender, _request_connection);
    if (!request) {
        return;
    }

    try {
        if (auto* message = dynamic_cast<orvikm::Message*>(request.get())) {
            handleMessage(sender, *message);
        } else if (dynamic_cast<orvikm::internal_objects::GetRegistry*>(request.get()) != nullptr) {
            if (_options.verbose) {
                logLine("GREG from " + printable(sender));
            }
            answerRegistry(sender);
        } else if (auto* inbox = dynamic_cast<orvikm::internal_objects::Inbox*>(request.get())) {
            _seen.see(inbox->appId(), std::chrono::system_clock::now());
            if (_options.verbose) {
                logLine("BOX from " + printable(sender) + " app_id=" + printable(inbox->appId()));
            }
        } else if (auto* ack = dynamic_cast<orvikm::internal_objects::Ack*>(request.get())) {
            if (_options.verbose) {
                logLine("ACK from " + printable(sender) + " msg_id=" + printable(ack->messageId()));
            }
        } else if (_options.verbose) {
            logLine(std::string(request->wireName()) + " from " + printable(sender) + " ignored");
        }
    } catch (const std::bad_alloc&) {
        logLimited("memory|" + sender, "requests dropped for want of memory",
                   std::string(request->wireName()) + " from " + printable(sender) +
                       " dropped: not enough memory to serve it");
    }
}

// Receiver::receive() with a route section of the node's own: it keeps at
// most maxRoutes routes, however many come. Returns nothing for a request
// refused for its number of routes.
std::unique_ptr<Request> DevNode::receiveRequest(const std::string& sender) {
    std::string command;
    try {
        Routes routes = receiveRoutes();
        command = _decoder.receive_command();
        HeaderMap headers;
        try {
            headers = _decoder.receive_headers();
        } catch (orviku::Exception& error) {
            error.addContext("While trying to receive protocol headers of request");
            throw;
        }
        if (routes.count > _options.maxRoutes) {
            _decoder_input.flushMessage();
            logLimited("routes|" + sender,
                       "requests with too many routes from " + printable(sender),
                       printable(command) + " " + headerOr(headers, "id", "(no id)") + " from " +
                           printable(sender) + " refused: " + std::to_string(routes.count) +
                           " push routes, more than " + std::to_string(_options.maxRoutes) +
                           " (--max-routes); not acknowledged");
            return nullptr;
        }
        if (command == orvikm::Message::_wire_name) {
            std::unique_ptr<orvikm::Payload> payload = _decoder.receive_payload(headers);
            return std::make_unique<orvikm::Message>(std::move(*payload), std::move(routes.kept),
                                                     headers);
        }
        if (command == orvikm::Registry::_wire_name) {
            std::unique_ptr<orvikm::Payload> payload = _decoder.receive_payload(headers);
            return std::make_unique<orvikm::Registry>(std::move(*payload), headers);
        }
        if (command == orvikm::internal_objects::Inbox::_wire_name) {
            _decoder.receive_termination();
            return std::make_unique<orvikm::internal_objects::Inbox>(headers);
        }
        if (command == orvikm::internal_objects::Ack::_wire_name) {
            _decoder.receive_termination();
            return std::make_unique<orvikm::internal_objects::Ack>(headers);
        }
        if (command == orvikm::internal_objects::GetRegistry::_wire_name) {
            _decoder.receive_termination();
            return std::make_unique<orvikm::internal_objects::GetRegistry>(headers);
        }
        throw orvikm::ProtocolError("Unrecognised command name: " + command);
    } catch (orviku::Exception& error) {
        std::string context = "While trying to decode a received request";
        if (!command.empty()) {
            context += " (" + command + ")";
        }
        error.addContext(std::move(context));
        _decoder_input.flushMessage();
        throw;
    }
}

DevNode::Routes DevNode::receiveRoutes() {
    try {
        Routes routes;
        while (true) {
            ReceivedFrame frame(_decoder_input.handle());
            const std::string_view bytes = frame.bytes();
            if (bytes == kDelimiter) {
                return routes;
            }
            if (bytes.size() > orvikm::Receiver::_frame_capacity) {
                throw orvikm::ProtocolError(
                    "Frame too long in section Routes: " + std::to_string(bytes.size()) +
                    " bytes, at most " + std::to_string(orvikm::Receiver::_frame_capacity) +
                    " are allowed outside the payload");
            }
            if (routes.kept.size() < _options.maxRoutes) {
                routes.kept.emplace_back(bytes);
            }
            ++routes.count;
            if (!frame.more()) {
                throw orvikm::ProtocolError(
                    "Expected more frames. Next section: Route delimiter frame");
            }
        }
    } catch (orviku::Exception& error) {
        error.addContext("While trying to receive routes of request");
        throw;
    }
}

void DevNode::handleMessage(const std::string& sender, orvikm::Message& message) {
    _routes.assign(message.pushRoutes().begin(), message.pushRoutes().end());
    if (!acknowledge(sender, message.msgIdView(), message.appId(), _routes)) {
        return;
    }
    distinctRoutes(_routes);
    const std::size_t bytes = message.payload().size();
    publish(sender, message);
    logPublished(sender, message.msgIdView(), bytes, _routes.size());
}

bool DevNode::acknowledge(const std::string& sender, std::string_view id, std::string_view appId,
                          const std::vector<std::string_view>& routes) {
    _seen.see(appId, std::chrono::system_clock::now());
    // The one header of the acknowledgement, as internal_objects::Ack writes it.
    _ack_header.assign("msg_id");
    _ack_header += Request::_hdr_sep;
    _ack_header += id;
    _answer.assign(
        {sender, kDelimiter, orvikm::internal_objects::Ack::_wire_name, _ack_header, kDelimiter});
    // The printable id is made only for a log line.
    answer(sender, _answer, nullptr, kDelimiter,
           [&id] { return "acknowledgement of MSG " + printable(id); });
    if (routes.empty()) {
        logLimited("unrouted|" + sender, "messages without push routes from " + printable(sender),
                   "MSG " + printable(id) + " from " + printable(sender) +
                       " has no push routes: acknowledged and dropped");
        return false;
    }
    return true;
}

// Each copy carries every route of the message; one copy per distinct route
// is what a subscriber of each needs. One route, the usual case, needs no set
// to tell.
void DevNode::distinctRoutes(const std::vector<std::string_view>& routes) {
    _distinct.clear();
    if (routes.size() == 1) {
        _distinct.push_back(routes.front());
        return;
    }
    std::unordered_set<std::string_view> seen;
    for (const std::string_view route : routes) {
        if (seen.insert(route).second) {
            _distinct.push_back(route);
        }
    }
}

void DevNode::logPublished(const std::string& sender, std::string_view id, std::size_t bytes,
                           std::size_t routes) {
    if (!_options.verbose) {
        return;
    }
    logLine(
        "MSG " + printable(id) + " from " + printable(sender) + " (" + std::to_string(bytes) +
        " bytes, " + std::to_string(routes) + " routes" +
        (_distinct.size() < routes ? ", " + std::to_string(_distinct.size()) + " distinct" : "") +
        ") acknowledged and published");
}

void DevNode::answerRegistry(const std::string& sender) {
    std::shared_ptr<const std::string> body;
    if (_registry_file) {
        // Read at every request, so that edits show at once. A file that has
        // gone or become unusable since the start (an editor replacing it,
        // say) costs this one answer, not the node.
        try {
            body = _registry_file->read();
        } catch (const RegistryFileError& error) {
            logLimited("registry|" + sender, "unanswered registry requests of " + printable(sender),
                       "registry request of " + printable(sender) +
                           " left unanswered: " + printable(error.what()));
            return;
        }
    } else {
        body = _seen.document();
    }
    // The registry only lends its bytes to the header frames; the answer's
    // payload frame shares them with every other answer still queued.
    const orvikm::Registry registry(orvikm::Payload(
        const_cast<char*>(body->data()), static_cast<unsigned>(body->size()), "json", nullptr));
    const std::vector<std::string> headers = headerFrames(registry);
    _answer.assign({sender, kDelimiter, registry.wireName()});
    _answer.insert(_answer.end(), headers.begin(), headers.end());
    _answer.push_back(kDelimiter);
    answer(sender, _answer, body, *body, [] { return std::string("registry"); });
}

// Answers are counted against the dealer until libzmq has passed them on
// (QueueAccount). One that would take a dealer beyond peerQueueBytes is
// dropped: a dealer that reads never gets there, one that does not read must
// not grow the node. A dealer with nothing queued always gets its answer, so
// a registry larger than the limit still goes to a dealer that reads.
void DevNode::answer(const std::string& peerIdentity, const std::vector<std::string_view>& frames,
                     std::shared_ptr<const void> owner, std::string_view body,
                     const std::function<std::string()>& what) {
    const std::shared_ptr<QueueAccount> queued = peer(peerIdentity).answers;
    const std::size_t cost = queuedCost(frames, body.size()) - peerIdentity.size() - kFrameCost;
    const std::size_t held = queued->bytes();
    if (held > 0 && held + cost > _options.peerQueueBytes) {
        logLimited(
            "answers|" + peerIdentity, "answers dropped for " + printable(peerIdentity),
            what() + " for " + printable(peerIdentity) + " dropped: " + std::to_string(held) +
                " bytes of earlier answers are still waiting for it" + " (--peer-queue-bytes " +
                std::to_string(_options.peerQueueBytes) + "); it is not reading");
        return;
    }
    try {
        CountedFrame last(queued, cost, std::move(owner), body.data(), body.size());
        if (sendWithoutWaiting(_router.handle(), frames, last) == SendOutcome::Sent) {
            return;
        }
        logLimited("unreachable|" + peerIdentity,
                   "answers for " + printable(peerIdentity) + " without a connection",
                   "cannot send " + what() + " to " + printable(peerIdentity) +
                       ": no connection has that identity");
    } catch (const wxblt::ZmqTermination&) {
        throw;
    } catch (const wxblt::Exception& error) {
        logLimited("unreachable|" + peerIdentity,
                   "answers for " + printable(peerIdentity) + " that failed",
                   "cannot send " + what() + " to " + printable(peerIdentity) + ": " +
                       describeOnOneLine(error));
    }
}

// Publications are counted until libzmq has passed on the last copy. While
// publishQueueBytes are waiting for subscribers, a new one is dropped for
// everyone (unless nothing waits: one message larger than the limit still
// goes out).
bool DevNode::admitPublication(const std::string& sender, std::string_view id, std::size_t cost) {
    const std::size_t held = _published->bytes();
    if (held > 0 && held + cost > _options.publishQueueBytes) {
        logLimited("publish", "messages not published",
                   "MSG " + printable(id) + " from " + printable(sender) +
                       " not published: " + std::to_string(held) +
                       " bytes of earlier messages are still waiting for subscribers "
                       "(--publish-queue-bytes " +
                       std::to_string(_options.publishQueueBytes) +
                       "); a subscriber is not reading");
        return false;
    }
    return true;
}

// A full subscriber queue (subscriberQueue messages) makes the lossless
// publisher refuse the copy (EAGAIN), which tells the node. A subscriber that
// reads but fell behind for a moment gets kSubscriberGrace to catch up, so a
// burst reaches it whole. After that the copy goes out lossy: dropped for
// that subscriber alone, which libzmq then sets aside until it has read half
// its queue, so a subscriber that does not read costs the wait once, not at
// every message.
template <typename SendCopy>
void DevNode::publishCopies(std::string_view id, SendCopy sendCopy) {
    try {
        for (std::size_t copy = 0; copy < _distinct.size(); ++copy) {
            const std::string_view route = _distinct[copy];
            const bool lastCopy = copy + 1 == _distinct.size();
            SendOutcome outcome = sendCopy(route, lastCopy);
            const auto giveUp = std::chrono::steady_clock::now() + kSubscriberGrace;
            while (outcome == SendOutcome::Full && std::chrono::steady_clock::now() < giveUp) {
                std::this_thread::sleep_for(kSubscriberRetry);
                outcome = sendCopy(route, lastCopy);
            }
            if (outcome == SendOutcome::Sent) {
                continue;
            }
            logLimited("subscriber", "messages dropped for subscribers that are not reading",
                       "MSG " + printable(id) + " on route " + printable(route) +
                           " dropped for a subscriber of that route: it has " +
                           std::to_string(_options.subscriberQueue) +
                           " messages waiting (--subscriber-queue); it is not reading and "
                           "gets nothing more until it has caught up");
            setLossless(false);
            sendCopy(route, lastCopy);
            setLossless(true);
        }
    } catch (const wxblt::ZmqTermination&) {
        throw;
    } catch (const wxblt::Exception& error) {
        setLossless(true);
        logLimited("publish", "messages not published",
                   "cannot publish MSG " + printable(id) + ": " + describeOnOneLine(error));
    }
}

void DevNode::publish(const std::string& sender, orvikm::Message& message) {
    const std::string command = message.wireName();
    std::vector<std::string> headers;
    headers.reserve(8);
    message.visit_protocol_headers([&headers](std::string_view key, std::string_view value) {
        std::string frame(key);
        frame += Request::_hdr_sep;
        frame += value;
        headers.push_back(std::move(frame));
    });
    std::vector<std::string_view> frames{std::string_view()};  // the topic, per copy
    frames.insert(frames.end(), message.pushRoutes().begin(), message.pushRoutes().end());
    frames.push_back(kDelimiter);
    frames.push_back(command);
    frames.insert(frames.end(), headers.begin(), headers.end());
    frames.push_back(kDelimiter);

    const std::size_t bodySize = message.payload().size();
    std::size_t cost = bodySize + _distinct.size() * queuedCost(frames, 0);
    for (const std::string_view route : _distinct) {
        cost += route.size();
    }
    if (!admitPublication(sender, message.msgIdView(), cost)) {
        return;
    }
    const auto body = std::make_shared<orvikm::Payload>(std::move(message.payload()));
    CountedFrame last(_published, cost, body, body->getBuffer(), bodySize);
    publishCopies(message.msgIdView(), [this, &frames, &last](std::string_view route, bool) {
        frames.front() = route;
        return sendWithoutWaiting(_publisher.handle(), frames, last);
    });
}

// publish() for a well-formed message: the same frames, the received ones
// themselves, each copy sharing their bytes; the same cost.
void DevNode::publishFrames(const std::string& sender, const WellFormedMessage& message) {
    _publication.clear();
    _publication_bytes.assign(1, std::string_view());  // the topic, per copy
    for (std::size_t frame = 1; frame < message.payload; ++frame) {
        _publication.push_back(_frames.frame(frame));
        _publication_bytes.push_back(_frames.bytes(frame));
    }
    zmq_msg_t* const payload = _frames.frame(message.payload);
    const std::size_t bodySize = _frames.bytes(message.payload).size();
    std::size_t cost = bodySize + _distinct.size() * queuedCost(_publication_bytes, 0);
    for (const std::string_view route : _distinct) {
        cost += route.size();
    }
    if (!admitPublication(sender, _id, cost)) {
        return;
    }
    CountedFrame last(_published, cost, payload);
    // The last copy takes the frames themselves: no copies to make and close.
    // The route of each copy is written before any frame goes.
    publishCopies(_id, [this, &last](std::string_view route, bool lastCopy) {
        return sendWithoutWaiting(_publisher.handle(), route, _publication,
                                  lastCopy ? Frames::GivenUp : Frames::Copied, last);
    });
}

void DevNode::setLossless(bool lossless) {
    setIntOption(_publisher, ZMQ_XPUB_NODROP, lossless ? 1 : 0);
}

void DevNode::readConnectionEvents() {
    while (true) {
        zmq_msg_t event;
        zmq_msg_init(&event);
        if (zmq_msg_recv(&event, _connection_events.handle(), ZMQ_DONTWAIT) < 0) {
            zmq_msg_close(&event);
            return;
        }
        std::uint16_t kind = 0;
        std::int32_t connection = -1;
        const bool complete = zmq_msg_size(&event) >= 6;
        if (complete) {
            std::memcpy(&kind, zmq_msg_data(&event), sizeof kind);
            std::memcpy(&connection, static_cast<const char*>(zmq_msg_data(&event)) + 2,
                        sizeof connection);
        }
        const bool more = zmq_msg_more(&event) != 0;
        zmq_msg_close(&event);
        if (more) {
            _connection_events.flushMessage();  // the endpoint, which says nothing new
        }
        if (!complete) {
            continue;
        }
        if (kind == ZMQ_EVENT_ACCEPTED) {
            _connections[connection] = peerAddress(connection);
        } else if (kind == ZMQ_EVENT_DISCONNECTED) {
            _connections.erase(connection);
            for (auto& [identity, known] : _peers) {
                if (known.connection == connection) {
                    known.connection = -1;
                }
            }
        }
    }
}

// A request from a connection other than the one last heard under the same
// identity, while that one is still open, means two clients share the
// identity: the router has handed it over to the newer connection.
void DevNode::noteConnection(const std::string& identity, int connection) {
    if (connection < 0) {
        return;
    }
    Peer& known = peer(identity);
    if (known.connection == connection) {
        return;
    }
    // The monitor reports a closed connection long before a new one can send,
    // but its report may still be waiting to be read.
    readConnectionEvents();
    if (known.connection >= 0) {
        const auto address = [this](int descriptor) {
            const auto found = _connections.find(descriptor);
            return found == _connections.end() || found->second.empty() ? "unknown address"
                                                                        : found->second;
        };
        logLimited("clash|" + identity, "identity clashes of " + printable(identity),
                   "identity " + printable(identity) +
                       " is used by two connections at once: the one from " + address(connection) +
                       " has taken it over from the one from " + address(known.connection) +
                       ", which is still open but no longer heard; do two clients share an "
                       "app id?");
    }
    known.connection = connection;
}

DevNode::Peer& DevNode::peer(const std::string& identity) {
    const auto found = _peers.find(identity);
    if (found != _peers.end()) {
        _peer_recency.splice(_peer_recency.end(), _peer_recency, found->second.recency);
        return found->second;
    }
    if (_peers.size() >= kPeersRemembered) {
        _peers.erase(_peer_recency.front());
        _peer_recency.pop_front();
    }
    Peer& added = _peers[identity];
    added.recency = _peer_recency.insert(_peer_recency.end(), identity);
    return added;
}

void DevNode::logLine(const std::string& line) {
    _log << timestamp(std::chrono::system_clock::now()) << ' ' << line << std::endl;
}

void DevNode::logLimited(const std::string& key, const std::string& subject,
                         const std::string& line) {
    if (_limiter.admit(key, subject, LogLimiter::Clock::now())) {
        logLine(line);
    }
}

void DevNode::logMalformed(const std::string& sender, const std::string& error) {
    logLimited("malformed|" + sender, "malformed requests from " + printable(sender),
               "malformed request from " + printable(sender) + ": " + error);
}

void DevNode::logSummaries() {
    const auto now = LogLimiter::Clock::now();
    if (now < _next_summaries) {
        return;
    }
    _next_summaries = now + kSummaryInterval;
    for (const std::string& line : _limiter.summaries(now)) {
        logLine(line);
    }
}

}  // namespace orvikdev
