// orvik send: a sending thread queues messages with send(), waiting for room
// in the client's bounded queue, while the main thread lends itself to the
// client (blockThreadForIO, then flush() for the rest) until every message is
// written and acknowledged.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <exception>
#include <iostream>
#include <list>
#include <map>
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

constexpr std::size_t kReadSize = 64 * 1024;
constexpr std::chrono::milliseconds kInputPoll(20);
// The largest payload: what is read beyond it is refused rather than kept,
// so that an endless input (/dev/zero) cannot take all memory.
constexpr std::size_t kMaxPayload = std::size_t{64} << 20;
const char* const kMaxPayloadText = "64 MiB";
// At most this many messages, and about this many payload bytes, are queued
// (Client::Options::maxQueued, maxQueuedBytes), and at most this many await
// their acknowledgement: memory stays bounded whatever the count. The sending
// thread waits for room while the main thread writes.
constexpr std::size_t kQueuedMessages = 8192;
constexpr std::size_t kQueuedBytes = std::size_t{16} << 20;
constexpr std::size_t kAwaitingMessages = 16384;
// How long one send waits for room before the sending thread looks at the
// stop flag again: Ctrl-C is seen well within a second.
constexpr std::chrono::milliseconds kRoomWait(50);
constexpr std::chrono::milliseconds kLoopTimeout(20);
const std::string kQueueFull = "The outgoing queue is full";
// A flush writes this many messages a pass, then reads and looks at
// terminate(), so that Ctrl-C is seen while what is queued is written.
constexpr std::size_t kWriteBatch = 1024;

const std::map<std::string, orvikm::Message::AckMode> kAckModes{
    {"node", orvikm::Message::AckMode::ByNode},
    {"receivers", orvikm::Message::AckMode::ByReceivers},
    {"none", orvikm::Message::AckMode::Unacknowledged},
};

const char* const kFooter =
    R"(The payload is DATA, the bytes of FILE (-f), or standard input when DATA
is "-", at most 64 MiB (67108864 bytes): a larger file or input is a usage
error. FILE may be a FIFO; orvik waits for its writer. Every message gets a
new id; with -v each id is shown on standard error as it is queued and
acknowledged. A message is valid for at least 1 second (--valid-for).

orvik send waits until the node has acknowledged every message (with
--ack none: until every message is written), at most until the deadline
(--timeout). With -n it queues the copies a few thousand at a time, so a
large COUNT costs time, not memory. Its last line on standard output is
"sent N, acknowledged M": N messages written to the node, M acknowledged.
It exits 1 when a message is left unwritten or unacknowledged, or the node
cannot be reached. Ctrl-C stops it at any point, while it reads its
payload too: it prints that line for what was done so far and exits 1
unless every message was already acknowledged.

Example: orvik send -l 5555 -d 5556 -r news "hello")";

// Closes a descriptor when it goes out of scope.
class Descriptor {
public:
    explicit Descriptor(int fd) : _fd(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (_fd >= 0) {
            ::close(_fd);
        }
    }
    int get() const { return _fd; }

private:
    int _fd;
};

class SendCommand : public Command {
public:
    void define(CLI::App& subcommand) override {
        _dataOption =
            subcommand.add_option("data", _data, "The payload; \"-\" reads it from standard input");
        subcommand
            .add_option("-f,--file", _file,
                        "Send the bytes of this file (or FIFO) instead of DATA, at most 64 MiB")
            ->check(CLI::ExistingFile)
            ->excludes(_dataOption);
        subcommand
            .add_option("-r,--route", _routes,
                        "A push route (repeat for several); the node publishes the message "
                        "once per route, the route as topic")
            ->allow_extra_args(false);
        subcommand.add_option("-t,--type", _type, "The payload type label")->capture_default_str();
        subcommand
            .add_option("--valid-for", _validFor,
                        "How long the message stays valid, in seconds (at least 1)")
            ->capture_default_str()
            ->check(CLI::Validator(
                [](std::string& text) {
                    // The option's own conversion refuses what is no number.
                    try {
                        return std::stoll(text) < 1
                                   ? "a message must be valid for at least 1 second"
                                   : std::string();
                    } catch (const std::exception&) {
                        return std::string();
                    }
                },
                "POSITIVE"));
        subcommand
            .add_option("--ack", _ack,
                        "Who acknowledges: node (the node, once it has the message), receivers "
                        "(the node, once its receivers have it) or none (nobody; orvik waits "
                        "only until the messages are written)")
            ->capture_default_str()
            ->check(CLI::IsMember({"node", "receivers", "none"}));
        subcommand.add_option("-n,--count", _count, "How many messages to send, each a copy")
            ->capture_default_str()
            ->check(CLI::Range(1u, UINT_MAX));
        subcommand.footer(kFooter);
    }

    int run(const Common& common) override {
        const Deadline deadline(common.timeoutSeconds);
        const std::optional<std::string> read = payloadBytes(common.verbose);
        if (!read) {
            writeOutput(output::sendSummary(0, 0) + "\n");
            reportFailure("send", "interrupted while reading " + sourceName() + " (nothing sent)");
            return kFailure;
        }
        const std::string& body = *read;
        const orvikm::Message::AckMode ackMode = kAckModes.at(_ack);
        const bool acknowledged = ackMode != orvikm::Message::AckMode::Unacknowledged;
        orvikm::Client::Options options;
        options.maxWriteBatch = kWriteBatch;
        options.maxQueued = kQueuedMessages;
        // One message larger than the usual bound still goes, alone.
        options.maxQueuedBytes = std::max(kQueuedBytes, body.size());
        options.queueFullWait = kRoomWait;
        std::unique_ptr<orvikm::Client> client = makeClient(common, {}, options);

        // A message the node never acknowledges within its validity is
        // reported here instead of being waited for until the deadline.
        std::string unacknowledged;
        client->onUnacknowledged([&](const std::string& msgId) {
            if (unacknowledged.empty()) {
                unacknowledged = msgId;
            }
        });

        std::atomic<std::uint64_t> acks{0};
        std::atomic<std::uint64_t>* const counted = acknowledged ? &acks : nullptr;
        std::string error;
        {
            const LoopStopper stopper(*client, deadline);
            // The first message is queued here: a refusal of it (a route or a
            // type too long) is a mistake on the command line, and every
            // other message is a copy of it.
            queue(*client, body, ackMode, counted, common.verbose);
            std::atomic<bool> giveUp{false};
            std::atomic<bool> produced{false};
            std::atomic<bool> looping{true};
            std::string producerError;
            std::thread producer([&] {
                try {
                    for (std::uint64_t i = 1; i < _count && !giveUp.load(); ++i) {
                        while (!giveUp.load() &&
                               (client->stats().awaitingAck >= kAwaitingMessages ||
                                !queue(*client, body, ackMode, counted, common.verbose))) {
                            if (client->stats().awaitingAck >= kAwaitingMessages) {
                                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                            }
                        }
                    }
                } catch (const std::exception& failure) {
                    producerError = unexpectedError(failure);
                }
                produced.store(true);
                // A terminate() between two loops is forgotten by the next
                // one: repeated until this thread's loop has ended.
                while (looping.load()) {
                    client->terminate();
                    std::this_thread::sleep_for(std::chrono::milliseconds(5));
                }
            });
            while (!produced.load() && error.empty() &&
                   stopper.reason() == LoopStopper::Reason::None) {
                try {
                    client->blockThreadForIO(
                        [&](orviku::Exception& failure) { error = oneLine(failure); },
                        kLoopTimeout);
                } catch (const std::exception& failure) {
                    error = unexpectedError(failure);
                }
            }
            giveUp.store(true);
            looping.store(false);
            producer.join();
            if (error.empty()) {
                error = producerError;
            }
            // What is still queued or awaits its acknowledgement.
            if (error.empty() && stopper.reason() == LoopStopper::Reason::None) {
                flush(*client, deadline, error);
            }
            if (error.empty()) {
                error = stopper.describe();
            }
        }

        const orvikm::Client::Stats stats = client->stats();
        // Whether the summary could be written changes nothing in the run.
        writeOutput(output::sendSummary(stats.written, acks.load()) + "\n");
        // Written counts what reached the node's socket: a message that
        // expired in the queue was never sent.
        const bool done = stats.written == _count && (!acknowledged || acks.load() == _count);
        if (error.empty() && !unacknowledged.empty()) {
            error = "message " + unacknowledged + " was not acknowledged within its validity";
        }
        if (!done) {
            const std::string left =
                std::to_string(_count - std::min<std::uint64_t>(stats.written, _count)) +
                " unwritten" +
                (acknowledged ? ", " + std::to_string(_count - acks.load()) + " unacknowledged"
                              : "");
            reportFailure("send", error.empty() ? left : error + " (" + left + ")");
            return kFailure;
        }
        return kSuccess;
    }

private:
    // Runs the loop until what is queued is written and acknowledged; false
    // when it ended for any other reason (the error, if any, in `error`).
    static bool flush(orvikm::Client& client, const Deadline& deadline, std::string& error) {
        try {
            return client
                .flush(deadline.remaining(),
                       [&](orviku::Exception& failure) { error = oneLine(failure); })
                .complete;
        } catch (const std::exception& failure) {
            error = unexpectedError(failure);
            return false;
        }
    }

    std::string sourceName() const { return _file.empty() ? "standard input" : _file; }

    // The payload; nothing when Ctrl-C came while it was read.
    std::optional<std::string> payloadBytes(bool verbose) const {
        if (!_file.empty()) {
            if (verbose) {
                std::cerr << "orvik send: reading the payload from " << _file << std::endl;
            }
            // Without O_NONBLOCK the open of a FIFO would wait for a writer,
            // and no signal would end that wait.
            const Descriptor file(::open(_file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
            if (file.get() < 0) {
                throw CLI::FileError("cannot read " + _file + ": " + std::strerror(errno),
                                     CLI::ExitCodes::FileError);
            }
            return readAll(file.get(), _file);
        }
        if (_data == "-") {
            if (verbose) {
                std::cerr << "orvik send: reading the payload from standard input" << std::endl;
            }
            return readAll(STDIN_FILENO, "standard input");
        }
        if (_dataOption->count() > 0) {
            return _data;
        }
        throw CLI::RequiredError("the payload: give DATA, -f FILE or - for standard input",
                                 CLI::ExitCodes::RequiredError);
    }

    // Everything up to the end of the input, at most kMaxPayload bytes;
    // nothing when Ctrl-C comes first. The wait for input has a timeout, so
    // that a signal handled on another thread is seen as well.
    static std::optional<std::string> readAll(int fd, const std::string& name) {
        std::string bytes;
        std::vector<char> buffer(kReadSize);
        pollfd input{fd, POLLIN, 0};
        while (!stopRequested()) {
            const int ready = ::poll(&input, 1, static_cast<int>(kInputPoll.count()));
            if (ready == 0 || (ready < 0 && errno == EINTR)) {
                continue;
            }
            // One byte beyond the bound is enough to know the input is too large.
            const std::size_t wanted = std::min(buffer.size(), kMaxPayload + 1 - bytes.size());
            const ssize_t got = ready < 0 ? -1 : ::read(fd, buffer.data(), wanted);
            if (got == 0) {
                return bytes;
            }
            if (got < 0) {
                if (errno == EINTR || errno == EAGAIN) {
                    continue;
                }
                throw CLI::FileError("cannot read " + name + ": " + std::strerror(errno),
                                     CLI::ExitCodes::FileError);
            }
            bytes.append(buffer.data(), static_cast<std::size_t>(got));
            if (bytes.size() > kMaxPayload) {
                throw CLI::ValidationError(name + " holds more than the largest payload, " +
                                           kMaxPayloadText + " (" + std::to_string(kMaxPayload) +
                                           " bytes)");
            }
        }
        return std::nullopt;
    }

    // Builds the message itself rather than letting send() build it, so that
    // its id is known before it is queued.
    // Queues one message; false when the queue stayed full for kRoomWait.
    bool queue(orvikm::Client& client, const std::string& body, orvikm::Message::AckMode ackMode,
               std::atomic<std::uint64_t>* acks, bool verbose) const {
        orvikm::Payload payload(static_cast<unsigned>(body.size()), _type);
        body.copy(payload.getBuffer(), body.size());
        orvikm::Message message(
            std::move(payload),
            orvikm::Message::Config(client.id(),
                                    std::list<std::string>(_routes.begin(), _routes.end()),
                                    std::chrono::seconds(_validFor), ackMode));
        const std::string id = message.msgId();
        std::function<void()> onAck;
        if (acks != nullptr) {
            onAck = [acks, verbose, id] {
                ++*acks;
                if (verbose) {
                    std::cerr << "orvik send: acknowledged " << id << std::endl;
                }
            };
        }
        try {
            client.send(std::move(message), std::move(onAck));
        } catch (const orvikm::Exception& refused) {
            if (std::string(refused.what()).rfind(kQueueFull, 0) == 0) {
                return false;
            }
            // What the node would refuse (a route or a type too long) is a
            // mistake on the command line.
            throw CLI::ValidationError(oneLine(refused));
        }
        if (verbose) {
            std::cerr << "orvik send: queued " << id << std::endl;
        }
        return true;
    }

    CLI::Option* _dataOption = nullptr;
    std::string _data;
    std::string _file;
    std::vector<std::string> _routes;
    std::string _type = "text/plain";
    std::int64_t _validFor = 60;
    std::string _ack = "node";
    unsigned _count = 1;
};

}  // namespace

std::unique_ptr<Command> makeSendCommand() {
    return std::make_unique<SendCommand>();
}

}  // namespace orvik
