#include <orvikm/client.hpp>

#include <cerrno>
#include <utility>

#include <orvikm/errors.hpp>
#include <wxblt/exception.hpp>

#include "connection_monitor.hpp"
#include "intervals.hpp"
#include "limits.hpp"
#include "queue_room.hpp"
#include "wakeup.hpp"
#include "watch_table.hpp"

namespace orvikm {

using std::chrono::system_clock;

namespace {

const std::string node_unavailable_for_control = "OrVik Node is not available!";

// Requests each socket's handler reads per poll at most: the poll's system
// calls are paid once for many requests, and a socket with steady traffic
// still lets the other one's requests through every 64.
constexpr std::size_t requests_per_socket_and_poll = 64;

std::string localhostEndpoint(int port) {
    return "tcp://localhost:" + std::to_string(port);
}

// libzmq takes any number and fails only when it resolves the address, so a
// client on port 0 or 70000 would report "not available" forever.
void checkPort(int port, const char* socketName) {
    if (port < 1 || port > 65535) {
        throw Exception(std::string(socketName) + " port " + std::to_string(port) +
                        " is not a TCP port: ports run from 1 to 65535");
    }
}

void checkAppId(const std::string& appId) {
    if (appId.size() > Client::_max_app_id_size) {
        throw Exception("Application id " + detail::quoted(appId) + " is " +
                        std::to_string(appId.size()) + " bytes long: its header \"app_id|<id>\" " +
                        "must fit the node's " + std::to_string(detail::frame_limit) +
                        "-byte frames, so an id has at most " +
                        std::to_string(Client::_max_app_id_size) + " bytes");
    }
}

void checkOptions(const Client::Options& options) {
    if (options.maxReadTime.count() < 0 || options.receiveLimit < 0 ||
        options.sendTimeout.count() < 0 || options.queueFullWait.count() < 0) {
        throw Exception("Client options must not be negative: maxReadTime " +
                        std::to_string(options.maxReadTime.count()) + " ms, receiveLimit " +
                        std::to_string(options.receiveLimit) + ", sendTimeout " +
                        std::to_string(options.sendTimeout.count()) + " ms, queueFullWait " +
                        std::to_string(options.queueFullWait.count()) + " ms");
    }
}

}  // namespace

Client::TerminationData::TerminationData() : _termed(false) {}

Client::TerminationData::TerminationData(const TerminationData&) : _termed(false) {}

Client::TerminationData& Client::TerminationData::operator=(const TerminationData&) {
    return *this;
}

void Client::TerminationData::terminate() {
    std::unique_lock<std::mutex> guard(_term_lock);
    _termed = true;
}

bool& Client::TerminationData::isTermed() {
    return _termed;
}

std::mutex& Client::TerminationData::termLock() {
    return _term_lock;
}

Client::Client(std::string appId, int listenerPort, int dispenserPort,
               std::vector<std::string> subscriptions)
    : Client(std::move(appId), listenerPort, dispenserPort, std::move(subscriptions), Options{}) {}

Client::Client(std::string appId, int listenerPort, int dispenserPort,
               std::vector<std::string> subscriptions, Options options)
    // Starting an inbox interval in the past makes the first pass check at once.
    : _last_inbox(system_clock::now() - std::chrono::seconds(60)),
      _inbox_interval(20),
      _lock(std::make_unique<std::mutex>()),
      _spare_lock(std::make_unique<std::mutex>()),
      _registry_interval(-1),
      _last_registry_request(),
      _listener(wxblt::SocketType::Sub),
      _listener_receiver(&_listener),
      _dispenser(wxblt::SocketType::Dealer),
      _dispenser_receiver(&_dispenser),
      _sender(&_dispenser),
      _selector({{&_listener, [this](wxblt::Socket* socket) { receive_on_listener(socket); }},
                 {&_dispenser, [this](wxblt::Socket* socket) { receive_on_dispenser(socket); }}},
                requests_per_socket_and_poll),
      _id(std::move(appId)),
      _subscriptions(std::move(subscriptions)),
      _options(options),
      _sent_watches(std::make_unique<detail::SentWatches>()),
      _moving_watches(std::make_unique<detail::SentWatches>()),
      _watched(std::make_unique<detail::WatchTable>()),
      _written_ids(std::make_unique<detail::WrittenIds>()) {
    checkOptions(_options);
    if (_options.maxQueued > 0 || _options.maxQueuedBytes > 0) {
        _room = std::make_unique<detail::QueueRoom>(_options.maxQueued, _options.maxQueuedBytes);
    }
    // Neither socket limits its queues. ZeroMQ's default of 1000 messages each
    // way turns a node that is merely busy into errors and losses: a full
    // dealer send queue makes a write wait out the send timeout and fail with
    // EAGAIN, reported as "Orvik Node is not available"; a full receive queue
    // stops reading the connection, and a node whose own queue towards us is
    // limited then drops acknowledgements and publications. The client's own
    // MessageQueue is unbounded anyway, and what arrives is held only until
    // the I/O loop reads it.
    // Options::receiveLimit bounds what waits unread on the listener, for an
    // application that would rather lose publications than memory. The
    // dispenser's input is the node's answers to what this client wrote
    // itself: bounding it would only turn the client's own burst into lost
    // acknowledgements, so it is always read in full.
    // Both sockets are read only through their receivers, so the selector may
    // learn that more requests wait by receiving the next first frame ahead,
    // which costs no system call while requests keep coming.
    _listener.setReadAhead(true);
    _dispenser.setReadAhead(true);
    try {
        _listener.setReceiveHighWaterMark(_options.receiveLimit);
        _dispenser.setSendHighWaterMark(0);
        _dispenser.setReceiveHighWaterMark(0);
        _dispenser.setSendTimeout(_options.sendTimeout);
    } catch (orviku::Exception& error) {
        error.addContext(
            "While trying to set the queue limits and send timeout of the client's sockets");
        throw;
    }
    if (_options.wakeOnSend) {
        _wakeup = std::make_unique<detail::Wakeup>();
        _selector.watchDescriptor(_wakeup->eventDescriptor(), [this] {
            _wakeup->drain();
            _woken = true;
        });
        _wake_enabled.store(true, std::memory_order_release);
    }
    try {
        checkAppId(_id);
        checkPort(listenerPort, "Listener");
        _listener.setIdentity(_id + "|lstn");
        for (const std::string& topic : _subscriptions) {
            _listener.subscribe(topic);
        }
        _listener.connect(localhostEndpoint(listenerPort));
    } catch (orviku::Exception& error) {
        error.addContext("While trying to connect subscriber to tcp:://localhost:" +
                         std::to_string(listenerPort));
        throw;
    }
    try {
        checkPort(dispenserPort, "Dispenser");
        _dispenser.setIdentity(_id + "|disp");
        _dispenser.connect(localhostEndpoint(dispenserPort));
    } catch (orviku::Exception& error) {
        // Deliberately names the listener's port: the sentence is relied on as it stands.
        error.addContext("While trying to connect two way comms to tcp:://localhost:" +
                         std::to_string(listenerPort));
        throw;
    }
}

Client::~Client() = default;

void Client::terminate() {
    // A signal handler may have interrupted the holder of the termination
    // lock, so nothing here waits for it: the atomic flag alone stops the
    // loop, and the locked flag is set as well when its lock is free.
    // try_lock never blocks (on glibc it is one compare-and-swap).
    _stop_signalled.store(true);
    ++_terminations;
    std::mutex& lock = _term_data.termLock();
    if (lock.try_lock()) {
        _term_data.isTermed() = true;
        lock.unlock();
    }
    // After the flags, so that the loop it wakes finds them set.
    if (_wake_enabled.load(std::memory_order_acquire)) {
        _wakeup->signal();
    }
}

void Client::send_inbox() {
    std::unique_lock<std::mutex> guard(*_lock);
    if (!detail::intervalPassed(_last_inbox, _inbox_interval, system_clock::now())) {
        return;
    }
    try {
        _sender.send(internal_objects::Inbox(_id, internal_objects::InboxType::Client), nullptr);
    } catch (wxblt::Exception& error) {
        if (error.errorNumber() == EAGAIN) {
            error.addContext(node_unavailable_for_control);
        }
        error.addContext("While trying to check inbox of our application id: " + _id);
        throw;
    } catch (orviku::Exception& error) {
        error.addContext("While trying to check inbox of our application id: " + _id);
        throw;
    }
    _last_inbox = system_clock::now();
}

void Client::send_get_registry() {
    if (!detail::intervalPassed(_last_registry_request, _registry_interval, system_clock::now())) {
        return;
    }
    try {
        _sender.send(internal_objects::GetRegistry(), nullptr);
    } catch (wxblt::Exception& error) {
        if (error.errorNumber() == EAGAIN) {
            error.addContext(node_unavailable_for_control);
        }
        error.addContext("While trying to send registry request");
        throw;
    } catch (orviku::Exception& error) {
        error.addContext("While trying to send registry request");
        throw;
    }
    _last_registry_request = system_clock::now();
}

}  // namespace orvikm
