// An application outside the source tree, built against the installed
// package: it touches each of the three libraries once.
#include <orvikm/orvikm.hpp>
#include <orviku/orviku.hpp>
#include <wxblt/wxblt.hpp>

#include <chrono>
#include <iostream>

int main() {
    orvikm::Message message(orvikm::Payload(4, "bytes"),
                            orvikm::Message::Config("consumer", {"route"}, std::chrono::seconds(5),
                                                    orvikm::Message::AckMode::ByNode));
    const auto headers = message.create_protocol_headers();

    wxblt::Socket socket(wxblt::SocketType::Dealer);
    socket.bind("tcp://127.0.0.1:0");

    const bool ok = headers.at("app_id") == "consumer" && message.msgId().size() == 36 &&
                    orviku::generate_str_uuid() != message.msgId() &&
                    socket.lastEndpoint().rfind("tcp://127.0.0.1:", 0) == 0;
    std::cout << (ok ? "consumer ok" : "consumer FAILED") << std::endl;
    return ok ? 0 : 1;
}
