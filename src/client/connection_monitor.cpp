#include "connection_monitor.hpp"

#include <zmq.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>

#include <wxblt/frame.hpp>

namespace orvikm::detail {

namespace {

// Every event, though only connects and disconnects change the state: with
// the monitor limited to those two, a subscriber's connect after refused
// attempts was seen to go unreported here.
constexpr int watched_events = ZMQ_EVENT_ALL;

// Every monitor needs an endpoint of its own in the process.
std::string nextEndpoint(const char* socketName) {
    static std::atomic<std::uint64_t> monitors{0};
    return "inproc://orvikm-connections-" + std::to_string(++monitors) + "-" + socketName;
}

void startMonitor(wxblt::Socket& socket, wxblt::Socket& events, const char* socketName) {
    const std::string endpoint = nextEndpoint(socketName);
    socket.monitor(endpoint, watched_events);
    // No event is dropped however long the application leaves them unread.
    events.setReceiveHighWaterMark(0);
    events.connect(endpoint);
}

}  // namespace

ConnectionMonitor::ConnectionMonitor(wxblt::Socket& listener, wxblt::Socket& dispenser)
    : _listener(listener),
      _dispenser(dispenser),
      _listener_events(wxblt::SocketType::Pair),
      _dispenser_events(wxblt::SocketType::Pair) {
    try {
        startMonitor(listener, _listener_events, "lstn");
        startMonitor(dispenser, _dispenser_events, "disp");
    } catch (orviku::Exception& error) {
        _listener.stopMonitor();
        _dispenser.stopMonitor();
        error.addContext("While trying to watch the connection of the client's sockets");
        throw;
    }
    // After the monitors: a connection made since is reported by its event.
    _dispenser_connected = dispenser.canSend();
}

ConnectionMonitor::~ConnectionMonitor() {
    _listener.stopMonitor();
    _dispenser.stopMonitor();
}

bool ConnectionMonitor::readEvent(wxblt::Socket& events, bool& connected) {
    // Two frames: the event number and value, then the peer's address.
    const wxblt::Frame frame = events.recvFrame();
    if (events.checkMore()) {
        events.flushMessage();
    }
    if (frame.size() < sizeof(std::uint16_t)) {
        return false;
    }
    std::uint16_t event = 0;
    std::memcpy(&event, frame.data(), sizeof event);
    if (event == ZMQ_EVENT_CONNECTED || event == ZMQ_EVENT_HANDSHAKE_SUCCEEDED) {
        connected = true;
        return true;
    }
    if (event == ZMQ_EVENT_DISCONNECTED) {
        connected = false;
        return true;
    }
    return false;
}

}  // namespace orvikm::detail
