#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "request_frames.hpp"

namespace orvikdev {

// Where the parts of a "MSG" request are among its frames, when it is one
// that the node can serve from the frames as they came: one that the
// library's decoding (Receiver, Message) accepts and that Message would
// encode again to the very same bytes. That is a complete request of
//
//   identity, routes (at most maxRoutes), delimiter, "MSG",
//   "ack_mode|A" "app_id|X" "id|I" "origin|O" "p_size|S" "p_type|T"
//   "valid_for|V", delimiter, payload
//
// with every frame but the payload within Receiver::_frame_capacity, the
// numbers A, S and V written as Message writes them (decimal, shortest form,
// in range), O as Message writes an origin ("," or nodes each followed by a
// comma) and a payload of exactly S bytes. Anything else (another command, a
// malformed request, a header more, less, repeated or out of order, "007",
// a payload longer than S) is not one.
struct WellFormedMessage {
    std::size_t routes = 0;   // frames 1 to `routes` are the push routes
    std::size_t payload = 0;  // index of the payload frame, the last
    std::string_view id;
    std::string_view appId;
};

std::optional<WellFormedMessage> wellFormedMessage(RequestFrames& frames, std::size_t maxRoutes);

// Frames of a well-formed message besides its routes.
constexpr std::size_t kMessageFramesBesidesRoutes = 12;

}  // namespace orvikdev
