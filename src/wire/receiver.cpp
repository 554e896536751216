#include <orvikm/receiver.hpp>

#include <cstring>
#include <string>
#include <utility>

#include <orvikm/control_requests.hpp>
#include <orvikm/errors.hpp>
#include <orvikm/message.hpp>
#include <orvikm/payload_request.hpp>
#include <orvikm/registry.hpp>
#include <wxblt/socket.hpp>

namespace orvikm {

using internal_objects::HeaderMap;
using internal_objects::PayloadRequest;
using internal_objects::Request;

namespace {

// The one header of an acknowledgement (internal_objects::Ack).
const char* const ack_keys[] = {"msg_id"};

// The headers of a message as every sender writes them, in key order.
enum MessageHeader { ack_mode, app_id, id, origin, p_size, p_type, valid_for, message_headers };
const char* const message_keys[message_headers] = {"ack_mode", "app_id", "id",       "origin",
                                                   "p_size",   "p_type", "valid_for"};

// A decimal number of at most `digits` digits, with a minus sign only where
// `negative` allows it: what std::stoll, std::stoi and std::stoull read to the
// same value, and nothing they would read otherwise (spaces, a plus sign,
// text after the digits), so that such values take the decoding that calls
// them.
template <typename Integer>
bool plainDecimal(const std::string& text, std::size_t digits, bool negative, Integer& value) {
    std::size_t at = 0;
    const bool minus = negative && !text.empty() && text[0] == '-';
    if (minus) {
        at = 1;
    }
    if (text.size() == at || text.size() - at > digits) {
        return false;
    }
    Integer magnitude = 0;
    for (; at < text.size(); ++at) {
        if (text[at] < '0' || text[at] > '9') {
            return false;
        }
        magnitude = static_cast<Integer>(magnitude * 10 + (text[at] - '0'));
    }
    value = minus ? static_cast<Integer>(-magnitude) : magnitude;
    return true;
}

// Moves the headers keys[0..count) with their values into the map, which
// holds none that sorts after them.
void moveToMap(HeaderMap& headers, const char* const* keys, std::size_t count,
               std::string* values) {
    for (std::size_t key = 0; key < count; ++key) {
        headers.emplace_hint(headers.end(), keys[key], std::move(values[key]));
    }
}

}  // namespace

Receiver::Receiver(wxblt::Socket* socket) : socket(socket), frame{}, frameSize(0) {}

Receiver::Receiver(Receiver&& other) noexcept
    : socket(std::exchange(other.socket, nullptr)),
      frame{},
      frameSize(std::exchange(other.frameSize, 0)) {}

Receiver::~Receiver() = default;

std::unique_ptr<Request> Receiver::receive() {
    std::string command;
    try {
        std::list<std::string> routes = receive_routes();
        command = receive_command();
        const bool isAck = command == internal_objects::Ack::_wire_name;
        const bool isMessage = command == Message::_wire_name;
        HeaderMap headers;
        // The headers of a message or an acknowledgement as every sender
        // writes them are read without a map: the client reads one or the
        // other for every message it sends or receives.
        std::string values[message_headers];
        bool usual = false;
        try {
            if (isAck) {
                usual = read_headers(headers, ack_keys, 1, values);
            } else if (isMessage) {
                usual = read_headers(headers, message_keys, message_headers, values);
            } else {
                headers = receive_headers();
            }
        } catch (orviku::Exception& error) {
            error.addContext("While trying to receive protocol headers of request");
            throw;
        }
        if (isMessage) {
            long long validFor = 0;
            int ackMode = 0;
            unsigned long long declared = 0;
            if (usual && plainDecimal(values[valid_for], 18, true, validFor) &&
                plainDecimal(values[ack_mode], 9, true, ackMode) &&
                plainDecimal(values[p_size], 19, false, declared)) {
                Payload payload = take_payload(declared, std::move(values[p_type]));
                return std::unique_ptr<Message>(
                    new Message(std::move(payload), std::move(routes), std::move(values[id]),
                                std::move(values[app_id]), std::chrono::seconds(validFor),
                                static_cast<Message::AckMode>(ackMode), values[origin]));
            }
            if (usual) {
                moveToMap(headers, message_keys, message_headers, values);
            }
            Payload payload = take_payload(headers);
            return std::make_unique<Message>(std::move(payload), std::move(routes), headers);
        }
        if (command == Registry::_wire_name) {
            Payload payload = take_payload(headers);
            return std::make_unique<Registry>(std::move(payload), headers);
        }
        if (command == internal_objects::Inbox::_wire_name) {
            receive_termination();
            return std::make_unique<internal_objects::Inbox>(headers);
        }
        if (isAck) {
            receive_termination();
            if (usual) {
                return std::make_unique<internal_objects::Ack>(std::move(values[0]));
            }
            return std::make_unique<internal_objects::Ack>(headers);
        }
        if (command == internal_objects::GetRegistry::_wire_name) {
            receive_termination();
            return std::make_unique<internal_objects::GetRegistry>(headers);
        }
        throw ProtocolError("Unrecognised command name: " + command);
    } catch (orviku::Exception& error) {
        std::string context = "While trying to decode a received request";
        if (!command.empty()) {
            context += " (" + command + ")";
        }
        error.addContext(std::move(context));
        socket->flushMessage();
        throw;
    }
}

void Receiver::readFrame() {
    readFrame(nullptr);
}

void Receiver::readFrame(const char* section) {
    frameSize = socket->recv(frame, _frame_capacity);
    if (frameSize > _frame_capacity) {
        std::string message = "Frame too long";
        if (section != nullptr) {
            message += " in section ";
            message += section;
        }
        message += ": " + std::to_string(frameSize) + " bytes, at most " +
                   std::to_string(_frame_capacity) + " are allowed outside the payload";
        throw ProtocolError(std::move(message));
    }
}

bool Receiver::is_delimiter_frame() const {
    return frameSize == 1 && frame[0] == 0;
}

void Receiver::expectMore(std::string section) {
    if (!socket->checkMore()) {
        throw ProtocolError("Expected more frames. Next section: " + section);
    }
}

void Receiver::expectMore(const char* section) {
    expect_more(section);
}

void Receiver::expect_more(const char* section) {
    if (!socket->checkMore()) {
        throw ProtocolError(std::string("Expected more frames. Next section: ") + section);
    }
}

std::list<std::string> Receiver::receive_routes() {
    try {
        std::list<std::string> routes;
        readFrame("Routes");
        while (!is_delimiter_frame()) {
            routes.emplace_back(frame, frameSize);
            expect_more("Route delimiter frame");
            readFrame("Routes");
        }
        return routes;
    } catch (orviku::Exception& error) {
        error.addContext("While trying to receive routes of request");
        throw;
    }
}

std::string Receiver::receive_command() {
    expect_more("Request/Command name");
    readFrame("Request/Command name");
    return std::string(frame, frameSize);
}

HeaderMap Receiver::receive_headers() {
    HeaderMap headers;
    read_headers(headers, nullptr, 0, nullptr);
    return headers;
}

bool Receiver::read_headers(HeaderMap& headers, const char* const* keys, std::size_t count,
                            std::string* values) {
    try {
        expect_more("Headers");
        readFrame("Headers");
        // The headers read so far are keys[0..kept), in values; once one
        // differs they go into the map, and so does everything after them.
        std::size_t kept = 0;
        bool inMap = count == 0;
        const auto toMap = [&] {
            moveToMap(headers, keys, kept, values);
            inMap = true;
        };
        while (!is_delimiter_frame()) {
            // Like a search in a zero-terminated string, but never past the
            // frame's end: a zero byte before any separator means there is none.
            std::uint32_t separator = 0;
            while (separator < frameSize && frame[separator] != 0 &&
                   frame[separator] != Request::_hdr_sep) {
                ++separator;
            }
            if (separator == frameSize || frame[separator] != Request::_hdr_sep) {
                std::string message = "Headers formatted incorrectly in request. No \"";
                message += Request::_hdr_sep;
                message += "\" found in \"";
                message.append(frame, frameSize);
                message += '"';
                throw ProtocolError(std::move(message));
            }
            if (!inMap && kept < count && separator == std::strlen(keys[kept]) &&
                std::memcmp(frame, keys[kept], separator) == 0) {
                values[kept].assign(frame + separator + 1, frameSize - separator - 1);
                ++kept;
            } else {
                if (!inMap) {
                    toMap();
                }
                frame[separator] = 0;
                std::string key(frame, separator);
                std::string value(frame + separator + 1, frameSize - separator - 1);
                // Headers arrive in key order, so each normally belongs at the
                // end; a repeated key still replaces the earlier value.
                if (headers.empty() || headers.rbegin()->first < key) {
                    headers.emplace_hint(headers.end(), std::move(key), std::move(value));
                } else {
                    headers.insert_or_assign(std::move(key), std::move(value));
                }
            }
            expect_more("Header delimiter");
            readFrame("Headers");
        }
        if (!inMap && kept == count) {
            return true;
        }
        if (!inMap) {
            toMap();
        }
        return false;
    } catch (orviku::Exception& error) {
        error.addContext("While trying to receive headers");
        throw;
    }
}

namespace {

std::string take_payload_header(HeaderMap& headers, const char* key) {
    const auto entry = headers.find(key);
    if (entry == headers.end()) {
        throw ProtocolError(
            std::string("Payload detected but provided protocol headers have missing key. "
                        "Missing key is: ") +
            key);
    }
    std::string value = std::move(entry->second);
    headers.erase(entry);
    return value;
}

}  // namespace

std::unique_ptr<Payload> Receiver::receive_payload(HeaderMap& headers) {
    return std::make_unique<Payload>(take_payload(headers));
}

Payload Receiver::take_payload(HeaderMap& headers) {
    try {
        expect_more("Payload");
        const unsigned long long declared =
            std::stoull(take_payload_header(headers, PayloadRequest::_payload_sz_hdr_key));
        std::string type = take_payload_header(headers, PayloadRequest::_payload_type_hdr_key);
        return read_payload(declared, std::move(type));
    } catch (orviku::Exception& error) {
        error.addContext("While trying to receive payload");
        throw;
    }
}

Payload Receiver::take_payload(unsigned long long declared, std::string type) {
    try {
        expect_more("Payload");
        return read_payload(declared, std::move(type));
    } catch (orviku::Exception& error) {
        error.addContext("While trying to receive payload");
        throw;
    }
}

Payload Receiver::read_payload(unsigned long long declared, std::string type) {
    // The frame is taken whole before anything is allocated, so a declared
    // size is never trusted beyond the bytes that really arrived.
    const wxblt::Frame body = socket->recvFrame();
    const auto size = static_cast<unsigned>(declared);
    if (body.size() < size) {
        throw ProtocolError("Payload frame holds " + std::to_string(body.size()) +
                            " bytes but \"p_size\" declares " + std::to_string(size));
    }
    Payload payload(size, std::move(type));
    if (payload.size() > 0) {
        std::memcpy(payload.getBuffer(), body.data(), payload.size());
    }
    if (socket->checkMore()) {
        throw ProtocolError("We don't expect more frames after the payload");
    }
    return payload;
}

void Receiver::receive_termination() {
    try {
        expect_more("Termination frame");
        readFrame("Termination frame");
        if (!is_delimiter_frame()) {
            throw ProtocolError("Expected a delimiter frame for termination");
        }
        // Frames after the termination are not an error, but left unread they
        // would be taken for the next request.
        socket->flushMessage();
    } catch (orviku::Exception& error) {
        error.addContext("While trying to receive termination delimiter");
        throw;
    }
}

}  // namespace orvikm
