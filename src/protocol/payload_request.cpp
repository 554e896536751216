#include <orvikm/payload_request.hpp>

#include <cstdio>
#include <utility>

namespace orvikm::internal_objects {

const char* const PayloadRequest::_payload_type_hdr_key = "p_type";
const char* const PayloadRequest::_payload_sz_hdr_key = "p_size";

PayloadRequest::PayloadRequest(Payload payload) : _payload(std::move(payload)) {}

PayloadRequest::~PayloadRequest() = default;

HeaderMap PayloadRequest::create_protocol_headers() const {
    char size[16];
    std::snprintf(size, sizeof size, "%u", _payload.size());
    HeaderMap headers;
    headers.emplace(_payload_sz_hdr_key, size);
    headers.emplace(_payload_type_hdr_key, _payload.type());
    return headers;
}

void PayloadRequest::handle_protocol_headers(HeaderMap& headers) {
    Request::handle_protocol_headers(headers);
}

}  // namespace orvikm::internal_objects
