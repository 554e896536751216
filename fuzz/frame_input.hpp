#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace orvikfuzz {

// Splits fuzzer bytes into frames: each frame is a two-byte little-endian
// length followed by that many bytes (cut short at the end of the input).
inline std::vector<std::string> framesOf(const std::uint8_t* data, std::size_t size,
                                         std::size_t maxFrames = 64) {
    std::vector<std::string> frames;
    std::size_t at = 0;
    while (at + 2 <= size && frames.size() < maxFrames) {
        std::size_t length = data[at] | (static_cast<std::size_t>(data[at + 1]) << 8);
        at += 2;
        if (length > size - at) {
            length = size - at;
        }
        frames.emplace_back(reinterpret_cast<const char*>(data + at), length);
        at += length;
    }
    return frames;
}

// Writes frames in the same form, for building seed inputs.
inline std::string inputOf(const std::vector<std::string>& frames) {
    std::string bytes;
    for (const std::string& frame : frames) {
        bytes += static_cast<char>(frame.size() & 0xff);
        bytes += static_cast<char>((frame.size() >> 8) & 0xff);
        bytes += frame;
    }
    return bytes;
}

}  // namespace orvikfuzz
