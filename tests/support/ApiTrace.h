// For the life of the object: trace to the system log with the API level on (the plug-in's own
// lines are at that level), captured records cleared; the level mask is put back afterwards.
#ifndef TIDEWAY_TESTS_SUPPORT_APITRACE_H_
#define TIDEWAY_TESTS_SUPPORT_APITRACE_H_

#include <stdint.h>

#include "SyslogCapture.h"
#include "common/VNTrace.h"

struct ApiTraceOn {
    ApiTraceOn() {
        g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true,
                          10, 10000, 100, 1, 0, 60);
        saved = g_Trace.GetLevelMask();
        g_Trace.SetLevelMask(kDefaultTraceMask | (1u << TL_API));
        syslog_capture::Clear();
    }
    ~ApiTraceOn() { g_Trace.SetLevelMask(saved); }
    uint32_t saved = 0;
};

#endif  // TIDEWAY_TESTS_SUPPORT_APITRACE_H_
