#include "log_text.hpp"

#include <cstdio>
#include <ctime>
#include <stdexcept>

namespace orvikdev {

std::string printable(std::string_view bytes) {
    std::string text;
    text.reserve(bytes.size());
    for (const unsigned char c : bytes) {
        if (c == '\\') {
            text += "\\\\";
        } else if (c >= 0x20 && c < 0x7f) {
            text += static_cast<char>(c);
        } else {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02x", c);
            text += escape;
        }
    }
    return text;
}

std::string describeOnOneLine(const orviku::Exception& error) {
    std::string line = printable(error.what());
    for (const std::string& context : error.context()) {
        line += ';';
        line += printable(context);
    }
    return line;
}

std::string describeForeign(const std::exception& error) {
    const std::string what = printable(error.what());
    if (dynamic_cast<const std::invalid_argument*>(&error) != nullptr) {
        return "a numeric header holds no number (" + what + ")";
    }
    if (dynamic_cast<const std::out_of_range*>(&error) != nullptr) {
        return "a numeric header holds a number out of range (" + what + ")";
    }
    return what;
}

std::string timestamp(std::chrono::system_clock::time_point when) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

std::string jsonString(std::string_view text) {
    std::string quoted = "\"";
    for (const unsigned char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += static_cast<char>(c);
        } else if (c < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", c);
            quoted += escape;
        } else {
            quoted += static_cast<char>(c);
        }
    }
    return quoted + "\"";
}

}  // namespace orvikdev
