#include <orvikm/sender.hpp>

#include <utility>

#include <orviku/exception.hpp>
#include <wxblt/socket.hpp>

namespace orvikm {

namespace {
constexpr char delimiter_byte = 0;
}

Sender::Sender(wxblt::Socket* socket) : socket(socket) {}

Sender::Sender(Sender&& other) noexcept : socket(std::exchange(other.socket, nullptr)) {}

Sender::~Sender() = default;

void Sender::send(const Message& message, const std::string* identity) {
    try {
        send_identity(identity);
        send_push_routes(message.pushRoutes());
        send_command(message);
        send_protocol_headers(message);
        const Payload& payload = message.payload();
        socket->send(payload.getBuffer(), payload.size(), false);
    } catch (orviku::Exception& error) {
        error.addContext("While trying to send frames of payload request");
        throw;
    }
}

void Sender::send(const internal_objects::PayloadRequest& request, const std::string* identity) {
    try {
        send_identity(identity);
        send_delimiter(true);
        send_command(request);
        send_protocol_headers(request);
        const Payload& payload = request.payload();
        socket->send(payload.getBuffer(), payload.size(), false);
    } catch (orviku::Exception& error) {
        error.addContext("While trying to send frames of payload request");
        throw;
    }
}

void Sender::send(const internal_objects::Request& request, const std::string* identity) {
    try {
        send_identity(identity);
        send_delimiter(true);
        send_command(request);
        send_protocol_headers(request);
        send_delimiter(false);
    } catch (orviku::Exception& error) {
        error.addContext("While trying to send frames of request");
        throw;
    }
}

void Sender::send_push_routes(const std::list<std::string>& routes) {
    for (const std::string& route : routes) {
        socket->send(route, true);
    }
    send_delimiter(true);
}

void Sender::send_command(const internal_objects::Request& request) {
    socket->send(std::string(request.wireName()), true);
}

void Sender::send_protocol_headers(const internal_objects::Request& request) {
    const internal_objects::HeaderMap headers = request.create_protocol_headers();
    std::string frame;
    for (const auto& [key, value] : headers) {
        frame.assign(key);
        frame += internal_objects::Request::_hdr_sep;
        frame += value;
        socket->send(frame, true);
    }
    send_delimiter(true);
}

void Sender::send_delimiter(bool more) {
    socket->send(&delimiter_byte, 1, more);
}

void Sender::send_identity(const std::string* identity) {
    if (identity != nullptr) {
        socket->send(*identity, true);
    }
}

}  // namespace orvikm
