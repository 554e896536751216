#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// The request layout written and read with nothing but libzmq's C API: the
// baselines that the library is measured against, and the bench node.
namespace orvikbench {

// The route, subscription topic and application id of every benchmark message.
inline constexpr std::string_view bench_topic = "bench";
inline constexpr std::string_view bench_app_id = "bench";
// Payload types of measured messages and of the warm-up messages that go out
// before a measurement; both fit a std::string without allocating.
inline constexpr std::string_view bench_payload_type = "bench/bytes";
inline constexpr std::string_view warmup_payload_type = "bench/warmup";
// Messages stay valid this long; written as "valid_for|30".
inline constexpr std::int64_t bench_valid_for_seconds = 30;

// Writes one frame; aborts the program on any error but EINTR.
void sendFrame(void* socket, const void* data, std::size_t size, bool more);
void sendFrame(void* socket, std::string_view bytes, bool more);
void sendDelimiter(void* socket, bool more);

// Writes 36 characters shaped like a UUID, made from `counter`, into `text`:
// an id as unique as the counter, made without a random source.
void formatCounterId(std::uint64_t counter, char* text);

// Writes the frames of one "MSG": [topic] route delimiter "MSG", the seven
// header frames in key order, delimiter, payload. The same bytes as the
// library's Sender writes for a message with the one route bench_topic.
struct RawMessage {
    std::string_view id;  // 36 characters
    std::string_view app_id = bench_app_id;
    std::string_view payload_type = bench_payload_type;
    const char* payload = nullptr;
    std::size_t payload_size = 0;
};
void sendMessage(void* socket, const RawMessage& message, bool withTopic);
// The same without the payload frame: the caller writes it.
void sendMessageHeaders(void* socket, const RawMessage& message, bool withTopic);

// One received multi-part message, frame by frame, in libzmq's own buffers.
// Frames are reused from one message to the next.
class RawFrames {
public:
    RawFrames();
    RawFrames(const RawFrames&) = delete;
    RawFrames& operator=(const RawFrames&) = delete;
    ~RawFrames();

    // Receives every frame of the next message (blocking unless flags says
    // ZMQ_DONTWAIT); false when nothing was there. Aborts on other errors.
    bool receive(void* socket, int flags = 0);
    std::size_t count() const { return _count; }
    std::string_view operator[](std::size_t index) const;

private:
    std::vector<void*> _frames;  // zmq_msg_t each
    std::size_t _count;
};

// What a minimal decoder keeps of a received "MSG": the header values, the
// routes, and the payload copied into a buffer of the caller's.
struct DecodedMessage {
    std::string_view command;
    std::string_view id;
    std::string_view app_id;
    std::string_view payload_type;
    std::uint64_t payload_size = 0;
    std::size_t route_count = 0;
};

// Decodes frames [first, count) of a request laid out as the library writes
// it, checking the layout the way the library's receiver does; copies a "MSG"
// payload into `payload`. False when the layout is broken.
bool decodeRequest(const RawFrames& frames, std::size_t first, DecodedMessage& decoded,
                   std::vector<char>& payload);

}  // namespace orvikbench
