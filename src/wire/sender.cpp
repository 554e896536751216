#include <orvikm/sender.hpp>

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <typeinfo>
#include <utility>

#include <orviku/exception.hpp>
#include <wxblt/socket.hpp>

namespace orvikm {

namespace {

constexpr char delimiter_byte = 0;

// Writes key "|" value as one frame. A frame is built on the stack when it
// fits, as every header of the library's own requests does (a message id
// alone would otherwise cost an allocation); a longer one goes through
// `longFrame`.
void sendHeader(wxblt::Socket& socket, std::string_view key, std::string_view value,
                std::string& longFrame) {
    char buffer[128];
    const std::size_t size = key.size() + 1 + value.size();
    if (size > sizeof buffer) {
        longFrame.assign(key);
        longFrame += internal_objects::Request::_hdr_sep;
        longFrame += value;
        socket.send(longFrame, true);
        return;
    }
    std::memcpy(buffer, key.data(), key.size());
    buffer[key.size()] = internal_objects::Request::_hdr_sep;
    std::memcpy(buffer + key.size() + 1, value.data(), value.size());
    socket.send(buffer, static_cast<unsigned>(size), true);
}

}  // namespace

Sender::Sender(wxblt::Socket* socket) : socket(socket) {}

Sender::Sender(Sender&& other) noexcept : socket(std::exchange(other.socket, nullptr)) {}

Sender::~Sender() = default;

void Sender::send(const Message& message, const std::string* identity) {
    try {
        send_identity(identity);
        send_push_routes(message.pushRoutes());
        send_command(message);
        if (typeid(message) == typeid(Message)) {
            // The same frames as send_protocol_headers writes, without the
            // header map and its allocations. A class derived from Message may
            // have headers of its own and goes the general way.
            std::string longFrame;
            message.visit_protocol_headers([&](std::string_view key, std::string_view value) {
                sendHeader(*socket, key, value, longFrame);
            });
            send_delimiter(true);
        } else {
            send_protocol_headers(message);
        }
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
    const char* const name = request.wireName();
    socket->send(name, static_cast<unsigned>(std::strlen(name)), true);
}

void Sender::send_protocol_headers(const internal_objects::Request& request) {
    const internal_objects::HeaderMap headers = request.create_protocol_headers();
    std::string longFrame;
    for (const auto& [key, value] : headers) {
        sendHeader(*socket, key, value, longFrame);
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
