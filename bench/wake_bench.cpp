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
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

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
constexpr int hand_over_rounds = 5000;

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
    // How often the client's count of written messages had changed when an
    // acknowledgement callback ran: the writing steps of the loop that
    // acknowledgements came between, at most as many as its passes.
    std::uint64_t writes_between_acknowledgements = 0;
    // Context switches per message, of this process and of the node's.
    double switches = 0;
    double node_switches = 0;

    double rate() const { return seconds > 0 ? static_cast<double>(messages) / seconds : 0; }
};

// CPU time, in seconds, and context switches (of every thread, voluntary or
// not) of this process and of the node's.
struct CpuTime {
    double process = 0;
    double node = 0;
    double switches = 0;
    double node_switches = 0;
};

CpuTime cpuNow(const DevNodeProcess& node) {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return {processCpuSeconds(), node.processCpuSeconds(),
            static_cast<double>(usage.ru_nvcsw + usage.ru_nivcsw),
            static_cast<double>(node.contextSwitches())};
}

CpuTime cpuSince(const CpuTime& start, const DevNodeProcess& node) {
    const CpuTime now = cpuNow(node);
    return {now.process - start.process, now.node - start.node, now.switches - start.switches,
            now.node_switches - start.node_switches};
}

// The application's side of a run: when each message was sent and when its
// acknowledgement callback ran, and the window a sending thread waits on.
class Ledger {
public:
    Ledger(orvikm::Client& client, std::uint64_t count)
        : _client(client), _sent(count), _acknowledged(count) {}
    Ledger(const Ledger&) = delete;
    Ledger& operator=(const Ledger&) = delete;

    std::uint64_t size() const { return _sent.size(); }
    std::uint64_t acknowledged() const { return _count.load(std::memory_order_acquire); }
    bool complete() const { return acknowledged() == size(); }

    // Queues message i.
    void send(std::vector<char>& body, std::uint64_t i) {
        _sent[i] = Clock::now();
        _client.send(
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
    void sendAll(std::vector<char>& body, std::uint64_t window) {
        for (std::uint64_t i = 0; i < size(); ++i) {
            waitForRoom(i, window);
            send(body, i);
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
        flight.writes_between_acknowledgements = _writes;
        flight.switches = cpu.switches / static_cast<double>(size());
        flight.node_switches = cpu.node_switches / static_cast<double>(size());
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
        // The I/O thread's own counter: read without a lock, a few loads.
        const std::uint64_t written = _client.stats().written;
        if (written != _written) {
            _written = written;
            ++_writes;
        }
        {
            std::lock_guard<std::mutex> guard(_mutex);
            if (_count.load(std::memory_order_relaxed) + 1 == size()) {
                _last = now;
            }
            _count.fetch_add(1, std::memory_order_release);
        }
        _room.notify_one();
    }

    orvikm::Client& _client;
    std::vector<Clock::time_point> _sent;
    std::vector<Clock::time_point> _acknowledged;
    // Used by the I/O thread alone.
    std::uint64_t _written = 0;
    std::uint64_t _writes = 0;
    Clock::time_point _last;
    std::atomic<std::uint64_t> _count{0};
    std::mutex _mutex;
    std::condition_variable _room;
};

// With `bounded`, the queue has bounds it never reaches and the connection
// monitor runs: what the two cost a send.
orvikm::Client::Options wakingOptions(bool wake, bool bounded = false) {
    orvikm::Client::Options options;
    options.wakeOnSend = wake;
    if (bounded) {
        options.maxQueued = std::numeric_limits<std::size_t>::max() / 2;
        options.maxQueuedBytes = std::numeric_limits<std::size_t>::max() / 2;
    }
    return options;
}

// The application's thread (this one) sends while blockThreadForIO runs on
// another thread.
Flight fromApplicationThread(const DevNodeProcess& node, std::uint64_t count, std::size_t size,
                             std::uint64_t window, bool wake, bool bounded = false) {
    const std::unique_ptr<orvikm::Client> client =
        newClient(node, false, wakingOptions(wake, bounded));
    if (bounded) {
        client->onConnectionChange([](orvikm::Client::ConnectionState) {});
    }
    std::vector<char> body(size, 'x');
    Ledger warm(*client, warm_up_messages);
    Ledger measured(*client, count);
    std::thread loop([&] { client->blockThreadForIO(failOnError, loop_timeout); });
    warm.sendAll(body, 1);
    const CpuTime start = cpuNow(node);
    measured.sendAll(body, window);
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
            ledger.send(body, i);
            if (!client->flush(flush_limit, failOnError).complete) {
                fail("I/O thread round trip: no acknowledgement");
            }
        }
    };
    Ledger warm(*client, warm_up_messages);
    Ledger measured(*client, count);
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
    Ledger warm(*client, warm_up_messages);
    Ledger measured(*client, count);
    CpuTime used;
    std::thread worker([&] {
        warm.sendAll(body, 1);
        const CpuTime start = cpuNow(node);
        measured.sendAll(body, window);
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
            ledger.send(body, i);
            pollLoop(*client, [&ledger, i] { return ledger.acknowledged() > i; });
        }
    };
    Ledger warm(*client, warm_up_messages);
    Ledger measured(*client, count);
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
    const auto applicationThread = [&node, size](std::uint64_t window, bool wake,
                                                 bool bounded = false) -> Runner {
        return [&node, size, window, wake, bounded](std::uint64_t count) {
            return fromApplicationThread(node, count, size, window, wake, bounded);
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
    if (kind == "burst-bounded") {
        return applicationThread(no_window, false, true);
    }
    if (kind == "wide-bounded") {
        return applicationThread(wide_window, false, true);
    }
    return nullptr;
}

// What the runs of one kind measured.
struct Measured {
    double rate = 0;
    double cpu_microseconds = std::numeric_limits<double>::max();
    double node_cpu_microseconds = std::numeric_limits<double>::max();
    std::vector<double> microseconds;
    std::uint64_t messages = 0;
    std::uint64_t writes_between_acknowledgements = 0;

    double p50() const { return percentile(microseconds, 0.5); }
    // Messages a writing step of the loop wrote, on average, as far as the
    // acknowledgement callbacks saw.
    double perWrite() const {
        return static_cast<double>(messages) /
               static_cast<double>(std::max<std::uint64_t>(writes_between_acknowledgements, 1));
    }
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
            side.messages += flight.messages;
            side.writes_between_acknowledgements += flight.writes_between_acknowledgements;
        }
    }
    return measured;
}

// What one hand-over between two threads costs on this machine, in
// microseconds: the two that a message sent by the application's thread
// pays and the I/O thread's own does not. Medians of `rounds` round trips,
// each two hand-overs.
struct HandOver {
    // The application's thread waking the loop: a write to an eventfd that
    // the other thread waits for in poll(2).
    double eventfd = 0;
    // An acknowledgement callback waking the application's thread: a
    // condition variable.
    double condition_variable = 0;
};

HandOver measureHandOver(int rounds) {
    const auto median = [](std::vector<double> microseconds) {
        return percentile(std::move(microseconds), 0.5) / 2;
    };
    HandOver result;
    {
        const int there = ::eventfd(0, EFD_CLOEXEC);
        const int back = ::eventfd(0, EFD_CLOEXEC);
        const auto pass = [](int to, int from) {
            const std::uint64_t one = 1;
            std::uint64_t got = 0;
            pollfd item{from, POLLIN, 0};
            if (::write(to, &one, sizeof one) != sizeof one || ::poll(&item, 1, 10000) != 1 ||
                ::read(from, &got, sizeof got) != sizeof got) {
                fail("eventfd hand-over failed");
            }
        };
        std::thread other([&] {
            std::uint64_t got = 0;
            for (int i = 0; i < rounds; ++i) {
                pollfd item{there, POLLIN, 0};
                if (::poll(&item, 1, 10000) != 1 || ::read(there, &got, sizeof got) != sizeof got) {
                    fail("eventfd hand-over failed");
                }
                const std::uint64_t one = 1;
                if (::write(back, &one, sizeof one) != sizeof one) {
                    fail("eventfd hand-over failed");
                }
            }
        });
        std::vector<double> microseconds;
        for (int i = 0; i < rounds; ++i) {
            const Clock::time_point start = Clock::now();
            pass(there, back);
            microseconds.push_back(
                std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        }
        other.join();
        ::close(there);
        ::close(back);
        result.eventfd = median(std::move(microseconds));
    }
    {
        std::mutex mutex;
        std::condition_variable changed;
        std::uint64_t turn = 0;
        std::thread other([&] {
            for (int i = 0; i < rounds; ++i) {
                std::unique_lock<std::mutex> lock(mutex);
                changed.wait(lock, [&] { return turn % 2 == 1; });
                ++turn;
                lock.unlock();
                changed.notify_one();
            }
        });
        std::vector<double> microseconds;
        for (int i = 0; i < rounds; ++i) {
            const Clock::time_point start = Clock::now();
            std::unique_lock<std::mutex> lock(mutex);
            ++turn;
            lock.unlock();
            changed.notify_one();
            lock.lock();
            changed.wait(lock, [&] { return turn % 2 == 0; });
            microseconds.push_back(
                std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        }
        other.join();
        result.condition_variable = median(std::move(microseconds));
    }
    return result;
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
    const std::vector<Measured> wide = alternate(
        watchdog, options, devnode, 5000, {"wide", "wide-woken", "wide-poll", "wide-bounded"});
    const Measured& wideWithout = wide[0];
    const Measured& wideWoken = wide[1];
    const Measured& widePoll = wide[2];
    const Measured& wideBounded = wide[3];
    const std::vector<Measured> burst =
        alternate(watchdog, options, devnode, 5000, {"burst", "burst-woken", "burst-bounded"});
    const Measured& burstWithout = burst[0];
    const Measured& burstWoken = burst[1];
    const Measured& burstBounded = burst[2];

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
    // Without wakeOnSend, a cycle writes what is queued, reads the
    // acknowledgements, and then waits out the quiet timeout, though the
    // application queued the next messages long before.
    const double cycleMs = 1e3 * wideWithout.perWrite() / wideWithout.rate;
    const double timeoutMs = static_cast<double>(loop_timeout.count());
    std::printf(
        "Without wakeOnSend, %s writes %.0f messages a cycle of %.2f ms at its best rate, %.0f ms\n"
        "of it the quiet timeout: ending that wait gains at most %.2f times at the same cost\n"
        "a message. Messages a write: %.0f with wakeOnSend; a burst %.0f without, %.0f with.\n",
        thousand.c_str(), wideWithout.perWrite(), cycleMs, timeoutMs,
        cycleMs / std::max(cycleMs - timeoutMs, 1e-3), wideWoken.perWrite(),
        burstWithout.perWrite(), burstWoken.perWrite());

    std::printf(
        "\nOne in flight: the application's thread with wakeOnSend against the I/O thread\n"
        "sending for itself (within 1.3 times: rate >= 1/1.3, p50 <= 1.3):\n");
    printTable({rateRow("1 in flight", oneWoken, oneIoThread, ">=", 1 / 1.3),
                p50Row("1 in flight", oneWoken, oneIoThread, "<=", 1.3),
                cpuRow("1 in flight", oneWoken, oneIoThread)},
               "wakeOnSend", "I/O thread");
    watchdog.arm();
    const HandOver handOver = measureHandOver(hand_over_rounds);
    std::printf(
        "The application's thread pays two hand-overs between threads that the I/O thread\n"
        "does not: on this machine an eventfd read in poll(2) takes %.1f us (p50), a\n"
        "condition variable %.1f us; the p50 round trips differ by %.1f us.\n",
        handOver.eventfd, handOver.condition_variable, oneWoken.p50() - oneIoThread.p50());

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

    std::printf(
        "\nA bounded queue (Options::maxQueued and maxQueuedBytes, never reached) and the\n"
        "connection monitor (onConnectionChange) against neither, without wakeOnSend (a few\n"
        "percent at most: rate >= 0.95):\n");
    printTable({rateRow("burst, no window", burstBounded, burstWithout, ">=", 0.95),
                cpuRow("burst, no window", burstBounded, burstWithout),
                rateRow(thousand, wideBounded, wideWithout, ">=", 0.95),
                cpuRow(thousand, wideBounded, wideWithout)},
               "bounded", "unbounded");
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
        "%s %s: %.0f msg/s, p50 %.1f us, p99 %.1f us, CPU %.2f us a message, node CPU %.2f, "
        "context switches %.3f a message, node %.3f, "
        "%.1f messages a write between acknowledgements\n",
        kind.c_str(), sizeText(size).c_str(), flight.rate(), percentile(flight.microseconds, 0.5),
        percentile(flight.microseconds, 0.99), flight.cpu_microseconds,
        flight.node_cpu_microseconds, flight.switches, flight.node_switches,
        static_cast<double>(flight.messages) / static_cast<double>(std::max<std::uint64_t>(
                                                   flight.writes_between_acknowledgements, 1)));
    return true;
}

}  // namespace orvikbench
