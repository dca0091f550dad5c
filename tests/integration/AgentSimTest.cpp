// The agent simulator against a scripted client over the real channel: the statistics stream,
// the control lines, and the daemon binary.
#include "AgentSimulator.h"

#include <stdio.h>

#include <thread>

#include <gtest/gtest.h>

#include "ScriptedClient.h"
#include "TestEnv.h"

namespace {

using std::chrono::milliseconds;

TEST(AgentSimulator, AnswersRequestsStreamsStatisticsAndTakesControlLines) {
    TempRoot root;
    AgentSimOptions options;
    options.statsIntervalMs = 10;
    CAgentSimulator sim(options, nullptr);
    ASSERT_EQ(sim.Start(), 0);
    ScriptedClient client;
    ASSERT_TRUE(client.Connect(options.port));
    EXPECT_EQ(client.Next().id, COMM_MSG_SRVC_STARTED);

    // The statistics stream: whole, growing records until the stop; "stats off" pauses it.
    ASSERT_TRUE(client.Send(COMM_MSG_SERVICE_STATS_START));
    ASSERT_EQ(client.Next().Text(), "\1");
    uint64_t lastTotal = 0;
    for (int i = 0; i < 3; ++i) {
        const ReceivedMessage m = client.Next();
        ASSERT_EQ(m.id, COMM_MSG_SERVICE_STATS);
        ASSERT_EQ(m.data.size(), sizeof(ServiceStatistics));
        const auto* stats = reinterpret_cast<const ServiceStatistics*>(m.data.data());
        EXPECT_GT(stats->totalFilteredA, lastTotal);
        lastTotal = stats->totalFilteredA;
    }
    EXPECT_EQ(sim.Control("stats off"), "OK stats=off");
    ASSERT_TRUE(client.AskPast(COMM_MSG_DCT_SETTINGS_REQUEST, COMM_MSG_DCT_SETTINGS_RESPONSE));
    EXPECT_EQ(client.Next(milliseconds(150)).id, 0u);
    EXPECT_EQ(sim.Control("stats on 5"), "OK stats=on");
    EXPECT_EQ(client.Next().id, static_cast<uint32_t>(COMM_MSG_SERVICE_STATS));
    ASSERT_TRUE(client.Send(COMM_MSG_SERVICE_STATS_STOP));
    ASSERT_TRUE(client.AskPast(COMM_MSG_DCT_SETTINGS_REQUEST, COMM_MSG_DCT_SETTINGS_RESPONSE));
    EXPECT_EQ(client.Next(milliseconds(150)).id, 0u);

    // What commands and control lines send (proxy, activate: api_conversation_test).
    const uint32_t kState = COMM_MSG_ICON_APLUS_STATE, kStarted = COMM_MSG_SRVC_STARTED,
                   kInfo = COMM_MSG_INFO_MESSAGE;
    const struct {
        uint32_t ask;  // 0: the control line instead
        const char* line;
        std::vector<uint32_t> ids;
        std::string last;  // the data of the last message
    } sends[] = {
        {COMM_MSG_STOP_SERVICE, "", {COMM_MSG_SRVC_STOPPED, kState}, "\x02"},
        {COMM_MSG_START_SERVICE, "", {kStarted, kState}, "\x01"},
        {COMM_MSG_DISCONNECT, "", {kState}, "\x04"},
        {0, "state 0x48", {kState}, "\x48"},
        {0, "info 12 tower  west-1 is down", {kInfo}, {"12#tower  west-1 is down", 25}},
        {0, "send 1041 612C62", {COMM_MSG_TOWERS_RESPONSE_INFO}, "a,b"},
        {0, "fail-service", {COMM_MSG_SRVC_START_FAILED}, ""},
        {0, "start-service", {kStarted, kState}, "\x01"},
    };
    for (const auto& s : sends) {
        SCOPED_TRACE(s.line);
        if (s.ask == 0)
            EXPECT_EQ(sim.Control(s.line).rfind("OK ", 0), 0u);
        else
            ASSERT_TRUE(client.Send(static_cast<eCOMM_MESSAGE_ID>(s.ask)));
        ReceivedMessage m;
        for (uint32_t id : s.ids)
            EXPECT_EQ((m = client.Next()).id, id);
        EXPECT_EQ(m.Text(), s.last);
    }
    EXPECT_EQ(sim.Control("stats-burst 2"), "OK sent=2");
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(client.Next().data.size(), sizeof(ServiceStatistics));
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
    EXPECT_EQ(m.Text(), "\x08");
    EXPECT_EQ(pclose(daemon), 0);  // the end of stdin ends the daemon
    EXPECT_TRUE(client.WaitDisconnected());
}

}  // namespace
