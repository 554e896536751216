// orvik-bench: the library's cost against raw libzmq, measured in one run
// against one minimal node (support/bench_node.hpp).
//
// For each payload size it measures
//   - send throughput: Client::send with an acknowledgement callback, from the
//     first send until the last acknowledgement callback, against a raw
//     DEALER that writes the same frames and reads the same acknowledgements;
//   - receive throughput: messages published by the node and handed to
//     onMessage, against a raw SUB that reads and decodes the same frames;
//   - round-trip latency, send to acknowledgement callback, against a raw
//     ping-pong with the same frames;
//   - the process's CPU time per message, over the same throughput runs;
//   - heap allocations per message sent and received (operator new calls on
//     the measuring thread, counted).
// and prints one table: row, library, raw, ratio, target.

#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <orvikm/orvikm.hpp>

#include "harness.hpp"
#include "support/alloc_counter.hpp"
#include "support/bench_node.hpp"
#include "support/devnode_process.hpp"
#include "support/raw_wire.hpp"
#include "wake_bench.hpp"

namespace {

using orvikbench::BenchNode;
using orvikbench::Clock;
using orvikbench::DevNodeProcess;
using orvikbench::fail;
using orvikbench::failOnError;
using orvikbench::loadAverage;
using orvikbench::loop_timeout;
using orvikbench::newClient;
using orvikbench::percentile;
using orvikbench::printTable;
using orvikbench::processCpuSeconds;
using orvikbench::PublishFlow;
using orvikbench::RawFrames;
using orvikbench::Row;
using orvikbench::secondsBetween;
using orvikbench::sharedPayload;
using orvikbench::sizeText;
using orvikbench::threadAllocations;
using orvikbench::threadCpuSeconds;
using orvikbench::Watchdog;

// Messages in flight at most in a paced send.
constexpr std::uint64_t paced_window = 256;

struct Options {
    double seconds = 0.5;  // aimed duration of one throughput run
    int repetitions = 7;   // throughput runs a side, the best is reported
    // Given on the command line: the wake tables, which have shorter
    // defaults of their own, follow them too.
    bool secondsGiven = false;
    bool repetitionsGiven = false;
    std::vector<std::size_t> sizes{0, 100, 10 * 1024, 1024 * 1024};
    // For profiling: "send", "receive" or "latency" runs only the library's
    // side of that measurement, `count` messages a size, and prints no table;
    // "raw-send", "raw-receive" and "raw-latency" the raw side.
    std::string profile;
    std::uint64_t count = 20000;
    // The orvik-devnode program for the rows through it; empty: none.
#ifdef ORVIK_DEVNODE_PATH
    std::string devnode = ORVIK_DEVNODE_PATH;
#else
    std::string devnode;
#endif
    // Messages of the write-batch burst.
    std::uint64_t burst = 100'000;
    // Pairs of send runs with and without onUnacknowledged for --watch-cost;
    // 0: the usual table.
    int watchCostPairs = 0;
    // Only the tables of how a sent message reaches the loop (wake_bench.hpp).
    bool wakeOnly = false;
};

struct Run {
    double seconds = 0;
    std::uint64_t messages = 0;
    double allocations_per_message = 0;
    // CPU time of the whole process (all threads, the node's included) per
    // message: less disturbed than `seconds` by other load on the machine.
    double cpu_microseconds_per_message = 0;
    // CPU time of the node alone per message, where the run measured it.
    double node_cpu_microseconds_per_message = 0;

    double rate() const { return seconds > 0 ? static_cast<double>(messages) / seconds : 0; }
};

std::string localhost(int port) {
    return "tcp://localhost:" + std::to_string(port);
}

// ---- raw libzmq sockets ---------------------------------------------------

class RawSocket {
public:
    RawSocket(void* context, int type) : _handle(zmq_socket(context, type)) {
        if (_handle == nullptr) {
            fail("zmq_socket failed");
        }
        setInt(ZMQ_LINGER, 0);
    }
    RawSocket(const RawSocket&) = delete;
    RawSocket& operator=(const RawSocket&) = delete;
    ~RawSocket() { zmq_close(_handle); }

    void setInt(int option, int value) {
        if (zmq_setsockopt(_handle, option, &value, sizeof value) != 0) {
            fail("zmq_setsockopt failed");
        }
    }
    void setBytes(int option, std::string_view value) {
        if (zmq_setsockopt(_handle, option, value.data(), value.size()) != 0) {
            fail("zmq_setsockopt failed");
        }
    }
    void connect(const std::string& endpoint) {
        if (zmq_connect(_handle, endpoint.c_str()) != 0) {
            fail("zmq_connect failed");
        }
    }
    void* handle() const { return _handle; }

private:
    void* _handle;
};

// A DEALER set up as the client sets up its dispenser: same identity, no
// queueing for a node that is not connected yet, no queue limits.
std::unique_ptr<RawSocket> rawDealer(void* context, const BenchNode& node) {
    auto dealer = std::make_unique<RawSocket>(context, ZMQ_DEALER);
    dealer->setBytes(ZMQ_ROUTING_ID, std::string(orvikbench::bench_app_id) + "|disp");
    dealer->setInt(ZMQ_IMMEDIATE, 1);
    dealer->setInt(ZMQ_SNDHWM, 0);
    dealer->setInt(ZMQ_RCVHWM, 0);
    dealer->connect(localhost(node.dispenserPort()));
    return dealer;
}

bool isAck(const RawFrames& frames) {
    return frames.count() == 5 && frames[1] == "ACK" && frames[2].substr(0, 7) == "msg_id|";
}

// ---- send throughput ------------------------------------------------------

// Sends `count` messages on `client` and runs its loop until every one is
// acknowledged.
Run sendBurst(orvikm::Client& client, std::uint64_t count, std::size_t size) {
    std::vector<char> body(size, 'x');
    struct Acks {
        orvikm::Client* client;
        std::uint64_t expected;
        std::uint64_t received;
        Clock::time_point last;
    } acks{&client, count, 0, {}};
    Acks* state = &acks;

    const std::uint64_t allocationsBefore = threadAllocations();
    const Clock::time_point start = Clock::now();
    for (std::uint64_t i = 0; i < count; ++i) {
        client.send(
            sharedPayload(body), {std::string(orvikbench::bench_topic)},
            std::chrono::seconds(orvikbench::bench_valid_for_seconds),
            [state] {
                if (++state->received == state->expected) {
                    state->last = Clock::now();
                    state->client->terminate();
                }
            },
            orvikm::Message::AckMode::ByNode);
    }
    client.blockThreadForIO(failOnError, loop_timeout);
    const std::uint64_t allocations = threadAllocations() - allocationsBefore;
    if (acks.received != count) {
        fail("library send: " + std::to_string(acks.received) + " of " + std::to_string(count) +
             " acknowledgements");
    }
    return {secondsBetween(start, acks.last), count,
            static_cast<double>(allocations) / static_cast<double>(count)};
}

// An application that sends from its own thread while the loop runs on
// another, keeping at most `window` messages unacknowledged: the tables then
// hold what is in flight, not a whole burst. Returns the CPU time of both
// threads together, in seconds.
double pacedSend(orvikm::Client& client, std::uint64_t count, std::size_t size,
                 std::uint64_t window) {
    std::vector<char> body(size, 'x');
    std::mutex lock;
    std::condition_variable acknowledged;
    std::uint64_t acks = 0;
    std::atomic<double> loopCpu{0};
    std::thread loop([&] {
        const double before = threadCpuSeconds();
        client.blockThreadForIO(failOnError, loop_timeout);
        loopCpu.store(threadCpuSeconds() - before);
    });
    const double before = threadCpuSeconds();
    for (std::uint64_t i = 0; i < count; ++i) {
        {
            std::unique_lock<std::mutex> guard(lock);
            acknowledged.wait(guard, [&] { return i - acks < window; });
        }
        client.send(
            sharedPayload(body), {std::string(orvikbench::bench_topic)},
            std::chrono::seconds(orvikbench::bench_valid_for_seconds),
            [&] {
                std::lock_guard<std::mutex> guard(lock);
                if (++acks == count) {
                    client.terminate();
                }
                acknowledged.notify_one();
            },
            orvikm::Message::AckMode::ByNode);
    }
    const double senderCpu = threadCpuSeconds() - before;
    loop.join();
    if (acks != count) {
        fail("paced send: " + std::to_string(acks) + " of " + std::to_string(count) +
             " acknowledgements");
    }
    return senderCpu + loopCpu.load();
}

// A new client for `node`; with `watch`, the delivery-failure report is set
// (it never fires here: the validity period is far longer than a run).
template <typename Node>
std::unique_ptr<orvikm::Client> sendingClient(const Node& node, bool watch) {
    std::unique_ptr<orvikm::Client> client = newClient(node, false);
    if (watch) {
        client->onUnacknowledged([](const std::string& id) { fail("unacknowledged: " + id); });
    }
    return client;
}

// The first burst of a new client.
template <typename Node>
Run librarySend(const Node& node, std::uint64_t count, std::size_t size, bool watch = false) {
    return sendBurst(*sendingClient(node, watch), count, size);
}

// Writes every message, then reads every acknowledgement: the order in which
// one pass of the client's I/O loop works through a full queue.
Run rawSend(void* context, const BenchNode& node, std::uint64_t count, std::size_t size) {
    const std::unique_ptr<RawSocket> dealer = rawDealer(context, node);
    std::vector<char> body(size, 'x');
    RawFrames frames;
    char id[36];
    orvikbench::RawMessage message;
    message.id = std::string_view(id, sizeof id);
    message.payload = body.data();
    message.payload_size = size;

    const std::uint64_t allocationsBefore = threadAllocations();
    const Clock::time_point start = Clock::now();
    for (std::uint64_t i = 0; i < count; ++i) {
        orvikbench::formatCounterId(i + 1, id);
        orvikbench::sendMessage(dealer->handle(), message, false);
    }
    std::uint64_t received = 0;
    while (received < count) {
        frames.receive(dealer->handle());
        if (isAck(frames)) {
            ++received;
        }
    }
    const Clock::time_point end = Clock::now();
    const std::uint64_t allocations = threadAllocations() - allocationsBefore;
    return {secondsBetween(start, end), count,
            static_cast<double>(allocations) / static_cast<double>(count)};
}

// ---- receive throughput ---------------------------------------------------

// At most this many published messages are unconsumed: at most 1000 and at
// most 32 MiB, since none of the queues on the way is limited.
std::uint64_t publishWindow(std::size_t size) {
    return std::clamp<std::uint64_t>((32u << 20) / std::max<std::size_t>(size, 1), 8, 1000);
}

Run libraryReceive(BenchNode& node, std::uint64_t count, std::size_t size) {
    const std::unique_ptr<orvikm::Client> client = newClient(node, true);
    PublishFlow flow;
    struct Consumer {
        orvikm::Client* client;
        PublishFlow* flow;
        std::uint64_t expected;
        std::uint64_t received;
        std::uint64_t allocations_at_first;
        std::uint64_t allocations_at_last;
        Clock::time_point last;
    } consumer{client.get(), &flow, count, 0, 0, 0, {}};
    Consumer* state = &consumer;
    client->onMessage([state](std::unique_ptr<orvikm::Message> message) {
        if (message->payload().type() == orvikbench::warmup_payload_type) {
            state->flow->ready.store(true, std::memory_order_release);
            return;
        }
        const std::uint64_t received = ++state->received;
        if (received == 1) {
            state->allocations_at_first = threadAllocations();
        }
        state->flow->consumed.store(received, std::memory_order_release);
        if (received == state->expected) {
            state->last = Clock::now();
            state->allocations_at_last = threadAllocations();
            state->client->terminate();
        }
    });

    std::thread publisher([&] {
        node.publish(flow, count, size, publishWindow(size));
        // A message lost on the way would leave the loop waiting for ever.
        const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
        while (flow.consumed.load() < count && Clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        client->terminate();
    });
    client->blockThreadForIO(failOnError, loop_timeout);
    flow.abort.store(true);
    publisher.join();
    if (consumer.received != count) {
        fail("library receive: " + std::to_string(consumer.received) + " of " +
             std::to_string(count) + " messages");
    }
    const Clock::time_point start{std::chrono::nanoseconds(flow.start_ns.load())};
    const double perMessage =
        count > 1
            ? static_cast<double>(consumer.allocations_at_last - consumer.allocations_at_first) /
                  static_cast<double>(count - 1)
            : 0;
    return {secondsBetween(start, consumer.last), count, perMessage};
}

Run rawReceive(void* context, BenchNode& node, std::uint64_t count, std::size_t size) {
    RawSocket subscriber(context, ZMQ_SUB);
    // As the client sets up its listener: no queue limit.
    subscriber.setInt(ZMQ_RCVHWM, 0);
    subscriber.setBytes(ZMQ_SUBSCRIBE, orvikbench::bench_topic);
    subscriber.setInt(ZMQ_RCVTIMEO, 10000);
    subscriber.connect(localhost(node.listenerPort()));
    PublishFlow flow;
    std::thread publisher([&] { node.publish(flow, count, size, publishWindow(size)); });

    RawFrames frames;
    orvikbench::DecodedMessage decoded;
    std::vector<char> payload;
    std::uint64_t received = 0;
    std::uint64_t allocationsAtFirst = 0;
    while (received < count) {
        if (!frames.receive(subscriber.handle())) {
            flow.abort.store(true);
            publisher.join();
            fail("raw receive: no message for 10 s");
        }
        if (frames.count() < 2 || !orvikbench::decodeRequest(frames, 1, decoded, payload)) {
            flow.abort.store(true);
            publisher.join();
            fail("raw receive: a malformed message");
        }
        if (decoded.payload_type == orvikbench::warmup_payload_type) {
            flow.ready.store(true, std::memory_order_release);
            continue;
        }
        if (++received == 1) {
            allocationsAtFirst = threadAllocations();
        }
        flow.consumed.store(received, std::memory_order_release);
    }
    const Clock::time_point end = Clock::now();
    const std::uint64_t allocations = threadAllocations() - allocationsAtFirst;
    publisher.join();
    const Clock::time_point start{std::chrono::nanoseconds(flow.start_ns.load())};
    return {secondsBetween(start, end), count,
            count > 1 ? static_cast<double>(allocations) / static_cast<double>(count - 1) : 0};
}

// ---- round-trip latency ---------------------------------------------------

// Each sample: send one message, run the loop until its acknowledgement
// callback has run. The loop then idles loop_timeout before it returns.
template <typename Node>
void libraryLatency(const Node& node, std::size_t samples, std::size_t size,
                    std::vector<double>& microseconds) {
    const std::unique_ptr<orvikm::Client> client = newClient(node, false);
    std::vector<char> body(size, 'x');
    struct Ack {
        orvikm::Client* client;
        bool seen;
        Clock::time_point at;
    } ack{client.get(), false, {}};
    Ack* state = &ack;
    constexpr std::size_t warmups = 5;
    for (std::size_t i = 0; i < samples + warmups; ++i) {
        ack.seen = false;
        const Clock::time_point sent = Clock::now();
        client->send(
            sharedPayload(body), {std::string(orvikbench::bench_topic)},
            std::chrono::seconds(orvikbench::bench_valid_for_seconds),
            [state] {
                state->at = Clock::now();
                state->seen = true;
                state->client->terminate();
            },
            orvikm::Message::AckMode::ByNode);
        client->blockThreadForIO(failOnError, loop_timeout);
        if (!ack.seen) {
            fail("library latency: no acknowledgement");
        }
        if (i >= warmups) {
            microseconds.push_back(
                std::chrono::duration<double, std::micro>(ack.at - sent).count());
        }
    }
}

void rawLatency(void* context, const BenchNode& node, std::size_t samples, std::size_t size,
                std::vector<double>& microseconds) {
    const std::unique_ptr<RawSocket> dealer = rawDealer(context, node);
    std::vector<char> body(size, 'x');
    RawFrames frames;
    char id[36];
    orvikbench::RawMessage message;
    message.id = std::string_view(id, sizeof id);
    message.payload = body.data();
    message.payload_size = size;
    zmq_pollitem_t quiet{dealer->handle(), 0, ZMQ_POLLIN, 0};
    constexpr std::size_t warmups = 5;
    for (std::size_t i = 0; i < samples + warmups; ++i) {
        orvikbench::formatCounterId(i + 1, id);
        const Clock::time_point sent = Clock::now();
        orvikbench::sendMessage(dealer->handle(), message, false);
        do {
            frames.receive(dealer->handle());
        } while (!isAck(frames));
        const Clock::time_point at = Clock::now();
        if (i >= warmups) {
            microseconds.push_back(std::chrono::duration<double, std::micro>(at - sent).count());
        }
        zmq_poll(&quiet, 1, static_cast<long>(loop_timeout.count()));
    }
}

// ---- a burst through orvik-devnode with a write batch bound -----------------

struct Burst {
    double acknowledged_per_second = 0;
    // The longest time between two consecutive acknowledgement callbacks.
    double longest_gap_ms = 0;
    // From the loop's start until the first acknowledgement callback.
    double first_ack_ms = 0;
    // The node's serving thread's CPU time per message.
    double node_cpu_us = 0;
};

// Queues `count` messages, then runs the loop with Options::maxWriteBatch set
// to `batch` (0: unset) until the last acknowledgement callback.
Burst libraryBurst(const DevNodeProcess& node, std::uint64_t count, std::size_t size,
                   std::size_t batch, std::chrono::milliseconds timeout) {
    orvikm::Client::Options clientOptions;
    clientOptions.maxWriteBatch = batch;
    const std::unique_ptr<orvikm::Client> client = newClient(node, false, clientOptions);
    std::vector<char> body(size, 'x');
    std::vector<Clock::time_point> acknowledged;
    acknowledged.reserve(count);
    struct Acks {
        orvikm::Client* client;
        std::vector<Clock::time_point>* at;
        std::uint64_t expected;
    } acks{client.get(), &acknowledged, count};
    Acks* state = &acks;

    // One round trip first, so that the connection is set up before the
    // clock starts.
    bool warm = false;
    client->send(
        sharedPayload(body), {std::string(orvikbench::bench_topic)},
        std::chrono::seconds(orvikbench::bench_valid_for_seconds),
        [&warm, state] {
            warm = true;
            state->client->terminate();
        },
        orvikm::Message::AckMode::ByNode);
    client->blockThreadForIO(failOnError, timeout);
    if (!warm) {
        fail("burst: no acknowledgement of the first message");
    }

    const double nodeCpuBefore = node.cpuSeconds();
    for (std::uint64_t i = 0; i < count; ++i) {
        client->send(
            sharedPayload(body), {std::string(orvikbench::bench_topic)},
            std::chrono::seconds(orvikbench::bench_valid_for_seconds),
            [state] {
                state->at->push_back(Clock::now());
                if (state->at->size() == state->expected) {
                    state->client->terminate();
                }
            },
            orvikm::Message::AckMode::ByNode);
    }
    // Timed from the loop's start: queueing is the same for every variant.
    const Clock::time_point start = Clock::now();
    client->blockThreadForIO(failOnError, timeout);
    if (acknowledged.size() != count) {
        fail("burst: " + std::to_string(acknowledged.size()) + " of " + std::to_string(count) +
             " acknowledgements");
    }
    Burst burst;
    burst.acknowledged_per_second =
        static_cast<double>(count) / secondsBetween(start, acknowledged.back());
    burst.first_ack_ms = 1e3 * secondsBetween(start, acknowledged.front());
    for (std::size_t i = 1; i < acknowledged.size(); ++i) {
        burst.longest_gap_ms = std::max(burst.longest_gap_ms,
                                        1e3 * secondsBetween(acknowledged[i - 1], acknowledged[i]));
    }
    burst.node_cpu_us = 1e6 * (node.cpuSeconds() - nodeCpuBefore) / static_cast<double>(count);
    return burst;
}

// ---- reporting --------------------------------------------------------------

// Runs one measurement and adds the process's CPU time per message to it.
template <typename Measurement>
Run timed(Measurement measurement) {
    const double cpuBefore = processCpuSeconds();
    Run run = measurement();
    run.cpu_microseconds_per_message =
        1e6 * (processCpuSeconds() - cpuBefore) / static_cast<double>(run.messages);
    return run;
}

// Runs one measurement and adds the node's CPU time per message to it.
template <typename Node, typename Measurement>
Run withNodeCpu(const Node& node, Measurement measurement) {
    const double cpuBefore = node.cpuSeconds();
    Run run = measurement();
    run.node_cpu_microseconds_per_message =
        1e6 * (node.cpuSeconds() - cpuBefore) / static_cast<double>(run.messages);
    return run;
}

Options parseOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--seconds" && i + 1 < argc) {
            options.seconds = std::atof(argv[++i]);
            options.secondsGiven = true;
        } else if (argument == "--repetitions" && i + 1 < argc) {
            options.repetitions = std::max(1, std::atoi(argv[++i]));
            options.repetitionsGiven = true;
        } else if (argument == "--sizes" && i + 1 < argc) {
            options.sizes.clear();
            for (const char* text = argv[++i]; *text != 0;) {
                char* end = nullptr;
                options.sizes.push_back(std::strtoull(text, &end, 10));
                text = *end == ',' ? end + 1 : end;
                if (end == text && *text != 0) {
                    fail("--sizes takes numbers separated by commas");
                }
            }
        } else if (argument == "--wake") {
            options.wakeOnly = true;
        } else if (argument == "--watch-cost" && i + 1 < argc) {
            options.watchCostPairs = std::max(1, std::atoi(argv[++i]));
        } else if (argument == "--profile" && i + 1 < argc) {
            options.profile = argv[++i];
        } else if (argument == "--devnode" && i + 1 < argc) {
            options.devnode = argv[++i];
        } else if (argument == "--burst" && i + 1 < argc) {
            options.burst = std::max<std::uint64_t>(1, std::strtoull(argv[++i], nullptr, 10));
        } else if (argument == "--count" && i + 1 < argc) {
            options.count = std::max<std::uint64_t>(1, std::strtoull(argv[++i], nullptr, 10));
        } else {
            std::printf(
                "usage: orvik-bench [--seconds S] [--repetitions N] [--sizes B,B,...]\n"
                "       orvik-bench --profile KIND [--count N] [--sizes ...]\n"
                "       orvik-bench --wake [--seconds S] [--repetitions N]\n"
                "  --devnode      the orvik-devnode program for the rows through it (\"\": none)\n"
                "  --burst        messages of the write-batch burst (default 100000)\n"
                "  --wake         only the tables of how a message sent by the application\n"
                "                 reaches the I/O loop (wakeOnSend, the application's own\n"
                "                 event loop), through orvik-devnode; --seconds and\n"
                "                 --repetitions apply to them (default 0.3 s, 7 runs)\n"
                "  --seconds      aimed duration of one throughput run (default 0.5)\n"
                "  --repetitions  throughput runs a side; the best is reported (default 7)\n"
                "  --sizes        payload sizes in bytes (default 0,100,10240,1048576)\n"
                "  --watch-cost N only what onUnacknowledged costs a send: N pairs of runs\n"
                "                 with and without it, each pair in turn order, and the\n"
                "                 quartiles of the pairs' ratios\n"
                "  --profile      one side of one measurement, for a profiler: send, receive,\n"
                "                 latency (the library's), send-watched (onUnacknowledged set),\n"
                "                 devnode-send (through orvik-devnode), node-send (the\n"
                "                 same against the minimal node), raw-send,\n"
                "                 raw-receive, raw-latency;\n"
                "                 through orvik-devnode, how a message sent by the\n"
                "                 application reaches the loop: one, one-woken,\n"
                "                 one-io-thread, one-poll, one-poll-same-thread (one in\n"
                "                 flight), wide, wide-woken, wide-poll, wide-bounded (1000\n"
                "                 in flight), burst, burst-woken, burst-bounded (no window;\n"
                "                 -bounded: a queue bound and the connection monitor);\n"
                "                 N messages\n"
                "                 (default 20000) a size, no table\n");
            std::exit(argument == "--help" ? 0 : 2);
        }
    }
    return options;
}

orvikbench::WakeBenchOptions wakeOptions(const Options& options) {
    orvikbench::WakeBenchOptions wake;
    if (options.secondsGiven) {
        wake.seconds = options.seconds;
    }
    if (options.repetitionsGiven) {
        wake.repetitions = options.repetitions;
    }
    return wake;
}

// Messages for a run of about `seconds` at `rate`, at most `most`.
std::uint64_t countFor(double rate, double seconds, std::uint64_t most) {
    return std::clamp<std::uint64_t>(static_cast<std::uint64_t>(rate * seconds), 100, most);
}

// A send run queues every message before the loop writes the first, and the
// client's queue and acknowledgement table get slower the more they hold: a
// run sends at most this many, so that every size is measured at about the
// same depth.
constexpr std::uint64_t most_queued = 50'000;
constexpr std::uint64_t most_received = 1'000'000;

// The best of the repetitions of a comparison, for each side: other load on
// the machine only ever slows a run down, so the fastest run of each side is
// the least disturbed measure of it. Ratios are taken between the bests.
struct Comparison {
    double library_rate = 0;
    double raw_rate = 0;
    double library_cpu = 0;
    double raw_cpu = 0;
    double library_allocations = 0;
    double raw_allocations = 0;
    double library_node_cpu = 0;
    double raw_node_cpu = 0;
};

// Runs `library` and `raw` as pairs, `repetitions` times, each side first
// every other time.
template <typename Library, typename Raw>
Comparison compare(Watchdog& watchdog, int repetitions, Library library, Raw raw) {
    Comparison best;
    best.library_cpu = best.raw_cpu = std::numeric_limits<double>::max();
    best.library_node_cpu = best.raw_node_cpu = std::numeric_limits<double>::max();
    const auto keep = [](const Run& run, double& rate, double& cpu, double& allocations,
                         double& nodeCpu) {
        rate = std::max(rate, run.rate());
        cpu = std::min(cpu, run.cpu_microseconds_per_message);
        allocations = run.allocations_per_message;
        nodeCpu = std::min(nodeCpu, run.node_cpu_microseconds_per_message);
    };
    for (int i = 0; i < repetitions; ++i) {
        watchdog.arm();
        Run libraryRun, rawRun;
        if (i % 2 == 0) {
            libraryRun = timed(library);
            rawRun = timed(raw);
        } else {
            rawRun = timed(raw);
            libraryRun = timed(library);
        }
        keep(libraryRun, best.library_rate, best.library_cpu, best.library_allocations,
             best.library_node_cpu);
        keep(rawRun, best.raw_rate, best.raw_cpu, best.raw_allocations, best.raw_node_cpu);
    }
    return best;
}

// What onUnacknowledged costs a send, more steadily than the best of a few
// runs a side: runs with and without it in pairs (which goes first alternates),
// so that a pair shares the machine's state of the moment, and the quartiles
// of the pairs' ratios.
void watchCost(void* context, BenchNode& node, Watchdog& watchdog, const Options& options) {
    const auto quartiles = [](std::vector<double> values) {
        std::sort(values.begin(), values.end());
        const auto at = [&values](double q) {
            return values[static_cast<std::size_t>(q * static_cast<double>(values.size() - 1))];
        };
        char text[64];
        std::snprintf(text, sizeof text, "%.3f  %.3f  %.3f", at(0.25), at(0.5), at(0.75));
        return std::string(text);
    };
    std::printf(
        "What onUnacknowledged costs a send: %d pairs of runs with and without it; quartiles\n"
        "(25 %%, median, 75 %%) of the ratio with / without in each pair.\n",
        options.watchCostPairs);
    for (const std::size_t size : options.sizes) {
        if (size >= 1024 * 1024) {
            continue;
        }
        watchdog.arm();
        const std::uint64_t count =
            countFor(rawSend(context, node, 2000, size).rate(), options.seconds, most_queued);
        std::vector<double> rates, cpus, ownCpus, laterCpus, pacedCpus;
        // The CPU time of the thread that sends and runs the loop, where the
        // bookkeeping happens: neither node nor libzmq threads blur it. A
        // first burst includes making the client and growing its tables; a
        // later burst of the same client finds them grown.
        const auto ownCpu = [&](bool watch, double& seconds, double& laterSeconds) {
            const std::unique_ptr<orvikm::Client> client = sendingClient(node, watch);
            double before = threadCpuSeconds();
            Run run = timed([&] { return sendBurst(*client, count, size); });
            seconds = threadCpuSeconds() - before;
            before = threadCpuSeconds();
            sendBurst(*client, count, size);
            laterSeconds = threadCpuSeconds() - before;
            return run;
        };
        for (int i = 0; i < options.watchCostPairs; ++i) {
            watchdog.arm();
            Run with, without;
            double withOwn = 0;
            double withoutOwn = 0;
            double withLater = 0;
            double withoutLater = 0;
            if (i % 2 == 0) {
                with = ownCpu(true, withOwn, withLater);
                without = ownCpu(false, withoutOwn, withoutLater);
            } else {
                without = ownCpu(false, withoutOwn, withoutLater);
                with = ownCpu(true, withOwn, withLater);
            }
            rates.push_back(with.rate() / without.rate());
            cpus.push_back(with.cpu_microseconds_per_message /
                           without.cpu_microseconds_per_message);
            ownCpus.push_back(withOwn / withoutOwn);
            laterCpus.push_back(withLater / withoutLater);
            double paced[2] = {0, 0};
            for (int k = 0; k < 2; ++k) {
                const bool watch = (k == 0) == (i % 2 == 0);
                paced[watch ? 0 : 1] =
                    pacedSend(*sendingClient(node, watch), count, size, paced_window);
            }
            pacedCpus.push_back(paced[0] / paced[1]);
        }
        std::printf(
            "send %-6s %llu messages a run:\n  throughput             %s\n"
            "  CPU a message, process %s\n  CPU a message, the sending and loop thread %s\n"
            "  the same, a later burst of the same client %s\n"
            "  CPU of sender and loop thread, paced (%llu in flight at most) %s\n",
            sizeText(size).c_str(), static_cast<unsigned long long>(count),
            quartiles(rates).c_str(), quartiles(cpus).c_str(), quartiles(ownCpus).c_str(),
            quartiles(laterCpus).c_str(), static_cast<unsigned long long>(paced_window),
            quartiles(pacedCpus).c_str());
        std::fflush(stdout);
    }
    std::printf("load average (1 min): %s\n", loadAverage().c_str());
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parseOptions(argc, argv);
    orvikbench::fixAllocatorThresholds();
    void* context = zmq_ctx_new();
    BenchNode node;
    Watchdog watchdog;

    if (!options.profile.empty()) {
        for (const std::size_t size : options.sizes) {
            Run run;
            std::vector<double> microseconds;
            if (options.profile == "send") {
                run = librarySend(node, options.count, size);
            } else if (options.profile == "send-watched") {
                run = librarySend(node, options.count, size, true);
            } else if (options.profile == "devnode-send") {
                const DevNodeProcess devnode(options.devnode);
                const double processBefore = devnode.processCpuSeconds();
                run =
                    withNodeCpu(devnode, [&] { return librarySend(devnode, options.count, size); });
                std::printf(
                    "orvik-devnode CPU: %.2f us a message in its serving thread, %.2f in all\n",
                    run.node_cpu_microseconds_per_message,
                    1e6 * (devnode.processCpuSeconds() - processBefore) /
                        static_cast<double>(run.messages));
            } else if (options.profile == "node-send") {
                run = withNodeCpu(node, [&] { return librarySend(node, options.count, size); });
                std::printf("minimal node CPU: %.2f us a message in its serving thread\n",
                            run.node_cpu_microseconds_per_message);
            } else if (options.profile == "receive") {
                run = libraryReceive(node, options.count, size);
            } else if (options.profile == "raw-send") {
                run = rawSend(context, node, options.count, size);
            } else if (options.profile == "raw-receive") {
                run = rawReceive(context, node, options.count, size);
            } else if (options.profile == "latency" || options.profile == "raw-latency") {
                if (options.profile == "latency") {
                    libraryLatency(node, options.count, size, microseconds);
                } else {
                    rawLatency(context, node, options.count, size, microseconds);
                }
                std::printf("%s %s: p50 %.1f us, p99 %.1f us\n", options.profile.c_str(),
                            sizeText(size).c_str(), percentile(microseconds, 0.5),
                            percentile(microseconds, 0.99));
                continue;
            } else if (!options.devnode.empty() &&
                       orvikbench::runWakeProfile(options.profile, DevNodeProcess(options.devnode),
                                                  options.count, size)) {
                continue;
            } else {
                fail(
                    "--profile takes send, send-watched, devnode-send, node-send, receive, "
                    "latency, raw-send, raw-receive, raw-latency, or one of the kinds of the "
                    "wake tables (see --help)");
            }
            std::printf("%s %s: %.0f msg/s, %.1f allocations a message\n", options.profile.c_str(),
                        sizeText(size).c_str(), run.rate(), run.allocations_per_message);
        }
        zmq_ctx_term(context);
        return 0;
    }

    if (options.wakeOnly) {
        if (options.devnode.empty()) {
            fail("--wake needs orvik-devnode (--devnode PATH)");
        }
        const DevNodeProcess devnode(options.devnode);
        orvikbench::printWakeTables(devnode, watchdog, wakeOptions(options));
        std::printf("\nload average (1 min): %s\n", loadAverage().c_str());
        zmq_ctx_term(context);
        return 0;
    }

    if (options.watchCostPairs > 0) {
        watchCost(context, node, watchdog, options);
        zmq_ctx_term(context);
        return 0;
    }

    const std::string loadBefore = loadAverage();
    std::printf(
        "orvik-bench: orvikm against raw libzmq, same node, same run (%u cores).\n"
        "Throughput: the best of %d runs a side of about %.1f s, library and raw alternating;\n"
        "CPU: the least process CPU time per message (all threads) of those runs; latency:\n"
        "round trips in eight alternating chunks a side; allocations: operator new calls per\n"
        "message on the measuring thread. Ratios are library / raw.\n\n",
        std::thread::hardware_concurrency(), options.repetitions, options.seconds);
    std::fflush(stdout);

    std::vector<Row> throughput, cpu, latency, allocations;
    // The sizes below 1 MiB with their send run's length, for the rows after
    // the main table.
    std::vector<std::pair<std::size_t, std::uint64_t>> sendCounts;
    const auto addThroughput = [&](const std::string& what, const Comparison& result,
                                   std::size_t size) {
        const std::string label = what + " " + sizeText(size);
        const bool targeted = size >= 100;
        throughput.push_back({label + " [msg/s]", result.library_rate, result.raw_rate,
                              result.library_rate / result.raw_rate, targeted ? ">=" : "",
                              size >= 10 * 1024 ? 0.95 : 0.85});
        cpu.push_back({label + " [CPU us/msg]", result.library_cpu, result.raw_cpu,
                       result.library_cpu / result.raw_cpu});
        allocations.push_back(
            {"allocs/msg " + label, result.library_allocations, result.raw_allocations, -1});
    };
    for (const std::size_t size : options.sizes) {
        const std::string label = sizeText(size);
        const std::uint64_t probe =
            std::clamp<std::uint64_t>((16u << 20) / std::max<std::size_t>(size, 1), 50, 20000);

        watchdog.arm();
        const std::uint64_t sendCount =
            countFor(rawSend(context, node, probe, size).rate(), options.seconds, most_queued);
        addThroughput(
            "send",
            compare(
                watchdog, options.repetitions, [&] { return librarySend(node, sendCount, size); },
                [&] { return rawSend(context, node, sendCount, size); }),
            size);

        if (size < 1024 * 1024) {
            sendCounts.emplace_back(size, sendCount);
        }

        watchdog.arm();
        const std::uint64_t receiveCount =
            countFor(rawReceive(context, node, probe, size).rate(), options.seconds, most_received);
        addThroughput("receive",
                      compare(
                          watchdog, options.repetitions,
                          [&] { return libraryReceive(node, receiveCount, size); },
                          [&] { return rawReceive(context, node, receiveCount, size); }),
                      size);

        const std::size_t samples = size >= 1024 * 1024 ? 300 : 800;
        std::vector<double> libraryMicros, rawMicros;
        for (int chunk = 0; chunk < 8; ++chunk) {
            watchdog.arm();
            libraryLatency(node, samples / 8, size, libraryMicros);
            rawLatency(context, node, samples / 8, size, rawMicros);
        }
        const double libraryP50 = percentile(libraryMicros, 0.5);
        const double rawP50 = percentile(rawMicros, 0.5);
        const double libraryP99 = percentile(libraryMicros, 0.99);
        const double rawP99 = percentile(rawMicros, 0.99);
        latency.push_back(
            {"latency p50 " + label + " [us]", libraryP50, rawP50, libraryP50 / rawP50, "<=", 1.2});
        latency.push_back(
            {"latency p99 " + label + " [us]", libraryP99, rawP99, libraryP99 / rawP99});

        std::fprintf(stderr, "orvik-bench: %s done (%llu sent, %llu received a run)\n",
                     label.c_str(), static_cast<unsigned long long>(sendCount),
                     static_cast<unsigned long long>(receiveCount));
    }

    std::vector<Row> rows;
    for (const auto* group : {&throughput, &cpu, &latency, &allocations}) {
        rows.insert(rows.end(), group->begin(), group->end());
    }
    printTable(rows);
    std::fflush(stdout);

    // What the delivery-failure report costs a send: the same runs with and
    // without onUnacknowledged set.
    std::vector<Row> watched;
    for (const auto& [size, sendCount] : sendCounts) {
        const Comparison result = compare(
            watchdog, options.repetitions,
            [&, size = size, count = sendCount] { return librarySend(node, count, size, true); },
            [&, size = size, count = sendCount] { return librarySend(node, count, size, false); });
        const std::string label = sizeText(size);
        watched.push_back({"send " + label + " [msg/s]", result.library_rate, result.raw_rate,
                           result.library_rate / result.raw_rate, ">=", 0.95});
        watched.push_back({"send " + label + " [CPU us/msg]", result.library_cpu, result.raw_cpu,
                           result.library_cpu / result.raw_cpu});
    }
    std::printf("\nThe delivery-failure report (onUnacknowledged set, or not), same node:\n");
    printTable(watched, "with", "without");
    std::fflush(stdout);

    if (!options.devnode.empty()) {
        const DevNodeProcess devnode(options.devnode);
        // The library against orvik-devnode and against the minimal node; the
        // node's CPU per acknowledged message: orvik-devnode's serving thread
        // against the minimal node's, a raw libzmq ROUTER that answers with the
        // same frames (neither counts its libzmq I/O thread).
        std::vector<Row> through;
        for (const auto& [size, sendCount] : sendCounts) {
            const std::string label = sizeText(size);
            const Comparison result = compare(
                watchdog, options.repetitions,
                [&, size = size, count = sendCount] {
                    return withNodeCpu(devnode, [&] { return librarySend(devnode, count, size); });
                },
                [&, size = size, count = sendCount] {
                    return withNodeCpu(node, [&] { return librarySend(node, count, size); });
                });
            through.push_back({"send " + label + " [msg/s]", result.library_rate, result.raw_rate,
                               result.library_rate / result.raw_rate, ">=", 0.75});
            through.push_back({"node thread CPU per ack " + label + " [us]",
                               result.library_node_cpu, result.raw_node_cpu,
                               result.library_node_cpu / result.raw_node_cpu, "<=", 1.5});
            const std::size_t samples = 800;
            std::vector<double> devnodeMicros, minimalMicros;
            for (int chunk = 0; chunk < 8; ++chunk) {
                watchdog.arm();
                libraryLatency(devnode, samples / 8, size, devnodeMicros);
                libraryLatency(node, samples / 8, size, minimalMicros);
            }
            const double devnodeP50 = percentile(devnodeMicros, 0.5);
            const double minimalP50 = percentile(minimalMicros, 0.5);
            through.push_back({"latency p50 " + label + " [us]", devnodeP50, minimalP50,
                               devnodeP50 / minimalP50});
        }
        std::printf("\nThe library through orvik-devnode against the minimal node:\n");
        printTable(through, "devnode", "minimal node");
        std::fflush(stdout);

        // A burst with and without a write batch bound: how long
        // acknowledgements stall while the queue is written, and what the
        // bound costs in throughput. Medians of three runs each.
        constexpr std::size_t burst_size = 100;
        std::printf(
            "\nA burst of %llu messages of %s through orvik-devnode, queued before the loop\n"
            "starts and timed from its start, loop timeout %lld ms (medians of 3 runs):\n",
            static_cast<unsigned long long>(options.burst), sizeText(burst_size).c_str(),
            static_cast<long long>(loop_timeout.count()));
        std::printf("%-22s %14s %16s %14s %16s\n", "maxWriteBatch", "acked [msg/s]",
                    "longest gap [ms]", "first ack [ms]", "node thread CPU [us/msg]");
        for (const std::size_t batch : {std::size_t{0}, std::size_t{64}, std::size_t{256},
                                        std::size_t{1024}, std::size_t{4096}}) {
            std::vector<double> rate, gap, first, nodeCpu;
            for (int run = 0; run < 3; ++run) {
                watchdog.arm();
                const Burst burst =
                    libraryBurst(devnode, options.burst, burst_size, batch, loop_timeout);
                rate.push_back(burst.acknowledged_per_second);
                gap.push_back(burst.longest_gap_ms);
                first.push_back(burst.first_ack_ms);
                nodeCpu.push_back(burst.node_cpu_us);
            }
            const std::string name = batch == 0 ? "unset (all)" : std::to_string(batch);
            std::printf("%-22s %14.0f %16.2f %14.2f %16.2f\n", name.c_str(), percentile(rate, 0.5),
                        percentile(gap, 0.5), percentile(first, 0.5), percentile(nodeCpu, 0.5));
        }
        std::fflush(stdout);

        orvikbench::printWakeTables(devnode, watchdog, wakeOptions(options));
    }
    std::printf("\nload average (1 min): %s before, %s after\n", loadBefore.c_str(),
                loadAverage().c_str());
    std::fflush(stdout);
    // The clients' sockets are closed; the shared context of the library is
    // left for the process's exit, as the library intends.
    zmq_ctx_term(context);
    return 0;
}
