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

/// "MSG": an application message. A payload plus what the node needs to pass it
/// on: the push routes, how long it stays valid, how it is to be acknowledged,
/// the sending application's id and the nodes it came through.
///
/// Headers: "id", "app_id", "valid_for", "ack_mode", "origin", besides
/// "p_size" and "p_type". The push routes travel as route frames, not headers.
class Message : public internal_objects::PayloadRequest {
public:
    /// How the message is to be acknowledged. The library never interprets the
    /// value: it carries any 32-bit value unchanged between the application and
    /// the "ack_mode" header.
    enum class AckMode : std::int32_t {
        Unacknowledged = 0,  ///< nobody acknowledges the message
        ByNode = 1,          ///< the node acknowledges it once it has taken it over
        ByReceivers = 2,     ///< the node acknowledges it once its receivers have
    };

    /// The delivery settings an application gives a message.
    struct Config {
        /// No id, no routes, valid for 0 s, AckMode::Unacknowledged.
        Config();
        /// The settings as given.
        Config(std::string appId, std::list<std::string> pushRoutes, std::chrono::seconds validFor,
               AckMode ackMode);

        std::string app_id;                  ///< the sending application's id
        std::chrono::seconds valid_for;      ///< how long the message stays valid
        std::list<std::string> push_routes;  ///< the routes the node passes it along
        AckMode ack_mode;                    ///< how it is to be acknowledged
    };

    static const char* const _wire_name;  ///< "MSG"

    /// For sending: takes payload and configuration over and gives the message
    /// a new id.
    Message(Payload payload, Config config);
    /// For receiving: decodes the headers (without "p_size" and "p_type"),
    /// taking its keys out of the map; the routes become the push routes. The
    /// id is the one received. Decoding errors carry the context
    /// "While trying to decode protocol headers for Message", except that an
    /// unreadable "valid_for" throws std::invalid_argument or std::out_of_range
    /// as they are.
    Message(Payload payload, std::list<std::string> routes, internal_objects::HeaderMap& headers);
    /// A new message with the same content: a copy of the payload and the
    /// configuration, but a NEW id and no origin nodes.
    Message(const Message& other);
    /// Moves keep everything, the id included.
    Message(Message&& other) = default;
    /// Also releases the payload it overwrites (through that payload's free
    /// callback); a moved-from target has nothing to release.
    Message& operator=(Message&& other) noexcept;
    /// Not copy-assignable: a copy is a new message with a new id.
    Message& operator=(const Message& other) = delete;
    ~Message() override;

    /// "MSG".
    const char* wireName() const override;
    /// The message's id, a UUID in text form.
    std::string msgId() const { return msg_id; }
    /// The message's id without a copy, valid while the message lives and
    /// keeps it.
    std::string_view msgIdView() const noexcept { return msg_id; }
    /// The sending application's id.
    std::string appId() const { return config.app_id; }
    /// The routes the node passes the message along.
    const std::list<std::string>& pushRoutes() const { return config.push_routes; }
    /// How long the message stays valid.
    std::chrono::seconds validFor() const { return config.valid_for; }
    /// How the message is to be acknowledged.
    AckMode ackMode() const { return config.ack_mode; }
    /// The nodes the message came through, in the order they were appended.
    const std::vector<std::string>& originNodes() const { return origin_nodes; }

    /// The acknowledgement of this message.
    internal_objects::Ack generate_ack() const;
    /// Gives the message a new random id.
    void generate_new_id();
    /// Adds a node at the end of originNodes().
    void appendOriginNode(std::string node);

    /// Every header of the message: "id", "app_id", "valid_for", "ack_mode",
    /// "origin", "p_size" and "p_type".
    internal_objects::HeaderMap create_protocol_headers() const override;
    /// Takes "id", "app_id", "valid_for", "ack_mode" and "origin" out of the
    /// map, then rejects any key left over. An "ack_mode" that is no number is
    /// refused with ProtocolError.
    void handle_protocol_headers(internal_objects::HeaderMap& headers) override;

    /// Hands every header of Message::create_protocol_headers() to `visit`, key
    /// and value, in key order, without building the map; the texts live only
    /// for the call. The Sender writes the headers of a Message with it.
    void visit_protocol_headers(
        const std::function<void(std::string_view key, std::string_view value)>& visit) const;

private:
    friend class Receiver;
    // A message as the decoding constructor makes it from the headers every
    // sender writes, without the map: the Receiver checks that the values are
    // ones handle_protocol_headers takes as they are.
    Message(Payload payload, std::list<std::string> routes, std::string id, std::string appId,
            std::chrono::seconds validFor, AckMode ackMode, const std::string& origin);

    std::string msg_id;
    std::vector<std::string> origin_nodes;
    Config config;
};

}  // namespace orvikm
