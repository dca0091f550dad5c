// The receive path and the commands with the IPC library replaced by a fake, so that each
// message, fault and corner can be forced.
#include <string.h>
#include <functional>
#include <future>
#include <thread>

#include <memory>

#include <gtest/gtest.h>

#include "FakeIPCClient.h"
#include "RecordingCallback.h"
#include "SyslogCapture.h"
#include "api/VantoriaApi.h"
#include "common/VNTrace.h"
#include "plugin/PluginEntry.h"

namespace {

using std::chrono::seconds;
using namespace std::string_literals;
using Statuses = std::vector<uint64_t>;

class ApiWithFakeChannel : public ::testing::Test {
  protected:
    void SetUp() override {
        g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true,
                          10, 10000, 100, 1, 0, 60);
        g_Trace.SetLevelMask(0xFFFFFFFF);
        syslog_capture::Clear();
        fake_ = std::make_shared<FakeIPCClient::State>();
    }
    void TearDown() override {
        g_pVantoriaApi = nullptr;
        api_.reset();
        EXPECT_TRUE(cb_.faults.empty()) << ::testing::PrintToString(cb_.faults);
    }

    // An API whose communicator connected through the fake; registered and past 1028 if asked.
    void Connect(bool greet = true) {
        api_ = std::make_unique<CVantoriaApi>();
        g_pVantoriaApi = api_.get();
        ASSERT_TRUE(api_->Initialize(5003, FakeIPCClient::Factory(fake_)));
        ASSERT_TRUE(api_->StartCommunicator());
        ASSERT_TRUE(fake_->WaitFor([&] { return fake_->connects >= 1; }));
        fake_->PeerState(8, 1, 2);
        if (!greet)
            return;
        ASSERT_EQ(api_->Register(&cb_), 0);
        fake_->Deliver(COMM_MSG_SRVC_STARTED);
        ASSERT_TRUE(cb_.WaitForStatus(9));
    }
    // An info text as a marker: once it arrives, everything delivered before it was dispatched.
    void Sync() {
        static int serial = 0;
        const std::string text = "99#marker " + std::to_string(++serial);
        fake_->Deliver(COMM_MSG_INFO_MESSAGE, text.c_str(), static_cast<uint32_t>(text.size() + 1));
        ASSERT_TRUE(cb_.WaitForLast("I:" + text));
    }
    // Holds the sender inside the send of a tower change while a tower-list request waits
    // behind it, calls `end` to end the channel, and lets the send go once the stop waits for
    // the sender.
    void SecondCommandAfter(const std::function<void()>& end) {
        // The hook owns what it touches: the sender may still be inside it after this returns.
        auto entered = std::make_shared<std::promise<void>>();
        auto release = std::make_shared<std::promise<void>>();
        std::future<void> inside = entered->get_future();
        fake_->inSend = [entered, released = release->get_future().share(),
                         first = true]() mutable {
            if (std::exchange(first, false))
                entered->set_value(), released.wait();
        };
        ASSERT_EQ(api_->SetTower("west-1"), 0);
        inside.wait();  // the sender is inside this send
        EXPECT_EQ(api_->GetTowerList(), 0);
        EXPECT_TRUE(syslog_capture::WaitFor("ClientComm : msgid COMM_MSG_TOWERS_REQUEST_INFO\n",
                                            seconds(5)));
        end();
        EXPECT_TRUE(syslog_capture::WaitFor(
            "Communicator(2) : Waiting for snd/rcv threads to stop\n", seconds(5)));
        release->set_value();
    }
    std::shared_ptr<FakeIPCClient::State> fake_;
    RecordingCallback cb_;
    std::unique_ptr<CVantoriaApi> api_;
};

TEST_F(ApiWithFakeChannel, StateBitsThatComeTogetherGoByPriority) {
    // Single bits are checked by fuzz_comm_receive_replay, whose inputs never combine two.
    Connect();
    const size_t before = cb_.Statuses().size();
    fake_->Deliver(COMM_MSG_ICON_APLUS_STATE);  // no state byte: nothing happens
    for (uint8_t byte : {0x09, 0x42, 0x06})
        fake_->Deliver(COMM_MSG_ICON_APLUS_STATE, &byte, 1);
    Sync();
    const Statuses all = cb_.Statuses();
    EXPECT_EQ(Statuses(all.begin() + before, all.end()), (Statuses{6, 0, 6, 17, 3}));
}

TEST_F(ApiWithFakeChannel, AgentDataBecomesResultObjectsAndBadDataIsDropped) {
    Connect();
    // Tower lists: "&" marks the active one among those listed before it; names are trimmed.
    for (const std::string& list : {"a,b&a"s, "a,b&b"s, "a&b,b"s, " a , b "s, "\0"s})
        fake_->Deliver(COMM_MSG_TOWERS_RESPONSE_INFO, list.data(), uint32_t(list.size()));
    // (Settings and activated towers: fuzz_comm_receive_replay.) A short proxy request is dropped.
    ProxyCredRequest request{};
    strcpy(request.szProxyHost, "10.9.8.7");
    request.nProxyPort = 8080;
    strcpy(request.szAuthType, "Basic");
    strcpy(request.szRealm, "r");
    fake_->Deliver(COMM_MSG_PROXY_CRED_REQUEST, &request, sizeof(request) - 1);
    fake_->Deliver(COMM_MSG_PROXY_CRED_REQUEST, &request, sizeof(request));
    // Statistics: sums wrap in 32 bits; a short report reads as zeros, never past its end.
    ServiceStatistics stats;
    memset(&stats, 'x', sizeof(stats));  // texts without terminators
    stats.activeFilteredA = stats.activeFilteredB = 0xFFFFFFFF;
    stats.totalFilteredA = 1ull << 40;
    stats.totalFilteredB = 5;
    fake_->Deliver(COMM_MSG_SERVICE_STATS, &stats, sizeof(stats));
    fake_->Deliver(COMM_MSG_SERVICE_STATS, &stats, 8);
    // Info texts: type and text; one without "#" is refused with its line.
    fake_->Deliver(COMM_MSG_INFO_MESSAGE, "12#", 4);
    fake_->Deliver(COMM_MSG_INFO_MESSAGE, "abc", 4);
    fake_->Deliver(COMM_MSG_INFO_MESSAGE, "7#no terminator", 15);
    // Packets too short for a header never reach the dispatch.
    uint8_t shortPacket[23] = {};
    for (uint32_t size : {23u, 20u, 0u})
        fake_->DeliverRaw(shortPacket, size);
    Sync();
    const std::string x100(100, 'x'), report = "X:" + std::string(255, 'x') + "|" + x100 + "|" +
                                               x100 + "|4294967294|1099511627781|" +
                                               std::to_string(0x78787878);
    std::vector<std::string> events = cb_.Events();
    events.pop_back();  // the marker
    EXPECT_EQ(events,
              (std::vector<std::string>{"S9", "T:a,b@0", "T:a,b@1", "T:a,b@-1", "T:a,b@-1", "T:@-1",
                                        "P:10.9.8.7|8080|Basic|r", report, "X:|||4294967295|0|0",
                                        "I:12#", "I:7#no terminator"}));
    for (const char* line :
         {"ClientComm : COMM_MSG_INFO_MESSAGE, badly formatted message\n",
          "SecureIPC : Failed to recieve eCOMM_MESSAGE_ID\n",
          "SecureIPC : Failed to recieve MSG_QUEUE_MSG_HEADER\n", "Zero datalen received\n"})
        EXPECT_EQ(syslog_capture::Count(line), 1u) << line;
}

TEST_F(ApiWithFakeChannel, CommandsCarryTheirIdsAndRegisterGuardsItsPointer) {
    Connect();
    ASSERT_EQ(api_->EnableService(true), 0);
    ASSERT_EQ(api_->EnableService(false), 0);
    ASSERT_EQ(api_->SendProxyInfo(nullptr), 0);
    ASSERT_EQ(api_->Disconnect(), 0);
    ASSERT_TRUE(fake_->WaitFor([&] { return fake_->sentIds.size() == 4; }));
    EXPECT_EQ(fake_->sentIds, (std::vector<uint32_t>{1026, 1027, 1050, 1034}));
    EXPECT_TRUE(fake_->sentData[2].empty());  // a cancelled credential dialog sends no data

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
    // Queued behind the failing send, or refused: either way no second disconnect.
    api_->GetTowerList();
    ASSERT_TRUE(cb_.WaitForStatus(8));
    ASSERT_TRUE(fake_->WaitFor([&] { return fake_->connects >= 2; }));
    for (const char* line :
         {"ClientComm : Failed to send msg (COMM_MSG_CHANGE_ACTIVE_TOWER) to server, "
          "server not accessible.\n",
          "ClientComm : peer disconnected, stopping snd/rcv threads\n"})
        EXPECT_EQ(syslog_capture::Count(line), 1u) << line;
    EXPECT_EQ(syslog_capture::CountContaining("ClientComm : Failed to send msg"), 1u);
    EXPECT_EQ(api_->GetTowerList(), -10);  // not connected until the agent speaks again
}

TEST_F(ApiWithFakeChannel, ADisconnectLetsTheSenderTryWhatWasQueuedBeforeIt) {
    Connect();
    SecondCommandAfter([&] {
        fake_->failSend = true;  // the agent is gone: the next send fails
        fake_->PeerState(8, 1, 0);
    });
    EXPECT_TRUE(syslog_capture::WaitFor(
        "ClientComm : Failed to send msg (COMM_MSG_TOWERS_REQUEST_INFO) to server, server not "
        "accessible.\n",
        seconds(5)));
}

TEST_F(ApiWithFakeChannel, AStopStillSendsWhatTheHostQueuedBeforeIt) {
    Connect();
    std::thread stopping;
    SecondCommandAfter(
        [&] { stopping = std::thread([&] { g_pVantoriaApi = nullptr, api_.reset(); }); });
    if (stopping.joinable())
        stopping.join();
    std::lock_guard<std::mutex> guard(fake_->mutex);
    EXPECT_EQ(fake_->sentIds,
              (std::vector<uint32_t>{COMM_MSG_CHANGE_ACTIVE_TOWER, COMM_MSG_TOWERS_REQUEST_INFO}));
}

TEST_F(ApiWithFakeChannel, StatusesBeforeRegisterAreReplayedInOrderByStart) {
    Connect(false);
    const uint8_t state = 0x10;
    fake_->Deliver(COMM_MSG_SRVC_STARTED);
    fake_->Deliver(COMM_MSG_ICON_APLUS_STATE, &state, 1);
    fake_->Deliver(COMM_MSG_SRVC_STOPPED);
    fake_->Deliver(COMM_MSG_SRVC_STARTED);  // passes the stopped-service filter
    ASSERT_TRUE(syslog_capture::WaitFor(
        "StatusNotificationCB: status: 9, but callback not registered so save msg\n", seconds(5),
        2));
    ASSERT_EQ(api_->Register(&cb_), 0);
    EXPECT_TRUE(cb_.Statuses().empty());  // Register alone replays nothing
    ASSERT_EQ(api_->Start(), 0);
    EXPECT_EQ(cb_.Statuses(), (Statuses{9, 5, 1, 9}));
    ASSERT_EQ(api_->Start(), 0);  // drained: nothing twice
    EXPECT_EQ(cb_.Statuses().size(), 4u);
}

TEST_F(ApiWithFakeChannel, GlueTracksSessionsAndRoutesCommandClientIds) {
    Connect();
    CClientSideCommunicator* comm = api_->GetCommunicator();
    EXPECT_EQ(comm->PeerSessions().at(8), 1);
    for (uint32_t peer : {5u, 9u})
        fake_->PeerState(peer, 0x12345, 2);
    EXPECT_EQ(syslog_capture::Count("SecureIPC : Unknown peer id connected. So do nothing\n"), 2u);
    EXPECT_EQ(comm->PeerSessions().size(), 1u);
    // Command-client ids go to the main queue, whose relay names them.
    fake_->Deliver(COMM_MSG_CLIENT_TYPE_CMD_ENABLE_SVC);
    fake_->Deliver(COMM_MSG_CLIENT_TYPE_CMD_CHANGE_DBGLEVEL, "\x07\x01\0\0", 4);
    ASSERT_TRUE(syslog_capture::WaitFor(
        "ClientComm : msgid COMM_MSG_CLIENT_TYPE_CMD_CHANGE_DBGLEVEL\n", seconds(5)));
    EXPECT_EQ(syslog_capture::Count("ClientComm : msgid COMM_MSG_CLIENT_TYPE_CMD_ENABLE_SVC\n"),
              1u);
    // The agent goes: one PEER_DC, the session is gone, the cycle comes round with status 8.
    fake_->PeerState(8, 1, 0);
    ASSERT_TRUE(cb_.WaitForStatus(8));
    EXPECT_EQ(comm->PeerSessions().count(8), 0u);
    EXPECT_EQ(syslog_capture::Count("SecureIPC : client received disconnect message\n"), 1u);
    ASSERT_TRUE(fake_->WaitFor([&] { return fake_->connects >= 2; }));
}

TEST_F(ApiWithFakeChannel, InternalIdsFromTheAgentAndRowsWithoutALiveApi) {
    Connect();
    // With no live API every notification row is skipped whole, state changes included: a
    // service stop taken here would drop the marker below.
    g_pVantoriaApi = nullptr;
    fake_->Deliver(COMM_MSG_SRVC_STOPPED);
    fake_->Deliver(COMM_MSG_INFO_MESSAGE, "5#hidden", 9);
    fake_->Deliver(COMM_MSG_DCT_TOWER_ACTIVATED, "t", 1);
    fake_->Deliver(COMM_MSG_PROXY_CRED_REQUEST);  // its line says the rows before are done
    // Ids of the module's own threads (1032, 1064) mean nothing to the receiver.
    fake_->Deliver(COMM_MSG_PEER_DC);
    fake_->Deliver(COMM_MSG_NONE);
    ASSERT_TRUE(syslog_capture::WaitFor("ClientComm: COMM_MSG_PROXY_CRED_REQUEST\n", seconds(5)));
    g_pVantoriaApi = api_.get();
    Sync();
    EXPECT_EQ(cb_.Statuses(), (Statuses{9}));
    for (const char* line : {"ClientComm : COMM_MSG_INFO_MESSAGE: msg='hidden'\n",
                             "ClientComm: calling DCTActiveTowerNotificationCB\n"})
        EXPECT_EQ(syslog_capture::Count(line), 0u) << line;
    for (const char* line : {"OnReqMsgRecv received.. msgid COMM_MSG_PEER_DC\n",
                             "OnReqMsgRecv received.. msgid COMM_MSG_NONE\n"})
        EXPECT_EQ(syslog_capture::Count(line), 1u) << line;

    // A QUIT from the agent ends the receiver; the sender still sends.
    fake_->Deliver(COMM_MSG_QUIT);
    ASSERT_TRUE(syslog_capture::WaitFor("ClientComm : Receiver thread exits\n", seconds(5)));
    EXPECT_EQ(syslog_capture::Count("OnReqMsgRecv received.. msgid COMM_MSG_QUIT\n"), 1u);
    EXPECT_EQ(syslog_capture::Count("ClientComm : receiver thread received quit message.\n"), 1u);
    ASSERT_EQ(api_->QueryProxyState(), 0);
    ASSERT_TRUE(fake_->WaitFor([&] {
        return !fake_->sentIds.empty() && fake_->sentIds.back() == COMM_MSG_PROXY_STATE_QUERY;
    }));
}

// Before a connection: refusals, a single IPC client, and the glue with no queue to post to.
TEST_F(ApiWithFakeChannel, CommunicatorOutsideAConnectionRefusesAndLogs) {
    CClientSideCommunicator comm(5003, 2, 5, 0, FakeIPCClient::Factory(fake_));
    EXPECT_EQ(comm.StartMainThread(), 0x80004005);
    EXPECT_EQ(syslog_capture::Count("Comm : Failed to start main thread, comm not initialized\n"),
              1u);
    EXPECT_EQ(comm.Init(), 0);
    EXPECT_EQ(comm.Init(), 0);
    EXPECT_EQ(fake_->created, 1);
    comm.Stop();  // nothing started: returns at once
    fake_->PeerState(8, 3, 2);
    fake_->PeerState(8, 3, 0);
    EXPECT_EQ(comm.PeerSessions().count(8), 0u);
    EXPECT_EQ(syslog_capture::Count("SecureIPC : Failed to write COMM_MSG_PEER_DC\n"), 1u);
    fake_->Deliver(COMM_MSG_TOWERS_RESPONSE_INFO, "a", 1);
    EXPECT_EQ(
        syslog_capture::Count("SecureIPC : Failed to write to reciever thread queue from CB\n"),
        1u);
}

}  // namespace
