// Feeds arbitrary frame sequences to a Receiver through a real ZeroMQ socket
// pair, and checks after each that the receiver either built a request or
// failed cleanly, and that the next well-formed request still reads right.
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>

#include <orvikm/orvikm.hpp>
#include <wxblt/wxblt.hpp>

#include "frame_input.hpp"

namespace {

struct Pair {
    wxblt::Socket writer{wxblt::SocketType::Pair};
    wxblt::Socket reader{wxblt::SocketType::Pair};
    orvikm::Receiver receiver{&reader};

    Pair() {
        reader.bind("inproc://fuzz-receiver");
        writer.connect("inproc://fuzz-receiver");
    }
};

Pair& pair() {
    static Pair* const shared = new Pair();
    return *shared;
}

void check(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "property violated: %s\n", what);
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Pair& sockets = pair();
    const auto frames = orvikfuzz::framesOf(data, size);
    if (frames.empty()) {
        return 0;
    }
    for (std::size_t i = 0; i < frames.size(); ++i) {
        sockets.writer.send(frames[i], i + 1 < frames.size());
    }

    try {
        const std::unique_ptr<orvikm::internal_objects::Request> request =
            sockets.receiver.receive();
        check(request != nullptr, "receive() returned an empty pointer");
        request->create_protocol_headers();
    } catch (const orviku::Exception&) {
        // Errors of the family flush the rest of the request themselves.
    } catch (const std::exception&) {
        // A "p_size" that is no number leaves the rest of the request unread.
        sockets.reader.flushMessage();
    }
    check(!sockets.reader.checkMore(), "frames of the request were left unread");

    // The next request must read as it was written.
    orvikm::Sender(&sockets.writer).send(orvikm::internal_objects::Ack("sentinel"));
    const auto next = sockets.receiver.receive();
    const auto* ack = dynamic_cast<const orvikm::internal_objects::Ack*>(next.get());
    check(ack != nullptr && ack->messageId() == "sentinel", "the next request did not read right");
    return 0;
}
