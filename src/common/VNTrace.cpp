#include "common/VNTrace.h"

#include <pthread.h>
#include <stdarg.h>
#include <syslog.h>
#include <time.h>

#include <stdio.h>
#include <string.h>

#include <stdexcept>

#include <boost/date_time/posix_time/posix_time.hpp>

namespace {

const char kLevelNames[kTraceLevelCount][kTraceNameSlot] = {
    "TRACE",  "WARN",   "ERR", "THREAD", "USERINFO", "LOCK", "LIC", "BRIDGE",
    "HEADER", "LISTEN", "TND", "STATS",  "API",      "IPC",  "DCT",
};

const int kLevelPriorities[kTraceLevelCount] = {
    LOG_NOTICE, LOG_WARNING, LOG_ERR,    LOG_NOTICE, LOG_NOTICE, LOG_NOTICE, LOG_NOTICE, LOG_NOTICE,
    LOG_NOTICE, LOG_NOTICE,  LOG_NOTICE, LOG_NOTICE, LOG_NOTICE, LOG_NOTICE, LOG_NOTICE,
};

// LOG_PID | LOG_CONS | LOG_ODELAY | LOG_NDELAY, facility LOG_DAEMON.
constexpr int kOpenlogOptions = 15;
constexpr int kOpenlogFacility = 24;

}  // namespace

CVNFileTrace g_Trace;
CVNTrace* g_pTrace = &g_Trace;

const char* TraceLevelName(int level) {
    if (level < 0 || level >= kTraceLevelCount)
        return "";
    return kLevelNames[level];
}

int TraceLevelPriority(int level) {
    if (level < 0 || level >= kTraceLevelCount)
        return LOG_NOTICE;
    return kLevelPriorities[level];
}

void SyslogError(const char* format, ...) {
    openlog(kTraceIdent, kOpenlogOptions, kOpenlogFacility);
    std::string line(format != nullptr ? format : "");
    line += "\n";
    va_list args;
    va_start(args, format);
    vsyslog(LOG_ERR, line.c_str(), args);
    va_end(args);
}

CVNTrace::CVNTrace()
    : m_LevelMask(kDefaultTraceMask), m_CurrentLevel(kDefaultTraceMask), m_Initialized(false) {}

CVNTrace::~CVNTrace() {}

bool CVNTrace::Lock() {
    try {
        m_Mutex.Lock();
        return true;
    } catch (...) {
        SyslogError("ERROR: CVNTrace::Lock exception");
        return false;
    }
}

void CVNTrace::Unlock() {
    m_Mutex.Unlock();
}

std::string CVNTrace::GetPrefix() {
    CRecursiveLock lock(m_Mutex);
    return m_Prefix;
}

int CVNTrace::SetLevelMask(uint32_t mask) {
    m_LevelMask.store(mask, std::memory_order_relaxed);
    return 0;
}

void CVNTrace::SetDebugLevel(uint32_t mask) {
    if (!m_Initialized) {
        if (mask >= 0x8000)
            mask &= 0x7FFF;
        const uint32_t warnAndErr = (1u << TL_WARN) | (1u << TL_ERR);
        if ((mask & warnAndErr) != warnAndErr)
            mask |= warnAndErr;
    }
    m_LevelMask.store(mask, std::memory_order_relaxed);
}

CVNFileTrace::CVNFileTrace() : m_Mode(0) {}

CVNFileTrace::~CVNFileTrace() {}

void CVNFileTrace::WriteMessage(const char* format, ...) {
    if (!m_Initialized || format == nullptr)
        return;
    std::string line(format);
    line += "\n";
    va_list args;
    va_start(args, format);
    vsyslog(TraceLevelPriority(m_CurrentLevel), line.c_str(), args);
    va_end(args);
}

void CVNFileTrace::BuildPrefix(int level, std::string& out) {
    // Every enabled statement builds its prefix, so this is on the path of every trace line:
    // the local time is converted once per second (a leaf lock guards the cached text; no
    // thread-local storage, which a module loaded with dlopen pays for per thread), and the text
    // is assembled without a stream.
    struct StampCache {
        CMutex mutex;
        time_t second GUARDED_BY(mutex) = static_cast<time_t>(-1);
        char text[32] GUARDED_BY(mutex) = {};
    };
    static StampCache cache;
    char stamp[32];
    const time_t now = time(nullptr);
    {
        CMutexLock lock(cache.mutex);
        if (now != cache.second) {
            struct tm local;
            if (localtime_r(&now, &local) == nullptr) {
                throw std::runtime_error("could not convert calendar time to local time");
            }
            const std::string iso =
                boost::posix_time::to_iso_extended_string(boost::posix_time::ptime_from_tm(local));
            snprintf(cache.text, sizeof(cache.text), "%s", iso.c_str());
            cache.second = now;
        }
        memcpy(stamp, cache.text, sizeof(stamp));
    }
    char thread[32];
    const pthread_t self = pthread_self();
    if (self == 0) {
        snprintf(thread, sizeof(thread), "{Not-any-thread}");
    } else {
        snprintf(thread, sizeof(thread), "%p", reinterpret_cast<const void*>(self));
    }
    out.clear();
    out.reserve(80);
    out.append(TraceLevelName(level)).append(" | ").append(thread).append(" | ");
    out.append(stamp).append(" | ");
}

int CVNFileTrace::InitTrace(const std::string& ident, const std::string& /*logDirectory*/,
                            const std::string& /*logFileName*/, int32_t mode, uint32_t mask,
                            bool /*unnamedFlag*/, bool skipOpenlog, uint32_t /*flushInterval*/,
                            uint32_t /*maxFlushTime*/, uint32_t /*logFileSize*/,
                            uint32_t /*numLogFiles*/, uint32_t /*retentionSeconds*/,
                            uint32_t /*errorInterval*/) {
    if (m_Initialized)
        return 0;
    m_LevelMask.store(mask, std::memory_order_relaxed);
    m_Ident = ident;
    m_Mode = mode;
    m_Initialized = true;
    // openlog keeps the pointer it is given: m_Ident lives as long as the process.
    if (!skipOpenlog)
        openlog(m_Ident.c_str(), kOpenlogOptions, kOpenlogFacility);
    return 0;
}

int64_t CVNFileTrace::ChangeSettings(bool, uint32_t, int32_t, uint32_t, uint32_t, uint32_t,
                                     uint32_t) {
    return 0;
}
