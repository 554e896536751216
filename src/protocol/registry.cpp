#include <orvikm/registry.hpp>

#include <utility>

#include <orviku/exception.hpp>

namespace orvikm {

const char* const Registry::_wire_name = "REG";

Registry::Registry(Payload payload) : PayloadRequest(std::move(payload)) {}

Registry::Registry(Payload payload, internal_objects::HeaderMap& headers)
    : PayloadRequest(std::move(payload)) {
    Registry::handle_protocol_headers(headers);
}

Registry::~Registry() = default;

const char* Registry::wireName() const {
    return _wire_name;
}

internal_objects::HeaderMap Registry::create_protocol_headers() const {
    return PayloadRequest::create_protocol_headers();
}

void Registry::handle_protocol_headers(internal_objects::HeaderMap& headers) {
    try {
        PayloadRequest::handle_protocol_headers(headers);
    } catch (orviku::Exception& error) {
        error.addContext("While trying to decode headers for Registry request");
        throw;
    }
}

}  // namespace orvikm
