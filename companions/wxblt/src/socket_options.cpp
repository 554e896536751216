#include <zmq.h>

#include <wxblt/socket.hpp>

#include "context.hpp"

namespace wxblt {

namespace {

void setInt(void* handle, int option, int value) {
    if (zmq_setsockopt(handle, option, &value, sizeof value) != 0) {
        detail::throwLastError();
    }
}

}  // namespace

void Socket::setSendHighWaterMark(int messages) {
    setInt(_handle, ZMQ_SNDHWM, messages);
}

void Socket::setReceiveHighWaterMark(int messages) {
    setInt(_handle, ZMQ_RCVHWM, messages);
}

void Socket::setRouterMandatory(bool mandatory) {
    setInt(_handle, ZMQ_ROUTER_MANDATORY, mandatory ? 1 : 0);
}

}  // namespace wxblt
