// Encoding (create_protocol_headers) and decoding (the decoding constructors)
// of every request kind, and what building a message to send costs.
//
// A decoding constructor consumes its header map, so every iteration first
// copies a prepared map: the *Inputs benchmarks time that copy alone, and the
// decoding itself is the difference.

#include <benchmark/benchmark.h>

#include <list>
#include <string>
#include <utility>
#include <vector>

#include <orvikm/orvikm.hpp>
#include <orviku/uuid.hpp>

#include "micro_support.hpp"

namespace {

using orvikm::Message;
using orvikm::Payload;
using orvikm::Registry;
using orvikm::internal_objects::Ack;
using orvikm::internal_objects::GetRegistry;
using orvikm::internal_objects::HeaderMap;
using orvikm::internal_objects::Inbox;
using orvikm::internal_objects::InboxType;
using orvikmicro::AllocationCounter;

const std::string sample_id = "5f0c7a52-2b4e-4d8a-9c61-0e3b7d9a4f21";

// What the receiver hands to Message's decoding constructor: every header of
// a message but "p_size" and "p_type", which it has taken out.
HeaderMap receivedMessageHeaders() {
    return {{"ack_mode", "1"},
            {"app_id", std::string(orvikbench::bench_app_id)},
            {"id", sample_id},
            {"origin", ","},
            {"valid_for", "30"}};
}

Payload emptyPayload() {
    return Payload(nullptr, 0, std::string(orvikbench::bench_payload_type), nullptr);
}

// ---- encoding ---------------------------------------------------------------

void BM_EncodeMessage(benchmark::State& state) {
    std::vector<char> body(100, 'x');
    const Message message = orvikmicro::benchMessage(body);
    AllocationCounter allocations;
    for (auto _ : state) {
        benchmark::DoNotOptimize(message.create_protocol_headers());
    }
    allocations.report(state);
}
BENCHMARK(BM_EncodeMessage);

void BM_EncodeRegistry(benchmark::State& state) {
    std::vector<char> body(100, 'x');
    const Registry registry(orvikmicro::borrowedPayload(body));
    AllocationCounter allocations;
    for (auto _ : state) {
        benchmark::DoNotOptimize(registry.create_protocol_headers());
    }
    allocations.report(state);
}
BENCHMARK(BM_EncodeRegistry);

void BM_EncodeInbox(benchmark::State& state) {
    const Inbox inbox(std::string(orvikbench::bench_app_id), InboxType::Client);
    AllocationCounter allocations;
    for (auto _ : state) {
        benchmark::DoNotOptimize(inbox.create_protocol_headers());
    }
    allocations.report(state);
}
BENCHMARK(BM_EncodeInbox);

void BM_EncodeGetRegistry(benchmark::State& state) {
    const GetRegistry request;
    AllocationCounter allocations;
    for (auto _ : state) {
        benchmark::DoNotOptimize(request.create_protocol_headers());
    }
    allocations.report(state);
}
BENCHMARK(BM_EncodeGetRegistry);

void BM_EncodeAck(benchmark::State& state) {
    const Ack ack(sample_id);
    AllocationCounter allocations;
    for (auto _ : state) {
        benchmark::DoNotOptimize(ack.create_protocol_headers());
    }
    allocations.report(state);
}
BENCHMARK(BM_EncodeAck);

// ---- decoding ---------------------------------------------------------------

void BM_DecodeMessageInputs(benchmark::State& state) {
    const HeaderMap prepared = receivedMessageHeaders();
    const std::list<std::string> routes{std::string(orvikbench::bench_topic)};
    AllocationCounter allocations;
    for (auto _ : state) {
        HeaderMap headers = prepared;
        std::list<std::string> routesCopy = routes;
        Payload payload = emptyPayload();
        benchmark::DoNotOptimize(headers);
        benchmark::DoNotOptimize(routesCopy);
        benchmark::DoNotOptimize(payload);
    }
    allocations.report(state);
}
BENCHMARK(BM_DecodeMessageInputs);

void BM_DecodeMessage(benchmark::State& state) {
    const HeaderMap prepared = receivedMessageHeaders();
    const std::list<std::string> routes{std::string(orvikbench::bench_topic)};
    AllocationCounter allocations;
    for (auto _ : state) {
        HeaderMap headers = prepared;
        Message message(emptyPayload(), routes, headers);
        benchmark::DoNotOptimize(message);
    }
    allocations.report(state);
}
BENCHMARK(BM_DecodeMessage);

void BM_DecodeRegistryInputs(benchmark::State& state) {
    AllocationCounter allocations;
    for (auto _ : state) {
        HeaderMap headers;
        Payload payload = emptyPayload();
        benchmark::DoNotOptimize(headers);
        benchmark::DoNotOptimize(payload);
    }
    allocations.report(state);
}
BENCHMARK(BM_DecodeRegistryInputs);

void BM_DecodeRegistry(benchmark::State& state) {
    AllocationCounter allocations;
    for (auto _ : state) {
        HeaderMap headers;
        Registry registry(emptyPayload(), headers);
        benchmark::DoNotOptimize(registry);
    }
    allocations.report(state);
}
BENCHMARK(BM_DecodeRegistry);

void BM_DecodeInboxInputs(benchmark::State& state) {
    const HeaderMap prepared{{"app_id", std::string(orvikbench::bench_app_id)},
                             {"box_type", "clnt"}};
    AllocationCounter allocations;
    for (auto _ : state) {
        HeaderMap headers = prepared;
        benchmark::DoNotOptimize(headers);
    }
    allocations.report(state);
}
BENCHMARK(BM_DecodeInboxInputs);

void BM_DecodeInbox(benchmark::State& state) {
    const HeaderMap prepared{{"app_id", std::string(orvikbench::bench_app_id)},
                             {"box_type", "clnt"}};
    AllocationCounter allocations;
    for (auto _ : state) {
        HeaderMap headers = prepared;
        Inbox inbox(headers);
        benchmark::DoNotOptimize(inbox);
    }
    allocations.report(state);
}
BENCHMARK(BM_DecodeInbox);

void BM_DecodeGetRegistry(benchmark::State& state) {
    AllocationCounter allocations;
    for (auto _ : state) {
        GetRegistry request{HeaderMap()};
        benchmark::DoNotOptimize(request);
    }
    allocations.report(state);
}
BENCHMARK(BM_DecodeGetRegistry);

void BM_DecodeAckInputs(benchmark::State& state) {
    const HeaderMap prepared{{"msg_id", sample_id}};
    AllocationCounter allocations;
    for (auto _ : state) {
        HeaderMap headers = prepared;
        benchmark::DoNotOptimize(headers);
    }
    allocations.report(state);
}
BENCHMARK(BM_DecodeAckInputs);

void BM_DecodeAck(benchmark::State& state) {
    const HeaderMap prepared{{"msg_id", sample_id}};
    AllocationCounter allocations;
    for (auto _ : state) {
        HeaderMap headers = prepared;
        Ack ack(headers);
        benchmark::DoNotOptimize(ack);
    }
    allocations.report(state);
}
BENCHMARK(BM_DecodeAck);

// ---- building a message to send ---------------------------------------------

void BM_GenerateUuid(benchmark::State& state) {
    AllocationCounter allocations;
    for (auto _ : state) {
        benchmark::DoNotOptimize(orviku::generate_str_uuid());
    }
    allocations.report(state);
}
BENCHMARK(BM_GenerateUuid);

void BM_NewMessage(benchmark::State& state) {
    std::vector<char> body(100, 'x');
    AllocationCounter allocations;
    for (auto _ : state) {
        Message message = orvikmicro::benchMessage(body);
        benchmark::DoNotOptimize(message);
    }
    allocations.report(state);
}
BENCHMARK(BM_NewMessage);

}  // namespace
