#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <vector>

#include <orvikm/control_requests.hpp>
#include <orvikm/payload_request.hpp>

namespace orvikm {

// "MSG": an application message. A payload plus what the node needs to pass it
// on: the push routes, how long it stays valid, how it is to be acknowledged,
// the sending application's id and the nodes it came through.
//
// Headers: "id", "app_id", "valid_for", "ack_mode", "origin", besides
// "p_size" and "p_type". The push routes travel as route frames, not headers.
class Message : public internal_objects::PayloadRequest {
public:
    // How the message is to be acknowledged. The library never interprets the
    // value: it carries any 32-bit value unchanged between the application and
    // the "ack_mode" header.
    enum class AckMode : std::int32_t {
        Unacknowledged = 0,  // nobody acknowledges the message
        ByNode = 1,          // the node acknowledges it once it has taken it over
        ByReceivers = 2,     // the node acknowledges it once its receivers have
    };

    // The delivery settings an application gives a message.
    struct Config {
        Config();
        Config(std::string appId, std::list<std::string> pushRoutes, std::chrono::seconds validFor,
               AckMode ackMode);

        std::string app_id;
        std::chrono::seconds valid_for;
        std::list<std::string> push_routes;
        AckMode ack_mode;
    };

    static const char* const _wire_name;  // "MSG"

    // For sending: takes payload and configuration over and gives the message
    // a new id.
    Message(Payload payload, Config config);
    // For receiving: decodes the headers (without "p_size" and "p_type"),
    // taking its keys out of the map; the routes become the push routes. The
    // id is the one received. Decoding errors carry the context
    // "While trying to decode protocol headers for Message", except that an
    // unreadable "valid_for" throws std::invalid_argument or std::out_of_range
    // as they are.
    Message(Payload payload, std::list<std::string> routes, internal_objects::HeaderMap& headers);
    // A new message with the same content: a copy of the payload and the
    // configuration, but a NEW id and no origin nodes.
    Message(const Message& other);
    // Moves keep everything, the id included.
    Message(Message&& other) = default;
    // Also releases the payload it overwrites (through that payload's free
    // callback); a moved-from target has nothing to release.
    Message& operator=(Message&& other) noexcept;
    Message& operator=(const Message& other) = delete;
    ~Message() override;

    const char* wireName() const override;
    std::string msgId() const { return msg_id; }
    std::string appId() const { return config.app_id; }
    const std::list<std::string>& pushRoutes() const { return config.push_routes; }
    std::chrono::seconds validFor() const { return config.valid_for; }
    AckMode ackMode() const { return config.ack_mode; }
    const std::vector<std::string>& originNodes() const { return origin_nodes; }

    // The acknowledgement of this message.
    internal_objects::Ack generate_ack() const;
    // Gives the message a new random id.
    void generate_new_id();
    void appendOriginNode(std::string node);

    internal_objects::HeaderMap create_protocol_headers() const override;
    void handle_protocol_headers(internal_objects::HeaderMap& headers) override;

    // Hands every header of Message::create_protocol_headers() to `visit`, key
    // and value, in key order, without building the map; the texts live only
    // for the call. The Sender writes the headers of a Message with it.
    void visit_protocol_headers(
        const std::function<void(std::string_view key, std::string_view value)>& visit) const;

private:
    std::string msg_id;
    std::vector<std::string> origin_nodes;
    Config config;
};

}  // namespace orvikm
