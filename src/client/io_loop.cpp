#include <orvikm/client.hpp>

#include <cstdint>
#include <cstring>
#include <utility>

#include <orvikm/errors.hpp>
#include <orviku/exception.hpp>
#include <wxblt/exception.hpp>

namespace orvikm {

namespace {

// A header number that does not parse ("p_size", "valid_for") leaves the
// receiver as a standard exception, with the rest of its request unread. The
// rest is dropped here, so that it is not taken for the next request; the
// exception itself goes on unchanged.
std::unique_ptr<internal_objects::Request> receiveFrom(Receiver& receiver, wxblt::Socket& socket) {
    try {
        return receiver.receive();
    } catch (const orviku::Exception&) {
        throw;
    } catch (...) {
        socket.flushMessage();
        throw;
    }
}

}  // namespace

void Client::onMessage(std::function<void(std::unique_ptr<Message>)> callback) {
    _on_message = std::move(callback);
}

void Client::obtainRegistry(std::function<void(std::shared_ptr<Registry>)> callback,
                            std::chrono::seconds timeout) {
    _on_registry = std::move(callback);
    _registry_interval = timeout;
    // One interval in the past: the next pass requests the registry at once.
    _last_registry_request = std::chrono::system_clock::now() - timeout;
}

void Client::blockThreadForIO(std::function<void(orviku::Exception&)> errorHandler,
                              std::chrono::milliseconds timeout) {
    {
        // A terminate() from before this loop is forgotten.
        std::lock_guard<std::mutex> guard(_term_data.termLock());
        _term_data.isTermed() = false;
    }
    try {
        std::unique_lock<std::mutex> guard(_term_data.termLock());
        while (!_term_data.isTermed()) {
            guard.unlock();
            send_all_msgs();
            while (check(timeout)) {
            }
            guard.lock();
        }
    } catch (wxblt::ZmqTermination&) {
    } catch (orviku::Exception& error) {
        if (errorHandler) {
            errorHandler(error);
        }
    } catch (...) {
        if (errorHandler) {
            orviku::GeneralException unknown(
                "An unknown error occured. We do not know how to handle it");
            errorHandler(unknown);
            throw;
        }
    }
}

bool Client::check(std::chrono::milliseconds timeout) {
    // The selector's count is 32 bits wide: larger timeouts wrap.
    const auto wrapped = static_cast<std::int32_t>(static_cast<std::uint32_t>(timeout.count()));
    return _selector.run(std::chrono::duration<long, std::milli>(wrapped));
}

void Client::receive_on_listener(wxblt::Socket*) {
    try {
        try {
            // The node publishes every message behind a topic frame.
            _listener_receiver.readFrame();
            _listener_receiver.expectMore("Routes or delimiter");
        } catch (orviku::Exception&) {
            // The receiver flushes only what it reads itself.
            _listener.flushMessage();
            throw;
        }
        std::unique_ptr<internal_objects::Request> request =
            receiveFrom(_listener_receiver, _listener);
        if (std::strcmp(request->wireName(), Message::_wire_name) != 0) {
            throw ProtocolError(
                std::string("Don't expect other types of requests on listener other than "
                            "Message. Received a request with wire name: ") +
                request->wireName());
        }
        handle_request(std::move(request));
    } catch (orviku::Exception& error) {
        error.addContext("While trying to read request on Client listener");
        throw;
    }
}

void Client::receive_on_dispenser(wxblt::Socket*) {
    try {
        handle_request(receiveFrom(_dispenser_receiver, _dispenser));
    } catch (orviku::Exception& error) {
        error.addContext("While trying to read request on Client dispenser");
        throw;
    }
}

void Client::handle_request(std::unique_ptr<internal_objects::Request> request) {
    if (!request) {
        return;
    }
    if (dynamic_cast<Message*>(request.get()) != nullptr) {
        if (!_on_message) {
            return;
        }
        std::unique_ptr<Message> message(static_cast<Message*>(request.release()));
        std::lock_guard<std::mutex> guard(*_lock);
        _on_message(std::move(message));
        return;
    }
    if (dynamic_cast<Registry*>(request.get()) != nullptr) {
        std::shared_ptr<Registry> registry(static_cast<Registry*>(request.release()));
        if (_on_registry) {
            _on_registry(std::move(registry));
        }
        return;
    }
    if (auto* ack = dynamic_cast<internal_objects::Ack*>(request.get())) {
        _result_callbacks.handleAck(*ack);
    }
}

}  // namespace orvikm
