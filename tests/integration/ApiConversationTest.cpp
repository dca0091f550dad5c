// The client API against the agent simulator over the real channel: commands, answers, refusals,
// service stops, lost agents and stops in each phase.

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "AgentSimulator.h"
#include "RecordingCallback.h"
#include "SyslogCapture.h"
#include "TestEnv.h"
#include "api/VantoriaApi.h"
#include "comm/ChannelPacket.h"
#include "common/VNTrace.h"
#include "plugin/PluginEntry.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;
using Statuses = std::vector<uint64_t>;

constexpr uint16_t kPort = 5003;

class ApiAgainstAgent : public ::testing::Test {
  protected:
    void SetUp() override {
        g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true,
                          10, 10000, 100, 1, 0, 60);
        g_Trace.SetLevelMask(kDefaultTraceMask | (1u << TL_API) | (1u << TL_IPC));
        syslog_capture::Clear();
    }
    void TearDown() override {
        StopApi();
        sim_.reset();
        EXPECT_TRUE(cb_.faults.empty()) << ::testing::PrintToString(cb_.faults);
    }

    // Statistics only on demand (stats-burst), so that the reports in a test are predictable.
    void StartAgent() {
        AgentSimOptions options;
        options.port = kPort;
        options.statsIntervalMs = 600000;
        sim_ = std::make_unique<CAgentSimulator>(options, log_.Sink());
        ASSERT_EQ(sim_->Start(), 0);
    }
    // Starts the API; with `listen`, registers and replays what came before.
    void StartApi(bool listen = false) {
        api_ = std::make_unique<CVantoriaApi>();
        g_pVantoriaApi = api_.get();
        ASSERT_TRUE(api_->Initialize(kPort) && api_->StartCommunicator());
        if (listen)
            Listen();
    }
    void Listen() { ASSERT_TRUE(api_->Register(&cb_) == 0 && api_->Start() == 0); }
    void Connected() {
        StartAgent();
        StartApi(true);
        ASSERT_TRUE(cb_.WaitForStatus(9));
    }
    void StopApi() {
        g_pVantoriaApi = nullptr;
        api_.reset();
    }
    void StopPromptly(const char* phase, seconds limit = seconds(1)) {
        const auto start = Clock::now();
        StopApi();
        EXPECT_LT(Clock::now() - start, limit) << "stop " << phase;
    }
    // Connects; the first status `code`, caused by `control`, then holds until release_ is set.
    void StartAndStick(uint64_t code, const char* control) {
        Connected();
        auto first = std::make_shared<bool>(true);  // only the notifying thread touches it
        std::shared_future<void> released = release_.get_future().share();
        cb_.statusHook = [this, first, released, code](uint64_t status) {
            if (status == code && *first) {
                *first = false;
                stuck_.set_value();
                released.wait();
            }
        };
        ASSERT_EQ(sim_->Control(control), "OK sent=1");
        ASSERT_EQ(stuck_.get_future().wait_for(seconds(10)), std::future_status::ready);
    }
    // Stops what is left and waits until the threads of the test are gone.
    void ExpectThreadsBackTo(int baseline) {
        StopApi();
        sim_.reset();
        for (auto end = Clock::now() + seconds(10); ThreadCount() > baseline && Clock::now() < end;)
            std::this_thread::sleep_for(milliseconds(10));
        EXPECT_EQ(ThreadCount(), baseline);
    }
    // A server in place of the agent; with `released` valid, its I/O thread hangs until ready.
    struct OwnAgent : IIPCServerCallback {
        std::atomic<uint32_t> session{0};
        std::shared_future<void> released;
        void OnPeerStateChanged(uint32_t, uint32_t s, uint32_t state) override {
            if (state == 2)
                session = s;
        }
        void OnReqMsgRecv(IPCBuffer*) override {
            if (released.valid())
                released.wait();
        }
        void OnRespMsgRecv(IPCBuffer*) override {}
    };
    std::unique_ptr<IIPCServer> ListenAsAgent(OwnAgent& agent) {
        BR_STATUSCODE status = 0;
        std::unique_ptr<IIPCServer> server(CIPCFactory::CreateIPCServer(8, &agent, status, kPort));
        EXPECT_TRUE(server && server->Listen() == 0);
        return server;
    }
    bool WaitSession(OwnAgent& agent) {
        for (int i = 0; i < 1000 && !agent.session; ++i)
            std::this_thread::sleep_for(milliseconds(10));
        return agent.session != 0;
    }

    TempRoot root_;
    SimLog log_;
    RecordingCallback cb_;
    std::unique_ptr<CAgentSimulator> sim_;
    std::unique_ptr<CVantoriaApi> api_;
    std::promise<void> stuck_, release_;
};

TEST_F(ApiAgainstAgent, WholeConversationReachesTheAgentAndTheCallback) {
    // No agent yet: commands are refused, with the line that says why.
    StartApi();
    EXPECT_EQ(api_->GetTowerList(), -10);
    EXPECT_EQ(api_->SetTower(nullptr), -6);
    EXPECT_EQ(syslog_capture::Count("Message could not be sent, ClientComm not connected to svc\n"),
              1u);

    // Status 9 arrives before anyone listens and is replayed by Start.
    StartAgent();
    ASSERT_TRUE(syslog_capture::WaitFor(
        "StatusNotificationCB: status: 9, but callback not registered so save msg\n", seconds(10)));
    Listen();
    ASSERT_TRUE(cb_.WaitForStatus(9));
    EXPECT_EQ(syslog_capture::Count("Found message in Start(): status: 9\n"), 1u);
    ASSERT_EQ(api_->GetTowerList(), 0);
    ASSERT_TRUE(cb_.WaitForLast("T:west-1,west-2,east-1@1"));
    const size_t base = cb_.Events().size();  // a status 8 may precede 9 if the agent came late
    // Each answer asks for fresh towers and settings: wait for them before the next command.
    auto upTo = [&](size_t n) {
        return cb_.WaitUntil([&] { return cb_.events.size() >= base + n; });
    };

    ASSERT_EQ(api_->SetTower("east-1"), 0);
    ASSERT_TRUE(upTo(3));
    ASSERT_EQ(api_->SetTower(""), 0);  // goes out with length 0; the agent refuses it
    ASSERT_TRUE(upTo(6));
    EXPECT_EQ(ReadText([&](char* b, uint32_t& l) { return api_->GetLastErrorString(b, l); }),
              "Tower change failed");
    ASSERT_EQ(api_->SetDCTSettings(2, 1), 0);
    ASSERT_TRUE(upTo(9));
    ASSERT_EQ(api_->StartStatsCollecting(), 0);
    ASSERT_TRUE(upTo(10));
    // Reports carry the sums of both groups; only "Basic" proxy requests reach the callback.
    ASSERT_EQ(sim_->Control("stats-burst 2"), "OK sent=2");
    ASSERT_EQ(sim_->Control("proxy 10.1.2.3 3128 NTLM office"), "OK sent=1");
    ASSERT_EQ(sim_->Control("proxy 10.1.2.3 3128 Basic office net"), "OK sent=1");
    ASSERT_EQ(sim_->Control("info 12 tower west-1 is down"), "OK sent=1");
    ASSERT_EQ(sim_->Control("activate west-1"), "OK sent=1");
    ASSERT_TRUE(cb_.WaitForLast("A:west-1"));
    const std::vector<std::string> events = cb_.Events();
    const std::string towers = "T:west-1,west-2,east-1@2", stats = "X:east-1|2026-11-22 08:00:00|";
    EXPECT_EQ(std::vector<std::string>(events.begin() + base, events.end()),
              (std::vector<std::string>{
                  "S11", towers, "D:0,0,1", "S10", towers, "D:0,0,1", "S13", towers, "D:2,1,1",
                  "S15", stats + "1 seconds ago|7|300|2", stats + "2 seconds ago|7|600|2",
                  "P:10.1.2.3|3128|Basic|office net", "I:12#tower west-1 is down", "A:west-1"}));
    // What the agent receives (sizes, fields) is checked by presentation_events_test.
    ASSERT_EQ(api_->StopStatsCollecting(), 0);
    ASSERT_TRUE(log_.WaitFor("RECV session=1 COMM_MSG_SERVICE_STATS_STOP len=0"));
}

TEST_F(ApiAgainstAgent, StoppedServiceDropsTowerChangesUntilTheAgentStartsAgain) {
    Connected();

    ASSERT_EQ(api_->EnableService(false), 0);
    ASSERT_TRUE(log_.WaitFor("RECV session=1 COMM_MSG_STOP_SERVICE len=0"));
    ASSERT_TRUE(cb_.WaitForStatus(1));
    // Still queued (the connection stands), but the sender drops all but the disconnect.
    EXPECT_EQ(api_->SetTower("west-1"), 0);
    EXPECT_EQ(api_->EnableService(true), 0);
    EXPECT_EQ(api_->Disconnect(), 0);
    ASSERT_TRUE(log_.WaitFor("RECV session=1 COMM_MSG_DISCONNECT len=0"));
    EXPECT_EQ(log_.Count("RECV session=1 COMM_MSG_CHANGE_ACTIVE_TOWER", true), 0u);
    EXPECT_EQ(log_.Count("RECV session=1 COMM_MSG_START_SERVICE", true), 0u);

    // The filter outlives a reconnect: the 1030 greeting is dropped and commands are refused.
    const size_t nines = cb_.Count(9), eights = cb_.Count(8);
    ASSERT_EQ(sim_->Control("drop"), "OK dropped=1");
    ASSERT_TRUE(cb_.WaitForStatus(8, eights + 1));
    ASSERT_TRUE(log_.WaitFor("SEND session=2 COMM_MSG_SRVC_STOPPED len=0"));
    EXPECT_EQ(api_->GetTowerList(), -10);
    ASSERT_EQ(sim_->Control("start-service"), "OK service=running");
    ASSERT_TRUE(cb_.WaitForStatus(9, nines + 1));
    ASSERT_EQ(api_->GetTowerList(), 0);
    ASSERT_TRUE(log_.WaitFor("RECV session=2 COMM_MSG_TOWERS_REQUEST_INFO len=0"));
    EXPECT_EQ(log_.Count("RECV session=2 COMM_MSG_TOWERS_REQUEST_INFO len=0"), 1u);
}

TEST_F(ApiAgainstAgent, LostAgentGivesStatus8AfterThePauseAndReconnectsWhenItReturns) {
    const int baseline = ThreadBaseline();
    Connected();
    ASSERT_EQ(api_->StartStatsCollecting(), 0);
    ASSERT_TRUE(cb_.WaitForStatus(15));

    for (int round = 0; round < 2; ++round) {
        // A failed pass while the agent is away adds a status 8: always wait for a new one.
        const size_t eights = cb_.Count(8), nines = cb_.Count(9);
        const auto lost = Clock::now();
        sim_.reset();
        ASSERT_TRUE(cb_.WaitForStatus(8, eights + 1));
        EXPECT_GE(Clock::now() - lost, milliseconds(1500)) << "status 8 comes after the pause";
        EXPECT_EQ(api_->GetTowerList(), -10);

        StartAgent();
        ASSERT_TRUE(cb_.WaitForStatus(9, nines + 1, seconds(15)));
        ASSERT_EQ(api_->GetTowerList(), 0);
        ASSERT_TRUE(cb_.WaitUntil([&] { return cb_.events.back().rfind("T:", 0) == 0; }));
    }
    const Statuses statuses = cb_.Statuses();
    EXPECT_EQ(Statuses(statuses.begin(), statuses.begin() + 2), (Statuses{9, 15}));
    EXPECT_EQ(statuses.back(), 9u);
    EXPECT_LE(ThreadCount() - baseline, 6) << "threads pile up across reconnects";
    ExpectThreadsBackTo(baseline);
}

TEST_F(ApiAgainstAgent, StopEndsPromptlyInEachPhase) {
    // Not connected: the main thread sits in its 2-second pause after a failed attempt.
    StartApi();
    ASSERT_TRUE(syslog_capture::WaitFor("SecureIPC : setupasync failed\n", seconds(10)));
    StopPromptly("during the pause");
    EXPECT_EQ(syslog_capture::Count("Communicator : Communicator stopped\n"), 1u);

    // Connecting: the channel is up but the agent never says its service runs.
    OwnAgent silent;
    std::unique_ptr<IIPCServer> server = ListenAsAgent(silent);
    StartApi();
    ASSERT_TRUE(WaitSession(silent));
    StopPromptly("while connecting");
    server.reset();

    Connected();
    StopPromptly("while connected");
}

TEST_F(ApiAgainstAgent, SenderBlockedByAnAgentThatStopsReadingEndsWithinTheStop) {
    // The agent greets, then reads nothing more: SendData's time-out must end the blocked sender.
    OwnAgent stalled;
    std::promise<void> release;
    stalled.released = release.get_future().share();
    std::unique_ptr<IIPCServer> server = ListenAsAgent(stalled);
    StartApi(true);
    ASSERT_TRUE(WaitSession(stalled));
    MSG_QUEUE_MSG started(COMM_MSG_SRVC_STARTED, 0, 1, 0);
    CWirePacket packet;
    ASSERT_TRUE(MakeWirePacket(&started, packet));
    ASSERT_EQ(server->SendData(&packet.m_Buffer, static_cast<uint16_t>(stalled.session)), 0);
    ASSERT_TRUE(cb_.WaitForStatus(9));
    const std::string name(64 * 1024, 't');  // 40 of these fill every socket buffer
    for (int i = 0; i < 40; ++i)
        ASSERT_EQ(api_->SetTower(name.c_str()), 0);
    // Blocked: the sender has started tower changes and makes no more progress.
    const std::string sending = "ClientComm sending... msgid COMM_MSG_CHANGE_ACTIVE_TOWER";
    size_t sent = 0;
    for (auto end = Clock::now() + seconds(10); Clock::now() < end;) {
        const size_t before = syslog_capture::CountContaining(sending);
        std::this_thread::sleep_for(milliseconds(300));
        sent = syslog_capture::CountContaining(sending);
        if (sent > 0 && sent == before)
            break;
    }
    ASSERT_GT(sent, 0u);
    ASSERT_LT(sent, 40u) << "the agent took every change: the sender never blocked";

    StopPromptly("with the sender blocked", seconds(8));
    EXPECT_EQ(syslog_capture::CountContaining("Timeout waiting for Main thread"), 0u);
    EXPECT_EQ(syslog_capture::CountContaining("WaitForSndRcvThreads problem"), 0u);
    release.set_value();
    server->TearDown();
}

TEST_F(ApiAgainstAgent, MessagesQueuedBeforeADisconnectAreAllDelivered) {
    // State, service stop, drop, with a slow host: the receiver works its queue before it quits.
    Connected();
    cb_.statusHook = [](uint64_t code) {
        if (code == 4)
            std::this_thread::sleep_for(milliseconds(300));  // a slow host, not a sync
    };
    const size_t eights = cb_.Count(8), before = cb_.Statuses().size();
    ASSERT_EQ(sim_->Control("state 0x04"), "OK sent=1");
    ASSERT_EQ(sim_->Control("send 1030"), "OK sent=1");
    ASSERT_EQ(sim_->Control("drop"), "OK dropped=1");
    ASSERT_TRUE(cb_.WaitForStatus(8, eights + 1));
    const Statuses all = cb_.Statuses();  // a reconnect may add more after the 8
    EXPECT_EQ(Statuses(all.begin() + before, all.begin() + std::min(all.size(), before + 3)),
              (Statuses{4, 1, 8}));
}

TEST_F(ApiAgainstAgent, CallbackStuckAcrossADropLeavesTheNextConnectionWhole) {
    const int baseline = ThreadBaseline();
    StartAndStick(3, "state 0x02");
    ASSERT_EQ(sim_->Control("state 0x04"), "OK sent=1");  // queued behind the stuck callback
    const size_t nines = cb_.Count(9);
    ASSERT_EQ(sim_->Control("drop"), "OK dropped=1");
    ASSERT_TRUE(
        syslog_capture::WaitFor("Communicator(2) : WaitForSndRcvThreads problem\n", seconds(15)));

    // The next connection has its own threads and queues: greeted, it answers a command.
    ASSERT_TRUE(log_.WaitFor("SEND session=2 COMM_MSG_SRVC_STARTED len=0"));
    const auto greeted = Clock::now();
    ASSERT_TRUE(cb_.WaitForStatus(9, nines + 1));
    EXPECT_LT(Clock::now() - greeted, seconds(2)) << "status 9 waited for another cycle";
    ASSERT_EQ(api_->GetTowerList(), 0);
    ASSERT_TRUE(cb_.WaitForLast("T:west-1,west-2,east-1@1"));

    // Released, the old receiver delivers what its connection had queued, then ends.
    const size_t before = cb_.Statuses().size();
    const size_t exits = syslog_capture::Count("ClientComm : Receiver thread exits\n");
    release_.set_value();
    ASSERT_TRUE(cb_.WaitUntil([&] { return cb_.statuses.size() >= before + 2; }));
    const Statuses all = cb_.Statuses();
    EXPECT_EQ(Statuses(all.begin() + before, all.end()), (Statuses{3, 4}));
    EXPECT_TRUE(
        syslog_capture::WaitFor("ClientComm : Receiver thread exits\n", seconds(5), exits + 1));
    ExpectThreadsBackTo(baseline);
}

TEST_F(ApiAgainstAgent, ReceiverStuckInACallbackIsGivenUpWithoutHangingTheStop) {
    const int baseline = ThreadBaseline();
    StartAndStick(6, "state 0x08");
    // The host disposes of the API meanwhile: the stop gives up on the receiver at its limit.
    const auto start = Clock::now();
    StopApi();
    const auto took = Clock::now() - start;
    EXPECT_GE(took, milliseconds(3500)) << "the join waited its limit";
    EXPECT_LT(took, seconds(14)) << "the stop gave up on the stuck receiver";
    EXPECT_GE(syslog_capture::Count("Communicator(2) : WaitForSndRcvThreads problem\n"), 1u);

    release_.set_value();  // the abandoned receiver touches nothing freed and ends
    EXPECT_TRUE(syslog_capture::WaitFor("ClientComm : Receiver thread exits\n", seconds(5)));
    ExpectThreadsBackTo(baseline);
}

}  // namespace
