// The module's one diagnostic channel. Every subsystem writes through the process-wide trace
// object g_pTrace with the VNTRACE statement; records go to the system log holding the formatted
// message and a newline, nothing else (level, thread and time are the system log's own).
//
// Thread model: any thread may write. A statement at a disabled level costs one null test and
// one AND: its arguments are not evaluated. m_Mutex is held only across the assignment of the
// statement's prefix and level and the write itself, and guards m_Prefix and m_CurrentLevel;
// the mask is read without it. m_Mutex is recursive: a statement's arguments are evaluated
// under it, and an argument that calls something which itself traces re-enters it.
#ifndef TIDEWAY_COMMON_VNTRACE_H_
#define TIDEWAY_COMMON_VNTRACE_H_

#include <stdint.h>

#include <atomic>
#include <string>

#include "common/Mutex.h"
#include "common/ThreadAnnotations.h"

// Trace levels: each is also a bit number in the level mask. Level 15 is always off.
enum VNTraceLevel {
    TL_TRACE = 0,
    TL_WARN = 1,
    TL_ERR = 2,
    TL_THREAD = 3,
    TL_USERINFO = 4,
    TL_LOCK = 5,
    TL_LIC = 6,
    TL_BRIDGE = 7,
    TL_HEADER = 8,
    TL_LISTEN = 9,
    TL_TND = 10,
    TL_STATS = 11,
    TL_API = 12,
    TL_IPC = 13,
    TL_DCT = 14,
    TL_OFF = 15,
};

constexpr uint32_t kDefaultTraceMask = 0x107;  // TRACE, WARN, ERR, HEADER
constexpr int kTraceLevelCount = 15;           // levels with a name and a priority
constexpr int kTraceNameSlot = 32;             // each name is a fixed slot of this size

// Name of a level ("TRACE", "WARN", ...), or "" outside 0..14.
const char* TraceLevelName(int level);
// Syslog priority of a level: the table for 0..14, LOG_NOTICE (5) for anything else.
int TraceLevelPriority(int level);

// Abstract trace object: the mutex, the mask and the level of the running statement.
class CVNTrace {
  public:
    CVNTrace();
    virtual ~CVNTrace();
    virtual void WriteMessage(const char* format, ...) REQUIRES(m_Mutex)
        __attribute__((format(printf, 2, 3))) = 0;
    virtual void BuildPrefix(int level, std::string& out) = 0;

    // Takes m_Mutex. A failure is reported through SyslogError and the caller goes on without
    // the lock; the result says whether the lock is held.
    bool Lock() TRY_ACQUIRE(true, m_Mutex);
    void Unlock() RELEASE(m_Mutex);

    // The masked bit of the level (not a bool); 0 for level 15 whatever the mask.
    uint32_t IsLevelEnabled(int level) const {
        if (level == TL_OFF)
            return 0;
        return (1u << (static_cast<unsigned>(level) & 31u)) &
               m_LevelMask.load(std::memory_order_relaxed);
    }
    int SetLevelMask(uint32_t mask);
    // Installs the configured mask. Before initialisation it is clamped to 15 bits with WARN
    // and ERR forced on; afterwards it is taken as it stands.
    void SetDebugLevel(uint32_t mask);

    // Records the prefix and level of the statement about to be written. Called under Lock().
    void BeginStatement(int level, const std::string& prefix) REQUIRES(m_Mutex) {
        m_Prefix = prefix;
        m_CurrentLevel = level;
    }

    uint32_t GetLevelMask() const { return m_LevelMask.load(std::memory_order_relaxed); }
    bool IsInitialized() const { return m_Initialized; }
    // A copy of the last statement's prefix, taken under the lock.
    std::string GetPrefix();

  protected:
    friend class CVNTraceStatementLock;

    CRecursiveMutex m_Mutex;
    std::atomic<uint32_t> m_LevelMask;  // read without the lock, relaxed
    int32_t m_CurrentLevel GUARDED_BY(m_Mutex);
    std::string m_Prefix GUARDED_BY(m_Mutex);
    std::atomic<bool> m_Initialized;
};

// The system-log sink. File, buffering and retention settings are accepted and ignored.
class CVNFileTrace : public CVNTrace {
  public:
    CVNFileTrace();
    ~CVNFileTrace() override;

    // Writes "format\n" with the current statement's priority; nothing before InitTrace.
    void WriteMessage(const char* format, ...) override REQUIRES(m_Mutex)
        __attribute__((format(printf, 2, 3)));
    // "<level name> | <thread> | <local time, ISO extended> | ".
    void BuildPrefix(int level, std::string& out) override;

    // First call only: stores ident, mask and mode and, unless skipOpenlog, opens the system
    // log. Later calls change nothing. Always 0.
    int InitTrace(const std::string& ident, const std::string& logDirectory,
                  const std::string& logFileName, int32_t mode, uint32_t mask, bool unnamedFlag,
                  bool skipOpenlog, uint32_t flushInterval, uint32_t maxFlushTime,
                  uint32_t logFileSize, uint32_t numLogFiles, uint32_t retentionSeconds,
                  uint32_t errorInterval);
    // The file settings have no meaning for the system log: stores nothing, returns 0.
    int64_t ChangeSettings(bool buffered, uint32_t flushInterval, int32_t maxFlushTime,
                           uint32_t logFileSize, uint32_t numLogFiles, uint32_t retentionSeconds,
                           uint32_t errorInterval);

    const std::string& GetIdent() const { return m_Ident; }

  private:
    std::string m_Ident;
    int32_t m_Mode;
};

// The one trace object of the process and the pointer every statement goes through.
extern CVNFileTrace g_Trace;
// g_pTrace points at g_Trace from load on; statements test it for null all the same.
extern CVNTrace* g_pTrace;

constexpr const char* kTraceIdent = "brtidewayapi";

// Direct road to the system log at LOG_ERR under the module's identity, without any lock:
// used when there is no trace object and when its lock fails.
void SyslogError(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Holds the trace mutex for one statement, if it could be taken. A statement goes on without
// the lock when Lock fails (a trace line never fails its caller), so for the analysis the guard
// counts as holding it either way; its own body is not checked, being conditional.
class SCOPED_CAPABILITY CVNTraceStatementLock {
  public:
    explicit CVNTraceStatementLock(CVNTrace& trace) ACQUIRE(trace.m_Mutex) NO_THREAD_SAFETY_ANALYSIS
        : m_Trace(trace),
          m_bLocked(trace.Lock()) {}
    ~CVNTraceStatementLock() RELEASE() NO_THREAD_SAFETY_ANALYSIS {
        if (m_bLocked)
            m_Trace.Unlock();
    }
    CVNTraceStatementLock(const CVNTraceStatementLock&) = delete;
    CVNTraceStatementLock& operator=(const CVNTraceStatementLock&) = delete;

  private:
    CVNTrace& m_Trace;
    bool m_bLocked;
};

// The trace statement: VNTRACE(TL_ERR, "Config : bad value %s", text.c_str());
// The message arguments are evaluated only when the level is enabled.
#define VNTRACE(level, ...)                                   \
    do {                                                      \
        CVNTrace* const vnTrace_ = g_pTrace;                  \
        const int vnLevel_ = (level);                         \
        if (vnTrace_ == nullptr) {                            \
            if (vnLevel_ == TL_ERR)                           \
                SyslogError(__VA_ARGS__);                     \
        } else if (vnTrace_->IsLevelEnabled(vnLevel_) != 0) { \
            std::string vnPrefix_;                            \
            vnTrace_->BuildPrefix(vnLevel_, vnPrefix_);       \
            CVNTraceStatementLock vnLock_(*vnTrace_);         \
            vnTrace_->BeginStatement(vnLevel_, vnPrefix_);    \
            vnTrace_->WriteMessage(__VA_ARGS__);              \
        }                                                     \
    } while (0)

#endif  // TIDEWAY_COMMON_VNTRACE_H_
