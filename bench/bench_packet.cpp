// Cost of turning a message with 600 bytes of data into its packet and back, as the sender and
// the IPC callback do for every message on the wire.
#include <vector>

#include <benchmark/benchmark.h>

#include "comm/ChannelPacket.h"
#include "comm/MsgQueueMsg.h"

namespace {

constexpr uint32_t kDataSize = 600;

MSG_QUEUE_MSG MakeMessage() {
    MSG_QUEUE_MSG message(COMM_MSG_PROXY_CRED_RESPONSE, 0, 1, 0);
    std::vector<uint8_t> data(kDataSize);
    for (uint32_t i = 0; i < kDataSize; ++i)
        data[i] = static_cast<uint8_t>(i * 7);
    message.SetData(data.data(), kDataSize);
    return message;
}

void BM_BuildPacket(benchmark::State& state) {
    const MSG_QUEUE_MSG message = MakeMessage();
    for (auto _ : state) {
        uint32_t size = 0;
        std::unique_ptr<uint8_t[]> packet = BuildPacket(&message, size);
        benchmark::DoNotOptimize(packet.get());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * (kDataSize + 24));
}
BENCHMARK(BM_BuildPacket);

void BM_ParsePacket(benchmark::State& state) {
    const MSG_QUEUE_MSG message = MakeMessage();
    uint32_t size = 0;
    const std::unique_ptr<uint8_t[]> packet = BuildPacket(&message, size);
    MSG_QUEUE_MSG parsed(COMM_MSG_NONE, 0, 1, 0);
    for (auto _ : state) {
        const bool ok = ParsePacket(packet.get(), size, parsed);
        benchmark::DoNotOptimize(ok);
        benchmark::DoNotOptimize(parsed.m_pData);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * size);
}
BENCHMARK(BM_ParsePacket);

void BM_BuildAndParsePacket(benchmark::State& state) {
    const MSG_QUEUE_MSG message = MakeMessage();
    MSG_QUEUE_MSG parsed(COMM_MSG_NONE, 0, 1, 0);
    for (auto _ : state) {
        uint32_t size = 0;
        std::unique_ptr<uint8_t[]> packet = BuildPacket(&message, size);
        const bool ok = ParsePacket(packet.get(), size, parsed);
        benchmark::DoNotOptimize(ok);
        benchmark::DoNotOptimize(parsed.m_pData);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * (kDataSize + 24));
}
BENCHMARK(BM_BuildAndParsePacket);

}  // namespace

BENCHMARK_MAIN();
