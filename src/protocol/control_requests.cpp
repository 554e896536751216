#include <orvikm/control_requests.hpp>

#include <utility>

#include <orvikm/errors.hpp>

namespace orvikm::internal_objects {

namespace {

const std::string inbox_app_id_key = "app_id";
const std::string inbox_type_key = "box_type";
const std::string inbox_client_value = "clnt";
const std::string inbox_node_value = "node";
const std::string ack_message_id_key = "msg_id";

}  // namespace

const char* const Inbox::_wire_name = "BOX";
const char* const GetRegistry::_wire_name = "GREG";
const char* const Ack::_wire_name = "ACK";

Inbox::Inbox(std::string appId, InboxType type) : _app_id(std::move(appId)), _type(type) {}

Inbox::Inbox(HeaderMap& headers) : _type(InboxType::Client) {
    Inbox::handle_protocol_headers(headers);
}

Inbox::~Inbox() = default;

const char* Inbox::wireName() const {
    return _wire_name;
}

HeaderMap Inbox::create_protocol_headers() const {
    HeaderMap headers;
    headers.emplace(inbox_app_id_key, _app_id);
    headers.emplace(inbox_type_key,
                    _type == InboxType::Client ? inbox_client_value : inbox_node_value);
    return headers;
}

void Inbox::handle_protocol_headers(HeaderMap& headers) {
    try {
        _app_id = move_from_headers(headers, inbox_app_id_key);
        const std::string type = move_from_headers(headers, inbox_type_key);
        if (type == inbox_client_value) {
            _type = InboxType::Client;
        } else if (type == inbox_node_value) {
            _type = InboxType::Node;
        } else {
            throw ProtocolError("Unknown inbox type specified in headers... " + type);
        }
        Request::handle_protocol_headers(headers);
    } catch (orviku::Exception& error) {
        error.addContext("While trying to decode headers for Inbox");
        throw;
    }
}

GetRegistry::GetRegistry() = default;

GetRegistry::GetRegistry(HeaderMap headers) {
    try {
        GetRegistry::handle_protocol_headers(headers);
    } catch (orviku::Exception& error) {
        error.addContext("While trying to decode headers for GetRegistry request");
        throw;
    }
}

GetRegistry::~GetRegistry() = default;

const char* GetRegistry::wireName() const {
    return _wire_name;
}

HeaderMap GetRegistry::create_protocol_headers() const {
    return HeaderMap();
}

void GetRegistry::handle_protocol_headers(HeaderMap& headers) {
    Request::handle_protocol_headers(headers);
}

Ack::Ack(std::string messageId) : _message_id(std::move(messageId)) {}

Ack::Ack(HeaderMap& headers) {
    Ack::handle_protocol_headers(headers);
}

Ack::~Ack() = default;

const char* Ack::wireName() const {
    return _wire_name;
}

HeaderMap Ack::create_protocol_headers() const {
    HeaderMap headers;
    headers.emplace(ack_message_id_key, _message_id);
    return headers;
}

void Ack::handle_protocol_headers(HeaderMap& headers) {
    try {
        _message_id = move_from_headers(headers, ack_message_id_key);
        Request::handle_protocol_headers(headers);
    } catch (orviku::Exception& error) {
        error.addContext("While trying to decode headers for Ack");
        throw;
    }
}

}  // namespace orvikm::internal_objects
