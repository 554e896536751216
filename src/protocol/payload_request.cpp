#include <orvikm/payload_request.hpp>

#include <charconv>
#include <cstddef>
#include <string>
#include <utility>

namespace orvikm::internal_objects {

const char* const PayloadRequest::_payload_type_hdr_key = "p_type";
const char* const PayloadRequest::_payload_sz_hdr_key = "p_size";

PayloadRequest::PayloadRequest(Payload payload) : _payload(std::move(payload)) {}

PayloadRequest::~PayloadRequest() = default;

HeaderMap PayloadRequest::create_protocol_headers() const {
    // std::to_chars writes what "%u" would, without snprintf's formatting
    // machinery.
    char size[16];
    const std::to_chars_result written = std::to_chars(size, size + sizeof size, _payload.size());
    HeaderMap headers;
    // "p_size" sorts before "p_type": each goes in at the end, without a search.
    headers.emplace_hint(headers.end(), _payload_sz_hdr_key,
                         std::string(size, static_cast<std::size_t>(written.ptr - size)));
    headers.emplace_hint(headers.end(), _payload_type_hdr_key, _payload.type());
    return headers;
}

void PayloadRequest::handle_protocol_headers(HeaderMap& headers) {
    Request::handle_protocol_headers(headers);
}

}  // namespace orvikm::internal_objects
