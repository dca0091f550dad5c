// The agent simulator against a scripted client over the real channel: every request pair, the
// statistics stream, the control lines, and the daemon binary.
#include "AgentSimulator.h"

#include <stdio.h>

#include <thread>

#include <gtest/gtest.h>

#include "ScriptedClient.h"
#include "TestEnv.h"

namespace {

using std::chrono::milliseconds;

uint8_t Byte(const ReceivedMessage& m) {
    return m.data.empty() ? 0xEE : m.data[0];
}

template <class T>
T As(const ReceivedMessage& m) {
    T value{};
    EXPECT_EQ(m.data.size(), sizeof(T)) << "message " << m.id;
    memcpy(&value, m.data.data(), std::min(sizeof(T), m.data.size()));
    return value;
}

TEST(AgentSimulator, AnswersEveryRequestPairAndLogsWhatItReceived) {
    TempRoot root;
    SimLog log;
    AgentSimOptions options;
    options.statsIntervalMs = 10;
    CAgentSimulator sim(options, log.Sink());
    ASSERT_EQ(sim.Start(), 0);
    ScriptedClient client;
    ASSERT_TRUE(client.Connect(options.port));
    ReceivedMessage m = client.Next();
    EXPECT_EQ(m.id, COMM_MSG_SRVC_STARTED);

    // Tower list with the active tower behind "&"; a known name in any case is taken.
    m = client.Ask(COMM_MSG_TOWERS_REQUEST_INFO);
    EXPECT_EQ(m.id, COMM_MSG_TOWERS_RESPONSE_INFO);
    EXPECT_EQ(m.Text(), "west-1,west-2,east-1&west-2");
    for (const std::string name : {"EAST-1", "", "nowhere"}) {
        m = client.Ask(COMM_MSG_CHANGE_ACTIVE_TOWER, name.data(), name.size());
        EXPECT_EQ(m.id, COMM_MSG_CHANGE_ACTIVE_TOWER_STATUS);
        EXPECT_EQ(Byte(m), name == "EAST-1" ? 1 : 0) << name;
    }
    EXPECT_EQ(client.Ask(COMM_MSG_TOWERS_REQUEST_INFO).Text(), "west-1,west-2,east-1&east-1");

    // DCT settings: the update is taken and reported back, the GUI field kept.
    m = client.Ask(COMM_MSG_DCT_SETTINGS_REQUEST);
    ASSERT_EQ(m.id, COMM_MSG_DCT_SETTINGS_RESPONSE);
    auto fields = [](const DCTSettings& d) {
        return std::vector<uint32_t>{d.nMode, d.nDetectClosest, d.nGUI};
    };
    EXPECT_EQ(fields(As<DCTSettings>(m)), (std::vector<uint32_t>{0, 0, 1}));
    const DCTSettings update{2, 1, 0};
    m = client.Ask(COMM_MSG_DCT_SETTINGS_UPDATE, &update, sizeof(update));
    EXPECT_EQ(m.id, COMM_MSG_DCT_SETTINGS_UPDATED);
    EXPECT_EQ(Byte(m), 1);
    m = client.Ask(COMM_MSG_DCT_SETTINGS_REQUEST);
    EXPECT_EQ(fields(As<DCTSettings>(m)), (std::vector<uint32_t>{2, 1, 1}));

    // Statistics: 1058 then a stream of whole, growing records until 1060.
    m = client.Ask(COMM_MSG_SERVICE_STATS_START);
    EXPECT_EQ(m.id, COMM_MSG_SERVICE_STATS_START_RESULT);
    EXPECT_EQ(Byte(m), 1);
    uint64_t lastTotal = 0;
    for (int i = 0; i < 3; ++i) {
        m = client.Next();
        ASSERT_EQ(m.id, COMM_MSG_SERVICE_STATS);
        const ServiceStatistics stats = As<ServiceStatistics>(m);
        EXPECT_GT(stats.totalFilteredA, lastTotal);
        lastTotal = stats.totalFilteredA;
        EXPECT_STREQ(stats.szActiveTower, "east-1");
        EXPECT_EQ(stats.nSelectionMode, 2u);
    }
    // "stats off" pauses the stream (nothing past a marker's answer), "stats on" resumes it.
    EXPECT_EQ(sim.Control("stats off"), "OK stats=off");
    ASSERT_TRUE(client.AskPast(COMM_MSG_DCT_SETTINGS_REQUEST, COMM_MSG_DCT_SETTINGS_RESPONSE));
    EXPECT_EQ(client.Next(milliseconds(150)).id, 0u);
    EXPECT_EQ(sim.Control("stats on 5"), "OK stats=on");
    EXPECT_EQ(client.Next().id, static_cast<uint32_t>(COMM_MSG_SERVICE_STATS));
    // After the stop and a marker's answer nothing more comes.
    ASSERT_TRUE(client.Send(COMM_MSG_SERVICE_STATS_STOP));
    ASSERT_TRUE(client.AskPast(COMM_MSG_DCT_SETTINGS_REQUEST, COMM_MSG_DCT_SETTINGS_RESPONSE));
    EXPECT_EQ(client.Next(milliseconds(150)).id, 0u);

    // Service control and disconnect show in 1030/1028 and the state byte.
    EXPECT_EQ(client.Ask(COMM_MSG_STOP_SERVICE).id, COMM_MSG_SRVC_STOPPED);
    m = client.Next();
    EXPECT_EQ(m.id, COMM_MSG_ICON_APLUS_STATE);
    EXPECT_EQ(Byte(m), kSimStateStopped);
    EXPECT_EQ(client.Ask(COMM_MSG_START_SERVICE).id, COMM_MSG_SRVC_STARTED);
    EXPECT_EQ(Byte(client.Next()), kSimStateFiltering);
    m = client.Ask(COMM_MSG_DISCONNECT);
    EXPECT_EQ(m.id, COMM_MSG_ICON_APLUS_STATE);
    EXPECT_EQ(Byte(m), kSimStateBypassed);

    // The log decodes what the client sent, also a full field without a terminator.
    ProxyCredInfo info;
    memset(&info, 0, sizeof(info));
    memset(info.szUser, 'u', sizeof(info.szUser));
    strcpy(info.szPassword, "secret");
    ASSERT_TRUE(client.Send(COMM_MSG_PROXY_CRED_RESPONSE, &info, sizeof(info)));
    ASSERT_TRUE(client.AskPast(COMM_MSG_DCT_SETTINGS_REQUEST, COMM_MSG_DCT_SETTINGS_RESPONSE));
    EXPECT_TRUE(log.Has("RECV session=1 COMM_MSG_PROXY_CRED_RESPONSE len=400 user=\"" +
                        std::string(100, 'u') + "\" password=\"secret\" reserved=zero"));
    sim.Stop();
}

TEST(AgentSimulator, ControlLinesReachTheClientAndBadOnesChangeNothing) {
    TempRoot root;
    SimLog log;
    AgentSimOptions options;
    options.service = SimServiceState::kStopped;
    CAgentSimulator sim(options, log.Sink());
    ASSERT_EQ(sim.Start(), 0);
    ScriptedClient client;
    ASSERT_TRUE(client.Connect(options.port));
    EXPECT_EQ(client.Next().id, COMM_MSG_SRVC_STOPPED);

    EXPECT_EQ(sim.Control("state 0x48"), "OK sent=1");
    ReceivedMessage m = client.Next();
    EXPECT_EQ(m.id, COMM_MSG_ICON_APLUS_STATE);
    EXPECT_EQ(m.data, std::vector<uint8_t>{0x48});

    EXPECT_EQ(sim.Control("proxy 192.168.1.10 3128 Basic Corporate proxy"), "OK sent=1");
    m = client.Next();
    ASSERT_EQ(m.id, COMM_MSG_PROXY_CRED_REQUEST);
    const ProxyCredRequest request = As<ProxyCredRequest>(m);
    EXPECT_STREQ(request.szProxyHost, "192.168.1.10");
    EXPECT_EQ(request.nProxyPort, 3128u);
    EXPECT_STREQ(request.szAuthType, "Basic");
    EXPECT_STREQ(request.szRealm, "Corporate proxy");

    const struct {
        const char* line;
        uint32_t id;
        std::string text;
    } sends[] = {
        {"info 12 tower  west-1 is down", COMM_MSG_INFO_MESSAGE, {"12#tower  west-1 is down", 25}},
        {"activate east-1", COMM_MSG_DCT_TOWER_ACTIVATED, "east-1"},
        {"send 1041 612C62", COMM_MSG_TOWERS_RESPONSE_INFO, "a,b"},
    };
    for (const auto& s : sends) {
        EXPECT_EQ(sim.Control(s.line), "OK sent=1") << s.line;
        m = client.Next();
        EXPECT_EQ(m.id, s.id) << s.line;
        EXPECT_EQ(m.Text(), s.text) << s.line;
    }

    EXPECT_EQ(sim.Control("start-service"), "OK service=running");
    EXPECT_EQ(client.Next().id, COMM_MSG_SRVC_STARTED);
    EXPECT_EQ(client.Next().id, COMM_MSG_ICON_APLUS_STATE);
    EXPECT_EQ(sim.Control("fail-service"), "OK service=failed");
    EXPECT_EQ(client.Next().id, COMM_MSG_SRVC_START_FAILED);
    EXPECT_EQ(sim.Control("stats-burst 5"), "OK sent=5");
    for (int i = 0; i < 5; ++i) {
        m = client.Next();
        EXPECT_EQ(m.id, COMM_MSG_SERVICE_STATS);
        EXPECT_EQ(m.data.size(), sizeof(ServiceStatistics));
    }

    for (const char* bad : {"state 256", "send 1041 ABC", "send 1041 ZZ", "bogus", ""})
        EXPECT_EQ(sim.Control(bad).rfind("ERR", 0), 0u) << bad;
    EXPECT_EQ(client.Next(milliseconds(100)).id, 0u);

    EXPECT_EQ(sim.Control("clients"), "OK clients=1");
    EXPECT_EQ(sim.Control("drop"), "OK dropped=1");
    EXPECT_TRUE(client.WaitDisconnected());
    EXPECT_FALSE(sim.ExitRequested());
    EXPECT_EQ(sim.Control("exit"), "OK exiting");
    EXPECT_TRUE(sim.ExitRequested());
    sim.Stop();
}

TEST(AgentSimulator, DaemonTakesAControlLineOnStdinAndEndsWithIt) {
    TempRoot root;
    const std::string command = std::string("exec timeout 20 '") + TIDEWAY_AGENT_SIM_PATH +
                                "' --root '" + root.path() + "' --port 6001 > /dev/null";
    FILE* daemon = popen(command.c_str(), "w");
    ASSERT_NE(daemon, nullptr);
    ScriptedClient client;
    bool connected = false;
    for (int i = 0; i < 500 && !(connected = client.Connect(6001)); ++i)
        std::this_thread::sleep_for(milliseconds(20));
    ASSERT_TRUE(connected);
    EXPECT_EQ(client.Next().id, COMM_MSG_SRVC_STARTED);
    fputs("state 8\n", daemon);
    fflush(daemon);
    const ReceivedMessage m = client.Next();
    EXPECT_EQ(m.id, COMM_MSG_ICON_APLUS_STATE);
    EXPECT_EQ(m.data, std::vector<uint8_t>{8});
    EXPECT_EQ(pclose(daemon), 0);  // the end of stdin ends the daemon
    EXPECT_TRUE(client.WaitDisconnected());
}

}  // namespace
