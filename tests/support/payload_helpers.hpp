#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <orvikm/payload.hpp>

namespace testsupport {

using Address = std::uintptr_t;

inline Address addressOf(const orvikm::Payload& payload) {
    return reinterpret_cast<Address>(payload.getBuffer());
}

inline std::string bytesOf(const orvikm::Payload& payload) {
    return std::string(payload.getBuffer(), payload.size());
}

// A buffer the test owns, filled with the given bytes.
inline std::unique_ptr<char[]> bufferWith(const std::string& bytes) {
    std::unique_ptr<char[]> buffer(new char[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), buffer.get());
    return buffer;
}

// A payload owning a new array that holds a copy of the bytes.
inline orvikm::Payload payloadOf(
    const std::string& bytes, std::string type,
    orvikm::Payload::FreeCallback freeCallback = &orvikm::Payload::defaultFree) {
    char* buffer = new char[bytes.size()];
    std::memcpy(buffer, bytes.data(), bytes.size());
    return orvikm::Payload(buffer, static_cast<unsigned>(bytes.size()), std::move(type),
                           std::move(freeCallback));
}

// Notes every buffer it is called with, then releases it as the default
// callback would. It must outlive every payload that holds its callback.
class FreeRecorder {
public:
    FreeRecorder() = default;
    FreeRecorder(const FreeRecorder&) = delete;
    FreeRecorder& operator=(const FreeRecorder&) = delete;

    orvikm::Payload::FreeCallback callback() {
        return [this](char* buffer) {
            _freed.push_back(reinterpret_cast<Address>(buffer));
            delete[] buffer;
        };
    }
    const std::vector<Address>& freed() const { return _freed; }

private:
    std::vector<Address> _freed;
};

// The pointers a free callback was called with, one entry per call.
struct FreeLog {
    std::vector<char*> calls;

    // Only records; the test keeps its buffers and frees them itself.
    orvikm::Payload::FreeCallback callback() {
        return [this](char* buffer) { calls.push_back(buffer); };
    }

    // Records, then releases the buffer with delete[], for buffers allocated
    // with new char[] whose release the test leaves to the payload.
    orvikm::Payload::FreeCallback freeingCallback() {
        return [this](char* buffer) {
            calls.push_back(buffer);
            delete[] buffer;
        };
    }
};

}  // namespace testsupport
