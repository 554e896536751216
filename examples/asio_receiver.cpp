// Subscribes to a topic, prints every message that arrives and acknowledges
// it, as receiver does, with the client driven from an asio::io_context by
// orvikm::AsioDriver instead of a thread lent to blockThreadForIO.
//
//   asio_receiver --listener-port P --dispenser-port P [--topic news]
//                 [--count 5] [--timeout 10]
#include <orvikm/asio.hpp>
#include <orvikm/orvikm.hpp>

#include <chrono>
#include <exception>
#include <iostream>
#include <string>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

#include "example_support.hpp"

int main(int argc, char** argv) {
    const example::Args args(argc, argv,
                             "usage: asio_receiver --listener-port P --dispenser-port P "
                             "[--topic T] [--count N] [--timeout SECONDS]\n");
    const int count = args.number("count", 5);

    orvikm::Client client("example-asio-receiver", args.requiredNumber("listener-port"),
                          args.requiredNumber("dispenser-port"), {args.text("topic", "news")});

    asio::io_context context;
    asio::steady_timer deadline(context, std::chrono::seconds(args.number("timeout", 10)));
    bool failed = false;
    // The driver's first pass runs once the context runs, so the callbacks
    // set below are in place for it.
    orvikm::AsioDriver driver(context, client, [&](orviku::Exception& error) {
        std::cerr << "asio_receiver: " << error.describe() << std::endl;
        failed = true;
        context.stop();
    });

    int received = 0;
    // Runs on the context's thread, inside a pass: sendAck belongs here.
    client.onMessage([&](std::unique_ptr<orvikm::Message> message) {
        const orvikm::Payload& body = message->payload();
        std::cout << "asio_receiver: got \"" << std::string(body.getBuffer(), body.size()) << "\" ("
                  << body.type() << ") from " << message->appId() << ", id " << message->msgId()
                  << std::endl;
        client.sendAck(*message);
        if (++received == count) {
            // The pass in progress still dispatches what has arrived: this
            // callback goes, so that those messages are not counted.
            client.onMessage(nullptr);
            driver.detach();
            deadline.cancel();
        }
    });
    deadline.async_wait([&](const asio::error_code& error) {
        if (!error) {
            driver.detach();
        }
    });

    // Returns once nothing is left to wait for (the driver detached, the
    // deadline passed or cancelled), or at the first error.
    try {
        context.run();
    } catch (const std::exception& error) {
        // A callback's own exception, or a publication that did not parse:
        // the driver still watches, but this example stops here.
        std::cerr << "asio_receiver: " << error.what() << std::endl;
        failed = true;
    }

    std::cout << "asio_receiver: " << received << " of " << count << " messages received"
              << std::endl;
    return !failed && received == count ? 0 : 1;
}
