#pragma once

#include <list>
#include <string>

#include <orvikm/message.hpp>
#include <orvikm/payload_request.hpp>
#include <orvikm/request.hpp>

namespace wxblt {
class Socket;
}

namespace orvikm {

/// Writes requests onto a socket, each as one multi-part message:
///
///   [identity] routes... delimiter command headers... delimiter payload|delimiter
///
/// where a delimiter is one zero byte, a header frame is key "|" value (in key
/// order), routes are written for messages only, and the last frame is the
/// payload for payload requests and a delimiter for the others. Every frame but
/// the last carries the more flag. The sender keeps no state between calls and
/// does not own the socket.
class Sender {
public:
    /// A sender writing to `socket`, which must outlive it.
    explicit Sender(wxblt::Socket* socket);
    /// Takes over the other sender's socket.
    Sender(Sender&& other) noexcept;
    virtual ~Sender();

    ///@{
    /// Writes one request, preceded by the peer's identity when one is given
    /// (a ROUTER socket's addressing frame). Errors of the orviku family carry
    /// the context "While trying to send frames of payload request" (messages
    /// and other payload requests) or "While trying to send frames of
    /// request". Frames already written before a failure are not withdrawn.
    void send(const Message& message, const std::string* identity = nullptr);
    void send(const internal_objects::PayloadRequest& request,
              const std::string* identity = nullptr);
    void send(const internal_objects::Request& request, const std::string* identity = nullptr);
    ///@}

    /// One frame per route, then the delimiter.
    void send_push_routes(const std::list<std::string>& routes);
    /// The wire name as one frame.
    void send_command(const internal_objects::Request& request);
    /// One frame per header, in key order, then the delimiter.
    void send_protocol_headers(const internal_objects::Request& request);

private:
    void send_delimiter(bool more);
    void send_identity(const std::string* identity);

    wxblt::Socket* socket;
};

}  // namespace orvikm
