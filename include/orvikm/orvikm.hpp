#pragma once

// Every class of the orvikm client library.
#include <orvikm/client.hpp>
#include <orvikm/control_requests.hpp>
#include <orvikm/errors.hpp>
#include <orvikm/message.hpp>
#include <orvikm/payload.hpp>
#include <orvikm/payload_request.hpp>
#include <orvikm/receiver.hpp>
#include <orvikm/registry.hpp>
#include <orvikm/request.hpp>
#include <orvikm/sender.hpp>

/// @namespace orvikm
/// The client library: the Client through which an application exchanges
/// messages with the Orvik Node, the Message, Payload and Registry it sends
/// and receives, the Sender and Receiver that put requests on the wire, and
/// the library's errors.

/// @namespace orvikm::internal_objects
/// The requests exchanged with the node: the Request base and its protocol
/// headers, the PayloadRequest base of requests with a body, and the control
/// requests Inbox, GetRegistry and Ack.
