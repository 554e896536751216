#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <thread>
#include <vector>

// The minimal node that every end-to-end measurement runs against, on raw
// libzmq with a context of its own: a ROUTER that acknowledges every "MSG"
// (and ignores every other request), and a PUB that publishes messages on
// demand. Both on loopback, on ports the system picks.
namespace orvikbench {

// Shared between a publishing node and the consumer it publishes to.
struct PublishFlow {
    // Set by the consumer once it has seen a warm-up message: the
    // subscription has reached the node and nothing measured is lost.
    std::atomic<bool> ready{false};
    // Measured messages the consumer has taken so far.
    std::atomic<std::uint64_t> consumed{0};
    // Set when the consumer gives up; the publisher then stops.
    std::atomic<bool> abort{false};
    // steady_clock nanoseconds at which the first measured message left.
    std::atomic<std::int64_t> start_ns{0};
};

class BenchNode {
public:
    BenchNode();
    BenchNode(const BenchNode&) = delete;
    BenchNode& operator=(const BenchNode&) = delete;
    ~BenchNode();

    int dispenserPort() const { return _dispenser_port; }
    int listenerPort() const { return _listener_port; }

    // Publishes along bench_topic: warm-up messages every millisecond until
    // flow.ready, then `count` measured messages of `size` bytes, each as soon
    // as fewer than `window` published ones are unconsumed. The payload frame
    // is handed to libzmq without a copy. Returns early on flow.abort. Runs on
    // the caller's thread; one publish at a time.
    void publish(PublishFlow& flow, std::uint64_t count, std::size_t size, std::uint64_t window);

    // CPU time (user and system) of the node's serving thread so far, in
    // seconds: what a raw libzmq ROUTER costs to acknowledge.
    double cpuSeconds() const;

    // Requests acknowledged since the node started.
    std::uint64_t acknowledged() const { return _acknowledged.load(std::memory_order_relaxed); }

private:
    void serve();

    void* _context;
    void* _router;
    void* _publisher;
    int _dispenser_port;
    int _listener_port;
    std::atomic<bool> _stop{false};
    std::atomic<std::uint64_t> _acknowledged{0};
    // Published payload frames refer to these bodies without copying them, and
    // libzmq may still be writing them after publish() returns: they live as
    // long as the node, one for each size published.
    std::map<std::size_t, std::vector<char>> _bodies;
    std::thread _server;
};

}  // namespace orvikbench
