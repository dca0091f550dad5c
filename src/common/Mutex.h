// Mutexes whose use clang's thread-safety analysis can check (see ThreadAnnotations.h): a plain
// CMutex, a CRecursiveMutex for the few locks that a thread re-enters by design, one scoped
// guard for both, and a condition variable over CMutex. Lock with the guard; the raw
// Lock/Unlock are for the guard and for waits.
//
// The analysis knows nothing of recursion: a function that takes a CRecursiveMutex it may
// already hold is left unannotated (not EXCLUDES), and only one guard of it may appear in any
// one function body.
#ifndef TIDEWAY_COMMON_MUTEX_H_
#define TIDEWAY_COMMON_MUTEX_H_

#include <chrono>
#include <condition_variable>
#include <mutex>

#include <boost/thread/recursive_mutex.hpp>

#include "common/ThreadAnnotations.h"

class CAPABILITY("mutex") CMutex {
  public:
    CMutex() = default;
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    void Lock() ACQUIRE() { m_Mutex.lock(); }
    void Unlock() RELEASE() { m_Mutex.unlock(); }
    // For a condition variable's wait, which needs the standard mutex; the caller holds this.
    std::mutex& Native() REQUIRES(this) { return m_Mutex; }

  private:
    std::mutex m_Mutex;
};

class CAPABILITY("mutex") CRecursiveMutex {
  public:
    CRecursiveMutex() = default;
    CRecursiveMutex(const CRecursiveMutex&) = delete;
    CRecursiveMutex& operator=(const CRecursiveMutex&) = delete;

    void Lock() ACQUIRE() { m_Mutex.lock(); }
    void Unlock() RELEASE() { m_Mutex.unlock(); }

  private:
    // Boost's, like the module's other recursive locks: a failure to lock is a boost::lock_error.
    boost::recursive_mutex m_Mutex;
};

// Holds `mutex` for the guard's scope; Unlock lets go early (the destructor then does nothing).
template <typename Mutex>
class SCOPED_CAPABILITY CLockGuard {
  public:
    explicit CLockGuard(Mutex& mutex) ACQUIRE(mutex) : m_pMutex(&mutex) { mutex.Lock(); }
    ~CLockGuard() RELEASE() {
        if (m_pMutex != nullptr)
            m_pMutex->Unlock();
    }
    void Unlock() RELEASE() {
        m_pMutex->Unlock();
        m_pMutex = nullptr;
    }
    CLockGuard(const CLockGuard&) = delete;
    CLockGuard& operator=(const CLockGuard&) = delete;

  private:
    Mutex* m_pMutex;
};

using CMutexLock = CLockGuard<CMutex>;
using CRecursiveLock = CLockGuard<CRecursiveMutex>;

// A condition variable over CMutex. A wait is entered with the mutex held and returns with it
// held again, having let go of it while asleep; wake-ups may be spurious, so callers wait in a
// loop on their own condition.
class CCondition {
  public:
    CCondition() = default;
    CCondition(const CCondition&) = delete;
    CCondition& operator=(const CCondition&) = delete;

    void Wait(CMutex& mutex) REQUIRES(mutex) {
        CAdopted held(mutex.Native());
        m_Condition.wait(held.lock);
    }
    // False once `deadline` has passed, true on a wake-up before it.
    template <typename Clock, typename Duration>
    bool WaitUntil(CMutex& mutex, const std::chrono::time_point<Clock, Duration>& deadline)
        REQUIRES(mutex) {
        CAdopted held(mutex.Native());
        return m_Condition.wait_until(held.lock, deadline) == std::cv_status::no_timeout;
    }
    void NotifyOne() { m_Condition.notify_one(); }
    void NotifyAll() { m_Condition.notify_all(); }

  private:
    // Lends the held mutex to the standard wait and hands it back held, whatever happens.
    struct CAdopted {
        explicit CAdopted(std::mutex& mutex) : lock(mutex, std::adopt_lock) {}
        ~CAdopted() { lock.release(); }
        std::unique_lock<std::mutex> lock;
    };

    std::condition_variable m_Condition;
};

#endif  // TIDEWAY_COMMON_MUTEX_H_
