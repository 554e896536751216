#pragma once

/// @namespace wxblt
/// The socket layer over ZeroMQ: sockets, polling, errors and shutdown.
#include <wxblt/exception.hpp>
#include <wxblt/frame.hpp>
#include <wxblt/input_selector.hpp>
#include <wxblt/socket.hpp>
