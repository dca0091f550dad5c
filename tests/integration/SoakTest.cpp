// Soak: the agent is restarted under traffic (statistics streaming, commands going out), and the
// API is stopped and made anew in between. Nothing may hang, leak (the sanitizer build checks at
// exit) or leave threads behind. Every round takes the same path, so the suite runs 20;
// TIDEWAY_SOAK_ROUNDS asks for a longer run.
#include <stdlib.h>

#include <algorithm>
#include <memory>

#include <gtest/gtest.h>

#include "AgentSimulator.h"
#include "RecordingCallback.h"
#include "TestEnv.h"
#include "api/VantoriaApi.h"
#include "common/VNTrace.h"
#include "plugin/PluginEntry.h"

namespace {

using std::chrono::seconds;
constexpr int kSuiteRounds = 20;

TEST(Soak, AgentRestartedUnderTraffic) {
    const char* asked = getenv("TIDEWAY_SOAK_ROUNDS");
    const int rounds = asked != nullptr && atoi(asked) > 0 ? atoi(asked) : kSuiteRounds;
    g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true, 10,
                      10000, 100, 1, 0, 60);
    TempRoot root;
    const int baseline = ThreadBaseline();
    std::unique_ptr<RecordingCallback> cb;
    std::unique_ptr<CVantoriaApi> api;
    AgentSimOptions options;
    options.statsIntervalMs = 2;
    auto newest = [&](uint64_t code) {
        return cb->WaitUntil([&] { return !cb->statuses.empty() && cb->statuses.back() == code; },
                             seconds(15));
    };

    for (int round = 0; round < rounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        CAgentSimulator sim(options, nullptr);
        ASSERT_EQ(sim.Start(), 0);
        if (!api) {
            cb = std::make_unique<RecordingCallback>();
            api = std::make_unique<CVantoriaApi>();
            g_pVantoriaApi = api.get();
            ASSERT_TRUE(api->Initialize(options.port) && api->StartCommunicator());
            ASSERT_TRUE(api->Register(cb.get()) == 0 && api->Start() == 0);
        }
        // Each round begins after a status 8 or with a new API: a newest 9 is this agent's.
        ASSERT_TRUE(newest(9));
        auto reports = [&] {
            return size_t(std::count_if(cb->events.begin(), cb->events.end(),
                                        [](const std::string& e) { return e[0] == 'X'; }));
        };
        const size_t before = cb->Locked(reports);
        ASSERT_EQ(api->StartStatsCollecting(), 0);
        ASSERT_EQ(api->SetTower(round % 2 ? "east-1" : "west-1"), 0);
        ASSERT_EQ(api->GetTowerList(), 0);
        ASSERT_TRUE(cb->WaitUntil([&] { return reports() >= before + 5; }));

        if (round % 2 == 0) {
            sim.Stop();  // the agent dies while statistics stream in
            ASSERT_TRUE(newest(8));
        } else {
            g_pVantoriaApi = nullptr;  // the host stops the API in the middle of the traffic
            api.reset();
        }
    }
    g_pVantoriaApi = nullptr;
    api.reset();
    EXPECT_EQ(ThreadCount(), baseline);
    EXPECT_TRUE(cb->faults.empty()) << ::testing::PrintToString(cb->faults);
}

}  // namespace
