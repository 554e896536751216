// Fetches the node's registry every second and prints it.
//
//   registry_watcher --listener-port P --dispenser-port P [--count 2]
//                    [--timeout 10]
#include <orvikm/orvikm.hpp>

#include <chrono>
#include <iostream>
#include <string>

#include "example_support.hpp"

int main(int argc, char** argv) {
    const example::Args args(argc, argv,
                             "usage: registry_watcher --listener-port P --dispenser-port P "
                             "[--count N] [--timeout SECONDS]\n");
    const int count = args.number("count", 2);

    orvikm::Client client("example-registry-watcher", args.requiredNumber("listener-port"),
                          args.requiredNumber("dispenser-port"), {});

    int fetched = 0;
    // The registry is shared: the application may keep it beyond the callback.
    client.obtainRegistry(
        [&](std::shared_ptr<orvikm::Registry> registry) {
            const orvikm::Payload& body = registry->payload();
            std::cout << "registry_watcher: registry (" << body.type()
                      << "): " << std::string(body.getBuffer(), body.size()) << std::endl;
            if (++fetched == count) {
                client.terminate();
            }
        },
        std::chrono::seconds(1));

    const example::Watchdog watchdog(std::chrono::seconds(args.number("timeout", 10)),
                                     [&] { client.terminate(); });

    bool failed = false;
    client.blockThreadForIO(
        [&](orviku::Exception& error) {
            std::cerr << "registry_watcher: " << error.describe() << std::endl;
            failed = true;
        },
        std::chrono::milliseconds(50));

    std::cout << "registry_watcher: " << fetched << " registries fetched" << std::endl;
    return !failed && fetched == count ? 0 : 1;
}
