// orvik listen: subscribes, prints every message from the message callback,
// acknowledges it there with sendAck(), and lends the main thread to
// blockThreadForIO until enough messages came or the deadline passed.
#include <climits>
#include <exception>
#include <iostream>
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

// Short enough that terminate(), the deadline and Ctrl-C are seen at once
// while messages keep arriving.
constexpr std::chrono::milliseconds kMaxReadTime(50);
constexpr std::chrono::milliseconds kLoopTimeout(20);

const std::string kDropped = "dropped a message from the node that could not be read: ";

const char* const kFooter =
    R"(The node publishes a message once for each of its push routes, with the route
as topic; a listener subscribed to a topic gets the messages routed along it
(a topic matches every route that begins with it). Start the listener before
the sender: the node publishes only to subscriptions it already knows.

Text format, one line a message:
  ID from APP_ID on ROUTES (TYPE, SIZE bytes, valid SECONDS s, ack MODE): BODY
with control characters (C0, DEL and C1: U+0080 to U+009F) and bytes that
are not UTF-8 escaped (\n, \t, \\, \xHH for each byte).

JSON format, one object a line, with the keys id, app_id, routes (array),
type, size, valid_for (seconds), ack_mode (0 none, 1 node, 2 receivers),
origin (array), body (the payload as a string when it is valid UTF-8, else
null) and body_base64 (the payload in base64, always). An id, app_id or
type that is not valid UTF-8 shows with U+FFFD in place of the bytes that
are not, and id_base64, app_id_base64 or type_base64 follows it with its
exact bytes; when any route (origin) is not valid UTF-8, routes_base64
(origin_base64) follows with every element in base64.

A message from the node that the library cannot read (a malformed frame, a
header number out of range) is dropped: one line on standard error says so
with the library's reason,
  orvik listen: dropped a message from the node that could not be read: WHY
and listening goes on.

Without -n, orvik listen prints messages until the deadline (--timeout; 0 for
none) or Ctrl-C, and exits 0. With -n it exits 0 after COUNT messages, and 1
when the deadline or Ctrl-C comes first. After Ctrl-C one line on standard
error says how many messages it received:
  orvik listen: interrupted (received N)      or, with -n,
  orvik listen: interrupted (received N of COUNT)
A standard output that is closed (orvik listen ... | head -1) ends it the
same way, with "standard output closed" for "interrupted". Only the
messages it has printed are acknowledged.

Example: orvik listen -l 5555 -d 5556 -s news --format json --timeout 0)";

output::ReceivedMessage plainValues(const orvikm::Message& message) {
    const orvikm::Payload& payload = message.payload();
    output::ReceivedMessage received;
    received.id = message.msgId();
    received.appId = message.appId();
    received.routes.assign(message.pushRoutes().begin(), message.pushRoutes().end());
    received.type = payload.type();
    received.body.assign(payload.getBuffer(), payload.size());
    received.validForSeconds = message.validFor().count();
    received.ackMode = static_cast<std::int32_t>(message.ackMode());
    received.origin = message.originNodes();
    return received;
}

class ListenCommand : public Command {
public:
    void define(CLI::App& subcommand) override {
        subcommand.add_option("-s,--subscribe", _topics, "A topic to subscribe to (one or more)")
            ->required();
        _countOption = subcommand.add_option("-n,--count", _count, "Exit after this many messages")
                           ->check(CLI::Range(1ull, ULLONG_MAX));
        subcommand.add_flag("--no-ack", _noAck, "Do not acknowledge the messages received");
        subcommand.add_option("--format", _format, "text or json")
            ->capture_default_str()
            ->check(CLI::IsMember({"text", "json"}));
        subcommand.footer(kFooter);
    }

    int run(const Common& common) override {
        const Deadline deadline(common.timeoutSeconds);
        const bool counted = _countOption->count() > 0;
        orvikm::Client::Options options;
        options.maxReadTime = kMaxReadTime;
        std::unique_ptr<orvikm::Client> client = makeClient(common, _topics, options);
        const NodeWatch nodeWatch(*client, common, "listen");

        std::uint64_t received = 0;
        bool outputClosed = false;
        // Runs on the I/O thread, this one; sendAck belongs exactly here.
        client->onMessage([&](std::unique_ptr<orvikm::Message> message) {
            if ((counted && received >= _count) || outputClosed) {
                return;  // came after the last one wanted or a failed write, before the loop ended
            }
            const output::ReceivedMessage values = plainValues(*message);
            // Only a message that was printed is acknowledged.
            if (!writeOutput((_format == "json" ? output::messageJsonLine(values)
                                                : output::messageText(values)) +
                             "\n")) {
                outputClosed = true;
                client->terminate();
                return;
            }
            if (!_noAck) {
                client->sendAck(*message);
            }
            if (++received == _count && counted) {
                client->terminate();
            }
        });

        std::string error;
        LoopStopper::Reason stopped = LoopStopper::Reason::None;
        {
            const LoopStopper stopper(*client, deadline);
            // A message the library cannot read ends its loop: it is dropped,
            // said so, and the loop goes on. A new loop forgets a terminate()
            // from before it, so the reasons to stop are looked at here too.
            for (;;) {
                std::string dropped;
                bool away = false;
                error.clear();
                try {
                    client->blockThreadForIO(
                        [&](orviku::Exception& failure) {
                            const bool unreadable =
                                dynamic_cast<orvikm::ProtocolError*>(&failure) != nullptr;
                            away = nodeWatch.whileAway(failure);
                            if (!away) {
                                (unreadable ? dropped : error) = oneLine(failure);
                            }
                        },
                        kLoopTimeout);
                } catch (const std::exception& failure) {
                    error.clear();
                    dropped = failure.what();
                }
                if (dropped.empty() && !away) {
                    break;
                }
                if (away) {
                    // The node's return is heard by the next loop.
                    std::this_thread::sleep_for(kLoopTimeout);
                } else {
                    reportFailure("listen", kDropped + dropped);
                }
                if (stopper.reason() != LoopStopper::Reason::None ||
                    (counted && received >= _count) || outputClosed) {
                    break;
                }
            }
            stopped = stopper.reason();
            if (error.empty() && counted && received < _count) {
                error = outputClosed ? outputFailure() : stopper.describe();
            }
        }
        if (common.verbose) {
            std::cerr << "orvik listen: received " << received << " messages" << std::endl;
        }
        const std::string tally = "received " + std::to_string(received) +
                                  (counted ? " of " + std::to_string(_count) : "");
        if (!error.empty()) {
            reportFailure("listen", error + (counted ? " (" + tally + ")" : ""));
            return kFailure;
        }
        if (outputClosed) {
            reportFailure("listen", outputFailure() + " (" + tally + ")");
        } else if (stopped == LoopStopper::Reason::Interrupted) {
            reportFailure("listen", "interrupted (" + tally + ")");
        }
        return kSuccess;
    }

private:
    std::vector<std::string> _topics;
    CLI::Option* _countOption = nullptr;
    unsigned long long _count = 0;
    bool _noAck = false;
    std::string _format = "text";
};

}  // namespace

std::unique_ptr<Command> makeListenCommand() {
    return std::make_unique<ListenCommand>();
}

}  // namespace orvik
