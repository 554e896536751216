#include "bench_node.hpp"

#include <pthread.h>
#include <zmq.h>

#include <ctime>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "raw_wire.hpp"

namespace orvikbench {

namespace {

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "bench node: %s: %s\n", what, zmq_strerror(zmq_errno()));
    std::abort();
}

void setIntOption(void* socket, int option, int value) {
    if (zmq_setsockopt(socket, option, &value, sizeof value) != 0) {
        fail("zmq_setsockopt");
    }
}

int bindLoopback(void* socket) {
    if (zmq_bind(socket, "tcp://127.0.0.1:*") != 0) {
        fail("zmq_bind");
    }
    char endpoint[256];
    size_t size = sizeof endpoint;
    if (zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, endpoint, &size) != 0) {
        fail("zmq_getsockopt");
    }
    const char* colon = std::strrchr(endpoint, ':');
    return std::atoi(colon + 1);
}

std::int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// The published messages do not change from one to the next, so their id
// does not either.
constexpr std::string_view published_id = "5f0c7a52-2b4e-4d8a-9c61-0e3b7d9a4f21";

}  // namespace

BenchNode::BenchNode()
    : _context(zmq_ctx_new()),
      _router(zmq_socket(_context, ZMQ_ROUTER)),
      _publisher(zmq_socket(_context, ZMQ_PUB)),
      _dispenser_port(0),
      _listener_port(0) {
    if (_router == nullptr || _publisher == nullptr) {
        fail("zmq_socket");
    }
    // A client writes its whole queue before it reads an acknowledgement:
    // the acknowledgements wait here meanwhile instead of being dropped.
    setIntOption(_router, ZMQ_SNDHWM, 0);
    // Every client of a run presents the same identity; the newest wins.
    setIntOption(_router, ZMQ_ROUTER_HANDOVER, 1);
    setIntOption(_router, ZMQ_LINGER, 0);
    setIntOption(_publisher, ZMQ_LINGER, 0);
    // libzmq learns late how far a subscriber has read, so a high-water mark
    // near the publishing window could drop messages; the window alone
    // bounds what is in flight.
    setIntOption(_publisher, ZMQ_SNDHWM, 0);
    _dispenser_port = bindLoopback(_router);
    _listener_port = bindLoopback(_publisher);
    _server = std::thread([this] { serve(); });
}

BenchNode::~BenchNode() {
    _stop.store(true);
    _server.join();
    zmq_close(_router);
    zmq_close(_publisher);
    zmq_ctx_term(_context);
}

double BenchNode::cpuSeconds() const {
    clockid_t clock{};
    timespec time{};
    if (pthread_getcpuclockid(const_cast<std::thread&>(_server).native_handle(), &clock) != 0 ||
        clock_gettime(clock, &time) != 0) {
        return 0;
    }
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

void BenchNode::serve() {
    RawFrames frames;
    zmq_pollitem_t item{_router, 0, ZMQ_POLLIN, 0};
    char idFrame[128];
    while (!_stop.load(std::memory_order_relaxed)) {
        if (zmq_poll(&item, 1, 20) <= 0) {
            continue;
        }
        while (frames.receive(_router, ZMQ_DONTWAIT)) {
            // identity, routes..., delimiter, command, headers..., delimiter, last
            std::size_t index = 1;
            while (index < frames.count() &&
                   !(frames[index].size() == 1 && frames[index][0] == 0)) {
                ++index;
            }
            if (index + 1 >= frames.count() || frames[index + 1] != "MSG") {
                continue;
            }
            std::string_view id;
            for (index += 2; index < frames.count(); ++index) {
                const std::string_view header = frames[index];
                if (header.size() > 3 && header.substr(0, 3) == "id|") {
                    id = header.substr(3);
                    break;
                }
            }
            if (id.size() + 7 > sizeof idFrame) {
                continue;
            }
            std::memcpy(idFrame, "msg_id|", 7);
            std::memcpy(idFrame + 7, id.data(), id.size());
            sendFrame(_router, frames[0], true);
            sendDelimiter(_router, true);
            sendFrame(_router, std::string_view("ACK"), true);
            sendFrame(_router, idFrame, 7 + id.size(), true);
            sendDelimiter(_router, true);
            sendDelimiter(_router, false);
            _acknowledged.fetch_add(1, std::memory_order_relaxed);
        }
    }
}

void BenchNode::publish(PublishFlow& flow, std::uint64_t count, std::size_t size,
                        std::uint64_t window) {
    std::vector<char>& body = _bodies[size];
    body.resize(size, 'x');
    RawMessage warmup{published_id, "bench-node", warmup_payload_type, nullptr, 0};
    while (!flow.ready.load(std::memory_order_acquire)) {
        if (flow.abort.load(std::memory_order_relaxed)) {
            return;
        }
        sendMessage(_publisher, warmup, true);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    // The payload frame refers to `body` instead of copying it.
    RawMessage measured{published_id, "bench-node", bench_payload_type, nullptr, size};
    flow.start_ns.store(nowNs(), std::memory_order_release);
    for (std::uint64_t published = 0; published < count; ++published) {
        while (published - flow.consumed.load(std::memory_order_acquire) >= window) {
            if (flow.abort.load(std::memory_order_relaxed)) {
                return;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(20));
        }
        sendMessageHeaders(_publisher, measured, true);
        if (size == 0) {
            sendFrame(_publisher, nullptr, 0, false);
            continue;
        }
        zmq_msg_t payload;
        zmq_msg_init_data(&payload, body.data(), size, nullptr, nullptr);
        while (zmq_msg_send(&payload, _publisher, 0) < 0) {
            if (zmq_errno() != EINTR) {
                fail("zmq_msg_send");
            }
        }
    }
}

}  // namespace orvikbench
