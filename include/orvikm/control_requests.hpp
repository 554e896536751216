#pragma once

#include <cstdint>
#include <string>

#include <orvikm/request.hpp>

namespace orvikm::internal_objects {

/// Whose inbox an inbox check is about.
enum class InboxType : std::int32_t { Client = 0, Node = 1 };

/// "BOX": asks the node to check the inbox of an application id.
/// Headers: "app_id" and "box_type" ("clnt" for Client, "node" otherwise).
class Inbox : public Request {
public:
    static const char* const _wire_name;  ///< "BOX"

    /// A check of the inbox of `appId`, of the given type.
    Inbox(std::string appId, InboxType type);
    /// Decodes the headers it is given, taking its keys out of the map.
    explicit Inbox(HeaderMap& headers);

    /// The application id whose inbox is to be checked.
    const std::string& appId() const { return _app_id; }
    /// Whose inbox it is.
    InboxType type() const { return _type; }

    const char* wireName() const override;
    ~Inbox() override;
    HeaderMap create_protocol_headers() const override;
    /// Takes "app_id" and "box_type" ("clnt" or "node", exactly); rejects any
    /// other type text and any key left over. Errors carry the context
    /// "While trying to decode headers for Inbox".
    void handle_protocol_headers(HeaderMap& headers) override;

private:
    std::string _app_id;
    InboxType _type;
};

/// "GREG": asks the node for its registry. It has no headers.
class GetRegistry : public Request {
public:
    static const char* const _wire_name;  ///< "GREG"

    GetRegistry();
    /// Decodes a copy of the headers: any header at all is rejected, with the
    /// context "While trying to decode headers for GetRegistry request". The
    /// caller's map is left as it was.
    explicit GetRegistry(HeaderMap headers);

    const char* wireName() const override;
    ~GetRegistry() override;
    HeaderMap create_protocol_headers() const override;
    /// Takes no key and adds no context.
    void handle_protocol_headers(HeaderMap& headers) override;
};

/// "ACK": acknowledges one message by its id, in both directions.
/// Header: "msg_id".
class Ack : public Request {
public:
    static const char* const _wire_name;  ///< "ACK"

    /// Acknowledges the message with the id `messageId`.
    explicit Ack(std::string messageId);
    /// Decodes the headers it is given, taking its keys out of the map.
    explicit Ack(HeaderMap& headers);

    /// The id of the message acknowledged.
    const std::string& messageId() const { return _message_id; }

    const char* wireName() const override;
    ~Ack() override;
    HeaderMap create_protocol_headers() const override;
    /// Takes "msg_id" (any text, also empty); rejects any key left over.
    /// Errors carry the context "While trying to decode headers for Ack".
    void handle_protocol_headers(HeaderMap& headers) override;

private:
    std::string _message_id;
};

}  // namespace orvikm::internal_objects
