#pragma once

#include <orvikm/client.hpp>
#include <wxblt/socket.hpp>

namespace orvikm::detail {

// Follows the connection of the client's two sockets through ZeroMQ's socket
// monitor: each socket reports its connects and disconnects to a pair socket
// of the client's own, which the I/O loop reads. Started when the application
// first sets a connection callback, so that a client without one has no more
// sockets than before.
class ConnectionMonitor {
public:
    using State = Client::ConnectionState;

    // Starts both monitors. A socket that connected before this call sent no
    // event: the dispenser tells whether it is connected (a dealer with
    // immediate sending can send only then), and a subscriber cannot tell, so
    // until the listener's first event it is taken to be as the dispenser is:
    // both connect to the same node.
    ConnectionMonitor(wxblt::Socket& listener, wxblt::Socket& dispenser);
    ConnectionMonitor(const ConnectionMonitor&) = delete;
    ConnectionMonitor& operator=(const ConnectionMonitor&) = delete;
    // Stops both monitors before their readers close.
    ~ConnectionMonitor();

    wxblt::Socket& listenerEvents() { return _listener_events; }
    wxblt::Socket& dispenserEvents() { return _dispenser_events; }
    // Reads one event of the listener's (dispenser's) monitor.
    void readListenerEvent() {
        if (readEvent(_listener_events, _listener_connected)) {
            _listener_known = true;
        }
    }
    void readDispenserEvent() { readEvent(_dispenser_events, _dispenser_connected); }

    // Connected while both sockets are.
    State state() const {
        const bool listener = _listener_known ? _listener_connected : _dispenser_connected;
        return listener && _dispenser_connected ? State::Connected : State::Disconnected;
    }
    // What the application last heard; Disconnected before it heard anything.
    State reported() const { return _reported; }
    void setReported(State state) { _reported = state; }

private:
    // True when the event said whether the socket is connected.
    static bool readEvent(wxblt::Socket& events, bool& connected);

    wxblt::Socket& _listener;
    wxblt::Socket& _dispenser;
    wxblt::Socket _listener_events;
    wxblt::Socket _dispenser_events;
    bool _listener_connected = false;
    // Whether the listener has reported an event since the monitor started.
    bool _listener_known = false;
    bool _dispenser_connected = false;
    State _reported = State::Disconnected;
};

}  // namespace orvikm::detail
