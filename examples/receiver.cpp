// Subscribes to a topic, prints every message that arrives and acknowledges it.
//
//   receiver --listener-port P --dispenser-port P [--topic news] [--count 5]
//            [--timeout 10]
#include <orvikm/orvikm.hpp>

#include <chrono>
#include <iostream>
#include <string>

#include "example_support.hpp"

int main(int argc, char** argv) {
    const example::Args args(argc, argv,
                             "usage: receiver --listener-port P --dispenser-port P [--topic T] "
                             "[--count N] [--timeout SECONDS]\n");
    const int count = args.number("count", 5);

    orvikm::Client client("example-receiver", args.requiredNumber("listener-port"),
                          args.requiredNumber("dispenser-port"), {args.text("topic", "news")});

    int received = 0;
    // Runs on the I/O thread, with the client's lock held; sendAck belongs
    // exactly here.
    client.onMessage([&](std::unique_ptr<orvikm::Message> message) {
        const orvikm::Payload& body = message->payload();
        std::cout << "receiver: got \"" << std::string(body.getBuffer(), body.size()) << "\" ("
                  << body.type() << ") from " << message->appId() << ", id " << message->msgId()
                  << std::endl;
        client.sendAck(*message);
        if (++received == count) {
            client.terminate();
        }
    });

    const example::Watchdog watchdog(std::chrono::seconds(args.number("timeout", 10)),
                                     [&] { client.terminate(); });

    bool failed = false;
    client.blockThreadForIO(
        [&](orviku::Exception& error) {
            std::cerr << "receiver: " << error.describe() << std::endl;
            failed = true;
        },
        std::chrono::milliseconds(50));

    std::cout << "receiver: " << received << " of " << count << " messages received" << std::endl;
    return !failed && received == count ? 0 : 1;
}
