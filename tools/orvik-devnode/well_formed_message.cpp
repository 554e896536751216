#include "well_formed_message.hpp"

#include <charconv>
#include <system_error>

#include <orvikm/message.hpp>
#include <orvikm/receiver.hpp>
#include <orvikm/request.hpp>

namespace orvikdev {

namespace {

// The headers of a message in the order Message writes them: key order.
enum Header { AckMode, AppId, Id, Origin, PayloadSize, PayloadType, ValidFor, HeaderCount };
constexpr std::string_view kHeaderKeys[HeaderCount] = {
    "ack_mode", "app_id", "id", "origin", "p_size", "p_type", "valid_for",
};

const std::string_view kCommand = orvikm::Message::_wire_name;

// Written out rather than left to memcmp: they run for every frame of every
// message, for a few bytes each, where the call costs more than the compare.
bool startsWith(std::string_view frame, std::string_view text) {
    if (frame.size() < text.size()) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (frame[i] != text[i]) {
            return false;
        }
    }
    return true;
}

bool isDelimiter(std::string_view frame) {
    return frame.size() == 1 && frame[0] == '\0';
}

bool isHeader(std::string_view frame, std::string_view key) {
    return frame.size() > key.size() && startsWith(frame, key) &&
           frame[key.size()] == orvikm::internal_objects::Request::_hdr_sep;
}

// True when `text` is a number of type Integer written as std::to_chars
// writes it, as Message does: decoded and encoded again, it comes out the
// same. Leading zeros, a plus sign, blanks or trailing bytes, which the
// decoding's std::sto* accept, do not.
template <typename Integer>
bool isWrittenAsMessageWrites(std::string_view text, Integer& value) {
    const char* const end = text.data() + text.size();
    const std::from_chars_result read = std::from_chars(text.data(), end, value);
    if (read.ec != std::errc() || read.ptr != end) {
        return false;
    }
    char written[24];
    const std::to_chars_result again = std::to_chars(written, written + sizeof written, value);
    return std::string_view(written, static_cast<std::size_t>(again.ptr - written)) == text;
}

// Message writes no nodes as ",", and every node followed by a comma; it
// reads a text of one character as no nodes and drops what follows the last
// comma.
bool isOriginAsMessageWrites(std::string_view text) {
    return text == "," || (text.size() >= 2 && text.back() == ',');
}

}  // namespace

std::optional<WellFormedMessage> wellFormedMessage(RequestFrames& frames, std::size_t maxRoutes) {
    constexpr std::size_t kCapacity = orvikm::Receiver::_frame_capacity;
    if (!frames.complete()) {
        return std::nullopt;
    }
    const std::size_t size = frames.size();
    std::size_t index = 1;
    while (index < size && !isDelimiter(frames.bytes(index))) {
        if (index > maxRoutes || frames.bytes(index).size() > kCapacity) {
            return std::nullopt;
        }
        ++index;
    }
    WellFormedMessage message;
    message.routes = index - 1;
    if (size != message.routes + kMessageFramesBesidesRoutes ||
        frames.bytes(index + 1).size() != kCommand.size() ||
        !startsWith(frames.bytes(index + 1), kCommand)) {
        return std::nullopt;
    }
    std::string_view values[HeaderCount];
    for (std::size_t header = 0; header < HeaderCount; ++header) {
        const std::string_view frame = frames.bytes(index + 2 + header);
        const std::string_view key = kHeaderKeys[header];
        if (frame.size() > kCapacity || !isHeader(frame, key)) {
            return std::nullopt;
        }
        values[header] = frame.substr(key.size() + 1);
    }
    message.payload = index + 2 + HeaderCount + 1;
    int ackMode = 0;
    unsigned payloadSize = 0;
    long long validFor = 0;
    if (!isDelimiter(frames.bytes(message.payload - 1)) ||
        !isWrittenAsMessageWrites(values[AckMode], ackMode) ||
        !isWrittenAsMessageWrites(values[PayloadSize], payloadSize) ||
        !isWrittenAsMessageWrites(values[ValidFor], validFor) ||
        !isOriginAsMessageWrites(values[Origin]) ||
        frames.bytes(message.payload).size() != payloadSize) {
        return std::nullopt;
    }
    message.id = values[Id];
    message.appId = values[AppId];
    return message;
}

}  // namespace orvikdev
