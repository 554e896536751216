#include <orvikm/request.hpp>

#include <utility>

#include <orvikm/errors.hpp>

namespace orvikm::internal_objects {

const char Request::_hdr_sep = '|';

Request::~Request() = default;

void Request::handle_protocol_headers(HeaderMap& headers) {
    if (headers.empty()) {
        return;
    }
    std::string message = "Did not expect more headers for request \"";
    message += wireName();
    message += "\". Unexpected headers are: ";
    for (const auto& [key, value] : headers) {
        message += '(';
        message += key;
        message += _hdr_sep;
        message += value;
        message += ')';
    }
    headers.clear();
    throw ProtocolError(std::move(message));
}

std::string Request::move_from_headers(HeaderMap& headers, const std::string& key) {
    const auto entry = headers.find(key);
    if (entry == headers.end()) {
        throw ProtocolError("Expected \"" + key + "\" header.");
    }
    std::string value = std::move(entry->second);
    headers.erase(entry);
    return value;
}

}  // namespace orvikm::internal_objects
