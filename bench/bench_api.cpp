// The client API against the in-process agent simulator over the real channel, with a raw
// Unix-socket round trip measured in the same run as the yardstick:
//   BM_RawRoundTrip          a frame out and back over a connected AF_UNIX stream pair, with an
//                            echo thread (the same method as bench_ipc's BM_RawRoundTrip);
//   BM_NotifyLatency         the agent broadcasts a state byte; the callback's OnStatus runs;
//   BM_CommandLatency        SetTower is called; the agent receives 1042 (stamped in its log
//                            sink on its I/O thread);
//   BM_StatisticsFlood       the agent sends 1059 as fast as it can; an OnStatistics that only
//                            counts; the receiver's queue is sampled during the stream;
//   BM_StatisticsPaced       the same at 50,000 per second for 2 seconds;
//   BM_StopConnected         deleting a connected API (the whole stop sequence);
//   BM_IdleCpu               CPU of a connected, silent module over 10 seconds.
// Latencies are taken per iteration (median and 99th percentile as counters, manual time is the
// mean). The real IPC client is wrapped (StampingChannel) so that each latency also splits into
// the channel's part and the module's. After the run the goals are printed with this run's
// figures.
//
// The trace is initialised with the default mask, as the product starts; its records are
// formatted and dropped here (vsyslog below) rather than sent to the machine's system log.
#include <dirent.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "BenchSupport.h"

#include "AgentSimulator.h"
#include "IVantoriaApiCB.h"
#include "api/VantoriaApi.h"
#include "comm/ClientSideCommunicator.h"
#include "common/Utils.h"
#include "common/VNTrace.h"
#include "ipc/IPCTesting.h"
#include "plugin/PluginEntry.h"

// The system log of this process: formatted, counted, dropped.
std::atomic<uint64_t> g_LogRecords{0};

extern "C" __attribute__((visibility("default"))) void openlog(const char*, int, int) {}

extern "C" __attribute__((visibility("default"))) void vsyslog(int, const char* format,
                                                               va_list args) {
    char text[1024];
    vsnprintf(text, sizeof(text), format, args);
    g_LogRecords.fetch_add(1, std::memory_order_relaxed);
}

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr uint16_t kPort = 5091;
constexpr auto kWait = seconds(10);

// ---------------------------------------------------------------------------------------------
// Per-iteration samples

class Samples {
  public:
    void Add(Clock::duration d) {
        m_Micros.push_back(std::chrono::duration<double, std::micro>(d).count());
    }
    double Quantile(double q) {
        if (m_Micros.empty())
            return 0;
        std::sort(m_Micros.begin(), m_Micros.end());
        const size_t at = std::min(m_Micros.size() - 1, static_cast<size_t>(q * m_Micros.size()));
        return m_Micros[at];
    }
    void Report(benchmark::State& state, const std::string& prefix = "") {
        state.counters[prefix + "median_us"] = Quantile(0.5);
        state.counters[prefix + "p99_us"] = Quantile(0.99);
    }

  private:
    std::vector<double> m_Micros;
};

double Seconds(Clock::duration d) {
    return std::chrono::duration<double>(d).count();
}

// ---------------------------------------------------------------------------------------------
// Raw socket round trip, the yardstick

using bench_support::ReadFrameRaw;
using bench_support::WriteAllRaw;

// Frames of a state-byte packet's size: 24 bytes of header and one of data.
void BM_RawRoundTrip(benchmark::State& state) {
    bench_support::EchoPair pair;
    if (!pair.ok()) {
        state.SkipWithError("socketpair");
        return;
    }
    const size_t payload = static_cast<size_t>(state.range(0));
    std::string frame(4 + payload, 'p');
    const uint32_t length = static_cast<uint32_t>(payload);
    memcpy(&frame[0], &length, 4);
    std::vector<char> reply(64 * 1024);
    Samples samples;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        WriteAllRaw(pair.fd, frame.data(), frame.size());
        if (!ReadFrameRaw(pair.fd, reply)) {
            state.SkipWithError("raw echo lost");
            break;
        }
        const Clock::duration took = Clock::now() - start;
        samples.Add(took);
        state.SetIterationTime(Seconds(took));
    }
    samples.Report(state);
}

// ---------------------------------------------------------------------------------------------
// A connected API against the simulator

// The application: stamps and counts what arrives. OnStatistics only counts.
class Recorder : public IVantoriaApiCB {
  public:
    int32_t OnTowerList(IVantoriaTowerList*) override {
        Bump(m_TowerLists);
        return 0;
    }
    int32_t OnStatus(IVantoriaStatus* status) override {
        const Clock::time_point now = Clock::now();
        uint64_t code = 0;
        status->GetStatus(code);
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_StatusCounts[code] += 1;
            m_LastStatusAt = now;
        }
        m_Changed.notify_all();
        return 0;
    }
    int32_t OnDCTSettings(IVantoriaDCT*) override {
        Bump(m_Dcts);
        return 0;
    }
    int32_t OnProxyCredRequest(std::string&, std::string&, std::string&, std::string&) override {
        return 0;
    }
    int32_t OnStatistics(IVantoriaStatistics*) override {
        const uint64_t n = m_Statistics.fetch_add(1, std::memory_order_relaxed) + 1;
        if (n == m_StatisticsTarget.load(std::memory_order_relaxed)) {
            {
                std::lock_guard<std::mutex> lock(m_Mutex);
                m_LastStatisticsAt = Clock::now();
            }
            m_Changed.notify_all();
        }
        return 0;
    }
    int32_t OnInfoMessage(IVantoriaInfoMessage*) override { return 0; }

    uint64_t StatusCount(uint64_t code) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_StatusCounts[code];
    }
    // Waits until status `code` has come `count` times; `at` gets the time of the last status.
    bool WaitStatus(uint64_t code, uint64_t count, Clock::time_point* at = nullptr) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        const bool ok =
            m_Changed.wait_for(lock, kWait, [&] { return m_StatusCounts[code] >= count; });
        if (at != nullptr)
            *at = m_LastStatusAt;
        return ok;
    }
    uint64_t Dcts() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Dcts;
    }
    bool WaitDcts(uint64_t count) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Changed.wait_for(lock, kWait, [&] { return m_Dcts >= count; });
    }
    // Statistics: arm a target count, then wait for it.
    void ArmStatistics(uint64_t target) {
        m_Statistics = 0;
        m_StatisticsTarget = target;
    }
    uint64_t Statistics() const { return m_Statistics.load(std::memory_order_relaxed); }
    bool WaitStatistics(Clock::time_point* at) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        const bool ok = m_Changed.wait_for(
            lock, kWait, [&] { return m_Statistics.load() >= m_StatisticsTarget.load(); });
        *at = m_LastStatisticsAt;
        return ok;
    }

  private:
    void Bump(uint64_t& counter) {
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            ++counter;
        }
        m_Changed.notify_all();
    }

    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::map<uint64_t, uint64_t> m_StatusCounts;
    Clock::time_point m_LastStatusAt;
    Clock::time_point m_LastStatisticsAt;
    uint64_t m_TowerLists = 0;
    uint64_t m_Dcts = 0;
    std::atomic<uint64_t> m_Statistics{0};
    std::atomic<uint64_t> m_StatisticsTarget{0};
};

// The receiver thread's queue of a running communicator, for its length. A pointer to the
// protected member formed through a derived class applies to any communicator.
struct ReceiverPeek : CClientSideCommunicator {
    static std::shared_ptr<COMM_THREAD_DATA> CCommunicator::*Member() {
        return &ReceiverPeek::m_pReceiverData;
    }
};

size_t ReceiverBacklog(CCommunicator* communicator) {
    const std::shared_ptr<COMM_THREAD_DATA>& data = communicator->*ReceiverPeek::Member();
    return data != nullptr && data->m_pQueue != nullptr ? data->m_pQueue->GetCount() : 0;
}

int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

// The real IPC client, wrapped so that the moments the library hands a packet to the module
// (OnReqMsgRecv, on the library's I/O thread) and the module hands one to the library
// (SendData, on the sender thread) are stamped: the latencies split into the channel's part and
// the module's. Each costs a forwarding call and a clock read.
class StampingChannel : public IIPCCallback {
  public:
    IIPCClient* Make(uint32_t identity, IIPCCallback* module) {
        m_pModule = module;
        BR_STATUSCODE status = 0;
        IIPCClient* real = CIPCFactory::CreateIPCClient(identity, this, status, 0);
        return real != nullptr ? new Client(this, real) : nullptr;
    }
    // The last moment a packet with message id `id` went one way or the other.
    int64_t LastReceiveNs(uint32_t id) const { return m_LastReceive[Slot(id)].load(); }
    int64_t LastSendNs(uint32_t id) const { return m_LastSend[Slot(id)].load(); }

    void OnPeerStateChanged(uint32_t peer, uint32_t session, uint32_t state) override {
        m_pModule->OnPeerStateChanged(peer, session, state);
    }
    void OnReqMsgRecv(IPCBuffer* buffer) override {
        m_LastReceive[Slot(IdOf(buffer))] = NowNs();
        m_pModule->OnReqMsgRecv(buffer);
    }
    void OnRespMsgRecv(IPCBuffer* buffer) override { m_pModule->OnRespMsgRecv(buffer); }

  private:
    class Client : public IIPCClient {
      public:
        Client(StampingChannel* owner, IIPCClient* real) : m_pOwner(owner), m_pReal(real) {}
        ~Client() override { delete m_pReal; }
        BR_STATUSCODE ConnectAsync(uint32_t peer, uint32_t flags, uint32_t param,
                                   uint16_t port) override {
            return m_pReal->ConnectAsync(peer, flags, param, port);
        }
        BR_STATUSCODE SendData(IPCBuffer* buffer) override {
            m_pOwner->m_LastSend[Slot(IdOf(buffer))] = NowNs();
            return m_pReal->SendData(buffer);
        }
        BR_STATUSCODE ReservedSlot2() override { return m_pReal->ReservedSlot2(); }
        BR_STATUSCODE ReservedSlot3() override { return m_pReal->ReservedSlot3(); }
        BR_STATUSCODE TearDown() override { return m_pReal->TearDown(); }
        BR_STATUSCODE ReservedSlot5() override { return m_pReal->ReservedSlot5(); }
        BR_STATUSCODE ReservedSlot6() override { return m_pReal->ReservedSlot6(); }

      private:
        StampingChannel* m_pOwner;
        IIPCClient* m_pReal;
    };

    static constexpr size_t kSlots = COMM_MSG_END - COMM_MSG_START + 2;  // the last: other ids
    static size_t Slot(uint32_t id) {
        return id >= COMM_MSG_START && id <= COMM_MSG_END ? id - COMM_MSG_START : kSlots - 1;
    }
    static uint32_t IdOf(const IPCBuffer* buffer) {
        uint32_t id = 0;
        if (buffer != nullptr && buffer->m_pData != nullptr && buffer->m_Length >= 24)
            memcpy(&id, static_cast<const uint8_t*>(buffer->m_pData) + 20, sizeof(id));
        return id;
    }

    IIPCCallback* m_pModule = nullptr;
    std::atomic<int64_t> m_LastReceive[kSlots] = {};
    std::atomic<int64_t> m_LastSend[kSlots] = {};
};

// Threads of this process by id.
std::set<int> ThreadIds() {
    std::set<int> ids;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.')
                ids.insert(atoi(entry->d_name));
        }
        closedir(dir);
    }
    return ids;
}

// CPU time of one thread of this process in nanoseconds (schedstat), or -1.
int64_t ThreadCpuNs(int tid) {
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/schedstat");
    int64_t ns = -1;
    if (!(in >> ns))
        return -1;
    return ns;
}

double ProcessCpuSeconds() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// A temporary app-data root (socket directory), an agent on it, and an API that connects.
class Rig {
  public:
    Rig() {
        char pattern[] = "/tmp/tideway-bench-XXXXXX";
        const char* made = mkdtemp(pattern);
        m_Root = made != nullptr ? made : "";
        SetAllUsersAppDataPathForTesting(m_Root);
        ipc::SetSocketRootForTesting(m_Root);
        g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true,
                          10, 10000, 100, 1, 0, 60);
        AgentSimOptions options;
        options.port = kPort;
        options.statsIntervalMs = 3600 * 1000;  // statistics only when a benchmark sends them
        m_Sim = std::make_unique<CAgentSimulator>(
            options, [this](const std::string& line) { OnAgentLine(line); });
        m_bAgentUp = !m_Root.empty() && m_Sim->Start() == 0;
    }
    ~Rig() {
        Disconnect();
        m_Sim->Stop();
        m_Sim.reset();
        SetAllUsersAppDataPathForTesting("");
        ipc::SetSocketRootForTesting("");
        if (!m_Root.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(m_Root, ignored);
        }
    }

    // A new API, connected once the agent's "service started" has reached the callback.
    bool Connect() {
        if (!m_bAgentUp)
            return false;
        const uint64_t connected = m_Recorder.StatusCount(9);
        m_pApi = new CVantoriaApi;
        g_pVantoriaApi = m_pApi;
        return m_pApi->Register(&m_Recorder) == 0 &&
               m_pApi->Initialize(kPort,
                                  [this](uint32_t identity, IIPCCallback* module) {
                                      return m_Channel.Make(identity, module);
                                  }) &&
               m_pApi->StartCommunicator() && m_Recorder.WaitStatus(9, connected + 1);
    }
    // Deletes the API as DisposePlugin does: the global pointer first.
    void Disconnect() {
        if (m_pApi == nullptr)
            return;
        g_pVantoriaApi = nullptr;
        delete m_pApi;
        m_pApi = nullptr;
    }
    // Waits until the agent has no client left.
    bool WaitAgentAlone() {
        const Clock::time_point until = Clock::now() + kWait;
        while (m_Sim->ClientCount() != 0) {
            if (Clock::now() > until)
                return false;
            std::this_thread::sleep_for(milliseconds(1));
        }
        return true;
    }

    // The agent's receipt of 1042: count and time of the last one.
    uint64_t TowerChanges() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_TowerChanges;
    }
    bool WaitTowerChange(uint64_t count, Clock::time_point* at) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        const bool ok = m_Changed.wait_for(lock, kWait, [&] { return m_TowerChanges >= count; });
        *at = m_TowerChangeAt;
        return ok;
    }

    CVantoriaApi* Api() { return m_pApi; }
    CAgentSimulator& Sim() { return *m_Sim; }
    Recorder& Callback() { return m_Recorder; }
    const StampingChannel& Channel() const { return m_Channel; }

  private:
    // Runs on the agent's I/O thread for every message it receives.
    void OnAgentLine(const std::string& line) {
        if (line.compare(0, 5, "RECV ") != 0 ||
            line.find(" COMM_MSG_CHANGE_ACTIVE_TOWER len=") == std::string::npos) {
            return;
        }
        const Clock::time_point now = Clock::now();
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            ++m_TowerChanges;
            m_TowerChangeAt = now;
        }
        m_Changed.notify_all();
    }

    std::string m_Root;
    std::unique_ptr<CAgentSimulator> m_Sim;
    bool m_bAgentUp = false;
    StampingChannel m_Channel;  // outlives every API the rig makes
    Recorder m_Recorder;
    CVantoriaApi* m_pApi = nullptr;
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    uint64_t m_TowerChanges = 0;
    Clock::time_point m_TowerChangeAt;
};

// ---------------------------------------------------------------------------------------------
// The benchmarks

// From the agent's send of a state byte to the application's OnStatus.
void BM_NotifyLatency(benchmark::State& state) {
    Rig rig;
    if (!rig.Connect()) {
        state.SkipWithError("no connection");
        return;
    }
    const uint8_t byte = 0x02;  // status 3: one notification
    Samples samples, channel, module;
    for (auto _ : state) {
        const uint64_t before = rig.Callback().StatusCount(3);
        const Clock::time_point start = Clock::now();
        rig.Sim().Broadcast(COMM_MSG_ICON_APLUS_STATE, &byte, 1);
        Clock::time_point delivered;
        if (!rig.Callback().WaitStatus(3, before + 1, &delivered)) {
            state.SkipWithError("notification lost");
            break;
        }
        samples.Add(delivered - start);
        const Clock::time_point handed(
            std::chrono::nanoseconds(rig.Channel().LastReceiveNs(COMM_MSG_ICON_APLUS_STATE)));
        channel.Add(handed - start);
        module.Add(delivered - handed);
        state.SetIterationTime(Seconds(delivered - start));
    }
    samples.Report(state);
    channel.Report(state, "channel_");
    module.Report(state, "module_");
}

// From SetTower to the agent's receipt of 1042. The agent's answer and the requests the API
// makes after it (tower list, settings) are waited for outside the measured time.
void BM_CommandLatency(benchmark::State& state) {
    Rig rig;
    if (!rig.Connect()) {
        state.SkipWithError("no connection");
        return;
    }
    const char* const towers[] = {"east-1", "west-1"};
    // range(0) 1: the TRACE level off, which the relay loop writes one line at for each command.
    const uint32_t mask = g_Trace.GetLevelMask();
    if (state.range(0) == 1)
        g_Trace.SetLevelMask(mask & ~(1u << TL_TRACE));
    Samples samples, channel, module;
    uint64_t round = 0;
    for (auto _ : state) {
        const uint64_t changes = rig.TowerChanges();
        const uint64_t dcts = rig.Callback().Dcts();
        const Clock::time_point start = Clock::now();
        if (rig.Api()->SetTower(towers[round++ % 2]) != 0) {
            state.SkipWithError("SetTower refused");
            break;
        }
        Clock::time_point received;
        if (!rig.WaitTowerChange(changes + 1, &received)) {
            state.SkipWithError("command lost");
            break;
        }
        samples.Add(received - start);
        const Clock::time_point handed(
            std::chrono::nanoseconds(rig.Channel().LastSendNs(COMM_MSG_CHANGE_ACTIVE_TOWER)));
        module.Add(handed - start);
        channel.Add(received - handed);
        state.SetIterationTime(Seconds(received - start));
        if (!rig.Callback().WaitDcts(dcts + 1)) {
            state.SkipWithError("answer lost");
            break;
        }
    }
    samples.Report(state);
    channel.Report(state, "channel_");
    module.Report(state, "module_");
    g_Trace.SetLevelMask(mask);
}

ServiceStatistics SampleStatistics() {
    ServiceStatistics stats;
    memset(&stats, 0, sizeof(stats));
    stats.activeFilteredA = 3;
    snprintf(stats.szActiveTower, sizeof(stats.szActiveTower), "west-2");
    return stats;
}

// The agent floods: range(0) statistics back to back from this thread, as fast as the channel
// takes them; OnStatistics counts them. delivered_per_s runs from the first send to the last
// delivery, sent_per_s is the agent's own pace. The receiver's queue is sampled every 256 sends
// (its largest length) and when the last is sent; drain_ms is from the last send to the last
// delivery. The queue has no bound of its own: it grows while the agent outpaces the receiver.
void BM_StatisticsFlood(benchmark::State& state) {
    Rig rig;
    if (!rig.Connect()) {
        state.SkipWithError("no connection");
        return;
    }
    const uint64_t count = static_cast<uint64_t>(state.range(0));
    const ServiceStatistics stats = SampleStatistics();
    CCommunicator* communicator = rig.Api()->GetCommunicator();
    double delivered = 0, sent = 0, drainMs = 0;
    size_t maxBacklog = 0, lastBacklog = 0;
    for (auto _ : state) {
        rig.Callback().ArmStatistics(count);
        const Clock::time_point start = Clock::now();
        for (uint64_t i = 1; i <= count; ++i) {
            rig.Sim().Broadcast(COMM_MSG_SERVICE_STATS, &stats, sizeof(stats));
            if (i % 256 == 0)
                maxBacklog = std::max(maxBacklog, ReceiverBacklog(communicator));
        }
        const Clock::time_point allSent = Clock::now();
        lastBacklog = ReceiverBacklog(communicator);
        Clock::time_point last;
        if (!rig.Callback().WaitStatistics(&last)) {
            state.SkipWithError("statistics lost");
            break;
        }
        state.SetIterationTime(Seconds(last - start));
        delivered = count / Seconds(last - start);
        sent = count / Seconds(allSent - start);
        drainMs = 1000 * Seconds(last - allSent);
    }
    state.counters["delivered_per_s"] = delivered;
    state.counters["sent_per_s"] = sent;
    state.counters["max_queue"] = static_cast<double>(std::max(maxBacklog, lastBacklog));
    state.counters["queue_at_last_send"] = static_cast<double>(lastBacklog);
    state.counters["drain_ms"] = drainMs;
}

// The agent sends at range(0) statistics per second for 2 seconds, 50 at a time every
// millisecond (scaled), with the queue sampled after each batch: a receiver that keeps up holds
// the queue near zero all along.
void BM_StatisticsPaced(benchmark::State& state) {
    Rig rig;
    if (!rig.Connect()) {
        state.SkipWithError("no connection");
        return;
    }
    const uint64_t perSecond = static_cast<uint64_t>(state.range(0));
    const uint64_t perBatch = std::max<uint64_t>(1, perSecond / 1000);
    const uint64_t count = 2 * perSecond;
    const ServiceStatistics stats = SampleStatistics();
    CCommunicator* communicator = rig.Api()->GetCommunicator();
    double delivered = 0, meanBacklog = 0;
    size_t maxBacklog = 0;
    for (auto _ : state) {
        rig.Callback().ArmStatistics(count);
        const Clock::time_point start = Clock::now();
        uint64_t sentCount = 0, samples = 0, backlogSum = 0;
        for (uint64_t batch = 1; sentCount < count; ++batch) {
            for (uint64_t i = 0; i < perBatch && sentCount < count; ++i, ++sentCount)
                rig.Sim().Broadcast(COMM_MSG_SERVICE_STATS, &stats, sizeof(stats));
            const size_t backlog = ReceiverBacklog(communicator);
            maxBacklog = std::max(maxBacklog, backlog);
            backlogSum += backlog;
            ++samples;
            std::this_thread::sleep_until(
                start + std::chrono::microseconds(batch * 1000000 * perBatch / perSecond));
        }
        Clock::time_point last;
        if (!rig.Callback().WaitStatistics(&last)) {
            state.SkipWithError("statistics lost");
            break;
        }
        state.SetIterationTime(Seconds(last - start));
        delivered = count / Seconds(last - start);
        meanBacklog = samples != 0 ? static_cast<double>(backlogSum) / samples : 0;
    }
    state.counters["delivered_per_s"] = delivered;
    state.counters["max_queue"] = static_cast<double>(maxBacklog);
    state.counters["mean_queue"] = meanBacklog;
}

// Deleting a connected API: the stop sequence, joins and the channel's tear-down.
void BM_StopConnected(benchmark::State& state) {
    Rig rig;
    Samples samples;
    for (auto _ : state) {
        state.PauseTiming();
        if (!rig.Connect()) {
            state.SkipWithError("no connection");
            break;
        }
        state.ResumeTiming();
        const Clock::time_point start = Clock::now();
        rig.Disconnect();
        const Clock::duration took = Clock::now() - start;
        samples.Add(took);
        state.SetIterationTime(Seconds(took));
        if (!rig.WaitAgentAlone()) {
            state.SkipWithError("the agent still sees the client");
            break;
        }
    }
    samples.Report(state);
}

// CPU of a connected module that nothing talks to, over 10 seconds: the whole process
// (getrusage, which includes the in-process agent) and the module's own threads (those that
// appeared when the API connected; /proc schedstat, in nanoseconds).
void BM_IdleCpu(benchmark::State& state) {
    Rig rig;
    for (auto _ : state) {
        const std::set<int> before = ThreadIds();
        if (!rig.Connect()) {
            state.SkipWithError("no connection");
            break;
        }
        std::vector<int> module;
        for (int tid : ThreadIds()) {
            if (before.count(tid) == 0)
                module.push_back(tid);
        }
        std::this_thread::sleep_for(milliseconds(500));  // the greeting has passed
        std::vector<int64_t> startNs;
        for (int tid : module)
            startNs.push_back(ThreadCpuNs(tid));
        const double startCpu = ProcessCpuSeconds();
        const Clock::time_point start = Clock::now();
        std::this_thread::sleep_for(seconds(10));
        const double wall = Seconds(Clock::now() - start);
        const double processCpu = ProcessCpuSeconds() - startCpu;
        int64_t moduleNs = 0;
        for (size_t i = 0; i < module.size(); ++i) {
            const int64_t now = ThreadCpuNs(module[i]);
            if (now >= 0 && startNs[i] >= 0)
                moduleNs += now - startNs[i];
        }
        state.SetIterationTime(wall);
        state.counters["process_cpu_pct"] = 100.0 * processCpu / wall;
        state.counters["module_cpu_pct"] = 100.0 * (moduleNs / 1e9) / wall;
        state.counters["module_threads"] = static_cast<double>(module.size());
        rig.Disconnect();
    }
}

BENCHMARK(BM_RawRoundTrip)->Arg(25)->Iterations(20000)->UseManualTime();
BENCHMARK(BM_NotifyLatency)->Iterations(5000)->UseManualTime();
BENCHMARK(BM_CommandLatency)->Arg(0)->Arg(1)->Iterations(2000)->UseManualTime();
BENCHMARK(BM_StatisticsFlood)
    ->Arg(200000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StatisticsPaced)
    ->Arg(50000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StopConnected)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IdleCpu)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

// Keeps the counters of every run (the median aggregate when repeated) and prints the goals.
class GoalReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if ((run.run_type == Run::RT_Iteration || median) && !run.error_occurred) {
                const std::string& args = run.run_name.args;
                const std::string name =
                    run.run_name.function_name + (args.empty() ? "" : "/" + args);
                for (const auto& counter : run.counters)
                    m_Values[name + "." + counter.first] = counter.second.value;
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    void PrintGoals() const {
        auto get = [&](const std::string& key) {
            const auto it = m_Values.find(key);
            return it == m_Values.end() ? -1.0 : it->second;
        };
        auto verdict = [](bool met) { return met ? "met" : "NOT met"; };
        const double raw = get("BM_RawRoundTrip/25.median_us");
        const double notify = get("BM_NotifyLatency.median_us");
        const double command = get("BM_CommandLatency/0.median_us");
        const double commandQuiet = get("BM_CommandLatency/1.median_us");
        printf("\n");
        if (raw > 0)
            printf("raw round trip median %.1f us (p99 %.1f us)\n", raw,
                   get("BM_RawRoundTrip/25.p99_us"));
        if (raw > 0 && notify > 0) {
            printf(
                "notification median %.1f us (p99 %.1f us) = %.2fx raw: goal 2x %s\n"
                "  channel (agent's send to the library's OnReqMsgRecv) %.1f us, module "
                "(OnReqMsgRecv to OnStatus) %.1f us\n",
                notify, get("BM_NotifyLatency.p99_us"), notify / raw, verdict(notify <= 2 * raw),
                get("BM_NotifyLatency.channel_median_us"),
                get("BM_NotifyLatency.module_median_us"));
        }
        if (raw > 0 && command > 0) {
            printf(
                "command median %.1f us (p99 %.1f us) = %.2fx raw: goal 3x %s\n"
                "  module (SetTower to SendData) %.1f us, channel (SendData to the agent) "
                "%.1f us\n",
                command, get("BM_CommandLatency/0.p99_us"), command / raw,
                verdict(command <= 3 * raw), get("BM_CommandLatency/0.module_median_us"),
                get("BM_CommandLatency/0.channel_median_us"));
        }
        if (raw > 0 && commandQuiet > 0) {
            printf(
                "command with the TRACE level off: median %.1f us = %.2fx raw, module part "
                "%.1f us\n",
                commandQuiet, commandQuiet / raw, get("BM_CommandLatency/1.module_median_us"));
        }
        const double flood = get("BM_StatisticsFlood/200000.delivered_per_s");
        if (flood >= 0) {
            printf(
                "statistics flood: %.0f/s delivered (agent sent %.0f/s), receiver queue max "
                "%.0f, %.0f when the last was sent, drained in %.1f ms: goal 50000/s %s\n",
                flood, get("BM_StatisticsFlood/200000.sent_per_s"),
                get("BM_StatisticsFlood/200000.max_queue"),
                get("BM_StatisticsFlood/200000.queue_at_last_send"),
                get("BM_StatisticsFlood/200000.drain_ms"), verdict(flood >= 50000));
        }
        const double paced = get("BM_StatisticsPaced/50000.delivered_per_s");
        if (paced >= 0) {
            printf(
                "statistics at 50000/s for 2 s: %.0f/s delivered, receiver queue max %.0f, "
                "mean %.2f\n",
                paced, get("BM_StatisticsPaced/50000.max_queue"),
                get("BM_StatisticsPaced/50000.mean_queue"));
        }
        const double stop = get("BM_StopConnected.median_us");
        if (stop >= 0) {
            printf("connected stop median %.2f ms (p99 %.2f ms): goal 50 ms %s\n", stop / 1000,
                   get("BM_StopConnected.p99_us") / 1000, verdict(stop < 50000));
        }
        const double idle = get("BM_IdleCpu.module_cpu_pct");
        if (idle >= 0) {
            printf(
                "idle CPU of the module %.3f %% of a core (whole process with the agent "
                "%.3f %%): goal 0.5 %% %s\n",
                idle, get("BM_IdleCpu.process_cpu_pct"), verdict(idle < 0.5));
        }
        printf("system log records formatted: %llu\n",
               static_cast<unsigned long long>(g_LogRecords.load()));
    }

  private:
    std::map<std::string, double> m_Values;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    GoalReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintGoals();
    benchmark::Shutdown();
    return 0;
}
