#pragma once

#include <orvikm/payload.hpp>
#include <orvikm/request.hpp>

namespace orvikm::internal_objects {

/// Base of the requests that carry a body (Message, Registry). The body travels
/// as a frame of its own after the headers; its size and type travel as the
/// headers "p_size" and "p_type", which the receiver takes out of the map
/// before the request decodes the rest.
class PayloadRequest : public Request {
public:
    static const char* const _payload_type_hdr_key;  ///< "p_type"
    static const char* const _payload_sz_hdr_key;    ///< "p_size"

    /// Takes the payload over without copying its bytes.
    explicit PayloadRequest(Payload payload);
    ~PayloadRequest() override;

    ///@{
    /// The body.
    Payload& payload() { return _payload; }
    const Payload& payload() const { return _payload; }
    ///@}

    /// Exactly "p_size" (decimal size) and "p_type" (the type verbatim).
    HeaderMap create_protocol_headers() const override;
    /// Takes no key: every key still present is rejected as left over.
    void handle_protocol_headers(HeaderMap& headers) override;

protected:
    ///@{
    /// Copied and moved only as part of a concrete request.
    PayloadRequest(const PayloadRequest&) = default;
    PayloadRequest(PayloadRequest&&) = default;
    PayloadRequest& operator=(const PayloadRequest&) = default;
    PayloadRequest& operator=(PayloadRequest&&) = default;
    ///@}

private:
    Payload _payload;
};

}  // namespace orvikm::internal_objects
