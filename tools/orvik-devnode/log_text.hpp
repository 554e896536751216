#pragma once

#include <chrono>
#include <exception>
#include <string>
#include <string_view>

#include <orviku/exception.hpp>

namespace orvikdev {

// Bytes a peer sent, as log text: printable ASCII stays, a backslash is
// doubled and every other byte becomes \xHH. A peer can thus neither end a
// line, nor move the terminal's cursor, nor pass for the node's own text.
std::string printable(std::string_view bytes);

// An error and its context lines on one line, ";" between them, each escaped
// as printable() does.
std::string describeOnOneLine(const orviku::Exception& error);

// An error from outside the orviku family, escaped as printable() does. Those
// mostly come from the standard conversions of numeric header values
// ("p_size", "valid_for"), whose own text names only the conversion.
std::string describeForeign(const std::exception& error);

// UTC, to the second: "YYYY-MM-DDTHH:MM:SSZ".
std::string timestamp(std::chrono::system_clock::time_point when);

// A JSON string literal, quotes included, for any bytes.
std::string jsonString(std::string_view text);

}  // namespace orvikdev
