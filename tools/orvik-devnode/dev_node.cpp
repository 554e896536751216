#include "dev_node.hpp"

#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <orvikm/control_requests.hpp>
#include <orvikm/message.hpp>
#include <orvikm/registry.hpp>
#include <wxblt/exception.hpp>
#include <wxblt/input_selector.hpp>

namespace orvikdev {

namespace {

int boundPort(const wxblt::Socket& socket) {
    const std::string endpoint = socket.lastEndpoint();
    return std::stoi(endpoint.substr(endpoint.rfind(':') + 1));
}

std::string timestamp(std::chrono::system_clock::time_point when) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

std::string jsonString(const std::string& text) {
    std::string quoted = "\"";
    for (const unsigned char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += static_cast<char>(c);
        } else if (c < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", c);
            quoted += escape;
        } else {
            quoted += static_cast<char>(c);
        }
    }
    return quoted + "\"";
}

// Identities are bytes; the log shows them as text with the unprintable ones
// escaped.
std::string printable(const std::string& bytes) {
    std::string text;
    for (const unsigned char c : bytes) {
        if (c >= 0x20 && c < 0x7f) {
            text += static_cast<char>(c);
        } else {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02x", c);
            text += escape;
        }
    }
    return text;
}

std::string oneLine(const std::string& text) {
    std::string line = text;
    for (char& c : line) {
        if (c == '\n') {
            c = ';';
        }
    }
    return line;
}

// Errors outside the orviku family mostly come from the standard conversions of
// numeric header values ("p_size", "valid_for"), and their text names only the
// conversion, such as "stoull": the log says what was wrong with the value.
std::string describeForeign(const std::exception& error) {
    if (dynamic_cast<const std::invalid_argument*>(&error) != nullptr) {
        return std::string("a numeric header holds no number (") + error.what() + ")";
    }
    if (dynamic_cast<const std::out_of_range*>(&error) != nullptr) {
        return std::string("a numeric header holds a number out of range (") + error.what() + ")";
    }
    return error.what();
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error("cannot read registry file " + path);
    }
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

}  // namespace

DevNode::DevNode(DevNodeOptions options, std::ostream& log)
    : _options(std::move(options)),
      _log(log),
      _publisher(wxblt::SocketType::Pub),
      _router(wxblt::SocketType::Router),
      _publisher_sender(&_publisher),
      _router_sender(&_router),
      _router_receiver(&_router),
      _listener_port(0),
      _dispenser_port(0) {
    _publisher.setSendHighWaterMark(0);
    _router.setSendHighWaterMark(0);
    _router.setReceiveHighWaterMark(0);
    _router.setRouterMandatory(true);
    _publisher.bind("tcp://127.0.0.1:" + std::to_string(_options.listenerPort));
    _router.bind("tcp://127.0.0.1:" + std::to_string(_options.dispenserPort));
    _listener_port = boundPort(_publisher);
    _dispenser_port = boundPort(_router);
    if (_options.registryFile) {
        readFile(*_options.registryFile);  // fail at start, not at the first request
    }
}

void DevNode::run(const std::atomic<bool>& stop) {
    wxblt::InputSelector selector({{&_router, [this](wxblt::Socket*) { serveOne(); }}});
    while (!stop.load()) {
        selector.run(std::chrono::milliseconds(100));
    }
}

void DevNode::serveOne() {
    char identity[256];
    const unsigned identitySize = _router.recv(identity, sizeof identity);
    const std::string sender(identity,
                             identitySize < sizeof identity ? identitySize : sizeof identity);
    if (!_router.checkMore()) {
        logLine("malformed request from " + printable(sender) + ": no frames after the identity");
        return;
    }
    std::unique_ptr<orvikm::internal_objects::Request> request;
    try {
        request = _router_receiver.receive();
    } catch (const orviku::Exception& error) {
        logLine("malformed request from " + printable(sender) + ": " + oneLine(error.describe()));
        return;
    } catch (const std::exception& error) {
        // Errors outside the orviku family leave the rest of the request unread.
        _router.flushMessage();
        logLine("malformed request from " + printable(sender) + ": " + describeForeign(error));
        return;
    }

    if (auto* message = dynamic_cast<orvikm::Message*>(request.get())) {
        handleMessage(sender, *message);
    } else if (dynamic_cast<orvikm::internal_objects::GetRegistry*>(request.get()) != nullptr) {
        if (_options.verbose) {
            logLine("GREG from " + printable(sender));
        }
        answerRegistry(sender);
    } else if (auto* inbox = dynamic_cast<orvikm::internal_objects::Inbox*>(request.get())) {
        see(inbox->appId());
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
}

void DevNode::handleMessage(const std::string& sender, const orvikm::Message& message) {
    see(message.appId());
    try {
        _router_sender.send(message.generate_ack(), &sender);
    } catch (const wxblt::Exception& error) {
        logLine("cannot acknowledge message " + printable(message.msgId()) + " to " +
                printable(sender) + ": " + oneLine(error.describe()));
    }
    if (message.pushRoutes().empty()) {
        logLine("MSG " + printable(message.msgId()) + " from " + printable(sender) +
                " has no push routes: acknowledged and dropped");
        return;
    }
    for (const std::string& route : message.pushRoutes()) {
        _publisher_sender.send(message, &route);
    }
    if (_options.verbose) {
        logLine("MSG " + printable(message.msgId()) + " from " + printable(sender) + " (" +
                std::to_string(message.payload().size()) + " bytes, " +
                std::to_string(message.pushRoutes().size()) +
                " routes) acknowledged and published");
    }
}

void DevNode::answerRegistry(const std::string& sender) {
    std::string body;
    if (_options.registryFile) {
        // Read at every request, so that edits show at once. A file that has
        // gone or become unreadable since the start (an editor replacing it,
        // say) costs this one answer, not the node.
        try {
            body = readFile(*_options.registryFile);
        } catch (const std::exception& error) {
            logLine("registry request of " + printable(sender) +
                    " left unanswered: " + error.what());
            return;
        }
    } else {
        body = registryDocument();
    }
    orvikm::Payload payload(static_cast<unsigned>(body.size()), "json");
    if (!body.empty()) {
        std::memcpy(payload.getBuffer(), body.data(), body.size());
    }
    const orvikm::Registry registry(std::move(payload));
    try {
        _router_sender.send(registry, &sender);
    } catch (const wxblt::Exception& error) {
        logLine("cannot answer registry request of " + printable(sender) + ": " +
                oneLine(error.describe()));
    }
}

void DevNode::see(const std::string& appId) {
    _seen[appId] = std::chrono::system_clock::now();
}

std::string DevNode::registryDocument() const {
    std::ostringstream json;
    json << "{\"applications\":[";
    bool first = true;
    for (const auto& [appId, when] : _seen) {
        json << (first ? "" : ",") << "{\"app_id\":" << jsonString(appId)
             << ",\"last_seen\":" << jsonString(timestamp(when)) << "}";
        first = false;
    }
    json << "]}";
    return json.str();
}

void DevNode::logLine(const std::string& line) {
    _log << timestamp(std::chrono::system_clock::now()) << ' ' << line << std::endl;
}

}  // namespace orvikdev
