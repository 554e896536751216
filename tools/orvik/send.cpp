// orvik send: queues messages with send(), then lends the main thread to the
// client with flush() until every message is written and acknowledged.
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <list>
#include <map>
#include <optional>
#include <string>
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

const std::map<std::string, orvikm::Message::AckMode> kAckModes{
    {"node", orvikm::Message::AckMode::ByNode},
    {"receivers", orvikm::Message::AckMode::ByReceivers},
    {"none", orvikm::Message::AckMode::Unacknowledged},
};

const char* const kFooter =
    R"(The payload is DATA, the bytes of FILE (-f), or standard input when DATA
is "-". Every message gets a new id; with -v each id is shown on standard
error as it is queued and acknowledged.

orvik send waits until the node has acknowledged every message (with
--ack none: until every message is written), at most until the deadline
(--timeout). Its last line on standard output is "sent N, acknowledged M":
N messages written to the node, M acknowledged. It exits 1 when a message
is left unwritten or unacknowledged, or the node cannot be reached. Ctrl-C
stops it at any point, while it reads standard input too: it prints that
line for what was done so far and exits 1 unless every message was already
acknowledged.

Example: orvik send -l 5555 -d 5556 -r news "hello")";

class SendCommand : public Command {
public:
    void define(CLI::App& subcommand) override {
        _dataOption =
            subcommand.add_option("data", _data, "The payload; \"-\" reads it from standard input");
        subcommand.add_option("-f,--file", _file, "Send the bytes of this file instead of DATA")
            ->check(CLI::ExistingFile)
            ->excludes(_dataOption);
        subcommand
            .add_option("-r,--route", _routes,
                        "A push route (repeat for several); the node publishes the message "
                        "once per route, the route as topic")
            ->allow_extra_args(false);
        subcommand.add_option("-t,--type", _type, "The payload type label")->capture_default_str();
        subcommand
            .add_option("--valid-for", _validFor, "How long the message stays valid, in seconds")
            ->capture_default_str()
            ->check(CLI::NonNegativeNumber);
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
            std::cout << output::sendSummary(0, 0) << std::endl;
            reportFailure("send", "interrupted while reading standard input (nothing sent)");
            return kFailure;
        }
        const std::string& body = *read;
        const orvikm::Message::AckMode ackMode = kAckModes.at(_ack);
        const bool acknowledged = ackMode != orvikm::Message::AckMode::Unacknowledged;
        std::unique_ptr<orvikm::Client> client = makeClient(common, {});

        // A message the node never acknowledges within its validity is
        // reported here instead of being waited for until the deadline.
        std::string unacknowledged;
        client->onUnacknowledged([&](const std::string& msgId) {
            if (unacknowledged.empty()) {
                unacknowledged = msgId;
            }
        });

        std::atomic<std::uint64_t> acks{0};
        for (unsigned i = 0; i < _count; ++i) {
            queue(*client, body, ackMode, acknowledged ? &acks : nullptr, common.verbose);
        }

        std::string error;
        orvikm::Client::FlushResult flushed{};
        {
            const LoopStopper stopper(*client, deadline);
            try {
                flushed = client->flush(deadline.remaining(), [&](orviku::Exception& failure) {
                    error = oneLine(failure);
                });
            } catch (const std::exception& failure) {
                error = unexpectedError(failure);
                flushed = orvikm::Client::FlushResult{false, client->stats().queued,
                                                      client->stats().awaitingAck};
            }
            if (error.empty()) {
                error = stopper.describe();
            }
        }

        const orvikm::Client::Stats stats = client->stats();
        std::cout << output::sendSummary(stats.written, acks.load()) << std::endl;
        const bool done = flushed.complete && (!acknowledged || acks.load() == _count);
        if (error.empty() && !unacknowledged.empty()) {
            error = "message " + unacknowledged + " was not acknowledged within its validity";
        }
        if (!done) {
            const std::string left =
                std::to_string(flushed.queued) + " unwritten" +
                (acknowledged ? ", " + std::to_string(_count - acks.load()) + " unacknowledged"
                              : "");
            reportFailure("send", error.empty() ? left : error + " (" + left + ")");
            return kFailure;
        }
        return kSuccess;
    }

private:
    // The payload; nothing when Ctrl-C came while standard input was read.
    std::optional<std::string> payloadBytes(bool verbose) const {
        std::string bytes;
        if (!_file.empty()) {
            std::ifstream in(_file, std::ios::binary);
            if (in) {
                bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
            }
            if (!in.is_open() || in.bad()) {
                throw CLI::FileError("cannot read " + _file + ": " + std::strerror(errno),
                                     CLI::ExitCodes::FileError);
            }
        } else if (_data == "-") {
            if (verbose) {
                std::cerr << "orvik send: reading the payload from standard input" << std::endl;
            }
            std::optional<std::string> input = readStandardInput();
            if (!input) {
                return std::nullopt;
            }
            bytes = std::move(*input);
        } else if (_dataOption->count() > 0) {
            bytes = _data;
        } else {
            throw CLI::RequiredError("the payload: give DATA, -f FILE or - for standard input",
                                     CLI::ExitCodes::RequiredError);
        }
        if (bytes.size() > UINT_MAX) {
            throw CLI::ValidationError("a payload has at most " + std::to_string(UINT_MAX) +
                                       " bytes");
        }
        return bytes;
    }

    // Standard input up to its end; nothing when Ctrl-C comes first. The wait
    // for input has a timeout, so that a signal handled on another thread is
    // seen as well.
    static std::optional<std::string> readStandardInput() {
        std::string bytes;
        std::vector<char> buffer(kReadSize);
        pollfd input{STDIN_FILENO, POLLIN, 0};
        while (!stopRequested()) {
            const int ready = ::poll(&input, 1, static_cast<int>(kInputPoll.count()));
            if (ready == 0 || (ready < 0 && errno == EINTR)) {
                continue;
            }
            const ssize_t got = ready < 0 ? -1 : ::read(STDIN_FILENO, buffer.data(), buffer.size());
            if (got == 0) {
                return bytes;
            }
            if (got < 0) {
                if (errno == EINTR || errno == EAGAIN) {
                    continue;
                }
                throw CLI::FileError(
                    std::string("cannot read standard input: ") + std::strerror(errno),
                    CLI::ExitCodes::FileError);
            }
            bytes.append(buffer.data(), static_cast<std::size_t>(got));
        }
        return std::nullopt;
    }

    // Builds the message itself rather than letting send() build it, so that
    // its id is known before it is queued.
    void queue(orvikm::Client& client, const std::string& body, orvikm::Message::AckMode ackMode,
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
            // What the node would refuse (a route or a type too long) is a
            // mistake on the command line.
            throw CLI::ValidationError(oneLine(refused));
        }
        if (verbose) {
            std::cerr << "orvik send: queued " << id << std::endl;
        }
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
