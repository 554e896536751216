#include "test_node.hpp"

#include <zmq.h>

#include <stdexcept>

namespace testsupport {

std::string delimiter() {
    return std::string(1, '\0');
}

std::vector<std::string> messageFrames(const std::vector<std::string>& routes,
                                       const std::map<std::string, std::string>& headers,
                                       const std::string& payload) {
    std::vector<std::string> frames(routes.begin(), routes.end());
    frames.push_back(delimiter());
    frames.push_back("MSG");
    for (const auto& [key, value] : headers) {
        frames.push_back(key + "|" + value);
    }
    frames.push_back(delimiter());
    frames.push_back(payload);
    return frames;
}

std::vector<std::string> messageFrames(const std::string& id, const std::string& payload,
                                       const std::vector<std::string>& routes,
                                       const std::string& type) {
    return messageFrames(routes,
                         {{"ack_mode", "1"},
                          {"app_id", "sender-app"},
                          {"id", id},
                          {"origin", ","},
                          {"p_size", std::to_string(payload.size())},
                          {"p_type", type},
                          {"valid_for", "30"}},
                         payload);
}

std::vector<std::string> ackFrames(const std::string& messageId) {
    return {delimiter(), "ACK", "msg_id|" + messageId, delimiter(), delimiter()};
}

std::vector<std::string> registryFrames(const std::string& payload, const std::string& type) {
    return {delimiter(),      "REG",       "p_size|" + std::to_string(payload.size()),
            "p_type|" + type, delimiter(), payload};
}

std::vector<std::string> inboxFrames(const std::string& appId) {
    return {delimiter(), "BOX", "app_id|" + appId, "box_type|clnt", delimiter(), delimiter()};
}

TestNode::TestNode()
    : _publisher(ZMQ_XPUB),
      _router(ZMQ_ROUTER),
      _listener_port(_publisher.bindLoopback()),
      _dispenser_port(_router.bindLoopback()) {
    // Unroutable replies fail loudly instead of vanishing.
    _router.setIntOption(ZMQ_ROUTER_MANDATORY, 1);
}

std::optional<WrittenRequest> TestNode::receive(std::chrono::milliseconds timeout) {
    auto message = _router.receiveMessage(timeout);
    if (!message || message->empty()) {
        return std::nullopt;
    }
    WrittenRequest request;
    request.identity = message->front().bytes;
    request.frames.assign(message->begin() + 1, message->end());

    // Routes up to the first delimiter, then the command, then headers up to
    // the next delimiter, then the payload or the closing delimiter.
    std::size_t i = 0;
    const auto& frames = request.frames;
    const auto isDelimiter = [](const Frame& f) { return f.bytes == std::string(1, '\0'); };
    while (i < frames.size() && !isDelimiter(frames[i])) {
        request.routes.push_back(frames[i++].bytes);
    }
    ++i;
    if (i < frames.size()) {
        request.command = frames[i++].bytes;
    }
    while (i < frames.size() && !isDelimiter(frames[i])) {
        const std::string& line = frames[i++].bytes;
        const auto separator = line.find('|');
        request.headers[line.substr(0, separator)] =
            separator == std::string::npos ? "" : line.substr(separator + 1);
    }
    ++i;
    if ((request.command == "MSG" || request.command == "REG") && i < frames.size()) {
        request.payload = frames[i].bytes;
    }
    return request;
}

std::optional<WrittenRequest> TestNode::receiveCommand(const std::string& command,
                                                       std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return std::nullopt;
        }
        auto request = receive(left);
        if (!request || request->command == command) {
            return request;
        }
    }
}

bool TestNode::quietFor(std::chrono::milliseconds timeout) {
    return !_router.waitForInput(timeout);
}

void TestNode::sendTo(const std::string& identity, const std::vector<std::string>& frames) {
    _router.sendFrame(identity, true);
    _router.sendMessage(frames);
}

void TestNode::publish(const std::vector<std::string>& frames) {
    _publisher.sendMessage(frames);
}

bool TestNode::waitForSubscription(const std::string& topic, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        auto message = _publisher.receiveMessage(left);
        if (message && !message->empty() &&
            message->front().bytes == std::string(1, '\1') + topic) {
            return true;
        }
    }
}

namespace {

int bindLoopbackPort(RawPeer& peer, int port) {
    const std::string endpoint = "tcp://127.0.0.1:" + std::to_string(port);
    if (zmq_bind(peer.handle(), endpoint.c_str()) != 0) {
        throw std::runtime_error("zmq_bind " + endpoint + ": " + zmq_strerror(zmq_errno()));
    }
    return port;
}

}  // namespace

TestNode::TestNode(int listenerPort, int dispenserPort)
    : _publisher(ZMQ_XPUB),
      _router(ZMQ_ROUTER),
      _listener_port(bindLoopbackPort(_publisher, listenerPort)),
      _dispenser_port(bindLoopbackPort(_router, dispenserPort)) {
    _router.setIntOption(ZMQ_ROUTER_MANDATORY, 1);
}

bool TestNode::waitForDispenserPeer(std::chrono::milliseconds timeout) {
    // A router that must not drop unroutable replies reports room to write
    // only once some peer's connection is complete.
    zmq_pollitem_t item{_router.handle(), 0, ZMQ_POLLOUT, 0};
    const int ready = zmq_poll(&item, 1, static_cast<long>(timeout.count()));
    if (ready < 0) {
        throw std::runtime_error(std::string("zmq_poll: ") + zmq_strerror(zmq_errno()));
    }
    return ready > 0;
}

std::future<int> acknowledgeMessages(TestNode& node, const std::string& identity, int count) {
    return std::async(std::launch::async, [&node, identity, count] {
        int acknowledged = 0;
        while (acknowledged < count) {
            const auto written = node.receiveCommand("MSG");
            if (!written) {
                break;
            }
            node.sendTo(identity, ackFrames(written->headers.at("id")));
            ++acknowledged;
        }
        return acknowledged;
    });
}

}  // namespace testsupport
