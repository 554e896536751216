#pragma once

// What every subcommand shares: the node's ports and the application id, the
// overall deadline, Ctrl-C, and how a failure is reported.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <orvikm/client.hpp>
#include <orviku/exception.hpp>

namespace CLI {
class App;
}

namespace orvik {

// Exit statuses.
constexpr int kSuccess = 0;
constexpr int kFailure = 1;  // the work failed: the node, the deadline, acknowledgements
constexpr int kUsage = 2;    // the command line was wrong

// The options given before or after the subcommand.
struct Common {
    int listenerPort = 0;
    int dispenserPort = 0;
    std::string appId;
    double timeoutSeconds = 10;  // 0: no deadline
    bool verbose = false;
};

// A subcommand: defines its own options on its CLI11 subcommand, then runs
// with the common options once the whole command line has been parsed.
class Command {
public:
    virtual ~Command() = default;
    virtual void define(CLI::App& subcommand) = 0;
    // Returns the exit status. May throw CLI::ValidationError for a
    // combination of options the parser cannot refuse on its own.
    virtual int run(const Common& common) = 0;
};

std::unique_ptr<Command> makeSendCommand();
std::unique_ptr<Command> makeListenCommand();
std::unique_ptr<Command> makeRegistryCommand();
std::unique_ptr<Command> makeBenchCommand();

// The overall deadline of a run, counted from its construction.
class Deadline {
public:
    explicit Deadline(double seconds);
    bool bounded() const { return _bounded; }
    bool passed() const;
    // What is left of it; a century when there is no deadline.
    std::chrono::milliseconds remaining() const;

private:
    bool _bounded;
    std::chrono::steady_clock::time_point _end;
};

// The error in one line: what() and then each context line, innermost first,
// joined by "; ".
std::string oneLine(const orviku::Exception& error);

// An exception from outside the orviku family in one line. The library passes
// such exceptions on out of its I/O loop (a header number it cannot read, for
// one), after the error handler has seen a GeneralException for them.
std::string unexpectedError(const std::exception& error);

// Writes "orvik COMMAND: TEXT" on standard error.
void reportFailure(const std::string& command, const std::string& text);

// Writes the text to standard output, unbuffered; false when standard output
// did not take it (its reader has gone, or the disk is full), which ends a
// subcommand the way Ctrl-C does, or when Ctrl-C came while it waited for a
// reader that does not read. outputFailure() then says why. Every write to
// standard output goes through here, so that none is left in a buffer.
bool writeOutput(const std::string& text);
// "standard output closed", "interrupted", or what else made the last
// writeOutput fail.
std::string outputFailure();

// The client every subcommand uses, with the common options applied and
// Options::wakeOnSend set.
std::unique_ptr<orvikm::Client> makeClient(const Common& common,
                                           std::vector<std::string> subscriptions,
                                           orvikm::Client::Options options = {});

// Says on standard error when the node goes away and when it comes back
// ("orvik COMMAND: the node went away ..." and "orvik COMMAND: the node is
// back"), from the client's connection events, so that a long-running
// subcommand can wait for the node instead of failing.
class NodeWatch {
public:
    NodeWatch(orvikm::Client& client, const Common& common, std::string command);
    NodeWatch(const NodeWatch&) = delete;
    NodeWatch& operator=(const NodeWatch&) = delete;

    // Whether `failure` is a write that failed because the node is known to be
    // away: the loop is then entered again rather than ended.
    bool whileAway(orviku::Exception& failure) const;

private:
    bool _away = false;
};

// Ctrl-C (SIGINT) and SIGTERM for the whole run. main() installs the handler
// once, before anything else: the first such signal only records that a stop
// was asked for (and ends the loop a LoopStopper watches), so every step of a
// run can stop cleanly, print its summary and exit; a second one has its
// default effect, should a step not come round to the first. SIGPIPE is
// ignored: a closed standard output shows as a failed write (writeOutput).
void installStopHandler();
// Whether SIGINT or SIGTERM has come. Safe on any thread.
bool stopRequested();

// Ends the client's I/O loop (blockThreadForIO or flush) when the deadline
// passes or on SIGINT or SIGTERM, and says which it was. While it lives the
// signal handler calls client.terminate() (which is async-signal-safe). A
// terminate() that arrives while no loop runs, or a signal that came before
// the stopper, is forgotten by the next loop, so a watcher thread repeats it
// every few milliseconds until the stopper is destroyed. `tick`, when given,
// is called from the watcher thread about every 250 ms.
class LoopStopper {
public:
    enum class Reason { None, Deadline, Interrupted };

    LoopStopper(orvikm::Client& client, const Deadline& deadline,
                std::function<void()> tick = nullptr);
    LoopStopper(const LoopStopper&) = delete;
    LoopStopper& operator=(const LoopStopper&) = delete;
    ~LoopStopper();

    // What has happened so far: the signal handler ends the loop at once,
    // before the watcher has seen the signal.
    Reason reason() const;
    // "deadline passed" or "interrupted"; empty for Reason::None.
    std::string describe() const;

private:
    void watch();

    orvikm::Client& _client;
    const Deadline& _deadline;
    std::function<void()> _tick;
    std::mutex _mutex;
    std::condition_variable _done_changed;
    bool _done = false;
    std::thread _watcher;
};

}  // namespace orvik
