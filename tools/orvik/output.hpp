#pragma once

// What orvik prints, apart from how it gets it: every function here is pure,
// so the tests check the output exactly.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace orvik::output {

// Standard base64 (RFC 4648) with padding.
std::string base64(std::string_view bytes);

// Whether the bytes are well-formed UTF-8 (as nlohmann/json decides it).
bool isUtf8(std::string_view bytes);

// One line of text: valid UTF-8 as it is but for control characters (C0, DEL
// and C1) and the backslash, which are escaped (\n, \t, \\, \xHH for each
// byte); anything else byte by byte, everything outside printable ASCII as
// \xHH.
std::string escape(std::string_view bytes);

// A message as it was received, in plain values.
struct ReceivedMessage {
    std::string id;
    std::string appId;
    std::vector<std::string> routes;
    std::string type;
    std::string body;
    std::int64_t validForSeconds = 0;
    std::int32_t ackMode = 0;
    std::vector<std::string> origin;
};

// The keys id, app_id, routes, type, size, valid_for, ack_mode (a number),
// origin, body (a string when the payload is valid UTF-8, else null) and
// body_base64. Beside each of id, app_id and type that is not valid UTF-8
// comes KEY_base64 with its bytes; beside routes and origin, when any element
// is not, KEY_base64 with every element in base64.
nlohmann::ordered_json messageJson(const ReceivedMessage& message);
// messageJson on one line.
std::string messageJsonLine(const ReceivedMessage& message);
// "ID from APP on ROUTE,ROUTE (TYPE, N bytes, valid S s, ack MODE): BODY"
std::string messageText(const ReceivedMessage& message);
// "node", "receivers", "none", or the number for any other value.
std::string ackModeName(std::int32_t ackMode);

// "sent N, acknowledged M"
std::string sendSummary(std::uint64_t sent, std::uint64_t acknowledged);

// A registry payload as `orvik registry` prints it. Pretty: a payload that
// parses as JSON is indented by four spaces; any other payload, and every
// payload when not pretty, is printed as its bytes. A newline follows unless
// the payload ends with one.
std::string registryText(std::string_view body, bool pretty);

// What a benchmark run measured.
struct BenchFigures {
    std::uint64_t count = 0;         // messages to send
    std::uint64_t acknowledged = 0;  // of them acknowledged
    std::size_t size = 0;            // payload bytes each
    std::optional<std::size_t> window;
    double seconds = 0;  // from the first send to the last acknowledgement
    double messagesPerSecond = 0;
    double megabytesPerSecond = 0;  // payload bytes, 10^6 a megabyte
    std::chrono::nanoseconds p50{0};
    std::chrono::nanoseconds p99{0};
    std::chrono::nanoseconds max{0};
};

// The figures from the latencies of the acknowledged messages (in any order):
// rates over `seconds`, percentiles by nearest rank.
BenchFigures benchFigures(std::uint64_t count, std::size_t size, std::optional<std::size_t> window,
                          double seconds, std::vector<std::chrono::nanoseconds> latencies);
// Three lines: what was acknowledged, the rates, the latencies.
std::string benchText(const BenchFigures& figures);
// The keys messages, acknowledged, size, window (null without one), seconds,
// messages_per_second, mb_per_second and latency_ms (p50, p99, max).
nlohmann::ordered_json benchJson(const BenchFigures& figures);

// "sent N, acknowledged M of COUNT" for the progress line.
std::string benchProgress(std::uint64_t sent, std::uint64_t acknowledged, std::uint64_t count);

}  // namespace orvik::output
