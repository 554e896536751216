#pragma once

#include <orvikm/payload_request.hpp>

namespace orvikm {

/// "REG": the node's registry, the answer to a registry request. The registry
/// itself is the payload, an opaque body for the application; there are no
/// headers besides "p_size" and "p_type".
class Registry : public internal_objects::PayloadRequest {
public:
    static const char* const _wire_name;  ///< "REG"

    /// A registry whose body is `payload`, taken over without copying.
    explicit Registry(Payload payload);
    /// Decodes what is left of the headers once the receiver has taken "p_size"
    /// and "p_type" out: any key is rejected, with the context
    /// "While trying to decode headers for Registry request".
    Registry(Payload payload, internal_objects::HeaderMap& headers);

    const char* wireName() const override;
    ~Registry() override;
    internal_objects::HeaderMap create_protocol_headers() const override;
    void handle_protocol_headers(internal_objects::HeaderMap& headers) override;
};

}  // namespace orvikm
