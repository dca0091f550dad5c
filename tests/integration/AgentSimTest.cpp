// The agent simulator against the client API over the real channel: the statistics stream, what
// each command and control line sends (the simulator logs every message but statistics, with its
// bytes), and the daemon binary.
#include "AgentSimulator.h"

#include <stdio.h>

#include <algorithm>
#include <iterator>

#include <gtest/gtest.h>

#include "RecordingCallback.h"
#include "TestEnv.h"
#include "api/VantoriaApi.h"
#include "common/VNTrace.h"
#include "plugin/PluginEntry.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// The API as the simulator's client, registered and started.
struct Client {
    explicit Client(uint16_t port) {
        g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true,
                          10, 10000, 100, 1, 0, 60);
        g_pVantoriaApi = &api;
        EXPECT_TRUE(api.Initialize(port) && api.StartCommunicator());
        EXPECT_TRUE(api.Register(&cb) == 0 && api.Start() == 0);
    }
    ~Client() { g_pVantoriaApi = nullptr; }

    RecordingCallback cb;
    CVantoriaApi api;
};

TEST(AgentSimulator, AnswersRequestsStreamsStatisticsAndTakesControlLines) {
    TempRoot root;
    SimLog log;
    AgentSimOptions options;
    options.statsIntervalMs = 10;
    CAgentSimulator sim(options, log.Sink());
    ASSERT_EQ(sim.Start(), 0);
    Client client(options.port);
    RecordingCallback& cb = client.cb;
    ASSERT_TRUE(cb.WaitForStatus(9));

    // Whole records, one tick apart, until the stop; "stats off" pauses them. After a settings
    // answer (the mark) no report may come.
    auto reportsLocked = [&] {
        std::vector<std::string> x;
        std::copy_if(cb.events.begin(), cb.events.end(), std::back_inserter(x),
                     [](const std::string& e) { return e[0] == 'X'; });
        return x;
    };
    auto reports = [&] { return reportsLocked().size(); };
    auto quietAfterMark = [&] {
        ASSERT_EQ(client.api.GetDCTSettings(), 0);
        ASSERT_TRUE(cb.WaitUntil([&] { return cb.events.back()[0] == 'D'; }));
        const size_t before = cb.Locked(reports);
        EXPECT_FALSE(cb.WaitUntil([&] { return reports() > before; }, milliseconds(150)));
    };
    ASSERT_EQ(client.api.StartStatsCollecting(), 0);
    ASSERT_TRUE(log.WaitFor("SEND session=1 COMM_MSG_SERVICE_STATS_START_RESULT len=1 data=01"));
    ASSERT_TRUE(cb.WaitUntil([&] { return reports() >= 3; }));
    const std::vector<std::string> x = cb.Locked(reportsLocked);
    for (int t = 1; t <= 3; ++t)  // each tick adds 100 and 200 to the two groups' totals
        EXPECT_EQ(x[t - 1], "X:west-2|2026-11-22 08:00:00|" + std::to_string(t) +
                                " seconds ago|7|" + std::to_string(300 * t) + "|0");
    EXPECT_EQ(sim.Control("stats off"), "OK stats=off");
    quietAfterMark();
    EXPECT_EQ(sim.Control("stats on 5"), "OK stats=on");
    const size_t resumed = cb.Locked(reports);
    ASSERT_TRUE(cb.WaitUntil([&] { return reports() > resumed; }));
    ASSERT_EQ(client.api.StopStatsCollecting(), 0);
    quietAfterMark();

    // What the simulator logs for each API command ("!") or control line, in order.
    const std::string state = "SEND ICON_APLUS_STATE len=1 data=";
    const struct {
        const char* line;
        std::vector<std::string> log;  // "session=1 COMM_MSG_" goes after the verb
    } rows[] = {
        {"!stop", {"RECV STOP_SERVICE len=0", "SEND SRVC_STOPPED len=0", state + "02"}},
        {"start-service", {"SEND SRVC_STARTED len=0", state + "01"}},
        {"!start", {"RECV START_SERVICE len=0", "SEND SRVC_STARTED len=0", state + "01"}},
        {"!disconnect", {"RECV DISCONNECT len=0", state + "04"}},
        {"state 0x48", {state + "48"}},
        {"info 12 tower  west-1 is down",
         {"SEND INFO_MESSAGE len=25 data=313223746F7765722020776573742D3120697320646F776E00"}},
        {"send 1041 612C62", {"SEND TOWERS_RESPONSE_INFO len=3 data=612C62"}},
        {"fail-service", {"SEND SRVC_START_FAILED len=0"}},
        {"start-service", {"SEND SRVC_STARTED len=0", state + "01"}},
    };
    const size_t nines = cb.Count(9);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        std::vector<std::string> want;
        for (std::string line : row.log)
            want.push_back(line.insert(5, "session=1 COMM_MSG_"));
        const size_t mark = log.Lines().size(), seen = log.Count(want.back());
        if (row.line == std::string("!stop"))
            ASSERT_EQ(client.api.EnableService(false), 0);
        else if (row.line == std::string("!start"))  // once the agent's start lifted the filter
            ASSERT_TRUE(cb.WaitForStatus(9, nines + 1) && client.api.EnableService(true) == 0);
        else if (row.line == std::string("!disconnect"))
            ASSERT_EQ(client.api.Disconnect(), 0);
        else
            EXPECT_EQ(sim.Control(row.line).rfind("OK ", 0), 0u);
        ASSERT_TRUE(log.WaitFor(want.back(), seen + 1));
        const std::vector<std::string> lines = log.Lines();
        EXPECT_EQ(std::vector<std::string>(lines.begin() + mark, lines.end()), want);
    }
    const size_t before = cb.Locked(reports);
    EXPECT_EQ(sim.Control("stats-burst 2"), "OK sent=2");
    EXPECT_TRUE(cb.WaitUntil([&] { return reports() == before + 2; }));
    const size_t lines = log.Lines().size();
    for (const char* bad : {"state 256", "send 1041 ABC", "send 1041 ZZ", "bogus", ""})
        EXPECT_EQ(sim.Control(bad).rfind("ERR", 0), 0u) << bad;
    EXPECT_EQ(log.Lines().size(), lines);  // a control line logs what it sends before it answers

    EXPECT_EQ(sim.Control("clients"), "OK clients=1");
    EXPECT_EQ(sim.Control("drop"), "OK dropped=1");
    EXPECT_TRUE(cb.WaitForStatus(8));
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
    Client client(6001);
    ASSERT_TRUE(client.cb.WaitForStatus(9, 1, seconds(15)));
    fputs("state 8\n", daemon);
    fflush(daemon);
    EXPECT_TRUE(client.cb.WaitForStatus(6));  // state byte 0x08
    EXPECT_EQ(pclose(daemon), 0);             // the end of stdin ends the daemon
    EXPECT_TRUE(client.cb.WaitForStatus(8));
}

}  // namespace
