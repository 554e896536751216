// Sends messages from a worker thread, then flushes before exit: reports which
// the node acknowledged.
//
//   sender --listener-port P --dispenser-port P [--route news] [--count 5]
//          [--timeout 10]
#include <orvikm/orvikm.hpp>

#include <atomic>
#include <chrono>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>

#include "example_support.hpp"

int main(int argc, char** argv) {
    const example::Args args(argc, argv,
                             "usage: sender --listener-port P --dispenser-port P [--route R] "
                             "[--count N] [--timeout SECONDS]\n");
    const int count = args.number("count", 5);
    const std::string route = args.text("route", "news");

    orvikm::Client client("example-sender", args.requiredNumber("listener-port"),
                          args.requiredNumber("dispenser-port"), {});

    std::mutex print;
    std::atomic<int> acknowledged{0};

    // send() only queues, so any thread may call it; the acknowledgement
    // callbacks run later on the I/O thread, the one the client borrows.
    std::thread worker([&] {
        for (int i = 1; i <= count; ++i) {
            const std::string text = "hello #" + std::to_string(i);
            orvikm::Payload payload(static_cast<unsigned>(text.size()), "text/plain");
            text.copy(payload.getBuffer(), text.size());
            client.send(
                std::move(payload), {route}, std::chrono::seconds(30),
                [&, i] {
                    ++acknowledged;
                    std::lock_guard<std::mutex> guard(print);
                    std::cout << "sender: message #" << i << " acknowledged" << std::endl;
                },
                orvikm::Message::AckMode::ByNode);
            std::lock_guard<std::mutex> guard(print);
            std::cout << "sender: queued message #" << i << " on route " << route << std::endl;
        }
    });
    worker.join();

    // Flush before exit: this thread runs the I/O loop until every message is
    // written and acknowledged, an error occurs, or the deadline passes.
    bool failed = false;
    const orvikm::Client::FlushResult flushed = client.flush(
        std::chrono::seconds(args.number("timeout", 10)), [&](orviku::Exception& error) {
            std::cerr << "sender: " << error.describe() << std::endl;
            failed = true;
        });

    std::cout << "sender: " << acknowledged << " of " << count << " messages acknowledged"
              << std::endl;
    if (!flushed.complete) {
        std::cerr << "sender: " << flushed.queued << " still queued, " << flushed.awaitingAck
                  << " not acknowledged" << std::endl;
    }
    return !failed && flushed.complete ? 0 : 1;
}
