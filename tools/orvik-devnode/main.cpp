// orvik-devnode: a stand-in for the Orvik Node on this machine, for local
// development, examples and tests.
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>

#include <orviku/exception.hpp>

#include "dev_node.hpp"

namespace {

std::atomic<bool> stop_requested{false};

constexpr unsigned long long kMaxCount = 100000000;
// A registry travels with a 32-bit size, and is read whole into memory.
constexpr unsigned long long kMaxRegistryBytes = 1ULL << 30;
constexpr unsigned long long kMaxBytes = 1ULL << 40;

extern "C" void requestStop(int) {
    stop_requested.store(true);
}

const char* const usage =
    R"(Usage: orvik-devnode [--listener-port PORT] [--dispenser-port PORT]
                     [--registry FILE] [--verbose] [LIMITS...] [--help]

A stand-in for the Orvik Node on this machine. Clients connect their listener
to the listener port and their dispenser to the dispenser port, both on
127.0.0.1 (clients reach them as tcp://localhost:PORT).

  --listener-port PORT    port of the PUB socket that publishes messages to
                          client listeners (default 0: a free port)
  --dispenser-port PORT   port of the ROUTER socket that clients write to
                          (default 0: a free port)
  --registry FILE         answer registry requests with the bytes of FILE
                          (payload type "json") instead of the list of
                          applications seen; FILE is read again whenever it
                          has changed. Only a regular file of at most
                          --max-registry-bytes is used: a request that finds
                          it missing, too large or not a regular file (a
                          FIFO, a device) is logged and left unanswered
  --verbose               log one line per request
  --help                  show this text

Limits (what one client can cost the node):
  --max-routes N          a message with more than N push routes is refused:
                          logged, neither acknowledged nor published
                          (default 1024)
  --max-registry-bytes N  largest registry file used, in bytes (default
                          16777216, 16 MiB; at most 1073741824)
  --max-applications N    applications the registry lists; beyond N the one
                          seen longest ago is forgotten (default 1024)
  --subscriber-queue N    messages waiting for one subscriber; beyond N the
                          node waits up to 100 ms for it to catch up, then
                          it loses further messages until it has read half
                          of them (default 10000)
  --publish-queue-bytes N bytes of messages waiting for all subscribers
                          together; beyond N new messages are not published
                          (default 67108864, 64 MiB)
  --peer-queue-bytes N    bytes of answers (acknowledgements, registries)
                          waiting for one client; beyond N further answers
                          to it are dropped (default 50331648, 48 MiB:
                          two registries of the largest default size)
A client whose answers or messages wait is one that does not read: clients
that read never reach these limits. The node reads at most 1000 requests
ahead from one client; beyond that the client's connection waits, and
nothing is lost. It keeps a record of the last 4096 clients (dealers, by
routing identity) it has heard from: the bytes of answers waiting for each
and the connection it was last heard on. The record of a client not heard
from while 4096 others were is dropped: answers still waiting for it no
longer count against its --peer-queue-bytes, and a connection that next
takes over its identity is not logged as a clash. It is served as before.

Once ready it prints one line:
  orvik-devnode ready: listener-port=PORT dispenser-port=PORT

What it does:
  MSG   acknowledged to its sender with an ACK carrying its id, then published
        once per distinct push route, the route as topic frame followed by
        the message's frames; a message without routes is acknowledged and
        dropped (logged).
  GREG  answered with a REG whose payload (type "json") is the registry:
        {"applications":[{"app_id":"...","last_seen":"YYYY-MM-DDTHH:MM:SSZ"}]}
        listing the applications seen by inbox checks and messages.
  BOX   recorded: the application counts as seen.
  ACK   logged with --verbose; nothing else is answered.
A malformed request is logged with its sender and skipped; the node goes on.
Whatever is dropped is logged: what, for whom and why. The lines about one
client are limited to 10 at once, then 1 a second and one summary line a
second of those left out. Bytes a client sent are logged escaped: \xHH for
anything but printable ASCII, \\ for a backslash.
A client that connects with a routing identity already in use takes it
over from the earlier connection, which is no longer heard; the node logs
the clash, naming the identity. SIGINT and SIGTERM stop it cleanly.
)";

// A decimal count from `low` to `high`, nothing else.
unsigned long long parseCount(const std::string& text, unsigned long long low,
                              unsigned long long high) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        throw std::invalid_argument(text);
    }
    const unsigned long long value = std::stoull(text);
    if (value < low || value > high) {
        throw std::invalid_argument(text + " is not between " + std::to_string(low) + " and " +
                                    std::to_string(high));
    }
    return value;
}

int parsePort(const std::string& text) {
    std::size_t end = 0;
    const int port = std::stoi(text, &end);
    if (end != text.size() || port < 0 || port > 65535) {
        throw std::invalid_argument(text);
    }
    return port;
}

}  // namespace

int main(int argc, char** argv) {
    orvikdev::DevNodeOptions options;
    try {
        for (int i = 1; i < argc; ++i) {
            const std::string arg = argv[i];
            const auto value = [&]() -> std::string {
                if (i + 1 >= argc) {
                    throw std::invalid_argument(arg + " needs a value");
                }
                return argv[++i];
            };
            if (arg == "--help" || arg == "-h") {
                std::cout << usage;
                return 0;
            } else if (arg == "--listener-port") {
                options.listenerPort = parsePort(value());
            } else if (arg == "--dispenser-port") {
                options.dispenserPort = parsePort(value());
            } else if (arg == "--registry") {
                options.registryFile = value();
            } else if (arg == "--verbose") {
                options.verbose = true;
            } else if (arg == "--max-routes") {
                options.maxRoutes = parseCount(value(), 0, kMaxCount);
            } else if (arg == "--max-registry-bytes") {
                options.maxRegistryBytes = parseCount(value(), 0, kMaxRegistryBytes);
            } else if (arg == "--max-applications") {
                options.maxApplications = parseCount(value(), 1, kMaxCount);
            } else if (arg == "--subscriber-queue") {
                options.subscriberQueue = static_cast<int>(parseCount(value(), 1, kMaxCount));
            } else if (arg == "--publish-queue-bytes") {
                options.publishQueueBytes = parseCount(value(), 1, kMaxBytes);
            } else if (arg == "--peer-queue-bytes") {
                options.peerQueueBytes = parseCount(value(), 1, kMaxBytes);
            } else {
                throw std::invalid_argument("unknown option " + arg);
            }
        }
    } catch (const std::exception& error) {
        std::cerr << "orvik-devnode: bad arguments (" << error.what() << ")\n\n" << usage;
        return 2;
    }

    struct sigaction action {};
    action.sa_handler = requestStop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    try {
        orvikdev::DevNode node(options, std::cout);
        std::cout << "orvik-devnode ready: listener-port=" << node.listenerPort()
                  << " dispenser-port=" << node.dispenserPort() << std::endl;
        node.run(stop_requested);
        std::cout << "orvik-devnode stopped" << std::endl;
    } catch (const orviku::Exception& error) {
        std::cerr << "orvik-devnode: " << error.describe() << std::endl;
        return 1;
    } catch (const std::exception& error) {
        std::cerr << "orvik-devnode: " << error.what() << std::endl;
        return 1;
    }
    return 0;
}
