#include "client_harness.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <utility>

#include <gtest/gtest.h>

#include <orvikm/payload.hpp>
#include <orviku/exception.hpp>
#include <wxblt/exception.hpp>

namespace devnodetest {

const std::string kProbeType = "application/x-probe";

namespace {

constexpr auto kLoopEndLimit = 10s;
constexpr auto kTerminateRetry = 20ms;
constexpr auto kProbeInterval = 100ms;
// A busy machine may take longer than the client's 100 ms to set a connection
// up; until then a write is refused with EAGAIN and the loop ends. The failed
// message stays queued, so the loop is simply entered again.
constexpr auto kConnectLimit = 5s;
constexpr auto kConnectRetry = 50ms;

bool isRefusedWrite(const orviku::Exception& error) {
    const auto* socketError = dynamic_cast<const wxblt::Exception*>(&error);
    return socketError != nullptr && socketError->errorNumber() == EAGAIN;
}

orvikm::Payload payloadOf(const std::string& bytes, const std::string& type) {
    orvikm::Payload payload(static_cast<unsigned>(bytes.size()), type);
    if (!bytes.empty()) {
        std::memcpy(payload.getBuffer(), bytes.data(), bytes.size());
    }
    return payload;
}

}  // namespace

ReceivedMessage describe(const orvikm::Message& message) {
    const orvikm::Payload& payload = message.payload();
    ReceivedMessage received;
    received.id = message.msgId();
    received.appId = message.appId();
    received.payload = std::string(payload.getBuffer(), payload.size());
    received.type = payload.type();
    received.validFor = message.validFor();
    received.routes = message.pushRoutes();
    received.ackMode = message.ackMode();
    return received;
}

void recordMessages(orvikm::Client& client, Recorder<ReceivedMessage>& inbox) {
    client.onMessage(
        [&inbox](std::unique_ptr<orvikm::Message> message) { inbox.add(describe(*message)); });
}

std::string sendMessage(orvikm::Client& client, const std::string& payload,
                        std::list<std::string> routes, Recorder<std::string>* acks,
                        const std::string& type, std::chrono::seconds validFor,
                        orvikm::Message::AckMode ackMode) {
    orvikm::Message message(
        payloadOf(payload, type),
        orvikm::Message::Config(client.id(), std::move(routes), validFor, ackMode));
    const std::string id = message.msgId();
    std::function<void()> onAck;
    if (acks != nullptr) {
        onAck = [acks, id] { acks->add(id); };
    }
    client.send(std::move(message), std::move(onAck));
    return id;
}

ClientLoop::ClientLoop(orvikm::Client& client, std::chrono::milliseconds timeout)
    : _client(client), _ended_future(_ended.get_future()) {
    _thread = std::thread([this, timeout] {
        const auto retryUntil = std::chrono::steady_clock::now() + kConnectLimit;
        try {
            for (;;) {
                bool refused = false;
                _client.blockThreadForIO(
                    [&](orviku::Exception& error) {
                        if (isRefusedWrite(error) &&
                            std::chrono::steady_clock::now() < retryUntil) {
                            refused = true;
                            return;
                        }
                        std::lock_guard<std::mutex> guard(_mutex);
                        _errors.push_back(error.describe());
                    },
                    timeout);
                if (!refused || _stopping.load()) {
                    break;
                }
                std::this_thread::sleep_for(kConnectRetry);
            }
        } catch (const std::exception& error) {
            std::lock_guard<std::mutex> guard(_mutex);
            _errors.push_back(error.what());
        }
        _ended.set_value();
    });
}

ClientLoop::~ClientLoop() {
    _stopping.store(true);
    // The loop forgets a terminate() from before it started, so it is asked
    // again until it has ended.
    const auto deadline = std::chrono::steady_clock::now() + kLoopEndLimit;
    bool ended = false;
    while (!ended && std::chrono::steady_clock::now() < deadline) {
        _client.terminate();
        ended = _ended_future.wait_for(kTerminateRetry) == std::future_status::ready;
    }
    if (!ended) {
        std::fprintf(stderr, "client I/O loop of %s did not end; aborting\n", _client.id().c_str());
        std::abort();
    }
    _thread.join();
}

std::vector<std::string> ClientLoop::errors() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return _errors;
}

bool probeUntilDelivered(orvikm::Client& sender, Recorder<ReceivedMessage>& inbox,
                         const std::string& route, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    const auto probeArrived = [&route](const std::vector<ReceivedMessage>& messages) {
        for (const ReceivedMessage& message : messages) {
            if (message.type == kProbeType && message.routes == std::list<std::string>{route}) {
                return true;
            }
        }
        return false;
    };
    while (std::chrono::steady_clock::now() < deadline) {
        sendMessage(sender, "probe", {route}, nullptr, kProbeType);
        if (inbox.waitUntil(probeArrived, kProbeInterval)) {
            return true;
        }
    }
    return false;
}

}  // namespace devnodetest
