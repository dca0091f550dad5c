// The IPC library's own mutex and scoped guard, annotated for clang's thread-safety analysis
// (-Wthread-safety) so that the build checks which lock guards which member. The library stands
// apart from the module's code, so it carries this small copy rather than sharing the module's;
// the macros carry an IPC_ prefix so that a file may include both. Other compilers see plain
// std::mutex use.
//
// IPC_GUARDED_BY(mu) on a member: read or written only with `mu` held. IPC_REQUIRES(mu) on a
// function: its caller holds `mu`. IPC_EXCLUDES(mu): its caller must not hold `mu` (the function
// takes it).
#ifndef TIDEWAY_IPC_IPCMUTEX_H_
#define TIDEWAY_IPC_IPCMUTEX_H_

#include <mutex>

#if defined(__clang__)
#define IPC_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define IPC_THREAD_ANNOTATION(x)
#endif

#define IPC_CAPABILITY(x) IPC_THREAD_ANNOTATION(capability(x))
#define IPC_SCOPED_CAPABILITY IPC_THREAD_ANNOTATION(scoped_lockable)
#define IPC_GUARDED_BY(x) IPC_THREAD_ANNOTATION(guarded_by(x))
#define IPC_REQUIRES(...) IPC_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define IPC_EXCLUDES(...) IPC_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define IPC_ACQUIRE(...) IPC_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define IPC_RELEASE(...) IPC_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

namespace ipc {

class IPC_CAPABILITY("mutex") Mutex {
  public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void Lock() IPC_ACQUIRE() { m_Mutex.lock(); }
    void Unlock() IPC_RELEASE() { m_Mutex.unlock(); }

  private:
    std::mutex m_Mutex;
};

// Holds `mutex` for the guard's scope; Unlock lets go early (the destructor then does nothing).
class IPC_SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) IPC_ACQUIRE(mutex) : m_pMutex(&mutex) { mutex.Lock(); }
    ~MutexLock() IPC_RELEASE() {
        if (m_pMutex != nullptr)
            m_pMutex->Unlock();
    }
    void Unlock() IPC_RELEASE() {
        m_pMutex->Unlock();
        m_pMutex = nullptr;
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex* m_pMutex;
};

}  // namespace ipc

#endif  // TIDEWAY_IPC_IPCMUTEX_H_
