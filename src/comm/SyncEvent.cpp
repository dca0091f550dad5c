#include "comm/SyncEvent.h"

#include <algorithm>
#include <chrono>
#include <vector>

#include <boost/date_time/posix_time/posix_time_types.hpp>

using SteadyClock = std::chrono::steady_clock;

CSyncEvent::CSyncEvent(bool autoReset)
    : m_SignalledOne(false), m_SignalledAll(false), m_AutoReset(autoReset), m_Signaller(nullptr) {}

CSyncEvent::~CSyncEvent() = default;

void CSyncEvent::SetEvent() {
    try {
        // The flag is set before the notification: a waiter that has just found the event not
        // signalled is registered already and gets the wake-up through its own event.
        if (m_AutoReset) {
            SignalOne();
        } else {
            SignalAll();
        }
        Wake(!m_AutoReset);
    } catch (...) {
    }
}

void CSyncEvent::ResetEvent() {
    CMutexLock guard(m_StateMutex);
    m_SignalledOne = false;
    m_SignalledAll = false;
}

bool CSyncEvent::IsSignalled() const {
    CMutexLock guard(m_StateMutex);
    return m_SignalledOne || m_SignalledAll;
}

size_t CSyncEvent::GetWaiterCount() const {
    CMutexLock guard(m_StateMutex);
    return m_Waiters.size();
}

void CSyncEvent::SignalOne() {
    CMutexLock guard(m_StateMutex);
    if (!m_Waiters.empty()) {
        CSyncEvent* const waiter = m_Waiters.front();
        m_Waiters.pop_front();
        waiter->Deliver(this, false);
        m_Waiters.push_back(waiter);
    }
    m_SignalledOne = true;
}

void CSyncEvent::SignalAll() {
    CMutexLock guard(m_StateMutex);
    for (CSyncEvent* waiter : m_Waiters)
        waiter->Deliver(this, true);
    m_SignalledAll = true;
}

void CSyncEvent::Wake(bool all) {
    CMutexLock guard(m_WaitMutex);
    if (all) {
        m_Cond.notify_all();
    } else {
        m_Cond.notify_one();
    }
}

void CSyncEvent::Deliver(CSyncEvent* signaller, bool all) {
    // Runs under the signaller's m_StateMutex, so the waiter, which removes itself from the
    // signaller's list under that mutex before it goes away, is still alive here.
    {
        CMutexLock guard(m_StateMutex);
        m_Signaller = signaller;
        if (all) {
            m_SignalledAll = true;
        } else {
            m_SignalledOne = true;
        }
    }
    Wake(all);
}

void CSyncEvent::AddWaiter(CSyncEvent* waiter) {
    CMutexLock guard(m_StateMutex);
    m_Waiters.push_back(waiter);
}

void CSyncEvent::RemoveWaiter(CSyncEvent* waiter) {
    CMutexLock guard(m_StateMutex);
    const auto it = std::find(m_Waiters.begin(), m_Waiters.end(), waiter);
    if (it != m_Waiters.end())
        m_Waiters.erase(it);
    // A signal of an auto-reset event that woke this waiter but was not taken by it (it left
    // with another event, or with a time-out) goes on to the next waiter instead of sleeping in
    // the flag while somebody waits.
    if (m_AutoReset && m_SignalledOne && !m_Waiters.empty()) {
        CSyncEvent* const next = m_Waiters.front();
        m_Waiters.pop_front();
        next->Deliver(this, false);
        m_Waiters.push_back(next);
    }
}

bool CSyncEvent::TakeIfSignalled() {
    CMutexLock guard(m_StateMutex);
    if (!m_SignalledOne && !m_SignalledAll)
        return false;
    if (m_AutoReset) {
        m_SignalledOne = false;
        m_SignalledAll = false;
    }
    return true;
}

CSyncEvent* CSyncEvent::TakeWake() {
    CMutexLock guard(m_StateMutex);
    CSyncEvent* const signaller = m_Signaller;
    m_Signaller = nullptr;
    m_SignalledOne = false;
    m_SignalledAll = false;
    return signaller;
}

bool CSyncEvent::WaitForWake(bool forever, const SteadyClock::time_point& deadline) {
    CMutexLock lock(m_WaitMutex);
    // Lends the held m_WaitMutex to the condition, which lets go of it while asleep and takes
    // it again before it returns or throws.
    struct Lent {
        CMutex& mutex;
        void lock() NO_THREAD_SAFETY_ANALYSIS { mutex.Lock(); }
        void unlock() NO_THREAD_SAFETY_ANALYSIS { mutex.Unlock(); }
    } lent{m_WaitMutex};
    // Deliver sets the flags before it takes m_WaitMutex to notify, so a flag read false here
    // under m_WaitMutex is followed by a notification this wait receives.
    while (!IsSignalled()) {
        if (forever) {
            m_Cond.wait(lent);
            continue;
        }
        // The deadline is kept on the steady clock; each wait is given the time left, which the
        // condition measures on its own monotonic clock.
        const auto left =
            std::chrono::duration_cast<std::chrono::microseconds>(deadline - SteadyClock::now());
        if (left.count() <= 0)
            return false;
        m_Cond.timed_wait(lent, boost::posix_time::microseconds(left.count()));
    }
    return true;
}

// Removes the local waiter from every event it was registered with, whatever the outcome.
class CSyncEvent::WaiterRegistration {
  public:
    WaiterRegistration(CSyncEvent* const* events, uint32_t count, CSyncEvent* waiter)
        : m_Events(events), m_Count(0), m_Waiter(waiter) {
        for (uint32_t i = 0; i < count; ++i) {
            if (events[i] != nullptr)
                events[i]->AddWaiter(waiter);
            m_Count = i + 1;
        }
    }
    ~WaiterRegistration() {
        for (uint32_t i = 0; i < m_Count; ++i) {
            if (m_Events[i] == nullptr)
                continue;
            try {
                m_Events[i]->RemoveWaiter(m_Waiter);
            } catch (...) {
            }
        }
    }
    WaiterRegistration(const WaiterRegistration&) = delete;
    WaiterRegistration& operator=(const WaiterRegistration&) = delete;

  private:
    CSyncEvent* const* m_Events;
    uint32_t m_Count;  // entries registered so far
    CSyncEvent* m_Waiter;
};

uint32_t WaitForObjects(uint32_t count, CSyncEvent* const* events, bool waitAll,
                        uint32_t timeoutMs) {
    if (count == 0 || events == nullptr)
        return kWaitFailed;
    try {
        CSyncEvent waiter(false);
        const bool forever = timeoutMs == kWaitInfinite;
        const SteadyClock::time_point deadline =
            SteadyClock::now() + std::chrono::microseconds(uint64_t{timeoutMs} * 1000);
        CSyncEvent::WaiterRegistration registration(events, count, &waiter);
        std::vector<bool> seen(waitAll ? count : 0, false);

        for (;;) {
            // What woke the waiter is taken before the events are looked at: a signal landing
            // after this point sets the waiter again, and the wait below returns at once.
            CSyncEvent* const signaller = waiter.TakeWake();
            // A manual-reset event that woke the waiter counts even if it was reset since. An
            // auto-reset event counts only through its flag, so one signal releases one wait.
            const bool pulse = signaller != nullptr && !signaller->IsAutoReset();
            if (!waitAll) {
                for (uint32_t i = 0; i < count; ++i) {
                    if (events[i] == nullptr || events[i]->TakeIfSignalled())
                        return i;
                }
                for (uint32_t i = 0; pulse && i < count; ++i) {
                    if (events[i] == signaller)
                        return i;
                }
            } else {
                bool all = true;
                for (uint32_t i = 0; i < count; ++i) {
                    if (!seen[i]) {
                        seen[i] = events[i] == nullptr || events[i]->TakeIfSignalled() ||
                                  (pulse && events[i] == signaller);
                    }
                    all = all && seen[i];
                }
                if (all)
                    return 0;
            }
            if (!forever && SteadyClock::now() >= deadline)
                return kWaitTimeout;
            waiter.WaitForWake(forever, deadline);
        }
    } catch (...) {
        return kWaitFailed;
    }
}
