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
const char* const ack_id_key = "msg_id";

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
        HeaderMap headers;
        // An acknowledgement's one header, when it is the only one: the
        // client reads one for every message it sends, and needs no map for it.
        std::string ackId;
        bool ackIdAlone = false;
        try {
            if (isAck) {
                ackIdAlone = read_headers(headers, ack_id_key, &ackId);
            } else {
                headers = receive_headers();
            }
        } catch (orviku::Exception& error) {
            error.addContext("While trying to receive protocol headers of request");
            throw;
        }
        if (command == Message::_wire_name) {
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
            if (ackIdAlone) {
                return std::make_unique<internal_objects::Ack>(std::move(ackId));
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
    read_headers(headers, nullptr, nullptr);
    return headers;
}

bool Receiver::read_headers(HeaderMap& headers, const char* alone, std::string* value) {
    try {
        expect_more("Headers");
        readFrame("Headers");
        bool first = true;
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
            if (first && alone != nullptr && separator == std::strlen(alone) &&
                std::memcmp(frame, alone, separator) == 0) {
                // Kept aside: it is the whole section unless more headers
                // follow, and then it goes into the map as any first header.
                value->assign(frame + separator + 1, frameSize - separator - 1);
                expect_more("Header delimiter");
                readFrame("Headers");
                if (is_delimiter_frame()) {
                    return true;
                }
                headers.emplace(alone, std::move(*value));
                first = false;
                continue;
            }
            first = false;
            frame[separator] = 0;
            std::string key(frame, separator);
            std::string headerValue(frame + separator + 1, frameSize - separator - 1);
            // Headers arrive in key order, so each normally belongs at the
            // end; a repeated key still replaces the earlier value.
            if (headers.empty() || headers.rbegin()->first < key) {
                headers.emplace_hint(headers.end(), std::move(key), std::move(headerValue));
            } else {
                headers.insert_or_assign(std::move(key), std::move(headerValue));
            }
            expect_more("Header delimiter");
            readFrame("Headers");
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
    } catch (orviku::Exception& error) {
        error.addContext("While trying to receive payload");
        throw;
    }
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
