#include "common.hpp"

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <utility>

#include <wxblt/exception.hpp>

namespace orvik {

namespace {

using Steady = std::chrono::steady_clock;

// Longer than anyone waits, short enough that adding it to a time point
// cannot overflow.
constexpr std::chrono::milliseconds kNoDeadline = std::chrono::hours(24 * 365 * 100);
// How often the watcher looks at the deadline and the signal flag: late enough
// by this much is not noticed by a person.
constexpr std::chrono::milliseconds kWatchInterval(20);
constexpr std::chrono::milliseconds kTickInterval(250);

// The client whose loop a signal ends, whether a signal came, and how many
// handlers are running now. The handler may run on any thread, the watcher
// and the stopper read them on theirs: lock-free atomics are safe in a signal
// handler and between threads alike.
std::atomic<orvikm::Client*> signalledClient{nullptr};
std::atomic<bool> signalReceived{false};
std::atomic<int> handlersRunning{0};
static_assert(std::atomic<orvikm::Client*>::is_always_lock_free);
static_assert(std::atomic<bool>::is_always_lock_free);
static_assert(std::atomic<int>::is_always_lock_free);

extern "C" void onStopSignal(int) {
    const int savedErrno = errno;
    ++handlersRunning;
    signalReceived.store(true);
    if (orvikm::Client* client = signalledClient.load()) {
        client->terminate();
    }
    --handlersRunning;
    errno = savedErrno;
}

}  // namespace

void installStopHandler() {
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    // SA_RESETHAND: a second Ctrl-C ends the program at once. SA_RESTART: no
    // call is cut short, so every wait that must notice the signal (the
    // client's poll, the reading of the payload, the writing of standard
    // output) polls with a timeout and looks at the flag.
    action.sa_flags = SA_RESETHAND | SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGPIPE, &ignore, nullptr);
}

bool stopRequested() {
    return signalReceived.load();
}

NodeWatch::NodeWatch(orvikm::Client& client, const Common& common, std::string command) {
    const std::string ports = "listener port " + std::to_string(common.listenerPort) +
                              ", dispenser port " + std::to_string(common.dispenserPort);
    client.onConnectionChange(
        [this, ports, command = std::move(command)](orvikm::Client::ConnectionState state) {
            const bool away = state == orvikm::Client::ConnectionState::Disconnected;
            // The first Connected is the start, not a return.
            if (away != _away) {
                reportFailure(command, away ? "the node went away (" + ports +
                                                  "); waiting for it to come back"
                                            : "the node is back");
            }
            _away = away;
        });
}

bool NodeWatch::whileAway(orviku::Exception& failure) const {
    const auto* socketError = dynamic_cast<const wxblt::Exception*>(&failure);
    return _away && socketError != nullptr && socketError->errorNumber() == EAGAIN;
}

Deadline::Deadline(double seconds)
    : _bounded(seconds > 0),
      _end(Steady::now() + (_bounded ? std::chrono::duration_cast<Steady::duration>(
                                           std::chrono::duration<double>(std::min(seconds, 1e9)))
                                     : std::chrono::duration_cast<Steady::duration>(kNoDeadline))) {
}

bool Deadline::passed() const {
    return _bounded && Steady::now() >= _end;
}

std::chrono::milliseconds Deadline::remaining() const {
    if (!_bounded) {
        return kNoDeadline;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(_end - Steady::now());
    return std::max(left, std::chrono::milliseconds(0));
}

std::string oneLine(const orviku::Exception& error) {
    std::string line = error.what();
    for (const std::string& context : error.context()) {
        line += "; " + context;
    }
    return line;
}

std::string unexpectedError(const std::exception& error) {
    return std::string("unexpected error: ") + error.what();
}

void reportFailure(const std::string& command, const std::string& text) {
    std::cerr << "orvik " << command << ": " << text << std::endl;
}

namespace {

// Why the last writeOutput failed: the errno of its write, or 0 when Ctrl-C
// came while it waited. Only the I/O thread writes output.
int outputErrno = 0;

}  // namespace

bool writeOutput(const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        // A reader that does not read would hold a blocking write for good;
        // waiting here instead, with a timeout, lets Ctrl-C end the run.
        pollfd output{STDOUT_FILENO, POLLOUT, 0};
        const int ready = ::poll(&output, 1, static_cast<int>(kWatchInterval.count()));
        if (ready == 0 || (ready < 0 && errno == EINTR)) {
            if (stopRequested()) {
                outputErrno = 0;
                return false;
            }
            continue;
        }
        // PIPE_BUF bytes fit in a pipe that polls writable.
        const ssize_t wrote = ready < 0
                                  ? -1
                                  : ::write(STDOUT_FILENO, text.data() + done,
                                            std::min<std::size_t>(text.size() - done, PIPE_BUF));
        if (wrote < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                continue;
            }
            outputErrno = errno;
            return false;
        }
        done += static_cast<std::size_t>(wrote);
    }
    return true;
}

std::string outputFailure() {
    if (outputErrno == 0) {
        return "interrupted";
    }
    if (outputErrno == EPIPE) {
        return "standard output closed";
    }
    return std::string("cannot write to standard output: ") + std::strerror(outputErrno);
}

std::unique_ptr<orvikm::Client> makeClient(const Common& common,
                                           std::vector<std::string> subscriptions,
                                           orvikm::Client::Options options) {
    if (common.verbose) {
        std::cerr << "orvik: " << common.appId << " connects to the node at listener port "
                  << common.listenerPort << ", dispenser port " << common.dispenserPort
                  << std::endl;
    }
    // A message queued by another thread, and the terminate() of a deadline
    // or Ctrl-C, end the loop's reading step at once instead of waiting for
    // the sockets to be quiet: one message in flight costs a round trip, not
    // the loop's timeout.
    options.wakeOnSend = true;
    return std::make_unique<orvikm::Client>(common.appId, common.listenerPort, common.dispenserPort,
                                            std::move(subscriptions), options);
}

LoopStopper::LoopStopper(orvikm::Client& client, const Deadline& deadline,
                         std::function<void()> tick)
    : _client(client), _deadline(deadline), _tick(std::move(tick)) {
    signalledClient.store(&client);
    _watcher = std::thread(&LoopStopper::watch, this);
}

LoopStopper::~LoopStopper() {
    {
        std::lock_guard<std::mutex> guard(_mutex);
        _done = true;
    }
    _done_changed.notify_all();
    _watcher.join();
    // A handler that has already read the client, on another thread, finishes
    // its terminate() before the client may go.
    signalledClient.store(nullptr);
    while (handlersRunning.load() > 0) {
        std::this_thread::yield();
    }
}

LoopStopper::Reason LoopStopper::reason() const {
    if (stopRequested()) {
        return Reason::Interrupted;
    }
    return _deadline.passed() ? Reason::Deadline : Reason::None;
}

std::string LoopStopper::describe() const {
    switch (reason()) {
        case Reason::Deadline:
            return "deadline passed";
        case Reason::Interrupted:
            return "interrupted";
        case Reason::None:
            break;
    }
    return "";
}

void LoopStopper::watch() {
    Steady::time_point nextTick = Steady::now() + kTickInterval;
    std::unique_lock<std::mutex> lock(_mutex);
    while (!_done_changed.wait_for(lock, kWatchInterval, [this] { return _done; })) {
        if (reason() != Reason::None) {
            _client.terminate();
        }
        if (_tick && Steady::now() >= nextTick) {
            nextTick += kTickInterval;
            _tick();
        }
    }
}

}  // namespace orvik
