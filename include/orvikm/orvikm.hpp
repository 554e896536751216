#pragma once

// Every class of the orvikm client library.
#include <orvikm/errors.hpp>
#include <orvikm/payload.hpp>
#include <orvikm/payload_request.hpp>
#include <orvikm/request.hpp>
