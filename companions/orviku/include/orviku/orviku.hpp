#pragma once

/// @namespace orviku
/// The utility layer: the exception family with context chains, and ids.
#include <orviku/exception.hpp>
#include <orviku/uuid.hpp>
