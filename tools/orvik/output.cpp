#include "output.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace orvik::output {

namespace {

std::string hexByte(unsigned char byte) {
    char text[5];
    std::snprintf(text, sizeof text, "\\x%02x", byte);
    return text;
}

std::string join(const std::vector<std::string>& parts, const char* separator) {
    std::string joined;
    for (const std::string& part : parts) {
        joined += (joined.empty() ? "" : separator) + part;
    }
    return joined;
}

std::string fixed(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

double milliseconds(std::chrono::nanoseconds duration) {
    return std::chrono::duration<double, std::milli>(duration).count();
}

// The value at rank ceil(p * n) of the sorted latencies.
std::chrono::nanoseconds nearestRank(const std::vector<std::chrono::nanoseconds>& sorted,
                                     double p) {
    if (sorted.empty()) {
        return std::chrono::nanoseconds(0);
    }
    const auto rank = static_cast<std::size_t>(std::ceil(p * static_cast<double>(sorted.size())));
    return sorted[std::clamp<std::size_t>(rank, 1, sorted.size()) - 1];
}

}  // namespace

std::string base64(std::string_view bytes) {
    static constexpr char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string encoded;
    encoded.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const unsigned group = static_cast<unsigned char>(bytes[i]) << 16 |
                               static_cast<unsigned char>(bytes[i + 1]) << 8 |
                               static_cast<unsigned char>(bytes[i + 2]);
        encoded += kAlphabet[group >> 18 & 63];
        encoded += kAlphabet[group >> 12 & 63];
        encoded += kAlphabet[group >> 6 & 63];
        encoded += kAlphabet[group & 63];
    }
    const std::size_t rest = bytes.size() - i;
    if (rest > 0) {
        unsigned group = static_cast<unsigned char>(bytes[i]) << 16;
        if (rest == 2) {
            group |= static_cast<unsigned char>(bytes[i + 1]) << 8;
        }
        encoded += kAlphabet[group >> 18 & 63];
        encoded += kAlphabet[group >> 12 & 63];
        encoded += rest == 2 ? kAlphabet[group >> 6 & 63] : '=';
        encoded += '=';
    }
    return encoded;
}

bool isUtf8(std::string_view bytes) {
    // The serializer refuses a string that is not UTF-8 (type_error 316).
    try {
        static_cast<void>(nlohmann::json(std::string(bytes)).dump());
        return true;
    } catch (const nlohmann::json::type_error&) {
        return false;
    }
}

std::string escape(std::string_view bytes) {
    const bool utf8 = isUtf8(bytes);
    std::string text;
    text.reserve(bytes.size());
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const char c = bytes[i];
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\\') {
            text += "\\\\";
        } else if (c == '\n') {
            text += "\\n";
        } else if (c == '\t') {
            text += "\\t";
        } else if (byte < 0x20 || byte == 0x7f || (byte >= 0x80 && !utf8)) {
            text += hexByte(byte);
        } else if (utf8 && byte == 0xc2 && i + 1 < bytes.size() &&
                   static_cast<unsigned char>(bytes[i + 1]) <= 0x9f) {
            // U+0080..U+009F, the C1 controls: a terminal acts on them too.
            text += hexByte(byte) + hexByte(static_cast<unsigned char>(bytes[++i]));
        } else {
            text += c;
        }
    }
    return text;
}

namespace {

// The field, and beside it KEY_base64 when the bytes are not UTF-8: the line
// replaces what is not UTF-8 by U+FFFD, which would make distinct values equal.
void addText(nlohmann::ordered_json& json, const std::string& key, const std::string& value) {
    json[key] = value;
    if (!isUtf8(value)) {
        json[key + "_base64"] = base64(value);
    }
}

// As addText, for a list: KEY_base64 holds every element in base64 when any
// of them is not UTF-8.
void addTextList(nlohmann::ordered_json& json, const std::string& key,
                 const std::vector<std::string>& values) {
    json[key] = values;
    if (!std::all_of(values.begin(), values.end(), isUtf8)) {
        nlohmann::ordered_json encoded = nlohmann::ordered_json::array();
        for (const std::string& value : values) {
            encoded.push_back(base64(value));
        }
        json[key + "_base64"] = std::move(encoded);
    }
}

}  // namespace

nlohmann::ordered_json messageJson(const ReceivedMessage& message) {
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    addText(json, "id", message.id);
    addText(json, "app_id", message.appId);
    addTextList(json, "routes", message.routes);
    addText(json, "type", message.type);
    json["size"] = message.body.size();
    json["valid_for"] = message.validForSeconds;
    json["ack_mode"] = message.ackMode;
    addTextList(json, "origin", message.origin);
    json["body"] =
        isUtf8(message.body) ? nlohmann::ordered_json(message.body) : nlohmann::ordered_json();
    json["body_base64"] = base64(message.body);
    return json;
}

std::string messageJsonLine(const ReceivedMessage& message) {
    // Ids, routes and types are bytes of the sender's choosing: what is not
    // UTF-8 among them is replaced rather than failing the line (messageJson
    // has put their exact bytes beside them).
    return messageJson(message).dump(-1, ' ', false,
                                     nlohmann::ordered_json::error_handler_t::replace);
}

std::string ackModeName(std::int32_t ackMode) {
    switch (ackMode) {
        case 0:
            return "none";
        case 1:
            return "node";
        case 2:
            return "receivers";
        default:
            return std::to_string(ackMode);
    }
}

std::string messageText(const ReceivedMessage& message) {
    std::vector<std::string> routes;
    for (const std::string& route : message.routes) {
        routes.push_back(escape(route));
    }
    return escape(message.id) + " from " + escape(message.appId) + " on " + join(routes, ",") +
           " (" + escape(message.type) + ", " + std::to_string(message.body.size()) +
           " bytes, valid " + std::to_string(message.validForSeconds) + " s, ack " +
           ackModeName(message.ackMode) + "): " + escape(message.body);
}

std::string sendSummary(std::uint64_t sent, std::uint64_t acknowledged) {
    return "sent " + std::to_string(sent) + ", acknowledged " + std::to_string(acknowledged);
}

std::string registryText(std::string_view body, bool pretty) {
    std::string text;
    const nlohmann::json parsed =
        pretty ? nlohmann::json::parse(body.begin(), body.end(), nullptr, false)
               : nlohmann::json(nlohmann::json::value_t::discarded);
    if (!parsed.is_discarded()) {
        text = parsed.dump(4, ' ', false, nlohmann::json::error_handler_t::replace);
    } else {
        text = std::string(body);
    }
    if (text.empty() || text.back() != '\n') {
        text += '\n';
    }
    return text;
}

BenchFigures benchFigures(std::uint64_t count, std::size_t size, std::optional<std::size_t> window,
                          double seconds, std::vector<std::chrono::nanoseconds> latencies) {
    std::sort(latencies.begin(), latencies.end());
    BenchFigures figures;
    figures.count = count;
    figures.acknowledged = latencies.size();
    figures.size = size;
    figures.window = window;
    figures.seconds = seconds;
    if (seconds > 0) {
        figures.messagesPerSecond = static_cast<double>(figures.acknowledged) / seconds;
        figures.megabytesPerSecond = figures.messagesPerSecond * static_cast<double>(size) / 1e6;
    }
    figures.p50 = nearestRank(latencies, 0.50);
    figures.p99 = nearestRank(latencies, 0.99);
    figures.max = latencies.empty() ? std::chrono::nanoseconds(0) : latencies.back();
    return figures;
}

std::string benchText(const BenchFigures& figures) {
    return "acknowledged " + std::to_string(figures.acknowledged) + " of " +
           std::to_string(figures.count) + " messages of " + std::to_string(figures.size) +
           " bytes in " + fixed(figures.seconds, 3) + " s" +
           (figures.window ? " (window " + std::to_string(*figures.window) + ")" : "") + "\n" +
           "throughput " + fixed(figures.messagesPerSecond, 0) + " messages/s, " +
           fixed(figures.megabytesPerSecond, 2) + " MB/s\n" + "latency p50 " +
           fixed(milliseconds(figures.p50), 3) + " ms, p99 " + fixed(milliseconds(figures.p99), 3) +
           " ms, max " + fixed(milliseconds(figures.max), 3) + " ms\n";
}

nlohmann::ordered_json benchJson(const BenchFigures& figures) {
    return nlohmann::ordered_json{
        {"messages", figures.count},
        {"acknowledged", figures.acknowledged},
        {"size", figures.size},
        {"window", figures.window ? nlohmann::ordered_json(*figures.window)
                                  : nlohmann::ordered_json(nullptr)},
        {"seconds", figures.seconds},
        {"messages_per_second", figures.messagesPerSecond},
        {"mb_per_second", figures.megabytesPerSecond},
        {"latency_ms",
         {{"p50", milliseconds(figures.p50)},
          {"p99", milliseconds(figures.p99)},
          {"max", milliseconds(figures.max)}}},
    };
}

std::string benchProgress(std::uint64_t sent, std::uint64_t acknowledged, std::uint64_t count) {
    return "sent " + std::to_string(sent) + ", acknowledged " + std::to_string(acknowledged) +
           " of " + std::to_string(count);
}

}  // namespace orvik::output
