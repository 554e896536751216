#include <orvikm/message.hpp>

#include <charconv>
#include <cstddef>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <orvikm/errors.hpp>
#include <orviku/uuid.hpp>

namespace orvikm {

namespace {

const std::string id_key = "id";
const std::string app_id_key = "app_id";
const std::string valid_for_key = "valid_for";
const std::string ack_mode_key = "ack_mode";
const std::string origin_key = "origin";

// Every node is followed by a comma, and no nodes at all is a lone comma: a
// value of one character thus never names a node.
std::string encodeOrigin(const std::vector<std::string>& nodes) {
    if (nodes.empty()) {
        return ",";
    }
    std::string text;
    for (const std::string& node : nodes) {
        text += node;
        text += ',';
    }
    return text;
}

// Writes into `text` what "%u", "%d" or "%lld" would, without snprintf's
// formatting machinery, which showed in the profile of every message sent.
template <std::size_t Capacity, typename Integer>
std::string_view decimal(char (&text)[Capacity], Integer value) {
    const std::to_chars_result written = std::to_chars(text, text + Capacity, value);
    return std::string_view(text, static_cast<std::size_t>(written.ptr - text));
}

void decodeOrigin(const std::string& text, std::vector<std::string>& nodes) {
    if (text.size() <= 1) {
        return;
    }
    std::string current;
    for (const char c : text) {
        if (c == ',') {
            nodes.push_back(std::move(current));
            current.clear();
        } else {
            current += c;
        }
    }
}

}  // namespace

const char* const Message::_wire_name = "MSG";

Message::Config::Config() : valid_for(0), ack_mode(AckMode::Unacknowledged) {}

Message::Config::Config(std::string appId, std::list<std::string> pushRoutes,
                        std::chrono::seconds validFor, AckMode ackMode)
    : app_id(std::move(appId)),
      valid_for(validFor),
      push_routes(std::move(pushRoutes)),
      ack_mode(ackMode) {}

Message::Message(Payload payload, Config config)
    : PayloadRequest(std::move(payload)), config(std::move(config)) {
    generate_new_id();
}

Message::Message(Payload payload, std::list<std::string> routes,
                 internal_objects::HeaderMap& headers)
    : PayloadRequest(std::move(payload)) {
    Message::handle_protocol_headers(headers);
    config.push_routes = std::move(routes);
}

Message::Message(Payload payload, std::list<std::string> routes, std::string id, std::string appId,
                 std::chrono::seconds validFor, AckMode ackMode, const std::string& origin)
    : PayloadRequest(std::move(payload)),
      msg_id(std::move(id)),
      config(std::move(appId), std::move(routes), validFor, ackMode) {
    decodeOrigin(origin, origin_nodes);
}

Message::Message(const Message& other)
    : Message(Payload(other.payload()), Config(other.config.app_id, other.config.push_routes,
                                               other.config.valid_for, other.config.ack_mode)) {}

Message::~Message() = default;

Message& Message::operator=(Message&& other) noexcept {
    if (this == &other) {
        return *this;
    }
    // A payload's move assignment leaves its old buffer alone; moved out
    // first, the old payload frees it on leaving this scope. A moved-from
    // message, which is what the queue's heap assigns to at every step, has
    // neither buffer nor free callback: nothing to release.
    if (payload().getBuffer() != nullptr || payload().hasFreeCallback()) {
        const Payload overwritten(std::move(payload()));
        PayloadRequest::operator=(std::move(other));
    } else {
        PayloadRequest::operator=(std::move(other));
    }
    msg_id = std::move(other.msg_id);
    origin_nodes = std::move(other.origin_nodes);
    config = std::move(other.config);
    return *this;
}

const char* Message::wireName() const {
    return _wire_name;
}

internal_objects::Ack Message::generate_ack() const {
    return internal_objects::Ack(msgId());
}

void Message::generate_new_id() {
    msg_id = orviku::generate_str_uuid();
}

void Message::appendOriginNode(std::string node) {
    origin_nodes.push_back(std::move(node));
}

internal_objects::HeaderMap Message::create_protocol_headers() const {
    internal_objects::HeaderMap headers;
    // The keys come in order: each goes in at the end, without a search.
    visit_protocol_headers([&headers](std::string_view key, std::string_view value) {
        headers.emplace_hint(headers.end(), key, value);
    });
    return headers;
}

void Message::visit_protocol_headers(
    const std::function<void(std::string_view key, std::string_view value)>& visit) const {
    char ackMode[16];
    char size[16];
    char validFor[24];
    visit(ack_mode_key, decimal(ackMode, static_cast<int>(config.ack_mode)));
    visit(app_id_key, config.app_id);
    visit(id_key, msg_id);
    visit(origin_key, encodeOrigin(origin_nodes));
    // The two payload headers, as PayloadRequest::create_protocol_headers()
    // writes them: the size as unsigned decimal, the type verbatim.
    visit(PayloadRequest::_payload_sz_hdr_key, decimal(size, payload().size()));
    visit(PayloadRequest::_payload_type_hdr_key, payload().type());
    visit(valid_for_key, decimal(validFor, static_cast<long long>(config.valid_for.count())));
}

void Message::handle_protocol_headers(internal_objects::HeaderMap& headers) {
    try {
        msg_id = move_from_headers(headers, id_key);
        config.app_id = move_from_headers(headers, app_id_key);
        config.valid_for =
            std::chrono::seconds(std::stoll(move_from_headers(headers, valid_for_key)));
        const std::string ackMode = move_from_headers(headers, ack_mode_key);
        try {
            config.ack_mode = static_cast<AckMode>(std::stoi(ackMode));
        } catch (const std::logic_error& error) {
            throw ProtocolError(std::string("Ack mode is incorrect for Message. Logic error: ") +
                                error.what());
        }
        decodeOrigin(move_from_headers(headers, origin_key), origin_nodes);
        PayloadRequest::handle_protocol_headers(headers);
    } catch (orviku::Exception& error) {
        error.addContext("While trying to decode protocol headers for Message");
        throw;
    }
}

}  // namespace orvikm
