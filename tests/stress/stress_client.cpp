// orvik-stress-client: one application under load. Several threads call
// Client::send with acknowledgement callbacks while the I/O loop runs on a
// thread of its own; every callback counts the acknowledgement of its own
// message. Prints checkpoints and one result line, and exits with 0 only
// when every message was acknowledged exactly once without an error.
#include <malloc.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <orvikm/client.hpp>
#include <orvikm/message.hpp>
#include <orvikm/payload.hpp>

#include "app_loop.hpp"
#include "rss.hpp"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

const char* const usage =
    R"(Usage: orvik-stress-client --listener-port PORT --dispenser-port PORT
                           [--app-id ID] [--route ROUTE] [--threads N]
                           [--messages N] [--window N] [--payload-bytes N]
                           [--time-limit SECONDS]

Sends THREADS x MESSAGES messages along ROUTE, each thread keeping at most
WINDOW of its messages unacknowledged, and counts every acknowledgement.
Payloads are "THREAD:SEQUENCE:" padded with 'x' to PAYLOAD-BYTES.
Prints "stress-client checkpoint ..." lines and one "stress-client result:"
line; exits with 0 when every message was acknowledged exactly once and the
I/O loop reported no error, 1 otherwise, 2 on bad arguments.
)";

const std::string kPayloadType = "application/x-stress";
constexpr auto kValidity = 60s;
constexpr auto kProgressPoll = 20ms;
// Long enough for a second acknowledgement of any message to arrive.
constexpr auto kLinger = 300ms;

struct Options {
    int listenerPort = -1;
    int dispenserPort = -1;
    std::string appId = "stress-client";
    std::string route = "stress";
    int threads = 8;
    int messages = 25000;
    int window = 2000;
    int payloadBytes = 64;
    int timeLimitSeconds = 300;
};

int positive(const std::string& text) {
    std::size_t end = 0;
    const int value = std::stoi(text, &end);
    if (end != text.size() || value < 0) {
        throw std::invalid_argument(text);
    }
    return value;
}

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (i + 1 >= argc) {
            throw std::invalid_argument(arg + " needs a value");
        }
        const std::string value = argv[++i];
        if (arg == "--listener-port") {
            options.listenerPort = positive(value);
        } else if (arg == "--dispenser-port") {
            options.dispenserPort = positive(value);
        } else if (arg == "--app-id") {
            options.appId = value;
        } else if (arg == "--route") {
            options.route = value;
        } else if (arg == "--threads") {
            options.threads = positive(value);
        } else if (arg == "--messages") {
            options.messages = positive(value);
        } else if (arg == "--window") {
            options.window = positive(value);
        } else if (arg == "--payload-bytes") {
            options.payloadBytes = positive(value);
        } else if (arg == "--time-limit") {
            options.timeLimitSeconds = positive(value);
        } else {
            throw std::invalid_argument("unknown option " + arg);
        }
    }
    if (options.listenerPort < 0 || options.dispenserPort < 0) {
        throw std::invalid_argument("both ports are needed");
    }
    if (options.threads == 0 || options.window == 0) {
        throw std::invalid_argument("threads and window must not be 0");
    }
    return options;
}

orvikm::Payload payloadFor(int thread, int sequence, int bytes) {
    std::string text = std::to_string(thread) + ":" + std::to_string(sequence) + ":";
    if (text.size() < static_cast<std::size_t>(bytes)) {
        text.resize(static_cast<std::size_t>(bytes), 'x');
    }
    orvikm::Payload payload(static_cast<unsigned>(text.size()), kPayloadType);
    std::memcpy(payload.getBuffer(), text.data(), text.size());
    return payload;
}

// The acknowledgements of every message, and each thread's unacknowledged
// ones, which its window bounds.
class AckBook {
public:
    AckBook(int threads, int messages)
        : _messages(messages),
          _counts(static_cast<std::size_t>(threads) * static_cast<std::size_t>(messages)),
          _outstanding(static_cast<std::size_t>(threads)) {}

    void sent(int thread) { _outstanding[static_cast<std::size_t>(thread)].fetch_add(1); }

    void acknowledged(int thread, int sequence) {
        _counts[index(thread, sequence)].fetch_add(1);
        _total.fetch_add(1);
        _outstanding[static_cast<std::size_t>(thread)].fetch_sub(1);
        {
            // Taken so that a sender between its check and its wait cannot
            // miss this notification.
            std::lock_guard<std::mutex> guard(_mutex);
        }
        _changed.notify_all();
    }

    // Waits until the thread has fewer than `window` messages unacknowledged.
    bool waitForRoom(int thread, int window, Clock::time_point deadline) {
        std::unique_lock<std::mutex> lock(_mutex);
        return _changed.wait_until(lock, deadline, [&] {
            return _outstanding[static_cast<std::size_t>(thread)].load() < window;
        });
    }

    long total() const { return _total.load(); }

    // Messages never acknowledged, and messages acknowledged more than once.
    std::pair<long, long> missingAndDuplicated() const {
        long missing = 0;
        long duplicated = 0;
        for (const std::atomic<int>& count : _counts) {
            const int calls = count.load();
            missing += calls == 0 ? 1 : 0;
            duplicated += calls > 1 ? 1 : 0;
        }
        return {missing, duplicated};
    }

private:
    std::size_t index(int thread, int sequence) const {
        return static_cast<std::size_t>(thread) * static_cast<std::size_t>(_messages) +
               static_cast<std::size_t>(sequence);
    }

    int _messages;
    std::vector<std::atomic<int>> _counts;
    std::vector<std::atomic<int>> _outstanding;
    std::atomic<long> _total{0};
    std::mutex _mutex;
    std::condition_variable _changed;
};

int run(const Options& options) {
    const long all = static_cast<long>(options.threads) * options.messages;
    const auto deadline = Clock::now() + std::chrono::seconds(options.timeLimitSeconds);
    AckBook book(options.threads, options.messages);
    std::atomic<Clock::time_point::rep> firstAck{0};

    orvikm::Client client(options.appId, options.listenerPort, options.dispenserPort, {});
    stresstest::AppLoop loop(client);

    const auto start = Clock::now();
    std::atomic<int> timedOutThreads{0};
    std::vector<std::thread> senders;
    for (int thread = 0; thread < options.threads; ++thread) {
        senders.emplace_back([&, thread] {
            for (int sequence = 0; sequence < options.messages; ++sequence) {
                if (!book.waitForRoom(thread, options.window, deadline)) {
                    timedOutThreads.fetch_add(1);
                    return;
                }
                book.sent(thread);
                client.send(
                    payloadFor(thread, sequence, options.payloadBytes), {options.route}, kValidity,
                    [&book, &firstAck, thread, sequence] {
                        Clock::time_point::rep none = 0;
                        firstAck.compare_exchange_strong(none,
                                                         Clock::now().time_since_epoch().count());
                        book.acknowledged(thread, sequence);
                    },
                    orvikm::Message::AckMode::ByNode);
            }
        });
    }

    // Resident size once a tenth, half and all of the messages are
    // acknowledged: growth between the first and the last is what the run
    // leaves behind, not what is in flight. Free heap pages are handed back
    // first, so that the figure follows the memory in use rather than what
    // the allocator keeps for later.
    const long checkpoints[] = {all / 10, all / 2, all};
    long checkpointKb[3] = {0, 0, 0};
    std::size_t next = 0;
    while (next < 3 && Clock::now() < deadline) {
        if (book.total() >= checkpoints[next]) {
            malloc_trim(0);
            checkpointKb[next] = stresstest::residentKb().value_or(0);
            std::cout << "stress-client checkpoint acknowledged=" << book.total()
                      << " rss-kb=" << checkpointKb[next] << std::endl;
            ++next;
            continue;
        }
        std::this_thread::sleep_for(kProgressPoll);
    }
    const auto finished = Clock::now();
    for (std::thread& sender : senders) {
        sender.join();
    }
    std::this_thread::sleep_for(kLinger);
    const bool loopEnded = loop.stop();

    // Refusals before the first acknowledgement are the connection being set
    // up; after it, a refusal means the node was reported missing while it ran.
    const Clock::time_point firstAckAt{Clock::duration(firstAck.load())};
    long startupRefusals = 0;
    long errors = 0;
    for (const stresstest::ReportedError& error : loop.errors()) {
        if (error.nodeUnavailable() && (firstAck.load() == 0 || error.when < firstAckAt)) {
            ++startupRefusals;
            continue;
        }
        ++errors;
        std::cerr << "stress-client error: " << error.describe() << std::endl;
    }
    for (const std::string& escaped : loop.escaped()) {
        ++errors;
        std::cerr << "stress-client exception: " << escaped << std::endl;
    }
    const auto [missing, duplicated] = book.missingAndDuplicated();
    const long elapsedMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(finished - start).count();
    std::cout << "stress-client result: app-id=" << options.appId << " sent=" << all
              << " acknowledged=" << book.total() << " missing=" << missing
              << " duplicated=" << duplicated << " errors=" << errors
              << " startup-refusals=" << startupRefusals
              << " timed-out-threads=" << timedOutThreads.load()
              << " rss-kb-tenth=" << checkpointKb[0] << " rss-kb-half=" << checkpointKb[1]
              << " rss-kb-end=" << checkpointKb[2] << " elapsed-ms=" << elapsedMs << std::endl;
    const bool clean = loopEnded && missing == 0 && duplicated == 0 && errors == 0 &&
                       timedOutThreads.load() == 0 && book.total() == all;
    return clean ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    try {
        options = parse(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "orvik-stress-client: bad arguments (" << error.what() << ")\n\n" << usage;
        return 2;
    }
    try {
        return run(options);
    } catch (const std::exception& error) {
        std::cerr << "orvik-stress-client: " << error.what() << std::endl;
        return 1;
    }
}
