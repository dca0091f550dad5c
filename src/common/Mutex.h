// Mutexes whose use clang's thread-safety analysis can check (see ThreadAnnotations.h): a plain
// CMutex, a CRecursiveMutex for the few locks that a thread re-enters by design, and one scoped
// guard for both. Lock with the guard; the raw Lock/Unlock are for the guard and for waits.
#ifndef TIDEWAY_COMMON_MUTEX_H_
#define TIDEWAY_COMMON_MUTEX_H_

#include <mutex>

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
    std::recursive_mutex m_Mutex;
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

#endif  // TIDEWAY_COMMON_MUTEX_H_
