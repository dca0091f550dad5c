// The client API against the agent simulator over the real channel: every command reaches the
// agent with the right id and data, every answer reaches the callback as the right object, and
// refusals, service stops, lost agents and stops in each phase behave as a host relies on.
#include <algorithm>
#include <string.h>

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
#include "common/VNTrace.h"
#include "plugin/PluginEntry.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

constexpr uint16_t kPort = 5003;

class ApiAgainstAgent : public ::testing::Test {
  protected:
    void SetUp() override {
        g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true,
                          10, 10000, 100, 1, 0, 60);
        savedMask_ = g_Trace.GetLevelMask();
        g_Trace.SetLevelMask(kDefaultTraceMask | (1u << TL_API) | (1u << TL_IPC));
        syslog_capture::Clear();
    }
    void TearDown() override {
        if (HasFailure()) {
            for (const auto& line : log_.Lines())
                printf("agent: %s\n", line.c_str());
            for (const auto& text : syslog_capture::Texts())
                printf("log: %s", text.c_str());
        }
        StopApi();
        sim_.reset();
        g_Trace.SetLevelMask(savedMask_);
    }

    void StartAgent(AgentSimOptions options = AgentSimOptions()) {
        options.port = kPort;
        sim_ = std::make_unique<CAgentSimulator>(options, log_.Sink());
        ASSERT_EQ(sim_->Start(), 0);
    }
    void StartApi() {
        api_ = std::make_unique<CVantoriaApi>();
        g_pVantoriaApi = api_.get();
        ASSERT_TRUE(api_->Initialize(kPort));
        ASSERT_TRUE(api_->StartCommunicator());
    }
    void StopApi() {
        g_pVantoriaApi = nullptr;
        api_.reset();
    }
    // Registers the callback and replays what came before.
    void Listen() {
        ASSERT_EQ(api_->Register(&cb_), 0);
        ASSERT_EQ(api_->Start(), 0);
    }
    std::string LastError() {
        uint32_t length = 0;
        std::string text =
            ReadText([&](char* b, uint32_t& l) { return api_->GetLastErrorString(b, l); });
        (void)length;
        return text;
    }

    TempRoot root_;
    SimLog log_;
    RecordingCallback cb_;
    std::unique_ptr<CAgentSimulator> sim_;
    std::unique_ptr<CVantoriaApi> api_;
    uint32_t savedMask_ = 0;
};

TEST_F(ApiAgainstAgent, WholeConversationReachesTheAgentAndTheCallback) {
    // No agent yet: every command is refused, with the line that says why.
    StartApi();
    EXPECT_EQ(api_->GetTowerList(), -10);
    EXPECT_EQ(api_->SetTower("west-1"), -10);
    EXPECT_EQ(api_->SetTower(nullptr), -6);
    EXPECT_EQ(syslog_capture::Count("Message could not be sent, ClientComm not connected to svc\n"),
              2u);

    // The agent comes up; status 9 arrives before anyone listens and is replayed by Start.
    StartAgent();
    ASSERT_TRUE(syslog_capture::WaitFor(
        "StatusNotificationCB: status: 9, but callback not registered so save msg\n", seconds(10)));
    Listen();
    ASSERT_TRUE(cb_.WaitForStatus(9)) << ::testing::PrintToString(syslog_capture::Texts());
    EXPECT_EQ(syslog_capture::Count("Found message in Start(): status: 9\n"), 1u);

    // Tower list with the active tower.
    ASSERT_EQ(api_->GetTowerList(), 0);
    ASSERT_TRUE(cb_.WaitUntil([&] { return cb_.towerLists.size() == 1; }));
    EXPECT_EQ(cb_.towerLists[0].names, (std::vector<std::string>{"west-1", "west-2", "east-1"}));
    EXPECT_EQ(cb_.towerLists[0].activeIndex, 1);

    // A tower change: the agent gets the name, the answer is status 11, and fresh state follows.
    ASSERT_EQ(api_->SetTower("east-1"), 0);
    ASSERT_TRUE(cb_.WaitForStatus(11));
    ASSERT_TRUE(cb_.WaitUntil([&] { return cb_.towerLists.size() == 2 && cb_.dcts.size() == 1; }))
        << cb_.towerLists.size() << " " << cb_.dcts.size() << "\n"
        << ::testing::PrintToString(log_.Lines())
        << ::testing::PrintToString(syslog_capture::Texts());
    EXPECT_EQ(cb_.towerLists[1].activeIndex, 2);
    EXPECT_TRUE(log_.Has("RECV session=1 COMM_MSG_CHANGE_ACTIVE_TOWER len=6 tower=\"east-1\""));

    // An empty name goes out with length 0; the agent refuses it: status 10 and the last error.
    ASSERT_EQ(api_->SetTower(""), 0);
    ASSERT_TRUE(cb_.WaitForStatus(10));
    EXPECT_TRUE(log_.Has("RECV session=1 COMM_MSG_CHANGE_ACTIVE_TOWER len=0 tower=\"\""));
    EXPECT_EQ(LastError(), "Tower change failed");
    ASSERT_TRUE(cb_.WaitUntil([&] { return cb_.towerLists.size() == 3 && cb_.dcts.size() == 2; }));

    // Closest-tower settings: 12 bytes out, status 13, and the new settings come back.
    ASSERT_EQ(api_->SetDCTSettings(2, 1), 0);
    ASSERT_TRUE(cb_.WaitForStatus(13));
    ASSERT_TRUE(cb_.WaitUntil([&] { return cb_.dcts.size() == 3; }));
    EXPECT_TRUE(log_.Has("RECV session=1 COMM_MSG_DCT_SETTINGS_UPDATE len=12 mode=2 detect=1"));
    {
        const RecordedDct dct = cb_.Locked<RecordedDct>([&] { return cb_.dcts[2]; });
        EXPECT_FALSE(dct.activeTowerChanged);
        EXPECT_EQ(dct.mode, 2u);
        EXPECT_EQ(dct.detectClosest, 1u);
        EXPECT_EQ(dct.gui, 1u);
    }

    // Statistics: status 15, then reports whose counts are the sums of both groups.
    ASSERT_EQ(api_->StartStatsCollecting(), 0);
    ASSERT_TRUE(cb_.WaitForStatus(15));
    ASSERT_EQ(sim_->Control("stats-burst 2"), "OK sent=2");
    ASSERT_TRUE(cb_.WaitUntil([&] { return cb_.statistics.size() >= 2; }));
    {
        const RecordedStatistics s =
            cb_.Locked<RecordedStatistics>([&] { return cb_.statistics.back(); });
        EXPECT_EQ(s.filtered, 7u);
        EXPECT_EQ(s.bypassed, 6u);
        EXPECT_EQ(s.other, 8u);
        EXPECT_EQ(s.totalFiltered % 300, 0u);
        EXPECT_EQ(s.totalBypassed, s.totalFiltered / 10);
        EXPECT_EQ(s.activeTower, "east-1");
    }
    ASSERT_EQ(api_->StopStatsCollecting(), 0);
    ASSERT_TRUE(log_.WaitFor("RECV session=1 COMM_MSG_SERVICE_STATS_STOP len=0"));

    // Proxy: only "Basic" reaches the callback; the answer goes out as 400 bytes.
    ASSERT_EQ(sim_->Control("proxy 10.1.2.3 3128 NTLM office"), "OK sent=1");
    ASSERT_EQ(sim_->Control("proxy 10.1.2.3 3128 Basic office net"), "OK sent=1");
    ASSERT_TRUE(cb_.WaitUntil([&] { return !cb_.proxies.empty(); }));
    {
        const RecordedProxy p = cb_.Locked<RecordedProxy>([&] { return cb_.proxies[0]; });
        EXPECT_EQ(p.host, "10.1.2.3");
        EXPECT_EQ(p.port, "3128");
        EXPECT_EQ(p.authType, "Basic");
        EXPECT_EQ(p.realm, "office net");
    }
    ProxyCredInfo info;
    memset(&info, 0, sizeof(info));
    strcpy(info.szUser, "alice");
    memset(info.szPassword, 'p', sizeof(info.szPassword));  // a full field, no terminator
    ASSERT_EQ(api_->SendProxyInfo(&info), 0);
    ASSERT_TRUE(
        log_.WaitFor("RECV session=1 COMM_MSG_PROXY_CRED_RESPONSE len=400 user=\"alice\" "
                     "password=\"" +
                     std::string(200, 'p') + "\" reserved=zero"));
    ASSERT_EQ(api_->QueryProxyState(), 0);
    ASSERT_EQ(api_->CancelProxyCred(), 0);
    ASSERT_TRUE(log_.WaitFor("RECV session=1 COMM_MSG_PROXY_CANCEL_REQUEST len=0"));
    EXPECT_TRUE(log_.Has("RECV session=1 COMM_MSG_PROXY_STATE_QUERY len=0"));

    // Info messages and state bytes, in order.
    ASSERT_EQ(sim_->Control("info 12 tower west-1 is down"), "OK sent=1");
    ASSERT_TRUE(cb_.WaitUntil([&] { return !cb_.infos.empty(); }));
    EXPECT_EQ(cb_.infos[0].type, 12u);
    EXPECT_EQ(cb_.infos[0].text, "tower west-1 is down");
    const size_t before = cb_.Statuses().size();
    ASSERT_EQ(sim_->Control("state 0x09"), "OK sent=1");
    ASSERT_EQ(sim_->Control("state 0x80"), "OK sent=1");
    ASSERT_EQ(sim_->Control("state 0x01"), "OK sent=1");
    ASSERT_TRUE(cb_.WaitUntil([&] { return cb_.statuses.size() >= before + 6; }));
    const std::vector<uint64_t> statuses = cb_.Statuses();
    EXPECT_EQ(std::vector<uint64_t>(statuses.begin() + before, statuses.end()),
              (std::vector<uint64_t>{6, 0, 6, 2, 0, 2}));

    // The active-tower event.
    ASSERT_EQ(sim_->Control("activate west-1"), "OK sent=1");
    ASSERT_TRUE(
        cb_.WaitUntil([&] { return !cb_.dcts.empty() && cb_.dcts.back().tower == "west-1"; }));
    EXPECT_TRUE(cb_.dcts.back().activeTowerChanged);
}

TEST_F(ApiAgainstAgent, StoppedServiceDropsTowerChangesUntilTheAgentStartsAgain) {
    StartAgent();
    StartApi();
    Listen();
    ASSERT_TRUE(cb_.WaitForStatus(9));

    ASSERT_EQ(api_->EnableService(false), 0);
    ASSERT_TRUE(log_.WaitFor("RECV session=1 COMM_MSG_STOP_SERVICE len=0"));
    ASSERT_TRUE(cb_.WaitForStatus(1));
    // Still queued (the connection stands), but the sender drops all but the disconnect.
    EXPECT_EQ(api_->SetTower("west-1"), 0);
    EXPECT_EQ(api_->EnableService(true), 0);
    EXPECT_EQ(api_->Disconnect(), 0);
    ASSERT_TRUE(log_.WaitFor("RECV session=1 COMM_MSG_DISCONNECT len=0"));
    EXPECT_EQ(log_.CountPrefix("RECV session=1 COMM_MSG_CHANGE_ACTIVE_TOWER"), 0u);
    EXPECT_EQ(log_.CountPrefix("RECV session=1 COMM_MSG_START_SERVICE"), 0u);

    // Across a reconnect the filter stays until the agent says its service runs.
    ASSERT_EQ(sim_->Control("drop"), "OK dropped=1");
    ASSERT_TRUE(cb_.WaitForStatus(8));
    ASSERT_TRUE(log_.WaitFor("CONNECT session=2 identity=6"));
    // The agent greets with 1030 again, which the filter drops too: no new status 1, and
    // commands are refused, since only 1028 marks the connection as usable.
    ASSERT_TRUE(log_.WaitFor("SEND session=2 COMM_MSG_SRVC_STOPPED len=0"));
    EXPECT_EQ(api_->GetTowerList(), -10);
    ASSERT_EQ(sim_->Control("start-service"), "OK service=running");
    ASSERT_TRUE(cb_.WaitForStatus(9, 2));
    ASSERT_EQ(api_->GetTowerList(), 0);
    ASSERT_TRUE(log_.WaitFor("RECV session=2 COMM_MSG_TOWERS_REQUEST_INFO len=0"));
    EXPECT_EQ(log_.Count("RECV session=2 COMM_MSG_TOWERS_REQUEST_INFO len=0"), 1u);
}

TEST_F(ApiAgainstAgent, LostAgentGivesStatus8AfterThePauseAndReconnectsWhenItReturns) {
    const int baseline = ThreadBaseline();
    StartAgent();
    StartApi();
    Listen();
    ASSERT_TRUE(cb_.WaitForStatus(9));
    ASSERT_EQ(api_->StartStatsCollecting(), 0);
    ASSERT_TRUE(cb_.WaitForStatus(15));

    auto count = [&](uint64_t code) {
        std::vector<uint64_t> all = cb_.Statuses();
        return size_t(std::count(all.begin(), all.end(), code));
    };
    for (int round = 0; round < 2; ++round) {
        // The agent dies mid-conversation. Status 8 may already have come more than once in an
        // earlier round (once per failed pass while the agent was away), so wait for a new one.
        const size_t eights = count(8);
        const size_t nines = count(9);
        const auto lost = Clock::now();
        sim_.reset();
        ASSERT_TRUE(cb_.WaitForStatus(8, eights + 1));
        const auto pause = Clock::now() - lost;
        EXPECT_GE(pause, milliseconds(1500)) << "status 8 comes after the 2-second pause";
        EXPECT_EQ(api_->GetTowerList(), -10);

        StartAgent();
        ASSERT_TRUE(cb_.WaitForStatus(9, nines + 1, seconds(15)));
        ASSERT_EQ(api_->GetTowerList(), 0);
        ASSERT_TRUE(cb_.WaitUntil([&] { return cb_.towerLists.size() == size_t(round) + 1; }));
    }
    // Statuses in order, nothing doubled: 9, 15, then 8 and 9 per round (status 8 may repeat
    // while the agent is away, once per 2-second pass).
    std::vector<uint64_t> statuses = cb_.Statuses();
    ASSERT_GE(statuses.size(), 6u);
    EXPECT_EQ(statuses[0], 9u);
    EXPECT_EQ(statuses[1], 15u);
    EXPECT_EQ(statuses.back(), 9u);
    // One sender and one receiver per connection: the thread count is back to the main thread
    // plus the connection's threads and the IPC library's, not growing with every round.
    const int during = ThreadCount();
    StopApi();
    sim_.reset();
    EXPECT_LE(during - baseline, 6) << "threads pile up across reconnects";
    EXPECT_EQ(ThreadCount(), baseline);
}

TEST_F(ApiAgainstAgent, StopEndsPromptlyInEachPhase) {
    // Not connected: the main thread sits in its 2-second pause.
    StartApi();
    std::this_thread::sleep_for(milliseconds(100));  // let it reach the pause
    auto start = Clock::now();
    StopApi();
    EXPECT_LT(Clock::now() - start, seconds(1)) << "stop during the pause";
    EXPECT_GE(syslog_capture::Count("Communicator : Communicator stopped\n"), 1u);

    // Connecting: the channel is up but the agent never says its service runs.
    BR_STATUSCODE status = 0;
    struct Silent : IIPCServerCallback {
        void OnPeerStateChanged(uint32_t, uint32_t, uint32_t) override {}
        void OnReqMsgRecv(IPCBuffer*) override {}
        void OnRespMsgRecv(IPCBuffer*) override {}
    } silent;
    std::unique_ptr<IIPCServer> server(CIPCFactory::CreateIPCServer(8, &silent, status, kPort));
    ASSERT_TRUE(server);
    ASSERT_EQ(server->Listen(), 0);
    StartApi();
    const auto deadline = Clock::now() + seconds(10);
    while (server->PeerCount() == 0 && Clock::now() < deadline) {
        std::this_thread::sleep_for(milliseconds(10));
    }
    ASSERT_EQ(server->PeerCount(), 1u);
    start = Clock::now();
    StopApi();
    EXPECT_LT(Clock::now() - start, seconds(1)) << "stop while connecting";
    server->TearDown();
    server.reset();

    // Connected.
    StartAgent();
    StartApi();
    Listen();
    ASSERT_TRUE(cb_.WaitForStatus(9));
    start = Clock::now();
    StopApi();
    EXPECT_LT(Clock::now() - start, seconds(1)) << "stop while connected";
}

TEST_F(ApiAgainstAgent, ReceiverStuckInACallbackIsGivenUpWithoutHangingTheStop) {
    const int baseline = ThreadBaseline();
    StartAgent();
    StartApi();
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> stuck{false};
    cb_.statusHook = [&](uint64_t code) {
        if (code == 6) {
            stuck = true;
            released.wait();
        }
    };
    Listen();
    ASSERT_TRUE(cb_.WaitForStatus(9));
    ASSERT_EQ(sim_->Control("state 0x08"), "OK sent=1");
    const auto deadline = Clock::now() + seconds(10);
    while (!stuck && Clock::now() < deadline)
        std::this_thread::sleep_for(milliseconds(5));
    ASSERT_TRUE(stuck);

    // The host disposes of the API while the receiver is stuck in its callback: the stop gives
    // up on the receiver after the join limits instead of hanging.
    const auto start = Clock::now();
    StopApi();
    const auto took = Clock::now() - start;
    EXPECT_GE(took, milliseconds(3500)) << "the join waited its limit";
    EXPECT_LT(took, seconds(14)) << "the stop gave up on the stuck receiver";
    EXPECT_GE(syslog_capture::Count("Communicator(2) : WaitForSndRcvThreads problem\n"), 1u);

    // When the callback returns, the abandoned receiver must touch nothing of the freed API and
    // communicator (the sanitizer build checks), and end by itself.
    release.set_value();
    EXPECT_TRUE(syslog_capture::WaitFor("ClientComm : Receiver thread exits\n", seconds(5)));
    sim_.reset();
    const auto gone = Clock::now() + seconds(10);
    while (ThreadCount() > baseline && Clock::now() < gone) {
        std::this_thread::sleep_for(milliseconds(10));
    }
    EXPECT_EQ(ThreadCount(), baseline);
}

}  // namespace
