#pragma once

#include <map>
#include <string>

namespace orvikm::internal_objects {

/// A request's protocol headers: key to value, iterated in byte-wise key order
/// (the order in which they travel).
using HeaderMap = std::map<std::string, std::string>;

/// Base of every request exchanged with the node. A request is named on the
/// wire by wireName() and carries its fields as protocol headers.
///
/// Decoding contract of every concrete request: a constructor taking a
/// HeaderMap decodes it through its own handle_protocol_headers, which takes
/// each of the class's keys out with move_from_headers and then hands the map
/// to its base; Request::handle_protocol_headers runs last and rejects every
/// key nobody claimed.
class Request {
public:
    /// Separates key and value inside a header frame: "key|value".
    static const char _hdr_sep;

    Request() = default;

    /// The request's wire name, a string with static lifetime.
    virtual const char* wireName() const = 0;
    virtual ~Request();
    /// The request's fields as headers.
    virtual HeaderMap create_protocol_headers() const = 0;
    /// The leftover check: returns if headers is empty; otherwise clears it and
    /// throws ProtocolError listing every entry as (key|value) in key order.
    virtual void handle_protocol_headers(HeaderMap& headers);

    /// Takes the value of a required header out of the map. Throws
    /// ProtocolError `Expected "key" header.` when it is missing, leaving the
    /// map untouched.
    static std::string move_from_headers(HeaderMap& headers, const std::string& key);

protected:
    ///@{
    /// Copied and moved only as part of a concrete request.
    Request(const Request&) = default;
    Request(Request&&) = default;
    Request& operator=(const Request&) = default;
    Request& operator=(Request&&) = default;
    ///@}
};

}  // namespace orvikm::internal_objects
