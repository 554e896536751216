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

extern "C" void requestStop(int) {
    stop_requested.store(true);
}

const char* const usage =
    R"(Usage: orvik-devnode [--listener-port PORT] [--dispenser-port PORT]
                     [--registry FILE] [--verbose] [--help]

A stand-in for the Orvik Node on this machine. Clients connect their listener
to the listener port and their dispenser to the dispenser port, both on
127.0.0.1 (clients reach them as tcp://localhost:PORT).

  --listener-port PORT    port of the PUB socket that publishes messages to
                          client listeners (default 0: a free port)
  --dispenser-port PORT   port of the ROUTER socket that clients write to
                          (default 0: a free port)
  --registry FILE         answer registry requests with the bytes of FILE
                          (payload type "json") instead of the list of
                          applications seen; FILE is read at every request,
                          and a request that finds it unreadable is logged
                          and left unanswered
  --verbose               log one line per request
  --help                  show this text

Once ready it prints one line:
  orvik-devnode ready: listener-port=PORT dispenser-port=PORT

What it does:
  MSG   acknowledged to its sender with an ACK carrying its id, then published
        once per push route, the route as topic frame followed by the message's
        frames; a message without routes is acknowledged and dropped (logged).
  GREG  answered with a REG whose payload (type "json") is the registry:
        {"applications":[{"app_id":"...","last_seen":"YYYY-MM-DDTHH:MM:SSZ"}]}
        listing every application seen by inbox checks and messages.
  BOX   recorded: the application counts as seen.
  ACK   logged with --verbose; nothing else is answered.
A malformed request is logged with its sender and skipped; the node goes on.
Nothing is dropped for want of queue space: the sockets have no high-water
mark. SIGINT and SIGTERM stop it cleanly.
)";

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
