#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <orvikm/message.hpp>
#include <orvikm/receiver.hpp>

namespace orvikm::detail {

// Every frame but the payload must fit in this many bytes when it reaches the
// node, which reads with the same Receiver as the client.
constexpr std::size_t frame_limit = Receiver::_frame_capacity;

// A value for an error message: in quotes, bytes outside printable ASCII as
// \xNN, cut after 40 bytes.
std::string quoted(std::string_view value);

// Throws orvikm::Exception, naming the value and the limit, when the node
// would refuse the message: a route longer than a frame or of one zero byte
// (the route delimiter), a header line "key|value" longer than a frame.
void check_sendable(const Message& message);

}  // namespace orvikm::detail
