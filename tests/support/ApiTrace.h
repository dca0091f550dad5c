// For the life of the object: the trace log writes to the system log with the API level on (the
// presentation plug-in's own lines are at that level), and the captured records start empty.
// The level mask is put back afterwards.
#ifndef TIDEWAY_TESTS_SUPPORT_APITRACE_H_
#define TIDEWAY_TESTS_SUPPORT_APITRACE_H_

#include <stdint.h>

#include "SyslogCapture.h"
#include "common/VNTrace.h"

class ApiTraceOn {
  public:
    ApiTraceOn() {
        g_Trace.InitTrace(kTraceIdent, "/tmp", "TidewayAPI.log", 2, kDefaultTraceMask, false, true,
                          10, 10000, 100, 1, 0, 60);
        saved_ = g_Trace.GetLevelMask();
        g_Trace.SetLevelMask(kDefaultTraceMask | (1u << TL_API));
        syslog_capture::Clear();
    }
    ~ApiTraceOn() { g_Trace.SetLevelMask(saved_); }
    ApiTraceOn(const ApiTraceOn&) = delete;
    ApiTraceOn& operator=(const ApiTraceOn&) = delete;

  private:
    uint32_t saved_ = 0;
};

#endif  // TIDEWAY_TESTS_SUPPORT_APITRACE_H_
