// How a message the application sends reaches the I/O loop, through
// orvik-devnode, in the ways an application can arrange it:
//   - its own thread sends while blockThreadForIO runs on another, with and
//     without Client::Options::wakeOnSend. With at most `window` messages
//     unacknowledged, the sending thread waits on a condition variable that
//     the acknowledgement callbacks signal, as an application waiting for
//     its answers would;
//   - the I/O thread sends for itself: it sends a message, then runs the loop
//     until its acknowledgement callback has run, and sends the next. No
//     thread hands a message to another: the limit of a loop that the
//     application's thread feeds;
//   - its own event loop: a plain poll(2) over eventHandle() that calls
//     processEvents(), fed by a worker thread or by the loop's own thread.
// Each kind of run alternates with the others of its table, the order turning
// with each repetition; rates are the best run of each side, percentiles are
// over every round trip of every run.
#include "wake_bench.hpp"

#include <poll.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <limits>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace orvikbench {

namespace {

// Round trips, one at a time, before a run's clock starts: the connection is
// set up and the node knows the application.
constexpr std::uint64_t warm_up_messages = 20;
constexpr std::uint64_t least_messages = 100;
constexpr std::uint64_t most_messages = 200'000;
constexpr std::uint64_t wide_window = 1000;
// No bound: every message may be unacknowledged at once.
constexpr std::uint64_t no_window = std::numeric_limits<std::uint64_t>::max();
// Far longer than a round trip: a flush that takes this long lost a message.
constexpr std::chrono::seconds flush_limit{10};

struct Flight {
    double seconds = 0;
    std::uint64_t messages = 0;
    // From each send() until its acknowledgement callback.
    std::vector<double> microseconds;
    // CPU time of this process (the application's threads and libzmq's, not
    // the node's) per message.
    double cpu_microseconds = 0;
    // CPU time of the node's whole process per message (in 10 ms ticks).
    double node_cpu_microseconds = 0;

    double rate() const { return seconds > 0 ? static_cast<double>(messages) / seconds : 0; }
};

// CPU time, in seconds, of this process and of the node's.
struct CpuTime {
    double process = 0;
    double node = 0;
};

CpuTime cpuNow(const DevNodeProcess& node) {
    return {processCpuSeconds(), node.processCpuSeconds()};
}

CpuTime cpuSince(const CpuTime& start, const DevNodeProcess& node) {
    const CpuTime now = cpuNow(node);
    return {now.process - start.process, now.node - start.node};
}

// The application's side of a run: when each message was sent and when its
// acknowledgement callback ran, and the window a sending thread waits on.
class Ledger {
public:
    explicit Ledger(std::uint64_t count) : _sent(count), _acknowledged(count) {}
    Ledger(const Ledger&) = delete;
    Ledger& operator=(const Ledger&) = delete;

    std::uint64_t size() const { return _sent.size(); }
    std::uint64_t acknowledged() const { return _count.load(std::memory_order_acquire); }
    bool complete() const { return acknowledged() == size(); }

    // Queues message i.
    void send(orvikm::Client& client, std::vector<char>& body, std::uint64_t i) {
        _sent[i] = Clock::now();
        client.send(
            sharedPayload(body), {std::string(bench_topic)},
            std::chrono::seconds(bench_valid_for_seconds), [this, i] { acknowledge(i); },
            orvikm::Message::AckMode::ByNode);
    }

    // Blocks until fewer than `window` of the first `sent` messages are
    // unacknowledged.
    void waitForRoom(std::uint64_t sent, std::uint64_t window) {
        if (sent - acknowledged() < window) {
            return;
        }
        std::unique_lock<std::mutex> lock(_mutex);
        _room.wait(lock, [&] { return sent - acknowledged() < window; });
    }

    // Sends every message from the calling thread, at most `window` of them
    // unacknowledged, and returns once the last is acknowledged.
    void sendAll(orvikm::Client& client, std::vector<char>& body, std::uint64_t window) {
        for (std::uint64_t i = 0; i < size(); ++i) {
            waitForRoom(i, window);
            send(client, body, i);
        }
        waitForRoom(size(), 1);
    }

    // Call once complete(), on a thread that has seen it.
    Flight result(const CpuTime& cpu) const {
        Flight flight;
        flight.messages = size();
        flight.seconds = secondsBetween(_sent.front(), _last);
        flight.cpu_microseconds = 1e6 * cpu.process / static_cast<double>(size());
        flight.node_cpu_microseconds = 1e6 * cpu.node / static_cast<double>(size());
        flight.microseconds.reserve(size());
        for (std::uint64_t i = 0; i < size(); ++i) {
            flight.microseconds.push_back(
                std::chrono::duration<double, std::micro>(_acknowledged[i] - _sent[i]).count());
        }
        return flight;
    }

private:
    void acknowledge(std::uint64_t i) {
        const Clock::time_point now = Clock::now();
        _acknowledged[i] = now;
        {
            std::lock_guard<std::mutex> guard(_mutex);
            if (_count.load(std::memory_order_relaxed) + 1 == size()) {
                _last = now;
            }
            _count.fetch_add(1, std::memory_order_release);
        }
        _room.notify_one();
    }

    std::vector<Clock::time_point> _sent;
    std::vector<Clock::time_point> _acknowledged;
    Clock::time_point _last;
    std::atomic<std::uint64_t> _count{0};
    std::mutex _mutex;
    std::condition_variable _room;
};

orvikm::Client::Options wakingOptions(bool wake) {
    orvikm::Client::Options options;
    options.wakeOnSend = wake;
    return options;
}

// The application's thread (this one) sends while blockThreadForIO runs on
// another thread.
Flight fromApplicationThread(const DevNodeProcess& node, std::uint64_t count, std::size_t size,
                             std::uint64_t window, bool wake) {
    const std::unique_ptr<orvikm::Client> client = newClient(node, false, wakingOptions(wake));
    std::vector<char> body(size, 'x');
    Ledger warm(warm_up_messages);
    Ledger measured(count);
    std::thread loop([&] { client->blockThreadForIO(failOnError, loop_timeout); });
    warm.sendAll(*client, body, 1);
    const CpuTime start = cpuNow(node);
    measured.sendAll(*client, body, window);
    const CpuTime used = cpuSince(start, node);
    client->terminate();
    loop.join();
    return measured.result(used);
}

// The I/O thread (this one) sends each message and runs the loop until its
// acknowledgement callback has run. The callback cannot send the next one
// itself: it runs under the callback table's lock, which a send with a
// callback takes. The loop is flush(), which returns as soon as nothing is
// queued or awaits its acknowledgement.
Flight fromIoThread(const DevNodeProcess& node, std::uint64_t count, std::size_t size) {
    const std::unique_ptr<orvikm::Client> client = newClient(node, false);
    std::vector<char> body(size, 'x');
    const auto roundTrips = [&](Ledger& ledger) {
        for (std::uint64_t i = 0; i < ledger.size(); ++i) {
            ledger.send(*client, body, i);
            if (!client->flush(flush_limit, failOnError).complete) {
                fail("I/O thread round trip: no acknowledgement");
            }
        }
    };
    Ledger warm(warm_up_messages);
    Ledger measured(count);
    roundTrips(warm);
    const CpuTime start = cpuNow(node);
    roundTrips(measured);
    return measured.result(cpuSince(start, node));
}

// The application's own event loop: poll(2) on eventHandle(), processEvents()
// whenever it is readable or the wait processEvents() returned has passed,
// until `done`.
void pollLoop(orvikm::Client& client, const std::function<bool()>& done) {
    const int handle = client.eventHandle();
    std::chrono::milliseconds wait(0);
    while (!done()) {
        pollfd item{handle, POLLIN, 0};
        ::poll(&item, 1, static_cast<int>(wait.count()));
        wait = client.processEvents(failOnError);
    }
}

// A worker thread sends while this thread runs the poll loop.
Flight eventLoopFromWorker(const DevNodeProcess& node, std::uint64_t count, std::size_t size,
                           std::uint64_t window) {
    const std::unique_ptr<orvikm::Client> client = newClient(node, false);
    // Made before anything is sent, so that every send() signals it.
    client->eventHandle();
    std::vector<char> body(size, 'x');
    Ledger warm(warm_up_messages);
    Ledger measured(count);
    CpuTime used;
    std::thread worker([&] {
        warm.sendAll(*client, body, 1);
        const CpuTime start = cpuNow(node);
        measured.sendAll(*client, body, window);
        used = cpuSince(start, node);
    });
    pollLoop(*client, [&] { return measured.complete(); });
    worker.join();
    return measured.result(used);
}

// This thread sends each message and runs the poll loop until its
// acknowledgement callback has run.
Flight eventLoopSameThread(const DevNodeProcess& node, std::uint64_t count, std::size_t size) {
    const std::unique_ptr<orvikm::Client> client = newClient(node, false);
    client->eventHandle();
    std::vector<char> body(size, 'x');
    const auto roundTrips = [&](Ledger& ledger) {
        for (std::uint64_t i = 0; i < ledger.size(); ++i) {
            ledger.send(*client, body, i);
            pollLoop(*client, [&ledger, i] { return ledger.acknowledged() > i; });
        }
    };
    Ledger warm(warm_up_messages);
    Ledger measured(count);
    roundTrips(warm);
    const CpuTime start = cpuNow(node);
    roundTrips(measured);
    return measured.result(cpuSince(start, node));
}

// One kind of run, given its message count.
using Runner = std::function<Flight(std::uint64_t)>;

// The kinds of run by the names --profile takes; an empty runner for an
// unknown name.
Runner runnerFor(const std::string& kind, const DevNodeProcess& node, std::size_t size) {
    const auto applicationThread = [&node, size](std::uint64_t window, bool wake) -> Runner {
        return [&node, size, window, wake](std::uint64_t count) {
            return fromApplicationThread(node, count, size, window, wake);
        };
    };
    if (kind == "one") {
        return applicationThread(1, false);
    }
    if (kind == "one-woken") {
        return applicationThread(1, true);
    }
    if (kind == "one-io-thread") {
        return [&node, size](std::uint64_t count) { return fromIoThread(node, count, size); };
    }
    if (kind == "one-poll") {
        return [&node, size](std::uint64_t count) {
            return eventLoopFromWorker(node, count, size, 1);
        };
    }
    if (kind == "one-poll-same-thread") {
        return
            [&node, size](std::uint64_t count) { return eventLoopSameThread(node, count, size); };
    }
    if (kind == "wide") {
        return applicationThread(wide_window, false);
    }
    if (kind == "wide-woken") {
        return applicationThread(wide_window, true);
    }
    if (kind == "wide-poll") {
        return [&node, size](std::uint64_t count) {
            return eventLoopFromWorker(node, count, size, wide_window);
        };
    }
    if (kind == "burst") {
        return applicationThread(no_window, false);
    }
    if (kind == "burst-woken") {
        return applicationThread(no_window, true);
    }
    return nullptr;
}

// What the runs of one kind measured.
struct Measured {
    double rate = 0;
    double cpu_microseconds = std::numeric_limits<double>::max();
    double node_cpu_microseconds = std::numeric_limits<double>::max();
    std::vector<double> microseconds;

    double p50() const { return percentile(microseconds, 0.5); }
};

// Runs every kind `repetitions` times, each repetition in an order turned by
// one, after one probe run a kind (of `probe` messages) that sizes its runs
// to about `seconds`.
std::vector<Measured> alternate(Watchdog& watchdog, const WakeBenchOptions& options,
                                const DevNodeProcess& node, std::uint64_t probe,
                                const std::vector<std::string>& kinds) {
    std::vector<Runner> runners;
    std::vector<std::uint64_t> counts;
    for (const std::string& kind : kinds) {
        runners.push_back(runnerFor(kind, node, options.size));
        watchdog.arm();
        const double rate = runners.back()(probe).rate();
        counts.push_back(std::clamp<std::uint64_t>(
            static_cast<std::uint64_t>(rate * options.seconds), least_messages, most_messages));
    }
    std::vector<Measured> measured(kinds.size());
    for (int repetition = 0; repetition < options.repetitions; ++repetition) {
        for (std::size_t k = 0; k < kinds.size(); ++k) {
            const std::size_t which = (static_cast<std::size_t>(repetition) + k) % kinds.size();
            watchdog.arm();
            const Flight flight = runners[which](counts[which]);
            Measured& side = measured[which];
            side.rate = std::max(side.rate, flight.rate());
            side.cpu_microseconds = std::min(side.cpu_microseconds, flight.cpu_microseconds);
            side.node_cpu_microseconds =
                std::min(side.node_cpu_microseconds, flight.node_cpu_microseconds);
            side.microseconds.insert(side.microseconds.end(), flight.microseconds.begin(),
                                     flight.microseconds.end());
        }
    }
    return measured;
}

Row rateRow(const std::string& name, const Measured& left, const Measured& right,
            const std::string& comparison = "", double bound = 0) {
    return {name + " [msg/s]", left.rate, right.rate, left.rate / right.rate, comparison, bound};
}

Row p50Row(const std::string& name, const Measured& left, const Measured& right,
           const std::string& comparison = "", double bound = 0) {
    return {name + " p50 [us]",       left.p50(), right.p50(),
            left.p50() / right.p50(), comparison, bound};
}

Row cpuRow(const std::string& name, const Measured& left, const Measured& right) {
    return {name + " [CPU us/msg]", left.cpu_microseconds, right.cpu_microseconds,
            left.cpu_microseconds / right.cpu_microseconds};
}

Row nodeCpuRow(const std::string& name, const Measured& left, const Measured& right) {
    return {name + " node [CPU us/msg]", left.node_cpu_microseconds, right.node_cpu_microseconds,
            left.node_cpu_microseconds / right.node_cpu_microseconds};
}

}  // namespace

void printWakeTables(const DevNodeProcess& devnode, Watchdog& watchdog,
                     const WakeBenchOptions& options) {
    std::printf(
        "\nHow a message the application sends reaches the I/O loop, through orvik-devnode,\n"
        "%s payloads, loop timeout %lld ms. The application's thread sends while\n"
        "blockThreadForIO runs on another thread, with Options::wakeOnSend or without; the\n"
        "I/O thread sends each message itself and flushes until it is acknowledged; a poll(2)\n"
        "loop over eventHandle() calls processEvents(). Rates: the best of %d runs a side of\n"
        "about %.1f s, the sides alternating; p50: send() to acknowledgement callback, every\n"
        "round trip of those runs; CPU: the least CPU time per message of this process (the\n"
        "client's) and of orvik-devnode's (node).\n",
        sizeText(options.size).c_str(), static_cast<long long>(loop_timeout.count()),
        options.repetitions, options.seconds);
    std::fflush(stdout);

    const std::vector<Measured> one =
        alternate(watchdog, options, devnode, 50,
                  {"one", "one-woken", "one-io-thread", "one-poll", "one-poll-same-thread"});
    const Measured& oneWithout = one[0];
    const Measured& oneWoken = one[1];
    const Measured& oneIoThread = one[2];
    const Measured& onePoll = one[3];
    const Measured& onePollSame = one[4];
    const std::vector<Measured> wide =
        alternate(watchdog, options, devnode, 5000, {"wide", "wide-woken", "wide-poll"});
    const Measured& wideWithout = wide[0];
    const Measured& wideWoken = wide[1];
    const Measured& widePoll = wide[2];
    const std::vector<Measured> burst =
        alternate(watchdog, options, devnode, 5000, {"burst", "burst-woken"});
    const Measured& burstWithout = burst[0];
    const Measured& burstWoken = burst[1];

    const std::string thousand = std::to_string(wide_window) + " in flight";
    std::printf("\nThe application's thread sends, the loop runs on another: wakeOnSend or not:\n");
    printTable(
        {rateRow("1 in flight", oneWoken, oneWithout, ">=", 10),
         p50Row("1 in flight", oneWoken, oneWithout), cpuRow("1 in flight", oneWoken, oneWithout),
         rateRow(thousand, wideWoken, wideWithout, ">=", 1.3),
         p50Row(thousand, wideWoken, wideWithout), cpuRow(thousand, wideWoken, wideWithout),
         nodeCpuRow(thousand, wideWoken, wideWithout),
         rateRow("burst, no window", burstWoken, burstWithout, ">=", 0.95),
         cpuRow("burst, no window", burstWoken, burstWithout),
         nodeCpuRow("burst, no window", burstWoken, burstWithout)},
        "wakeOnSend", "without");

    std::printf(
        "\nOne in flight: the application's thread with wakeOnSend against the I/O thread\n"
        "sending for itself (within 1.3 times: rate >= 1/1.3, p50 <= 1.3):\n");
    printTable({rateRow("1 in flight", oneWoken, oneIoThread, ">=", 1 / 1.3),
                p50Row("1 in flight", oneWoken, oneIoThread, "<=", 1.3),
                cpuRow("1 in flight", oneWoken, oneIoThread)},
               "wakeOnSend", "I/O thread");

    std::printf(
        "\nThe application's own event loop (poll over eventHandle, processEvents) against\n"
        "blockThreadForIO with wakeOnSend; a worker thread sends, or the loop's own thread:\n");
    printTable({rateRow("1 in flight, worker", onePoll, oneWoken),
                p50Row("1 in flight, worker", onePoll, oneWoken),
                cpuRow("1 in flight, worker", onePoll, oneWoken),
                rateRow("1 in flight, same thread", onePollSame, oneIoThread),
                p50Row("1 in flight, same thread", onePollSame, oneIoThread),
                cpuRow("1 in flight, same thread", onePollSame, oneIoThread),
                rateRow(thousand + ", worker", widePoll, wideWoken),
                p50Row(thousand + ", worker", widePoll, wideWoken),
                cpuRow(thousand + ", worker", widePoll, wideWoken)},
               "poll loop", "I/O loop");
    std::fflush(stdout);
}

bool runWakeProfile(const std::string& kind, const DevNodeProcess& devnode, std::uint64_t count,
                    std::size_t size) {
    const Runner runner = runnerFor(kind, devnode, size);
    if (!runner) {
        return false;
    }
    const Flight flight = runner(count);
    std::printf(
        "%s %s: %.0f msg/s, p50 %.1f us, p99 %.1f us, CPU %.2f us a message, node CPU %.2f\n",
        kind.c_str(), sizeText(size).c_str(), flight.rate(), percentile(flight.microseconds, 0.5),
        percentile(flight.microseconds, 0.99), flight.cpu_microseconds,
        flight.node_cpu_microseconds);
    return true;
}

}  // namespace orvikbench
