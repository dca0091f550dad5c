// The receive path and the commands with the IPC library replaced by a fake, so that each
// message, fault and corner can be forced: the dispatch of every agent message into callbacks,
// the routing of the callback glue, send failures and the communicator's own contract.
#include <string.h>

#include <memory>

#include <gtest/gtest.h>

#include "FakeIPCClient.h"
#include "RecordingCallback.h"
#include "SyslogCapture.h"
#include "api/VantoriaApi.h"
#include "common/VNTrace.h"
#include "plugin/PluginEntry.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class ApiWithFakeChannel : public ::testing::Test {
  protected:
    void SetUp() override {
        g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true,
                          10, 10000, 100, 1, 0, 60);
        savedMask_ = g_Trace.GetLevelMask();
        g_Trace.SetLevelMask(0xFFFFFFFF);
        syslog_capture::Clear();
        fake_ = FakeIPCClient::Install();
    }
    void TearDown() override {
        g_pVantoriaApi = nullptr;
        api_.reset();
        FakeIPCClient::Uninstall();
        g_Trace.SetLevelMask(savedMask_);
    }

    // An API whose communicator has connected through the fake and heard 1028.
    void Connect() {
        api_ = std::make_unique<CVantoriaApi>();
        g_pVantoriaApi = api_.get();
        ASSERT_TRUE(api_->Initialize(5003));
        ASSERT_TRUE(api_->StartCommunicator());
        ASSERT_TRUE(fake_->WaitFor([&] { return fake_->connects >= 1; }));
        EXPECT_EQ(fake_->identity, 6u);
        EXPECT_EQ(fake_->lastPort, 5003);
        EXPECT_EQ(fake_->lastParam, 5u);
        fake_->PeerState(8, 1, 2);
        ASSERT_EQ(api_->Register(&cb_), 0);
        fake_->Deliver(COMM_MSG_SRVC_STARTED);
        ASSERT_TRUE(cb_.WaitForStatus(9));
    }
    // Sends an info message as a marker and waits for it: everything delivered before it has
    // been dispatched.
    void Sync() {
        static int serial = 0;
        const std::string text = "99#marker " + std::to_string(++serial);
        fake_->Deliver(COMM_MSG_INFO_MESSAGE, text.c_str(), static_cast<uint32_t>(text.size() + 1));
        ASSERT_TRUE(cb_.WaitUntil(
            [&] { return !cb_.infos.empty() && cb_.infos.back().text == text.substr(3); }));
    }
    std::vector<uint64_t> StatusesSince(size_t from) {
        const auto all = cb_.Statuses();
        return std::vector<uint64_t>(all.begin() + std::min(from, all.size()), all.end());
    }

    std::shared_ptr<FakeIPCClient::State> fake_;
    RecordingCallback cb_;
    std::unique_ptr<CVantoriaApi> api_;
    uint32_t savedMask_ = 0;
};

TEST_F(ApiWithFakeChannel, StateBytesMapToTheirStatusSequences) {
    Connect();
    const struct {
        uint8_t byte;
        std::vector<uint64_t> statuses;
    } cases[] = {
        {0x09, {6, 0, 6}}, {0x80, {}},  {0x40, {17}}, {0x42, {17}},      {0x02, {3}},
        {0x04, {4}},       {0x10, {5}}, {0x20, {16}}, {0x01, {2, 0, 2}}, {0x00, {0}},
    };
    for (const auto& c : cases) {
        const size_t before = cb_.Statuses().size();
        fake_->Deliver(COMM_MSG_ICON_APLUS_STATE, &c.byte, 1);
        Sync();
        EXPECT_EQ(StatusesSince(before), c.statuses) << "state byte " << int(c.byte);
    }
    // A state message without its byte does nothing.
    const size_t before = cb_.Statuses().size();
    fake_->Deliver(COMM_MSG_ICON_APLUS_STATE);
    Sync();
    EXPECT_TRUE(StatusesSince(before).empty());
}

TEST_F(ApiWithFakeChannel, ResultBytesSetStatusesLastErrorAndAskForFreshState) {
    Connect();
    const uint8_t ok = 1, failed = 0;
    // Length 0 has no effect at all.
    size_t before = cb_.Statuses().size();
    fake_->Deliver(COMM_MSG_CHANGE_ACTIVE_TOWER_STATUS);
    fake_->Deliver(COMM_MSG_DCT_SETTINGS_UPDATED);
    fake_->Deliver(COMM_MSG_SERVICE_STATS_START_RESULT);
    Sync();
    EXPECT_TRUE(StatusesSince(before).empty());

    const size_t sentBefore = fake_->WaitFor([] { return true; }) ? fake_->sentIds.size() : 0;
    fake_->Deliver(COMM_MSG_SERVICE_STATS_START_RESULT, &failed, 1);
    fake_->Deliver(COMM_MSG_SERVICE_STATS_START_RESULT, &ok, 1);
    fake_->Deliver(COMM_MSG_DCT_SETTINGS_UPDATED, &failed, 1);
    Sync();
    EXPECT_EQ(StatusesSince(before), (std::vector<uint64_t>{14, 15, 12}));
    uint32_t length = 0;
    ASSERT_EQ(api_->GetLastErrorString(nullptr, length), -3);
    std::string text(length, '\0');
    ASSERT_EQ(api_->GetLastErrorString(&text[0], length), 0);
    EXPECT_STREQ(text.c_str(), "Detect Closest Tower change failed");

    // Statuses 10 to 13 are followed by one tower request and one settings request each; 14 and
    // 15 by nothing.
    fake_->Deliver(COMM_MSG_CHANGE_ACTIVE_TOWER_STATUS, &ok, 1);
    ASSERT_TRUE(fake_->WaitFor([&] { return fake_->sentIds.size() >= sentBefore + 4; }));
    ASSERT_TRUE(cb_.WaitForStatus(11));
    Sync();
    std::vector<uint32_t> sent = fake_->Locked([&] {
        return std::vector<uint32_t>(fake_->sentIds.begin() + sentBefore, fake_->sentIds.end());
    });
    // The requests after status 12 and after status 11, each pair in order.
    EXPECT_EQ(sent,
              (std::vector<uint32_t>{COMM_MSG_TOWERS_REQUEST_INFO, COMM_MSG_DCT_SETTINGS_REQUEST,
                                     COMM_MSG_TOWERS_REQUEST_INFO, COMM_MSG_DCT_SETTINGS_REQUEST}));
}

TEST_F(ApiWithFakeChannel, AgentDataBecomesResultObjectsAndBadDataIsDropped) {
    Connect();
    auto towerList = [&](const std::string& text) {
        const size_t before = cb_.towerLists.size();
        fake_->Deliver(COMM_MSG_TOWERS_RESPONSE_INFO, text.data(), uint32_t(text.size()));
        EXPECT_TRUE(cb_.WaitUntil([&] { return cb_.towerLists.size() == before + 1; })) << text;
        return cb_.Locked<RecordedTowerList>([&] { return cb_.towerLists.back(); });
    };
    RecordedTowerList list = towerList("a,b&a");
    EXPECT_EQ(list.names, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(list.activeIndex, 0);
    EXPECT_EQ(towerList("a,b&b").activeIndex, 1);
    EXPECT_EQ(towerList("a&b,b").activeIndex, -1);  // b is not listed yet when "&" is read
    EXPECT_EQ(towerList(" a , b ").names, (std::vector<std::string>{"a", "b"}));
    list = towerList(std::string(1, '\0'));
    EXPECT_TRUE(list.names.empty());
    EXPECT_EQ(list.countResult, -1);
    EXPECT_EQ(list.activeIndex, -1);

    // Closest-tower settings: 12 bytes or fewer are taken, 13 are dropped.
    const DCTSettings settings{2, 1, 7};
    fake_->Deliver(COMM_MSG_DCT_SETTINGS_RESPONSE, &settings, sizeof(settings));
    uint8_t thirteen[13] = {};
    fake_->Deliver(COMM_MSG_DCT_SETTINGS_RESPONSE, thirteen, sizeof(thirteen));
    fake_->Deliver(COMM_MSG_DCT_TOWER_ACTIVATED, "east-9\0junk", 11);
    Sync();
    ASSERT_EQ(cb_.dcts.size(), 2u);
    EXPECT_EQ(cb_.dcts[0].mode, 2u);
    EXPECT_EQ(cb_.dcts[0].detectClosest, 1u);
    EXPECT_EQ(cb_.dcts[0].gui, 7u);
    EXPECT_FALSE(cb_.dcts[0].activeTowerChanged);
    EXPECT_TRUE(cb_.dcts[1].activeTowerChanged);
    EXPECT_EQ(cb_.dcts[1].tower, "east-9");

    // Proxy requests: short ones and other authentication types never reach the callback.
    ProxyCredRequest request;
    memset(&request, 0, sizeof(request));
    strcpy(request.szProxyHost, "10.9.8.7");
    request.nProxyPort = 8080;
    strcpy(request.szAuthType, "Digest");
    strcpy(request.szRealm, "r");
    fake_->Deliver(COMM_MSG_PROXY_CRED_REQUEST, &request, sizeof(request));
    fake_->Deliver(COMM_MSG_PROXY_CRED_REQUEST, &request, sizeof(request) - 1);
    strcpy(request.szAuthType, "Basic");
    fake_->Deliver(COMM_MSG_PROXY_CRED_REQUEST, &request, sizeof(request) - 1);
    fake_->Deliver(COMM_MSG_PROXY_CRED_REQUEST, &request, sizeof(request));
    Sync();
    ASSERT_EQ(cb_.proxies.size(), 1u);
    EXPECT_EQ(cb_.proxies[0].port, "8080");
    EXPECT_EQ(cb_.proxies[0].realm, "r");

    // Statistics: sums wrap in 32 bits; a short report is padded, never read past its end.
    ServiceStatistics stats;
    memset(&stats, 'x', sizeof(stats));  // texts without terminators
    stats.activeFilteredA = stats.activeFilteredB = 0xFFFFFFFF;
    stats.totalFilteredA = 1ull << 40;
    stats.totalFilteredB = 5;
    fake_->Deliver(COMM_MSG_SERVICE_STATS, &stats, sizeof(stats));
    fake_->Deliver(COMM_MSG_SERVICE_STATS, &stats, 8);
    Sync();
    ASSERT_EQ(cb_.statistics.size(), 2u);
    EXPECT_EQ(cb_.statistics[0].filtered, 0xFFFFFFFEull);
    EXPECT_EQ(cb_.statistics[0].totalFiltered, (1ull << 40) + 5);
    EXPECT_EQ(cb_.statistics[0].activeTower, std::string(255, 'x'));
    EXPECT_EQ(cb_.statistics[1].filtered, 0xFFFFFFFFull);  // only group A arrived
    EXPECT_EQ(cb_.statistics[1].totalFiltered, 0u);

    // Info texts: type and text; no "#" or nothing at all is refused with its line.
    fake_->Deliver(COMM_MSG_INFO_MESSAGE, "12#", 4);
    fake_->Deliver(COMM_MSG_INFO_MESSAGE, "abc", 4);
    fake_->Deliver(COMM_MSG_INFO_MESSAGE, "7#no terminator", 15);
    Sync();
    std::vector<RecordedInfo> infos;  // without the markers
    for (const RecordedInfo& info : cb_.infos) {
        if (info.type != 99)
            infos.push_back(info);
    }
    ASSERT_EQ(infos.size(), 2u);
    EXPECT_EQ(infos[0].type, 12u);
    EXPECT_EQ(infos[0].text, "");
    EXPECT_EQ(infos[1].type, 7u);
    EXPECT_EQ(infos[1].text, "no terminator");
    EXPECT_EQ(
        syslog_capture::Count("ClientComm : COMM_MSG_INFO_MESSAGE, badly formatted message\n"), 1u);

    // Packets that are too short never reach the dispatch.
    uint8_t shortPacket[23] = {};
    fake_->DeliverRaw(shortPacket, 23);
    fake_->DeliverRaw(shortPacket, 20);
    fake_->DeliverRaw(shortPacket, 0);
    EXPECT_EQ(syslog_capture::Count("SecureIPC : Failed to recieve eCOMM_MESSAGE_ID\n"), 1u);
    EXPECT_EQ(syslog_capture::Count("SecureIPC : Failed to recieve MSG_QUEUE_MSG_HEADER\n"), 1u);
    EXPECT_EQ(syslog_capture::Count("Zero datalen received\n"), 1u);
}

TEST_F(ApiWithFakeChannel, CommandsCarryTheirIdsAndData) {
    Connect();
    ASSERT_EQ(api_->SetTower("west-2"), 0);
    ASSERT_EQ(api_->SetTower(""), 0);
    ASSERT_EQ(api_->EnableService(true), 0);
    ASSERT_EQ(api_->EnableService(false), 0);
    ASSERT_EQ(api_->SetDCTSettings(3, 1), 0);
    ProxyCredInfo info;
    memset(&info, 0, sizeof(info));
    strcpy(info.szUser, "u");
    strcpy(info.szPassword, "p");
    ASSERT_EQ(api_->SendProxyInfo(&info), 0);
    ASSERT_EQ(api_->SendProxyInfo(nullptr), 0);
    ASSERT_EQ(api_->Disconnect(), 0);
    ASSERT_TRUE(fake_->WaitFor([&] { return fake_->sentIds.size() == 8; }));
    EXPECT_EQ(fake_->sentIds,
              (std::vector<uint32_t>{1042, 1042, 1026, 1027, 1046, 1050, 1050, 1034}));
    EXPECT_EQ(fake_->sentData[0], (std::vector<uint8_t>{'w', 'e', 's', 't', '-', '2'}));
    EXPECT_TRUE(fake_->sentData[1].empty());
    ASSERT_EQ(fake_->sentData[4].size(), 12u);
    DCTSettings sent;
    memcpy(&sent, fake_->sentData[4].data(), sizeof(sent));
    EXPECT_EQ(sent.nMode, 3u);
    EXPECT_EQ(sent.nDetectClosest, 1u);
    ASSERT_EQ(fake_->sentData[5].size(), 400u);
    EXPECT_EQ(0, memcmp(fake_->sentData[5].data(), &info, sizeof(info)));
    EXPECT_TRUE(fake_->sentData[6].empty());

    // Register and Unregister guard their pointer.
    RecordingCallback other;
    EXPECT_EQ(api_->Register(&other), -9);
    EXPECT_EQ(api_->Unregister(&other), -4);
    EXPECT_EQ(api_->Register(nullptr), -9);
    EXPECT_EQ(api_->Unregister(&cb_), 0);
    EXPECT_EQ(api_->Register(nullptr), -6);
}

TEST_F(ApiWithFakeChannel, SendFailureGivesExactlyOnePeerDisconnectAndAReconnect) {
    Connect();
    fake_->failSend = true;
    ASSERT_EQ(api_->SetTower("west-1"), 0);
    // Queued behind the failing one, or refused if the connection is already down: either way
    // it must not cause a second disconnect.
    api_->GetTowerList();
    ASSERT_TRUE(cb_.WaitForStatus(8));
    ASSERT_TRUE(fake_->WaitFor([&] { return fake_->connects >= 2; }));
    EXPECT_EQ(
        syslog_capture::Count("ClientComm : Failed to send msg (COMM_MSG_CHANGE_ACTIVE_TOWER) "
                              "to server, server not accessible.\n"),
        1u);
    EXPECT_EQ(syslog_capture::Count("ClientComm : peer disconnected, stopping snd/rcv threads\n"),
              1u);
    EXPECT_EQ(api_->GetTowerList(), -10);  // not connected until the agent speaks again
}

TEST_F(ApiWithFakeChannel, StatusesBeforeRegisterAreReplayedInOrderByStart) {
    api_ = std::make_unique<CVantoriaApi>();
    g_pVantoriaApi = api_.get();
    ASSERT_TRUE(api_->Initialize(5003));
    ASSERT_TRUE(api_->StartCommunicator());
    ASSERT_TRUE(fake_->WaitFor([&] { return fake_->connects >= 1; }));
    fake_->PeerState(8, 1, 2);
    fake_->Deliver(COMM_MSG_SRVC_STARTED);
    const uint8_t state = 0x10;
    fake_->Deliver(COMM_MSG_ICON_APLUS_STATE, &state, 1);
    fake_->Deliver(COMM_MSG_SRVC_STOPPED);
    fake_->Deliver(COMM_MSG_SRVC_STARTED);  // passes the stopped-service filter: connected again
    ASSERT_TRUE(syslog_capture::WaitForCount(
        "StatusNotificationCB: status: 9, but callback not registered so save msg\n", 2,
        seconds(5)));
    // Register alone replays nothing; Start does, in arrival order, each with its line.
    ASSERT_EQ(api_->Register(&cb_), 0);
    EXPECT_TRUE(cb_.Statuses().empty());
    ASSERT_EQ(api_->Start(), 0);
    EXPECT_EQ(cb_.Statuses(), (std::vector<uint64_t>{9, 5, 1, 9}));
    EXPECT_EQ(syslog_capture::Count("Found message in Start(): status: 1\n"), 1u);
    // Drained: a second Start replays nothing.
    ASSERT_EQ(api_->Start(), 0);
    EXPECT_EQ(cb_.Statuses().size(), 4u);
}

TEST_F(ApiWithFakeChannel, GlueTracksSessionsAndRoutesCommandClientIds) {
    Connect();
    CClientSideCommunicator* comm = api_->GetCommunicator();
    EXPECT_EQ(comm->m_PeerSessions.at(8), 1);
    // Unknown peers leave the sessions alone.
    for (uint32_t peer : {5u, 9u})
        fake_->PeerState(peer, 0x12345, 2);
    EXPECT_EQ(syslog_capture::Count("SecureIPC : Unknown peer id connected. So do nothing\n"), 2u);
    EXPECT_EQ(comm->m_PeerSessions.size(), 1u);
    // Command-client ids go to the main queue, whose relay names them; the receiver never does.
    fake_->Deliver(COMM_MSG_CLIENT_TYPE_CMD_ENABLE_SVC);
    fake_->Deliver(COMM_MSG_CLIENT_TYPE_CMD_CHANGE_DBGLEVEL, "\x07\x01\0\0", 4);
    ASSERT_TRUE(syslog_capture::WaitFor(
        "ClientComm : msgid COMM_MSG_CLIENT_TYPE_CMD_CHANGE_DBGLEVEL\n", seconds(5)));
    EXPECT_EQ(syslog_capture::Count("ClientComm : msgid COMM_MSG_CLIENT_TYPE_CMD_ENABLE_SVC\n"),
              1u);
    // Statistics never write an IPC-level line.
    ServiceStatistics stats;
    memset(&stats, 0, sizeof(stats));
    fake_->Deliver(COMM_MSG_SERVICE_STATS, &stats, sizeof(stats));
    Sync();
    EXPECT_EQ(syslog_capture::CountContaining("COMM_MSG_SERVICE_STATS\n"), 0u);

    // The agent goes: one PEER_DC, the session is gone, the cycle comes round with status 8.
    fake_->PeerState(8, 1, 0);
    ASSERT_TRUE(cb_.WaitForStatus(8));
    EXPECT_EQ(comm->m_PeerSessions.count(8), 0u);
    EXPECT_EQ(syslog_capture::Count("SecureIPC : client received disconnect message\n"), 1u);
    ASSERT_TRUE(fake_->WaitFor([&] { return fake_->connects >= 2; }));
}

TEST(Communicator, ContractOutsideAConnection) {
    g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true, 10,
                      10000, 100, 1, 0, 60);
    const uint32_t saved = g_Trace.GetLevelMask();
    g_Trace.SetLevelMask(0xFFFFFFFF);
    auto fake = FakeIPCClient::Install();
    {
        CClientSideCommunicator comm(5003, 2, 5, 0);
        syslog_capture::Clear();
        EXPECT_EQ(comm.StartMainThread(), 0x80004005);
        EXPECT_EQ(
            syslog_capture::Texts(),
            std::vector<std::string>{"Comm : Failed to start main thread, comm not initialized\n"});
        EXPECT_EQ(comm.Init(), 0);
        EXPECT_EQ(comm.Init(), 0);
        EXPECT_EQ(fake->created, 1);
        // Nothing started: the stop runs its whole line-up at once.
        syslog_capture::Clear();
        comm.Stop();
        EXPECT_EQ(syslog_capture::Texts(),
                  (std::vector<std::string>{
                      "Communicator : Stopping communicator...\n",
                      "Communicator(2) : Stopping main thread\n",
                      "Communicator(2) : Main thread Stopped\n",
                      "Communicator(2) : Stopping snd/rcv threads\n",
                      "Communicator(2) : Waiting for snd/rcv threads to stop\n",
                      "Communicator(2) : snd/rcv threads stopped\n",
                      "Tear down was called for client\n",
                      "Communicator : Communicator stopped\n",
                  }));
        // The glue with no queue to post to: the failure is logged, the session erased.
        fake->PeerState(8, 3, 2);
        fake->PeerState(8, 3, 0);
        EXPECT_EQ(comm.m_PeerSessions.count(8), 0u);
        EXPECT_EQ(syslog_capture::Count("SecureIPC : Failed to write COMM_MSG_PEER_DC\n"), 1u);
        fake->Deliver(COMM_MSG_TOWERS_RESPONSE_INFO, "a", 1);
        EXPECT_EQ(
            syslog_capture::Count("SecureIPC : Failed to write to reciever thread queue from CB\n"),
            1u);
        // WaitForMainThread(0) waits one pass at most.
        const auto start = std::chrono::steady_clock::now();
        comm.WaitForMainThread(0);
        EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(3));
    }
    FakeIPCClient::Uninstall();
    g_Trace.SetLevelMask(saved);
}

}  // namespace
