#include "limits.hpp"

#include <cstdio>

#include <orvikm/errors.hpp>
#include <orvikm/request.hpp>

namespace orvikm::detail {

namespace {

constexpr std::size_t quoted_length = 40;

[[noreturn]] void refuse(const char* what, std::string_view value, const char* rule) {
    throw Exception(std::string(what) + " " + quoted(value) + " is " +
                    std::to_string(value.size()) + " bytes long: " + rule + " at most " +
                    std::to_string(frame_limit) + " bytes");
}

}  // namespace

std::string quoted(std::string_view value) {
    std::string text = "\"";
    for (std::size_t i = 0; i < value.size() && i < quoted_length; ++i) {
        const auto c = static_cast<unsigned char>(value[i]);
        if (c >= 0x20 && c < 0x7f && c != '"' && c != '\\') {
            text += static_cast<char>(c);
        } else {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02x", c);
            text += escape;
        }
    }
    if (value.size() > quoted_length) {
        text += "...";
    }
    return text + "\"";
}

void check_sendable(const Message& message) {
    for (const std::string& route : message.pushRoutes()) {
        if (route.size() > frame_limit) {
            refuse("Route", route, "a route frame holds");
        }
        if (route.size() == 1 && route[0] == '\0') {
            throw Exception("Route " + quoted(route) +
                            " is a lone zero byte, which the node reads as the route delimiter");
        }
    }
    message.visit_protocol_headers([](std::string_view key, std::string_view value) {
        if (key.size() + 1 + value.size() > frame_limit) {
            std::string line(key);
            line += internal_objects::Request::_hdr_sep;
            line += value;
            refuse("Header", line, "a header frame holds");
        }
    });
}

}  // namespace orvikm::detail
