// orvik bench: a worker thread queues messages with send() (at most a window
// of them unacknowledged), the main thread runs blockThreadForIO, and each
// acknowledgement callback records how long its message took.
#include <unistd.h>

#include <atomic>
#include <climits>
#include <condition_variable>
#include <exception>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <orvikm/errors.hpp>
#include <orvikm/orvikm.hpp>

#include "common.hpp"
#include "output.hpp"

namespace orvik {

namespace {

using Steady = std::chrono::steady_clock;

// A pass writes at most this many messages before it reads, so that
// acknowledgements flow while a long queue is written (docs/PERFORMANCE.md
// has the figures behind the size); with a read step of at most a millisecond
// the loop goes back to writing at once.
constexpr std::size_t kWriteBatch = 1024;
constexpr std::chrono::milliseconds kMaxReadTime(1);
constexpr std::chrono::milliseconds kLoopTimeout(1);
constexpr std::chrono::seconds kValidFor(60);

const char* const kFooter =
    R"(A worker thread queues COUNT messages of BYTES bytes each along ROUTE, with
acknowledgement by the node, as fast as the library takes them (with
--window W: never more than W unacknowledged); the main thread runs the
client's I/O loop. orvik bench then prints how many were acknowledged, the
rate in acknowledged messages and payload megabytes (10^6 bytes) per second
from the first send to the last acknowledgement, and the latency from each
send() call to its acknowledgement callback (p50, p99, max). Without a
window the latency includes the time a message waits in the queue.

When standard error is a terminal, a progress line there shows how far it
got. It exits 1, after printing what it measured, when the deadline
(--timeout) or Ctrl-C comes before every message is acknowledged.

JSON format: one object with the keys messages, acknowledged, size, window
(null without one), seconds, messages_per_second, mb_per_second and
latency_ms (p50, p99, max).

Example: orvik bench -l 5555 -d 5556 -n 20000 --window 1000)";

class BenchCommand : public Command {
public:
    void define(CLI::App& subcommand) override {
        subcommand.add_option("-n,--count", _count, "How many messages to send")
            ->capture_default_str()
            ->check(CLI::Range(1ull, 100000000ull));
        subcommand.add_option("--size", _size, "Payload bytes of each message")
            ->capture_default_str()
            ->check(CLI::Range(0u, 1u << 30));
        _windowOption =
            subcommand.add_option("--window", _window, "At most this many messages unacknowledged")
                ->check(CLI::Range(std::size_t{1}, std::size_t{100000000}));
        subcommand.add_option("-r,--route", _route, "The push route of every message")
            ->capture_default_str();
        subcommand.add_option("--format", _format, "text or json")
            ->capture_default_str()
            ->check(CLI::IsMember({"text", "json"}));
        subcommand.footer(kFooter);
    }

    int run(const Common& common) override {
        const Deadline deadline(common.timeoutSeconds);
        const std::optional<std::size_t> window =
            _windowOption->count() > 0 ? std::optional<std::size_t>(_window) : std::nullopt;
        orvikm::Client::Options options;
        options.maxWriteBatch = kWriteBatch;
        options.maxReadTime = kMaxReadTime;
        std::unique_ptr<orvikm::Client> client = makeClient(common, {}, options);
        orvikm::Client& sender = *client;

        _latencies.reserve(_count);
        const Steady::time_point start = Steady::now();
        try {
            // The first message on this thread: a route the node would refuse
            // is a mistake on the command line.
            queue(sender, 0);
        } catch (const orvikm::Exception& refused) {
            throw CLI::ValidationError(oneLine(refused));
        }
        // What ends the worker early is reported once the loop is over: an
        // exception must not leave a thread.
        std::string workerError;
        std::atomic<bool> workerFailed{false};
        std::thread worker([&] {
            try {
                for (unsigned long long i = 1; i < _count; ++i) {
                    if (!waitForRoom(window)) {
                        return;
                    }
                    queue(sender, i);
                }
            } catch (const std::exception& failure) {
                workerError = unexpectedError(failure);
                workerFailed.store(true);
                sender.terminate();
            }
        });

        std::string error;
        std::string stopped;
        {
            const bool progress = ::isatty(STDERR_FILENO) != 0;
            const LoopStopper stopper(*client, deadline, [&] {
                // A terminate() before the loop began is forgotten by it.
                if (workerFailed.load()) {
                    sender.terminate();
                }
                if (progress) {
                    std::cerr << "\r"
                              << output::benchProgress(_queued.load(), _acked.load(), _count)
                              << std::flush;
                }
            });
            try {
                client->blockThreadForIO(
                    [&](orviku::Exception& failure) { error = oneLine(failure); }, kLoopTimeout);
            } catch (const std::exception& failure) {
                error = unexpectedError(failure);
            }
            stopped = stopper.describe();
            if (progress) {
                std::cerr << "\r" << output::benchProgress(_queued.load(), _acked.load(), _count)
                          << std::endl;
            }
        }
        {
            std::lock_guard<std::mutex> guard(_room_mutex);
            _stop = true;
        }
        _room.notify_all();
        worker.join();

        const Steady::time_point end = _acked.load() == _count ? _last_ack : Steady::now();
        const output::BenchFigures figures = output::benchFigures(
            _count, _size, window, std::chrono::duration<double>(end - start).count(), _latencies);
        if (_format == "json") {
            writeOutput(output::benchJson(figures).dump(4) + "\n");
        } else {
            writeOutput(output::benchText(figures));
        }

        if (error.empty()) {
            error = workerError;
        }
        if (error.empty() && _acked.load() < _count) {
            error = stopped.empty() ? "stopped" : stopped;
        }
        if (!error.empty()) {
            reportFailure("bench", error + " (acknowledged " + std::to_string(_acked.load()) +
                                       " of " + std::to_string(_count) + ")");
            return kFailure;
        }
        return kSuccess;
    }

private:
    // Waits until fewer than `window` messages are unacknowledged; false when
    // the run is over.
    bool waitForRoom(const std::optional<std::size_t>& window) {
        std::unique_lock<std::mutex> lock(_room_mutex);
        if (window) {
            _room.wait(lock, [&] { return _stop || _queued.load() - _acked.load() < *window; });
        }
        return !_stop;
    }

    void queue(orvikm::Client& client, unsigned long long index) {
        orvikm::Payload payload(_size, "application/octet-stream");
        std::fill_n(payload.getBuffer(), _size, static_cast<char>('a' + index % 26));
        orvikm::Message message(std::move(payload),
                                orvikm::Message::Config(client.id(), {_route}, kValidFor,
                                                        orvikm::Message::AckMode::ByNode));
        ++_queued;
        const Steady::time_point sent = Steady::now();
        // Runs on the I/O thread with the callback table's lock held: it only
        // records, and wakes the worker when the window has room again.
        client.send(std::move(message), [this, &client, sent] {
            const Steady::time_point now = Steady::now();
            _latencies.push_back(now - sent);
            {
                std::lock_guard<std::mutex> guard(_room_mutex);
                ++_acked;
            }
            _room.notify_one();
            if (_acked.load() == _count) {
                _last_ack = now;
                client.terminate();
            }
        });
    }

    unsigned long long _count = 100000;
    unsigned _size = 100;
    CLI::Option* _windowOption = nullptr;
    std::size_t _window = 0;
    std::string _route = "orvik-bench";
    std::string _format = "text";

    std::atomic<unsigned long long> _queued{0};
    std::atomic<unsigned long long> _acked{0};
    // Written by the acknowledgement callbacks on the I/O thread, read once
    // the loop has returned.
    std::vector<std::chrono::nanoseconds> _latencies;
    Steady::time_point _last_ack;
    std::mutex _room_mutex;
    std::condition_variable _room;
    bool _stop = false;
};

}  // namespace

std::unique_ptr<Command> makeBenchCommand() {
    return std::make_unique<BenchCommand>();
}

}  // namespace orvik
