#include "raw_wire.hpp"

#include <zmq.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace orvikbench {

namespace {

constexpr char delimiter_byte = 0;
// Every frame but a payload fits here; the receiver refuses longer ones.
constexpr std::size_t frame_capacity = 100;

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "orvik bench: %s: %s\n", what, zmq_strerror(zmq_errno()));
    std::abort();
}

// Writes "key|value" as one frame, built on the stack.
void sendHeader(void* socket, std::string_view key, std::string_view value) {
    char frame[frame_capacity];
    const std::size_t size = key.size() + 1 + value.size();
    if (size > sizeof frame) {
        std::fprintf(stderr, "orvik bench: header frame of %zu bytes\n", size);
        std::abort();
    }
    std::memcpy(frame, key.data(), key.size());
    frame[key.size()] = '|';
    std::memcpy(frame + key.size() + 1, value.data(), value.size());
    sendFrame(socket, frame, size, true);
}

bool isDelimiter(std::string_view frame) {
    return frame.size() == 1 && frame[0] == 0;
}

}  // namespace

void sendFrame(void* socket, const void* data, std::size_t size, bool more) {
    while (zmq_send(socket, data, size, more ? ZMQ_SNDMORE : 0) < 0) {
        if (zmq_errno() != EINTR) {
            fail("zmq_send");
        }
    }
}

void sendFrame(void* socket, std::string_view bytes, bool more) {
    sendFrame(socket, bytes.data(), bytes.size(), more);
}

void sendDelimiter(void* socket, bool more) {
    sendFrame(socket, &delimiter_byte, 1, more);
}

void formatCounterId(std::uint64_t counter, char* text) {
    static constexpr char digits[] = "0123456789abcdef";
    std::memcpy(text, "00000000-0000-4000-8000-000000000000", 36);
    // The last twelve digits and the first eight hold the counter's 80 bits
    // of room, lowest digit last.
    for (int position = 35; position >= 24 && counter != 0; --position, counter >>= 4) {
        text[position] = digits[counter & 0xf];
    }
    for (int position = 7; position >= 0 && counter != 0; --position, counter >>= 4) {
        text[position] = digits[counter & 0xf];
    }
}

void sendMessage(void* socket, const RawMessage& message, bool withTopic) {
    sendMessageHeaders(socket, message, withTopic);
    sendFrame(socket, message.payload, message.payload_size, false);
}

void sendMessageHeaders(void* socket, const RawMessage& message, bool withTopic) {
    if (withTopic) {
        sendFrame(socket, bench_topic, true);
    }
    sendFrame(socket, bench_topic, true);
    sendDelimiter(socket, true);
    sendFrame(socket, std::string_view("MSG"), true);
    char number[24];
    sendHeader(socket, "ack_mode", "1");
    sendHeader(socket, "app_id", message.app_id);
    sendHeader(socket, "id", message.id);
    sendHeader(socket, "origin", ",");
    const auto size = std::to_chars(number, number + sizeof number, message.payload_size);
    sendHeader(socket, "p_size", std::string_view(number, size.ptr - number));
    sendHeader(socket, "p_type", message.payload_type);
    const auto validFor = std::to_chars(number, number + sizeof number, bench_valid_for_seconds);
    sendHeader(socket, "valid_for", std::string_view(number, validFor.ptr - number));
    sendDelimiter(socket, true);
}

RawFrames::RawFrames() : _count(0) {}

RawFrames::~RawFrames() {
    for (void* frame : _frames) {
        zmq_msg_close(static_cast<zmq_msg_t*>(frame));
        delete static_cast<zmq_msg_t*>(frame);
    }
}

bool RawFrames::receive(void* socket, int flags) {
    _count = 0;
    for (;;) {
        if (_count == _frames.size()) {
            auto* frame = new zmq_msg_t;
            zmq_msg_init(frame);
            _frames.push_back(frame);
        }
        auto* frame = static_cast<zmq_msg_t*>(_frames[_count]);
        while (zmq_msg_recv(frame, socket, _count == 0 ? flags : 0) < 0) {
            if (zmq_errno() == EAGAIN && _count == 0) {
                return false;
            }
            if (zmq_errno() != EINTR) {
                fail("zmq_msg_recv");
            }
        }
        ++_count;
        if (zmq_msg_more(frame) == 0) {
            return true;
        }
    }
}

std::string_view RawFrames::operator[](std::size_t index) const {
    auto* frame = static_cast<zmq_msg_t*>(_frames[index]);
    return std::string_view(static_cast<const char*>(zmq_msg_data(frame)), zmq_msg_size(frame));
}

bool decodeRequest(const RawFrames& frames, std::size_t first, DecodedMessage& decoded,
                   std::vector<char>& payload) {
    decoded = DecodedMessage();
    std::size_t index = first;
    while (index < frames.count() && !isDelimiter(frames[index])) {
        if (frames[index].size() > frame_capacity) {
            return false;
        }
        ++decoded.route_count;
        ++index;
    }
    if (index + 1 >= frames.count()) {
        return false;
    }
    decoded.command = frames[++index];
    for (++index; index < frames.count() && !isDelimiter(frames[index]); ++index) {
        const std::string_view header = frames[index];
        const std::size_t separator = header.find('|');
        if (header.size() > frame_capacity || separator == std::string_view::npos) {
            return false;
        }
        const std::string_view key = header.substr(0, separator);
        const std::string_view value = header.substr(separator + 1);
        if (key == "id" || key == "msg_id") {
            decoded.id = value;
        } else if (key == "app_id") {
            decoded.app_id = value;
        } else if (key == "p_type") {
            decoded.payload_type = value;
        } else if (key == "p_size") {
            std::from_chars(value.data(), value.data() + value.size(), decoded.payload_size);
        }
    }
    if (index + 1 >= frames.count()) {
        return false;
    }
    if (decoded.command != "MSG") {
        return isDelimiter(frames[index + 1]);
    }
    const std::string_view body = frames[index + 1];
    if (index + 2 != frames.count() || body.size() < decoded.payload_size) {
        return false;
    }
    payload.resize(decoded.payload_size);
    if (decoded.payload_size > 0) {
        std::memcpy(payload.data(), body.data(), decoded.payload_size);
    }
    return true;
}

}  // namespace orvikbench
