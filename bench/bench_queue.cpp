// Hand-off of messages between threads through CMsgQueue, the way the communicator's threads
// pass commands and the agent's messages: the latency of one hand-off to a reader blocked in
// GetMessage(true, 200), and the sustained rate of one producer and one consumer.
#include <string.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "comm/MsgQueue.h"
#include "comm/MsgQueueMsg.h"

namespace {

using Clock = std::chrono::steady_clock;

int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

MSG_QUEUE_MSG StampMessage(eCOMM_MESSAGE_ID id, int64_t stamp) {
    MSG_QUEUE_MSG message(id, 0, 1, 0);
    message.SetData(&stamp, sizeof(stamp));
    return message;
}

int64_t ReadStamp(const MSG_QUEUE_MSG& message) {
    int64_t stamp = 0;
    if (message.HasData(sizeof(stamp)))
        memcpy(&stamp, message.m_pData, sizeof(stamp));
    return stamp;
}

// Waits as the communicator's readers do: 200 ms at a time, a null read means try again.
std::unique_ptr<MSG_QUEUE_MSG> Read(CMsgQueue& queue) {
    for (;;) {
        std::unique_ptr<MSG_QUEUE_MSG> message = queue.GetMessage(true, 200);
        if (message != nullptr)
            return message;
    }
}

// One iteration = one hand-off to a reader that is blocked in its wait. The reader stamps the
// moment it holds its copy and sends that back; the time of the iteration is that stamp minus
// the moment before PutMessage. The wait between iterations lets the reader reach its wait.
void BM_HandOffLatency(benchmark::State& state) {
    CMsgQueue toReader("VN$COMM$SENDER");
    CMsgQueue back("VN$COMMUNICATOR");
    std::thread reader([&] {
        for (;;) {
            std::unique_ptr<MSG_QUEUE_MSG> message = Read(toReader);
            const int64_t received = NowNs();
            if (message->m_MessageId == COMM_MSG_QUIT)
                return;
            MSG_QUEUE_MSG answer = StampMessage(COMM_MSG_SERVICE_STATS, received);
            back.PutMessage(&answer);
        }
    });
    std::vector<int64_t> latencies;
    latencies.reserve(100000);
    for (auto _ : state) {
        // Give the reader time to get from its answer back into GetMessage and block there.
        const int64_t settle = NowNs() + 200000;
        while (NowNs() < settle) {
        }
        const int64_t sent = NowNs();
        MSG_QUEUE_MSG message = StampMessage(COMM_MSG_SERVICE_STATS, sent);
        toReader.PutMessage(&message);
        const int64_t received = ReadStamp(*Read(back));
        latencies.push_back(received - sent);
        state.SetIterationTime(static_cast<double>(received - sent) * 1e-9);
    }
    MSG_QUEUE_MSG quit(COMM_MSG_QUIT, 0, 1, 0);
    toReader.PutMessage(&quit);
    reader.join();
    std::sort(latencies.begin(), latencies.end());
    if (!latencies.empty()) {
        state.counters["median_us"] = static_cast<double>(latencies[latencies.size() / 2]) / 1e3;
        state.counters["p99_us"] =
            static_cast<double>(latencies[latencies.size() * 99 / 100]) / 1e3;
    }
}
BENCHMARK(BM_HandOffLatency)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(20000);

// One iteration = kBatch messages with 64 bytes of data from a producer thread to this thread,
// read with GetMessage(true, 200) as the communicator's loops read.
void BM_ProducerConsumerRate(benchmark::State& state) {
    constexpr int kBatch = 20000;
    CMsgQueue queue("VN$COMM$RECEIVER");
    std::vector<uint8_t> data(64, 0x5A);
    for (auto _ : state) {
        std::thread producer([&] {
            MSG_QUEUE_MSG message(COMM_MSG_SERVICE_STATS, 0, 1, 0);
            message.SetData(data.data(), static_cast<uint32_t>(data.size()));
            for (int i = 0; i < kBatch; ++i)
                queue.PutMessage(&message);
        });
        for (int received = 0; received < kBatch;) {
            std::unique_ptr<MSG_QUEUE_MSG> message = queue.GetMessage(true, 200);
            if (message != nullptr)
                ++received;
        }
        producer.join();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
}
BENCHMARK(BM_ProducerConsumerRate)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
