// Sender and Receiver over inproc, each next to raw libzmq writing or reading
// the same frames on the same pair of sockets.
//
// Send benchmarks: one request written, then drained from the other end with
// raw libzmq (the drain is the same on both sides). Receive benchmarks: the
// request's frames written with raw libzmq (the same on both sides), then read
// and decoded; the raw decoder checks the same layout and copies the payload
// into a buffer it reuses.

#include <benchmark/benchmark.h>
#include <zmq.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <orvikm/orvikm.hpp>
#include <wxblt/socket.hpp>

#include "micro_support.hpp"

namespace {

using orvikm::Message;
using orvikm::Receiver;
using orvikm::Registry;
using orvikm::Sender;
using orvikm::internal_objects::Ack;
using orvikm::internal_objects::GetRegistry;
using orvikm::internal_objects::Inbox;
using orvikm::internal_objects::InboxType;
using orvikmicro::AllocationCounter;

const std::string sample_id = "5f0c7a52-2b4e-4d8a-9c61-0e3b7d9a4f21";
const std::string delimiter(1, '\0');

// Two PAIR sockets of the library's context, joined over inproc.
struct InprocLink {
    InprocLink() {
        static int links = 0;
        const std::string endpoint = "inproc://orvik-micro-" + std::to_string(++links);
        reader.bind(endpoint);
        writer.connect(endpoint);
    }

    wxblt::Socket writer{wxblt::SocketType::Pair};
    wxblt::Socket reader{wxblt::SocketType::Pair};
};

// Reads and drops every frame of the next message.
void drain(void* socket) {
    zmq_msg_t frame;
    zmq_msg_init(&frame);
    do {
        if (zmq_msg_recv(&frame, socket, 0) < 0) {
            std::fprintf(stderr, "drain: %s\n", zmq_strerror(zmq_errno()));
            std::abort();
        }
    } while (zmq_msg_more(&frame) != 0);
    zmq_msg_close(&frame);
}

void writeFrames(void* socket, const std::vector<std::string>& frames) {
    for (std::size_t i = 0; i < frames.size(); ++i) {
        orvikbench::sendFrame(socket, frames[i], i + 1 < frames.size());
    }
}

// The frames of the control requests and of a registry, as written.
std::vector<std::string> ackFrames() {
    return {delimiter, "ACK", "msg_id|" + sample_id, delimiter, delimiter};
}
std::vector<std::string> inboxFrames() {
    return {delimiter, "BOX", "app_id|bench", "box_type|clnt", delimiter, delimiter};
}
std::vector<std::string> getRegistryFrames() {
    return {delimiter, "GREG", delimiter, delimiter};
}
std::vector<std::string> registryFrames(std::size_t size) {
    return {delimiter,
            "REG",
            "p_size|" + std::to_string(size),
            "p_type|" + std::string(orvikbench::bench_payload_type),
            delimiter,
            std::string(size, 'x')};
}

orvikbench::RawMessage rawMessage(const std::vector<char>& body) {
    orvikbench::RawMessage message;
    message.id = sample_id;
    message.payload = body.data();
    message.payload_size = body.size();
    return message;
}

// ---- Sender -----------------------------------------------------------------

void BM_SenderMessage(benchmark::State& state) {
    InprocLink link;
    Sender sender(&link.writer);
    std::vector<char> body(static_cast<std::size_t>(state.range(0)), 'x');
    const Message message = orvikmicro::benchMessage(body);
    AllocationCounter allocations;
    for (auto _ : state) {
        sender.send(message);
        drain(link.reader.handle());
    }
    allocations.report(state);
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_SenderMessage)->Apply(orvikmicro::payloadSizes);

void BM_RawWriteMessage(benchmark::State& state) {
    InprocLink link;
    std::vector<char> body(static_cast<std::size_t>(state.range(0)), 'x');
    const orvikbench::RawMessage message = rawMessage(body);
    AllocationCounter allocations;
    for (auto _ : state) {
        orvikbench::sendMessage(link.writer.handle(), message, false);
        drain(link.reader.handle());
    }
    allocations.report(state);
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_RawWriteMessage)->Apply(orvikmicro::payloadSizes);

template <typename Request>
void senderBenchmark(benchmark::State& state, const Request& request) {
    InprocLink link;
    Sender sender(&link.writer);
    AllocationCounter allocations;
    for (auto _ : state) {
        sender.send(request);
        drain(link.reader.handle());
    }
    allocations.report(state);
}

void rawWriteBenchmark(benchmark::State& state, const std::vector<std::string>& frames) {
    InprocLink link;
    AllocationCounter allocations;
    for (auto _ : state) {
        writeFrames(link.writer.handle(), frames);
        drain(link.reader.handle());
    }
    allocations.report(state);
}

void BM_SenderRegistry(benchmark::State& state) {
    std::vector<char> body(100, 'x');
    const Registry registry(orvikmicro::borrowedPayload(body));
    senderBenchmark<orvikm::internal_objects::PayloadRequest>(state, registry);
}
BENCHMARK(BM_SenderRegistry);

void BM_RawWriteRegistry(benchmark::State& state) {
    rawWriteBenchmark(state, registryFrames(100));
}
BENCHMARK(BM_RawWriteRegistry);

void BM_SenderInbox(benchmark::State& state) {
    senderBenchmark<orvikm::internal_objects::Request>(
        state, Inbox(std::string(orvikbench::bench_app_id), InboxType::Client));
}
BENCHMARK(BM_SenderInbox);

void BM_RawWriteInbox(benchmark::State& state) {
    rawWriteBenchmark(state, inboxFrames());
}
BENCHMARK(BM_RawWriteInbox);

void BM_SenderGetRegistry(benchmark::State& state) {
    senderBenchmark<orvikm::internal_objects::Request>(state, GetRegistry());
}
BENCHMARK(BM_SenderGetRegistry);

void BM_RawWriteGetRegistry(benchmark::State& state) {
    rawWriteBenchmark(state, getRegistryFrames());
}
BENCHMARK(BM_RawWriteGetRegistry);

void BM_SenderAck(benchmark::State& state) {
    senderBenchmark<orvikm::internal_objects::Request>(state, Ack(sample_id));
}
BENCHMARK(BM_SenderAck);

void BM_RawWriteAck(benchmark::State& state) {
    rawWriteBenchmark(state, ackFrames());
}
BENCHMARK(BM_RawWriteAck);

// ---- Receiver ---------------------------------------------------------------

void BM_ReceiverMessage(benchmark::State& state) {
    InprocLink link;
    Receiver receiver(&link.reader);
    const std::vector<char> body(static_cast<std::size_t>(state.range(0)), 'x');
    const orvikbench::RawMessage message = rawMessage(body);
    AllocationCounter allocations;
    for (auto _ : state) {
        orvikbench::sendMessage(link.writer.handle(), message, false);
        benchmark::DoNotOptimize(receiver.receive());
    }
    allocations.report(state);
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ReceiverMessage)->Apply(orvikmicro::payloadSizes);

void BM_RawReadMessage(benchmark::State& state) {
    InprocLink link;
    const std::vector<char> body(static_cast<std::size_t>(state.range(0)), 'x');
    const orvikbench::RawMessage message = rawMessage(body);
    orvikbench::RawFrames frames;
    orvikbench::DecodedMessage decoded;
    std::vector<char> payload;
    AllocationCounter allocations;
    for (auto _ : state) {
        orvikbench::sendMessage(link.writer.handle(), message, false);
        frames.receive(link.reader.handle());
        benchmark::DoNotOptimize(orvikbench::decodeRequest(frames, 0, decoded, payload));
    }
    allocations.report(state);
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_RawReadMessage)->Apply(orvikmicro::payloadSizes);

void receiverBenchmark(benchmark::State& state, const std::vector<std::string>& frames) {
    InprocLink link;
    Receiver receiver(&link.reader);
    AllocationCounter allocations;
    for (auto _ : state) {
        writeFrames(link.writer.handle(), frames);
        benchmark::DoNotOptimize(receiver.receive());
    }
    allocations.report(state);
}

void rawReadBenchmark(benchmark::State& state, const std::vector<std::string>& written) {
    InprocLink link;
    orvikbench::RawFrames frames;
    orvikbench::DecodedMessage decoded;
    std::vector<char> payload;
    AllocationCounter allocations;
    for (auto _ : state) {
        writeFrames(link.writer.handle(), written);
        frames.receive(link.reader.handle());
        benchmark::DoNotOptimize(orvikbench::decodeRequest(frames, 0, decoded, payload));
    }
    allocations.report(state);
}

void BM_ReceiverRegistry(benchmark::State& state) {
    receiverBenchmark(state, registryFrames(100));
}
BENCHMARK(BM_ReceiverRegistry);

void BM_RawReadRegistry(benchmark::State& state) {
    rawReadBenchmark(state, registryFrames(100));
}
BENCHMARK(BM_RawReadRegistry);

void BM_ReceiverInbox(benchmark::State& state) {
    receiverBenchmark(state, inboxFrames());
}
BENCHMARK(BM_ReceiverInbox);

void BM_RawReadInbox(benchmark::State& state) {
    rawReadBenchmark(state, inboxFrames());
}
BENCHMARK(BM_RawReadInbox);

void BM_ReceiverGetRegistry(benchmark::State& state) {
    receiverBenchmark(state, getRegistryFrames());
}
BENCHMARK(BM_ReceiverGetRegistry);

void BM_RawReadGetRegistry(benchmark::State& state) {
    rawReadBenchmark(state, getRegistryFrames());
}
BENCHMARK(BM_RawReadGetRegistry);

void BM_ReceiverAck(benchmark::State& state) {
    receiverBenchmark(state, ackFrames());
}
BENCHMARK(BM_ReceiverAck);

void BM_RawReadAck(benchmark::State& state) {
    rawReadBenchmark(state, ackFrames());
}
BENCHMARK(BM_RawReadAck);

}  // namespace
