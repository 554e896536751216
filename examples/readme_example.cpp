#include <orvikm/orvikm.hpp>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>

using namespace std::chrono_literals;

// Receives one message published along "greetings", acknowledges it, returns.
void receiveOne(orvikm::Client& client) {
    client.onMessage([&](std::unique_ptr<orvikm::Message> message) {
        const orvikm::Payload& body = message->payload();
        std::cout << "received: " << std::string(body.getBuffer(), body.size()) << std::endl;
        client.sendAck(*message);
        client.terminate();
    });
    client.blockThreadForIO([](orviku::Exception& error) { std::cerr << error.describe() << '\n'; },
                            50ms);
}

// Sends one message along "greetings" and returns once the node has it.
void sendOne(orvikm::Client& client) {
    const std::string text = "hello";
    orvikm::Payload payload(static_cast<unsigned>(text.size()), "text/plain");
    text.copy(payload.getBuffer(), text.size());
    client.send(
        std::move(payload), {"greetings"}, 30s,
        [&] {
            std::cout << "acknowledged by the node" << std::endl;
            client.terminate();
        },
        orvikm::Message::AckMode::ByNode);
    client.blockThreadForIO([](orviku::Exception& error) { std::cerr << error.describe() << '\n'; },
                            50ms);
}

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: readme_example send|receive LISTENER_PORT DISPENSER_PORT\n";
        return 2;
    }
    const std::string mode = argv[1];
    // The listener subscribes to the topic "greetings"; the dispenser writes.
    orvikm::Client client("readme-" + mode, std::atoi(argv[2]), std::atoi(argv[3]), {"greetings"});
    mode == "send" ? sendOne(client) : receiveOne(client);
}
