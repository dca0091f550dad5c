#include "common/VNTrace.h"

#include <syslog.h>

#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ApiTrace.h"
#include "SyslogCapture.h"

namespace {

// Each test sets the mask it needs on the process-wide trace object.
struct TraceTest : ::testing::Test {
    ApiTraceOn trace;
};

int g_evaluations = 0;
int Touch() {
    return ++g_evaluations;
}

TEST_F(TraceTest, RecordsHoldTheMessageAndOneNewlineWithTheLevelPriority) {
    g_Trace.SetLevelMask(0xFFFFFFFF);
    VNTRACE(TL_ERR, "Comm : Failed to create packet, %s", "System Out Of Memory");
    VNTRACE(TL_WARN, "warned %d", 7);
    VNTRACE(TL_API, "DisposePlugin %p called\n", static_cast<void*>(nullptr));
    const auto records = syslog_capture::Records();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].text, "Comm : Failed to create packet, System Out Of Memory\n");
    EXPECT_EQ(records[0].priority, LOG_ERR);
    EXPECT_EQ(records[1].text, "warned 7\n");
    EXPECT_EQ(records[1].priority, LOG_WARNING);
    EXPECT_EQ(records[2].text, "DisposePlugin (nil) called\n\n");  // its own newline and one more
    EXPECT_EQ(records[2].priority, LOG_NOTICE);
}

TEST_F(TraceTest, DisabledLevelsEvaluateNothingAndLevel15IsAlwaysOff) {
    g_evaluations = 0;
    g_Trace.SetLevelMask(kDefaultTraceMask);
    VNTRACE(TL_API, "%d", Touch());
    VNTRACE(TL_IPC, "%d", Touch());
    for (uint32_t mask : {0x8000u, 0xFFFFFFFFu}) {
        g_Trace.SetLevelMask(mask);
        VNTRACE(TL_OFF, "%d", Touch());
    }
    EXPECT_EQ(g_evaluations, 0);
    EXPECT_TRUE(syslog_capture::Records().empty());
    VNTRACE(TL_TRACE, "%d", Touch());
    EXPECT_EQ(g_evaluations, 1);
}

TEST_F(TraceTest, WithoutTraceObjectOnlyErrorsReachTheLogDirectly) {
    g_evaluations = 0;
    g_pTrace = nullptr;
    VNTRACE(TL_WARN, "dropped %d", Touch());
    VNTRACE(TL_ERR, "direct %d", Touch());
    g_pTrace = &g_Trace;
    EXPECT_EQ(g_evaluations, 1);
    ASSERT_EQ(syslog_capture::Texts(), std::vector<std::string>{"direct 1\n"});
    EXPECT_EQ(syslog_capture::Records()[0].priority, LOG_ERR);
    const auto opens = syslog_capture::OpenCalls();
    ASSERT_EQ(opens.size(), 1u);
    EXPECT_EQ(opens[0].ident, "brtidewayapi");
    EXPECT_EQ(opens[0].option, 15);
    EXPECT_EQ(opens[0].facility, 24);
}

TEST(TraceObject, ClampBeforeInitialisationAndInitTraceOnlyOnce) {
    CVNFileTrace trace;
    const struct {
        uint32_t given, mask;
    } clamps[] = {{0xFFFF, 0x7FFF}, {0x8000, 0x6}, {0x1001, 0x1007}};
    for (const auto& c : clamps) {
        trace.SetDebugLevel(c.given);
        EXPECT_EQ(trace.GetLevelMask(), c.mask) << c.given;
    }
    // Mute before initialisation: the gate passes, nothing is written.
    syslog_capture::Clear();
    {
        CVNTraceStatementLock lock(trace);
        trace.WriteMessage("mute");
    }
    EXPECT_TRUE(syslog_capture::Records().empty());
    // Only the first initialisation counts.
    trace.InitTrace("first", "/tmp", "x.log", 2, 0x107, false, false, 10, 10000, 100, 1, 0, 60);
    trace.InitTrace("second", "/tmp", "y.log", 3, 0xFFFF, false, false, 1, 1, 1, 1, 1, 1);
    EXPECT_EQ(trace.GetLevelMask(), 0x107u);
    ASSERT_EQ(syslog_capture::OpenCalls().size(), 1u);
    EXPECT_EQ(syslog_capture::OpenCalls()[0].ident, "first");
    // After initialisation the configured mask stands as given, ERR off included.
    trace.SetDebugLevel(0);
    EXPECT_EQ(trace.GetLevelMask(), 0u);

    EXPECT_EQ(TraceLevelPriority(-1), LOG_NOTICE);  // a level out of range is not an index
}

TEST_F(TraceTest, ConcurrentWritersKeepEachRecordWhole) {
    g_Trace.SetLevelMask(0xFFFFFFFF);
    constexpr int kThreads = 4, kPerThread = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        // ERR and TRACE alternate so that a priority taken from another statement shows.
        threads.emplace_back([t] {
            for (int i = 0; i < kPerThread; ++i)
                VNTRACE(i % 2 ? TL_TRACE : TL_ERR, "%s %d %d", i % 2 ? "trace" : "err", t, i);
        });
    }
    for (auto& th : threads)
        th.join();
    const auto records = syslog_capture::Records();
    ASSERT_EQ(records.size(), static_cast<size_t>(kThreads * kPerThread));
    for (const auto& r : records) {
        EXPECT_EQ(r.priority, r.text.rfind("err ", 0) == 0 ? LOG_ERR : LOG_NOTICE) << r.text;
        EXPECT_EQ(r.text.back(), '\n');
    }
}

}  // namespace
