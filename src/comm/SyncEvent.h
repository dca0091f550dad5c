// An event object in the manner of a classic desktop system: signalled or not, reset by hand
// (manual reset) or by the one wait that takes it (auto reset), and WaitForObjects to wait for
// one or all of several events with a time-out in milliseconds.
//
// Any thread may call SetEvent, ResetEvent and WaitForObjects at any time; the owner must keep
// an event alive while anybody waits on it. m_StateMutex guards both flags, m_Waiters and
// m_Signaller; m_WaitMutex is the mutex m_Cond is waited with. Lock order: a signalled event's
// m_StateMutex, then a waiter's m_StateMutex, then that waiter's m_WaitMutex.
#ifndef TIDEWAY_COMM_SYNCEVENT_H_
#define TIDEWAY_COMM_SYNCEVENT_H_

#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <list>

#include <boost/thread/condition_variable.hpp>

#include "common/Mutex.h"

constexpr uint32_t kWaitTimeout = 258;          // result of a wait whose time ran out
constexpr uint32_t kWaitFailed = 0xFFFFFFFF;    // result of a wait that failed
constexpr uint32_t kWaitInfinite = 0xFFFFFFFF;  // time-out that never runs out

class CSyncEvent {
  public:
    explicit CSyncEvent(bool autoReset);
    ~CSyncEvent();
    CSyncEvent(const CSyncEvent&) = delete;
    CSyncEvent& operator=(const CSyncEvent&) = delete;

    // Signals the event. Auto reset: the waiter at the front of the list is woken and goes to
    // the back, so that waiters take turns; the signal stays until one wait takes it. Manual
    // reset: every waiter is woken and the event stays signalled until ResetEvent. Swallows any
    // exception.
    void SetEvent();
    // Both flags false.
    void ResetEvent();

    bool IsSignalled() const;
    bool IsAutoReset() const { return m_AutoReset; }
    // Waits registered with this event right now; for diagnosis and tests.
    size_t GetWaiterCount() const;

  private:
    friend uint32_t WaitForObjects(uint32_t count, CSyncEvent* const* events, bool waitAll,
                                   uint32_t timeoutMs);

    // Registers a waiter with each event of a wait, and removes it again on leaving.
    class WaiterRegistration;

    // Signal-one and signal-all: set the flag and hand the wake-up to the waiters, under
    // m_StateMutex.
    void SignalOne() EXCLUDES(m_StateMutex);
    void SignalAll() EXCLUDES(m_StateMutex);
    // Notifies m_Cond under m_WaitMutex, so that a waiter between its check and its wait
    // cannot miss it.
    void Wake(bool all) EXCLUDES(m_WaitMutex);
    // Called by a signalled event on one of its waiters (a local event of WaitForObjects).
    void Deliver(CSyncEvent* signaller, bool all);

    // The waiting side.
    void AddWaiter(CSyncEvent* waiter);
    void RemoveWaiter(CSyncEvent* waiter);
    // True when signalled; an auto-reset event is reset by the check that finds it so.
    bool TakeIfSignalled();
    // On a waiter: the event that last woke it (or null), clearing that and both flags.
    CSyncEvent* TakeWake();
    // On a waiter: blocks until woken or past `deadline` (unless `forever`). False on time-out.
    bool WaitForWake(bool forever, const std::chrono::steady_clock::time_point& deadline);

    mutable CMutex m_StateMutex;
    CMutex m_WaitMutex;  // a waiter reads its own flags with this held
    // Waited on with m_WaitMutex. Boost's, so that a wait is an interruption point of a
    // boost::thread, which ends it with kWaitFailed.
    boost::condition_variable_any m_Cond;
    bool m_SignalledOne GUARDED_BY(m_StateMutex);
    bool m_SignalledAll GUARDED_BY(m_StateMutex);
    const bool m_AutoReset;
    std::list<CSyncEvent*> m_Waiters GUARDED_BY(m_StateMutex);
    CSyncEvent* m_Signaller GUARDED_BY(m_StateMutex);
};

// Waits for `count` events of the array `events`. Wait-any: the index of the first event (in
// index order) found signalled; a null entry counts as signalled. Wait-all: 0 once every event
// has been seen signalled. kWaitTimeout (258) when `timeoutMs` ran out first (kWaitInfinite
// waits for ever), kWaitFailed on an exception inside the wait or on an empty or missing array.
// An auto-reset event is taken (reset) by the wait that sees it signalled.
uint32_t WaitForObjects(uint32_t count, CSyncEvent* const* events, bool waitAll,
                        uint32_t timeoutMs);

#endif  // TIDEWAY_COMM_SYNCEVENT_H_
