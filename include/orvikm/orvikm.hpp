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
