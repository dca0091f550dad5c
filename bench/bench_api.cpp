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
// The same paths through a started presentation plug-in, up to the notice its host receives in
// DeliverXml (PageHost):
//   BM_PageStatusLatency     the agent sends a state byte, two bytes in turn so that each one
//                            changes the status; time until the status notice arrives;
//   BM_PageStatisticsLatency the agent sends one 1059; time until the "stat_update" notice;
//   BM_PageStatisticsFlood   the agent sends 1059 as fast as it can to a host that only counts;
//   BM_PageStatisticsPaced   the same at 50,000 per second for 2 seconds.
// Latencies are taken per iteration (median and 99th percentile as counters, manual time is the
// mean). The real IPC client is wrapped (StampingChannel) so that each latency also splits into
// the channel's part and the module's; the plug-in is wrapped (PagePlugin) to split the
// module's part once more at the callback's entry. The floods also sample the process's
// resident memory. After the run the goals are printed with this run's figures.
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
#include <array>
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
#include <string_view>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "BenchSupport.h"

#include "AgentSimulator.h"
#include "IPresentationHost.h"
#include "ITranslator.h"
#include "IVantoriaApiCB.h"
#include "api/VantoriaApi.h"
#include "comm/ClientSideCommunicator.h"
#include "common/Utils.h"
#include "common/VNTrace.h"
#include "ipc/IPCTesting.h"
#include "plugin/PluginEntry.h"
#include "presentation/VantoriaPresentationPlugin.h"

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

// Frames of range(0) bytes: 25 is a state-byte packet (24 bytes of header and one of data), 571
// a statistics packet.
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

// Counts deliveries against an armed target and stamps the one that reaches it. Only that one
// takes the mutex and wakes the waiter, so counting a flood costs an atomic increment each.
class DeliveryCounter {
  public:
    void Arm(uint64_t target) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Count = 0;
        m_Target = target;
        m_bReached = false;
    }
    void Count() {
        const uint64_t n = m_Count.fetch_add(1, std::memory_order_relaxed) + 1;
        if (n != m_Target.load(std::memory_order_relaxed))
            return;
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_LastAt = Clock::now();
            m_bReached = true;
        }
        m_Reached.notify_all();
    }
    // Waits for the target; `at` gets the moment it was reached. The flag, set together with
    // the stamp, is what is waited on: the count alone may run ahead of the stamp.
    bool Wait(Clock::time_point* at, Clock::duration limit = kWait) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        const bool ok = m_Reached.wait_for(lock, limit, [&] { return m_bReached; });
        *at = m_LastAt;
        return ok;
    }

  private:
    std::mutex m_Mutex;
    std::condition_variable m_Reached;
    std::atomic<uint64_t> m_Count{0};
    std::atomic<uint64_t> m_Target{0};
    bool m_bReached = false;
    Clock::time_point m_LastAt;
};

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
        m_Statistics.Count();
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
    DeliveryCounter& Statistics() { return m_Statistics; }

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
    uint64_t m_TowerLists = 0;
    uint64_t m_Dcts = 0;
    DeliveryCounter m_Statistics;
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

// The presentation plug-in with the moment each status and statistics callback enters it
// stamped (`entryNs`), which splits the module's part of a latency into the communicator's and
// the API's (up to the callback) and the page's (the callback up to DeliverXml). It costs a
// clock read per callback.
class PagePlugin : public CVantoriaPresentationPlugin {
  public:
    explicit PagePlugin(std::atomic<int64_t>* entryNs) : m_pEntryNs(entryNs) {}
    int32_t OnStatus(IVantoriaStatus* status) override {
        m_pEntryNs->store(NowNs());
        return CVantoriaPresentationPlugin::OnStatus(status);
    }
    int32_t OnStatistics(IVantoriaStatistics* statistics) override {
        m_pEntryNs->store(NowNs());
        return CVantoriaPresentationPlugin::OnStatistics(statistics);
    }

  private:
    std::atomic<int64_t>* m_pEntryNs;
};

// The UI host of the plug-in. It translates every key to a short text of a catalogue's usual
// length and sorts each notice by its root element: a "stat_update" tag is a statistics notice
// (counted, nothing else), a `state` a status notice (counted and stamped, together with the
// entry stamp of the callback that sent it, which runs on the same thread); the rest (setup,
// tower list, DCT, empty updates) is counted as other.
class PageHost : public IPresentationHost, public ITranslator {
  public:
    explicit PageHost(const std::atomic<int64_t>* entryNs) : m_pEntryNs(entryNs) {
        for (uint32_t key = 0; key < m_Texts.size(); ++key)
            m_Texts[key] = "Catalogue text " + std::to_string(key);
    }

    int32_t DeliverXml(uint32_t, const char* xml) override {
        const Clock::time_point now = Clock::now();
        const char* end = strchr(xml, '>');
        const std::string_view root(xml, end != nullptr ? end - xml : strlen(xml));
        if (root.find(" tag=\"stat_update\"") != std::string_view::npos) {
            m_Statistics.Count();
            return 0;
        }
        const bool status = root.find(" state=\"") != std::string_view::npos;
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            if (status) {
                ++m_StatusNotices;
                m_LastStatusAt = now;
                m_LastStatusEntryNs = m_pEntryNs->load();
            } else {
                ++m_Others;
            }
        }
        m_Changed.notify_all();
        return 0;
    }
    int32_t NotifyStopped(uint32_t) override { return 0; }
    int32_t TranslateText(uint32_t key, char* buffer, uint32_t& size) override {
        const std::string& text = key < m_Texts.size() ? m_Texts[key] : m_Texts[0];
        const uint32_t needed = static_cast<uint32_t>(text.size() + 1);
        if (buffer == nullptr || size < needed) {
            size = needed;
            return -3;
        }
        memcpy(buffer, text.c_str(), needed);
        return 0;
    }

    // Counts so far, to wait for the next ones.
    void Counts(uint64_t* status, uint64_t* others) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        *status = m_StatusNotices;
        *others = m_Others;
    }
    // Waits until `status` status notices and `others` other notices have come; `at` and
    // `entryNs` get the last status notice's delivery and its callback's entry.
    bool Wait(uint64_t status, uint64_t others, Clock::time_point* at = nullptr,
              int64_t* entryNs = nullptr) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        const bool ok = m_Changed.wait_for(
            lock, kWait, [&] { return m_StatusNotices >= status && m_Others >= others; });
        if (at != nullptr)
            *at = m_LastStatusAt;
        if (entryNs != nullptr)
            *entryNs = m_LastStatusEntryNs;
        return ok;
    }
    DeliveryCounter& Statistics() { return m_Statistics; }

  private:
    const std::atomic<int64_t>* m_pEntryNs;
    std::array<std::string, 400> m_Texts;  // the keys in use lie below 400
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    uint64_t m_StatusNotices = 0;
    uint64_t m_Others = 0;
    Clock::time_point m_LastStatusAt;
    int64_t m_LastStatusEntryNs = 0;
    DeliveryCounter m_Statistics;
};

// Resident memory of this process in MiB (/proc/self/statm), or -1.
double ResidentMiB() {
    std::ifstream in("/proc/self/statm");
    uint64_t size = 0, resident = 0;
    if (!(in >> size >> resident))
        return -1;
    return static_cast<double>(resident) * sysconf(_SC_PAGESIZE) / (1024.0 * 1024.0);
}

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

// A temporary app-data root (socket directory), an agent on it, and an API that connects, bare
// (Connect) or inside a started presentation plug-in (ConnectPage).
class Rig {
  public:
    Rig() : m_Host(&m_EntryNs) {
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
    // A new presentation plug-in, made as CreatePlugin makes it (API initialised, communicator
    // started) and then initialised and started as the host does. Connected once the notices
    // that the agent's "service started" brings have come: the status notice, and besides the
    // setup notice those for the tower list, the DCT settings and the statistics' start (an
    // empty update for status 15).
    bool ConnectPage() {
        if (!m_bAgentUp)
            return false;
        uint64_t status = 0, others = 0;
        m_Host.Counts(&status, &others);
        m_pPlugin = new PagePlugin(&m_EntryNs);
        m_pApi = &m_pPlugin->GetApi();
        g_pVantoriaApi = m_pApi;
        static int hostContext = 0;
        return m_pApi->Initialize(kPort,
                                  [this](uint32_t identity, IIPCCallback* module) {
                                      return m_Channel.Make(identity, module);
                                  }) &&
               m_pApi->StartCommunicator() &&
               m_pPlugin->Initialize(&hostContext, 1, &m_Host, &m_Host) == 0 &&
               m_pPlugin->Start() == 0 && m_Host.Wait(status + 1, others + 4);
    }
    // Deletes the API, or the plug-in that holds it, as DisposePlugin does: the global pointer
    // first.
    void Disconnect() {
        if (m_pApi == nullptr)
            return;
        g_pVantoriaApi = nullptr;
        if (m_pPlugin != nullptr)
            delete m_pPlugin;
        else
            delete m_pApi;
        m_pPlugin = nullptr;
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
    PageHost& Host() { return m_Host; }
    // Statistics as the connected receiver counts them: the plug-in's host or the callback.
    DeliveryCounter& Statistics() {
        return m_pPlugin != nullptr ? m_Host.Statistics() : m_Recorder.Statistics();
    }
    int64_t CallbackEntryNs() const { return m_EntryNs.load(); }
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
    std::atomic<int64_t> m_EntryNs{0};
    PageHost m_Host;
    CVantoriaApi* m_pApi = nullptr;
    PagePlugin* m_pPlugin = nullptr;  // when the API is the plug-in's
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
    stats.totalFilteredA = 123456;
    stats.nServiceStatus = 2;
    snprintf(stats.szLastTowerSelect, sizeof(stats.szLastTowerSelect), "42 seconds ago");
    snprintf(stats.szServiceEnabled, sizeof(stats.szServiceEnabled), "2026-11-22 08:00:00");
    snprintf(stats.szActiveTower, sizeof(stats.szActiveTower), "west-2");
    return stats;
}

// A bare API whose callback counts, or with `page` a started plug-in whose host counts.
bool ConnectReceiver(Rig& rig, bool page) {
    return page ? rig.ConnectPage() : rig.Connect();
}

// The flood limit of a wait for the last delivery: a receiver slower than the agent drains its
// queue after the agent is done, for seconds.
constexpr auto kFloodWait = seconds(120);

// The agent floods: range(0) statistics back to back from this thread, as fast as the channel
// takes them, to a receiver that only counts. delivered_per_s runs from the first send to the
// last delivery, sent_per_s is the agent's own pace. The receiver's queue is sampled every 256
// sends (its largest length) and when the last is sent; drain_ms is from the last send to the
// last delivery. The queue has no bound of its own: it grows while the agent outpaces the
// receiver. The resident memory is read before, every 4096 sends, when the last is sent and
// after the last delivery (freed queue entries may stay with the allocator, so "after" need not
// fall back).
void StatisticsFlood(benchmark::State& state, bool page) {
    Rig rig;
    if (!ConnectReceiver(rig, page)) {
        state.SkipWithError("no connection");
        return;
    }
    const uint64_t count = static_cast<uint64_t>(state.range(0));
    const ServiceStatistics stats = SampleStatistics();
    CCommunicator* communicator = rig.Api()->GetCommunicator();
    double delivered = 0, sent = 0, drainMs = 0;
    size_t maxBacklog = 0, lastBacklog = 0;
    const double rssBefore = ResidentMiB();
    double rssPeak = rssBefore, rssAfter = rssBefore;
    for (auto _ : state) {
        rig.Statistics().Arm(count);
        const Clock::time_point start = Clock::now();
        for (uint64_t i = 1; i <= count; ++i) {
            rig.Sim().Broadcast(COMM_MSG_SERVICE_STATS, &stats, sizeof(stats));
            if (i % 256 == 0)
                maxBacklog = std::max(maxBacklog, ReceiverBacklog(communicator));
            if (i % 4096 == 0)
                rssPeak = std::max(rssPeak, ResidentMiB());
        }
        const Clock::time_point allSent = Clock::now();
        lastBacklog = ReceiverBacklog(communicator);
        rssPeak = std::max(rssPeak, ResidentMiB());
        Clock::time_point last;
        if (!rig.Statistics().Wait(&last, kFloodWait)) {
            state.SkipWithError("statistics lost");
            break;
        }
        rssAfter = ResidentMiB();
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
    state.counters["rss_before_mib"] = rssBefore;
    state.counters["rss_peak_mib"] = std::max(rssPeak, rssAfter);
    state.counters["rss_after_mib"] = rssAfter;
}

void BM_StatisticsFlood(benchmark::State& state) {
    StatisticsFlood(state, false);
}

void BM_PageStatisticsFlood(benchmark::State& state) {
    StatisticsFlood(state, true);
}

// The agent sends at range(0) statistics per second for 2 seconds, 50 at a time every
// millisecond (scaled), with the queue sampled after each batch and the resident memory every
// 16 batches: a receiver that keeps up holds the queue near zero all along.
void StatisticsPaced(benchmark::State& state, bool page) {
    Rig rig;
    if (!ConnectReceiver(rig, page)) {
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
    const double rssBefore = ResidentMiB();
    double rssPeak = rssBefore;
    for (auto _ : state) {
        rig.Statistics().Arm(count);
        const Clock::time_point start = Clock::now();
        uint64_t sentCount = 0, samples = 0, backlogSum = 0;
        for (uint64_t batch = 1; sentCount < count; ++batch) {
            for (uint64_t i = 0; i < perBatch && sentCount < count; ++i, ++sentCount)
                rig.Sim().Broadcast(COMM_MSG_SERVICE_STATS, &stats, sizeof(stats));
            const size_t backlog = ReceiverBacklog(communicator);
            maxBacklog = std::max(maxBacklog, backlog);
            backlogSum += backlog;
            ++samples;
            if (batch % 16 == 0)
                rssPeak = std::max(rssPeak, ResidentMiB());
            std::this_thread::sleep_until(
                start + std::chrono::microseconds(batch * 1000000 * perBatch / perSecond));
        }
        Clock::time_point last;
        if (!rig.Statistics().Wait(&last, kFloodWait)) {
            state.SkipWithError("statistics lost");
            break;
        }
        rssPeak = std::max(rssPeak, ResidentMiB());
        state.SetIterationTime(Seconds(last - start));
        delivered = count / Seconds(last - start);
        meanBacklog = samples != 0 ? static_cast<double>(backlogSum) / samples : 0;
    }
    state.counters["delivered_per_s"] = delivered;
    state.counters["max_queue"] = static_cast<double>(maxBacklog);
    state.counters["mean_queue"] = meanBacklog;
    state.counters["rss_growth_mib"] = rssPeak - rssBefore;
}

void BM_StatisticsPaced(benchmark::State& state) {
    StatisticsPaced(state, false);
}

void BM_PageStatisticsPaced(benchmark::State& state) {
    StatisticsPaced(state, true);
}

// From the agent's send of a state byte to the status notice in the plug-in's DeliverXml. The
// bytes alternate so that each changes the status (a repeated status sends nothing). range(0)
// 0 sends 0x04 and 0x02: statuses 4 and 3, one notice each with the tower page greyed. 1 sends
// 0x04 and 0x01; 0x01 brings statuses 2, 0 and 2: the notice of 2 (tray "Good", the tile with
// the tower) goes after the plug-in has asked for the tower list and DCT settings, and is
// followed by an empty update for 0, nothing for the repeated 2, and the notices of the two
// answers, which are waited for outside the measured time. The latency splits at the library's
// OnReqMsgRecv (channel_) and at the entry of OnStatus (comm_: communicator and API; page_:
// the plug-in's handler up to DeliverXml).
void BM_PageStatusLatency(benchmark::State& state) {
    Rig rig;
    if (!rig.ConnectPage()) {
        state.SkipWithError("no connection");
        return;
    }
    const uint8_t bytes[2] = {0x04, static_cast<uint8_t>(state.range(0) == 0 ? 0x02 : 0x01)};
    Samples samples, channel, comm, page;
    uint64_t round = 0;
    for (auto _ : state) {
        const uint8_t byte = bytes[round++ % 2];
        uint64_t status = 0, others = 0;
        rig.Host().Counts(&status, &others);
        const Clock::time_point start = Clock::now();
        rig.Sim().Broadcast(COMM_MSG_ICON_APLUS_STATE, &byte, 1);
        Clock::time_point delivered;
        int64_t entryNs = 0;
        if (!rig.Host().Wait(status + 1, others, &delivered, &entryNs)) {
            state.SkipWithError("status notice lost");
            break;
        }
        const Clock::time_point handed(
            std::chrono::nanoseconds(rig.Channel().LastReceiveNs(COMM_MSG_ICON_APLUS_STATE)));
        const Clock::time_point entered{std::chrono::nanoseconds(entryNs)};
        samples.Add(delivered - start);
        channel.Add(handed - start);
        comm.Add(entered - handed);
        page.Add(delivered - entered);
        state.SetIterationTime(Seconds(delivered - start));
        if (byte == 0x01 && !rig.Host().Wait(status + 1, others + 3)) {
            state.SkipWithError("the notices after status 2 lost");
            break;
        }
    }
    samples.Report(state);
    channel.Report(state, "channel_");
    comm.Report(state, "comm_");
    page.Report(state, "page_");
}

// From the agent's send of one statistics report to the "stat_update" notice in DeliverXml,
// split as above.
void BM_PageStatisticsLatency(benchmark::State& state) {
    Rig rig;
    if (!rig.ConnectPage()) {
        state.SkipWithError("no connection");
        return;
    }
    const ServiceStatistics stats = SampleStatistics();
    Samples samples, channel, comm, page;
    for (auto _ : state) {
        rig.Statistics().Arm(1);
        const Clock::time_point start = Clock::now();
        rig.Sim().Broadcast(COMM_MSG_SERVICE_STATS, &stats, sizeof(stats));
        Clock::time_point delivered;
        if (!rig.Statistics().Wait(&delivered)) {
            state.SkipWithError("statistics notice lost");
            break;
        }
        const Clock::time_point handed(
            std::chrono::nanoseconds(rig.Channel().LastReceiveNs(COMM_MSG_SERVICE_STATS)));
        const Clock::time_point entered{std::chrono::nanoseconds(rig.CallbackEntryNs())};
        samples.Add(delivered - start);
        channel.Add(handed - start);
        comm.Add(entered - handed);
        page.Add(delivered - entered);
        state.SetIterationTime(Seconds(delivered - start));
    }
    samples.Report(state);
    channel.Report(state, "channel_");
    comm.Report(state, "comm_");
    page.Report(state, "page_");
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

BENCHMARK(BM_RawRoundTrip)->Arg(25)->Arg(571)->Iterations(20000)->UseManualTime();
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
BENCHMARK(BM_PageStatusLatency)->Arg(0)->Arg(1)->Iterations(5000)->UseManualTime();
BENCHMARK(BM_PageStatisticsLatency)->Iterations(5000)->UseManualTime();
BENCHMARK(BM_PageStatisticsFlood)
    ->Arg(200000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PageStatisticsPaced)
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
        const char* const statusCases[] = {"BM_PageStatusLatency/0", "BM_PageStatusLatency/1"};
        const char* const statusBytes[] = {"0x04/0x02", "0x04/0x01"};
        for (int i = 0; i < 2; ++i) {
            const std::string key = statusCases[i];
            const double status = get(key + ".median_us");
            if (raw > 0 && status > 0) {
                printf(
                    "page status notice, bytes %s: median %.1f us (p99 %.1f us) = %.2fx raw: "
                    "goal 3x %s\n"
                    "  channel %.1f us, communicator and API (OnReqMsgRecv to OnStatus) %.1f "
                    "us, page (OnStatus to DeliverXml) %.1f us\n",
                    statusBytes[i], status, get(key + ".p99_us"), status / raw,
                    verdict(status <= 3 * raw), get(key + ".channel_median_us"),
                    get(key + ".comm_median_us"), get(key + ".page_median_us"));
            }
        }
        const double rawStats = get("BM_RawRoundTrip/571.median_us");
        const double statsNotice = get("BM_PageStatisticsLatency.median_us");
        if (rawStats > 0 && statsNotice > 0) {
            printf(
                "page statistics notice: median %.1f us (p99 %.1f us) = %.2fx raw of 571 bytes "
                "(%.1f us): goal 4x %s\n"
                "  channel %.1f us, communicator and API %.1f us, page (OnStatistics to "
                "DeliverXml) %.1f us\n",
                statsNotice, get("BM_PageStatisticsLatency.p99_us"), statsNotice / rawStats,
                rawStats, verdict(statsNotice <= 4 * rawStats),
                get("BM_PageStatisticsLatency.channel_median_us"),
                get("BM_PageStatisticsLatency.comm_median_us"),
                get("BM_PageStatisticsLatency.page_median_us"));
        }
        const double pageFlood = get("BM_PageStatisticsFlood/200000.delivered_per_s");
        if (pageFlood >= 0) {
            const std::string key = "BM_PageStatisticsFlood/200000.";
            printf(
                "page statistics flood: %.0f notices/s delivered (agent sent %.0f/s), receiver "
                "queue max %.0f, %.0f when the last was sent, drained in %.0f ms; resident "
                "memory %.0f MiB before, %.0f peak, %.0f after: goal 20000/s %s\n",
                pageFlood, get(key + "sent_per_s"), get(key + "max_queue"),
                get(key + "queue_at_last_send"), get(key + "drain_ms"), get(key + "rss_before_mib"),
                get(key + "rss_peak_mib"), get(key + "rss_after_mib"), verdict(pageFlood >= 20000));
        }
        const double pagePaced = get("BM_PageStatisticsPaced/50000.delivered_per_s");
        if (pagePaced >= 0) {
            printf(
                "page statistics at 50000/s for 2 s: %.0f notices/s delivered, receiver queue "
                "max %.0f, mean %.1f, resident memory +%.1f MiB\n",
                pagePaced, get("BM_PageStatisticsPaced/50000.max_queue"),
                get("BM_PageStatisticsPaced/50000.mean_queue"),
                get("BM_PageStatisticsPaced/50000.rss_growth_mib"));
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
