// IPC channel speed against a raw Unix-domain socket measured in the same run: round trips of
// 64- and 600-byte packets, and one-way throughput of 600-byte packets. After the run the
// library-to-raw round-trip ratios are printed (of the medians when run with
// --benchmark_repetitions).
//
// Raw reference: a connected AF_UNIX stream pair; each frame (4-byte length + payload) goes out
// with one write, and the reader reads until it holds a whole frame, as the library does.
// Library round trip, two ways: "Wait" has the benchmark thread send and wait for the reply that
// the client's I/O thread hands over (one thread hop more than raw), "Callback" sends the next
// ping from inside the client's callback (the same hops as raw). The server echoes from its
// callback in both.
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "BenchSupport.h"

#include "ipc/IPCServer.h"
#include "ipc/IPCTesting.h"

namespace {

constexpr uint16_t kPort = 4712;

using bench_support::ReadFrameRaw;
using bench_support::WriteAllRaw;

std::string FrameOf(size_t size) {
    std::string frame(4 + size, 'p');
    const uint32_t length = static_cast<uint32_t>(size);
    memcpy(&frame[0], &length, 4);
    return frame;
}

void BM_RawRoundTrip(benchmark::State& state) {
    bench_support::EchoPair pair;
    if (!pair.ok()) {
        state.SkipWithError("socketpair");
        return;
    }
    const std::string frame = FrameOf(static_cast<size_t>(state.range(0)));
    std::vector<char> reply(64 * 1024);
    for (auto _ : state) {
        WriteAllRaw(pair.fd, frame.data(), frame.size());
        if (!ReadFrameRaw(pair.fd, reply))
            state.SkipWithError("raw echo lost");
    }
}

void BM_RawOneWay(benchmark::State& state) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) {
        state.SkipWithError("socketpair");
        return;
    }
    std::atomic<uint64_t> received{0};
    std::thread reader([&, fd = pair[1]] {
        std::vector<char> buffer(64 * 1024);
        for (;;) {
            const ssize_t got = read(fd, buffer.data(), buffer.size());
            if (got <= 0)
                break;
            received += static_cast<uint64_t>(got);
        }
    });
    const std::string frame = FrameOf(static_cast<size_t>(state.range(0)));
    constexpr int kBatch = 1000;
    uint64_t sent = 0;
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i)
            WriteAllRaw(pair[0], frame.data(), frame.size());
        sent += kBatch * frame.size();
        while (received.load() < sent)
            std::this_thread::yield();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    shutdown(pair[0], SHUT_RDWR);
    reader.join();
    close(pair[0]);
    close(pair[1]);
}

// A library server and client in a temporary socket root. The server echoes every packet from
// inside its callback, or only counts it (`echo` false).
class LibraryPair : public IIPCServerCallback {
  public:
    explicit LibraryPair(bool echo) : m_bEcho(echo) {
        char pattern[] = "/tmp/ipc-bench-XXXXXX";
        m_Root = mkdtemp(pattern);
        ipc::SetSocketRootForTesting(m_Root);
        BR_STATUSCODE status = 0;
        m_pServer.reset(CIPCFactory::CreateIPCServer(8, this, status, kPort));
        m_pClient.reset(CIPCFactory::CreateIPCClient(6, &m_ClientSide, status, 0));
        m_bReady = m_pServer->Listen() == IPC_STATUS_OK &&
                   m_pClient->ConnectAsync(8, 0, 5, kPort) == IPC_STATUS_OK &&
                   m_ClientSide.WaitConnected();
    }
    ~LibraryPair() {
        m_pClient.reset();
        m_pServer.reset();
        ipc::SetSocketRootForTesting("");
        std::filesystem::remove_all(m_Root);
    }

    void OnPeerStateChanged(uint32_t, uint32_t, uint32_t) override {}
    void OnReqMsgRecv(IPCBuffer*) override {}
    void OnRespMsgRecv(IPCBuffer*) override {}
    void OnReqMsgRecvFrom(uint16_t session, IPCBuffer* buffer) override {
        if (m_bEcho) {
            m_pServer->SendData(buffer, session);
        } else {
            m_ServerCount.fetch_add(1, std::memory_order_release);
        }
    }

    // The client's side: counts replies, wakes a waiting thread, or pings again from inside.
    struct ClientSide : IIPCCallback {
        void OnPeerStateChanged(uint32_t, uint32_t, uint32_t state) override {
            std::lock_guard<std::mutex> guard(lock);
            connected = state == 2;
            changed.notify_all();
        }
        void OnReqMsgRecv(IPCBuffer* buffer) override {
            if (pingsLeft > 0) {
                --pingsLeft;
                client->SendData(buffer);
                return;
            }
            std::lock_guard<std::mutex> guard(lock);
            ++replies;
            changed.notify_all();
        }
        void OnRespMsgRecv(IPCBuffer*) override {}
        bool WaitConnected() {
            std::unique_lock<std::mutex> guard(lock);
            return changed.wait_for(guard, std::chrono::seconds(5), [&] { return connected; });
        }
        void WaitReplies(uint64_t n) {
            std::unique_lock<std::mutex> guard(lock);
            changed.wait(guard, [&] { return replies >= n; });
        }
        std::mutex lock;
        std::condition_variable changed;
        bool connected = false;
        uint64_t replies = 0;
        std::atomic<uint64_t> pingsLeft{0};
        IIPCClient* client = nullptr;
    };

    bool Ready() const { return m_bReady; }
    IIPCClient& Client() { return *m_pClient; }
    ClientSide& Side() { return m_ClientSide; }
    uint64_t ServerCount() const { return m_ServerCount.load(std::memory_order_acquire); }

  private:
    const bool m_bEcho;
    std::string m_Root;
    ClientSide m_ClientSide;
    std::unique_ptr<IIPCServer> m_pServer;
    std::unique_ptr<IIPCClient> m_pClient;
    std::atomic<uint64_t> m_ServerCount{0};
    bool m_bReady = false;
};

IPCBuffer BufferOver(std::string& bytes) {
    IPCBuffer buffer{};
    buffer.m_Kind = kIPCBufferKindRequest;
    buffer.m_Length = static_cast<uint32_t>(bytes.size());
    buffer.m_pData = &bytes[0];
    return buffer;
}

void BM_LibraryRoundTripWait(benchmark::State& state) {
    LibraryPair pair(true);
    if (!pair.Ready()) {
        state.SkipWithError("no connection");
        return;
    }
    std::string payload(static_cast<size_t>(state.range(0)), 'p');
    IPCBuffer buffer = BufferOver(payload);
    uint64_t sent = 0;
    for (auto _ : state) {
        pair.Client().SendData(&buffer);
        pair.Side().WaitReplies(++sent);
    }
}

void BM_LibraryRoundTripCallback(benchmark::State& state) {
    LibraryPair pair(true);
    if (!pair.Ready()) {
        state.SkipWithError("no connection");
        return;
    }
    pair.Side().client = &pair.Client();
    std::string payload(static_cast<size_t>(state.range(0)), 'p');
    IPCBuffer buffer = BufferOver(payload);
    constexpr uint64_t kRounds = 1000;  // round trips per iteration, chained in the callback
    uint64_t finished = 0;
    for (auto _ : state) {
        pair.Side().pingsLeft = kRounds - 1;
        pair.Client().SendData(&buffer);
        pair.Side().WaitReplies(++finished);
    }
    state.SetItemsProcessed(state.iterations() * kRounds);
    state.counters["per_round_trip_ns"] =
        benchmark::Counter(static_cast<double>(state.iterations() * kRounds),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_LibraryOneWay(benchmark::State& state) {
    LibraryPair pair(false);
    if (!pair.Ready()) {
        state.SkipWithError("no connection");
        return;
    }
    std::string payload(static_cast<size_t>(state.range(0)), 'p');
    IPCBuffer buffer = BufferOver(payload);
    constexpr int kBatch = 1000;
    uint64_t sent = 0;
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i)
            pair.Client().SendData(&buffer);
        sent += kBatch;
        while (pair.ServerCount() < sent)
            std::this_thread::yield();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

BENCHMARK(BM_RawRoundTrip)->Arg(64)->Arg(600)->UseRealTime();
BENCHMARK(BM_LibraryRoundTripWait)->Arg(64)->Arg(600)->UseRealTime();
BENCHMARK(BM_LibraryRoundTripCallback)->Arg(64)->Arg(600)->UseRealTime();
BENCHMARK(BM_RawOneWay)->Arg(600)->UseRealTime();
BENCHMARK(BM_LibraryOneWay)->Arg(600)->UseRealTime();

// Keeps the real time per iteration of every run, to print the ratios at the end.
class RatioReporter : public bench_support::TimeKeepingReporter {
  public:
    void PrintRatios() const {
        for (const char* size : {"64", "600"}) {
            const std::string raw = std::string("BM_RawRoundTrip/") + size + "/real_time";
            const std::string wait = std::string("BM_LibraryRoundTripWait/") + size + "/real_time";
            const std::string chained =
                std::string("BM_LibraryRoundTripCallback/") + size + "/real_time";
            if (m_Nanos.count(raw) == 0)
                continue;
            const double rawNs = m_Nanos.at(raw);
            std::printf("round trip %4s bytes: raw %.0f ns", size, rawNs);
            if (m_Nanos.count(wait) != 0) {
                std::printf(", library (caller waits) %.0f ns = %.2fx", m_Nanos.at(wait),
                            m_Nanos.at(wait) / rawNs);
            }
            if (m_Nanos.count(chained) != 0) {
                const double perTrip = m_Nanos.at(chained) / 1000.0;
                std::printf(", library (chained in callback) %.0f ns = %.2fx", perTrip,
                            perTrip / rawNs);
            }
            std::printf("\n");
        }
    }
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatios();
    benchmark::Shutdown();
    return 0;
}
