#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <boost/thread/thread.hpp>

#include "Latch.h"
#include "comm/SyncEvent.h"

namespace {

using comm_test::ElapsedMs;
using comm_test::PollUntil;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// The count of registered waits is the only way to know a thread is blocked.
bool WaitForWaiters(const CSyncEvent& event, size_t count) {
    return PollUntil([&] { return event.GetWaiterCount() == count; }, 10s);
}

// Waits and checks the result; a time-out takes its full time, anything else returns at once.
void ExpectWait(std::vector<CSyncEvent*> events, bool all, uint32_t timeoutMs, uint32_t result) {
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(WaitForObjects(static_cast<uint32_t>(events.size()), events.data(), all, timeoutMs),
              result);
    const long elapsed = ElapsedMs(start);
    if (result == kWaitTimeout && timeoutMs > 0) {
        EXPECT_GE(elapsed, static_cast<long>(timeoutMs) - 50);
        EXPECT_LE(elapsed, 1500);
    } else {
        EXPECT_LT(elapsed, 150);
    }
}

TEST(SyncEventTest, ResetModesNullEntriesAndTimeOuts) {
    CSyncEvent manual(false), automatic(true);
    const std::vector<CSyncEvent*> m = {&manual}, a = {&automatic}, both = {&manual, &automatic},
                                   withNull = {&manual, nullptr, &automatic};
    ExpectWait(both, false, 200, kWaitTimeout);

    // Manual reset stays signalled until reset; wait-all with one of two still times out.
    manual.SetEvent();
    ExpectWait(m, false, 0, 0);
    ExpectWait(m, false, 0, 0);
    ExpectWait(both, true, 200, kWaitTimeout);
    manual.ResetEvent();
    ExpectWait(m, false, 0, kWaitTimeout);

    // Auto reset: two signals with nobody waiting are one, taken by one wait; reset clears it.
    automatic.SetEvent();
    automatic.SetEvent();
    ExpectWait(a, false, 0, 0);
    ExpectWait(a, false, 0, kWaitTimeout);
    automatic.SetEvent();
    automatic.ResetEvent();
    ExpectWait(a, false, 0, kWaitTimeout);

    // A null entry counts as signalled in index order; the auto-reset event after it is not taken.
    automatic.SetEvent();
    ExpectWait(withNull, false, kWaitInfinite, 1);
    EXPECT_TRUE(automatic.IsSignalled());
    manual.SetEvent();
    ExpectWait(withNull, false, 0, 0);
    ExpectWait(withNull, true, 0, 0);
    EXPECT_FALSE(automatic.IsSignalled());  // taken by the wait-all
    // An empty or missing array is a failed wait, not an eternal one.
    EXPECT_EQ(WaitForObjects(0, withNull.data(), false, kWaitInfinite), kWaitFailed);
    EXPECT_EQ(WaitForObjects(1, nullptr, false, kWaitInfinite), kWaitFailed);
    EXPECT_EQ(manual.GetWaiterCount() + automatic.GetWaiterCount(), 0u);
}

TEST(SyncEventTest, WaitAllReturnsOnlyOnceEveryEventWasSignalled) {
    CSyncEvent first(false), second(true), third(false);
    CSyncEvent* events[] = {&first, nullptr, &second, &third};
    auto result =
        std::async(std::launch::async, [&] { return WaitForObjects(4, events, true, 20000); });
    ASSERT_TRUE(WaitForWaiters(third, 1));
    first.SetEvent();
    second.SetEvent();
    EXPECT_EQ(result.wait_for(100ms), std::future_status::timeout);  // two of three: it goes on
    third.SetEvent();
    EXPECT_EQ(result.get(), 0u);
    EXPECT_FALSE(second.IsSignalled());  // the auto-reset one was taken
    EXPECT_TRUE(first.IsSignalled() && third.IsSignalled());
    EXPECT_EQ(first.GetWaiterCount() + second.GetWaiterCount() + third.GetWaiterCount(), 0u);
}

TEST(SyncEventTest, AutoResetSignalIsTakenOnceWhenAnotherWaitRacesTheWokenOne) {
    // When a second wait takes the flag first, the woken waiter must go back to sleep.
    constexpr int kRounds = 50;
    CSyncEvent event(true);
    CSyncEvent* events[] = {&event};
    std::atomic<bool> stop{false};
    std::atomic<int> woken{0};
    std::thread waiter([&] {
        while (!stop) {
            if (WaitForObjects(1, events, false, 5000) == 0 && !stop)
                ++woken;
        }
    });
    int taken = 0;
    for (int round = 1; round <= kRounds && !HasFailure(); ++round) {
        EXPECT_TRUE(WaitForWaiters(event, 1));
        EXPECT_EQ(woken + taken, round - 1) << "one signal released two waits";
        event.SetEvent();
        const bool mine = WaitForObjects(1, events, false, 0) == 0;
        taken += mine;
        // Taken here, the waiter must not wake; else it must.
        EXPECT_NE(PollUntil([&] { return woken + taken >= round + mine; }, mine ? 20ms : 5s), mine);
    }
    EXPECT_TRUE(WaitForWaiters(event, 1));
    stop = true;
    event.SetEvent();
    waiter.join();
    EXPECT_EQ(woken + taken, kRounds) << "one signal released two waits";
}

TEST(SyncEventTest, AutoResetSignalGoesOnWhenItsWaiterLeavesWithAnotherEvent) {
    // The first waiter leaves with the manual event; its auto-reset signal must reach the second.
    CSyncEvent automatic(true), manual(false);
    CSyncEvent* both[] = {&manual, &automatic};
    CSyncEvent* one[] = {&automatic};
    for (int round = 0; round < 20 && !HasFailure(); ++round) {
        uint32_t firstResult = 0xDEAD, secondResult = 0xDEAD;
        std::thread first([&] { firstResult = WaitForObjects(2, both, false, 3000); });
        ASSERT_TRUE(WaitForWaiters(automatic, 1));
        std::thread second([&] { secondResult = WaitForObjects(1, one, false, 3000); });
        ASSERT_TRUE(WaitForWaiters(automatic, 2));
        manual.SetEvent();
        automatic.SetEvent();
        const Clock::time_point signalled = Clock::now();
        first.join();
        second.join();
        manual.ResetEvent();
        EXPECT_EQ(firstResult, 0u);
        EXPECT_EQ(secondResult, 0u);
        // A signal left asleep in the flag is only found when the second wait times out.
        EXPECT_LT(ElapsedMs(signalled), 1500) << "round " << round << ": the signal slept";
    }
}

TEST(SyncEventTest, SignalRacingTheWaitIsNeverLost) {
    // The signal lands before, during or after the registration; a lost one waits to time-out.
    constexpr int kRounds = 5000;
    CSyncEvent automatic(true), manual(false);
    CSyncEvent* events[] = {&automatic, &manual};
    comm_test::Barrier start(2);
    std::atomic<int> rounds{kRounds};  // cut short at the first failure
    std::atomic<int> failedRound{-1};
    std::thread waiter([&] {
        for (int round = 0; round < rounds; ++round) {
            start.wait();
            const Clock::time_point begin = Clock::now();
            const uint32_t result = WaitForObjects(2, events, false, 3000);
            if (result != static_cast<uint32_t>(round % 2) || ElapsedMs(begin) >= 1500) {
                failedRound = round;
                rounds = round + 1;
            }
            manual.ResetEvent();
            start.wait();
        }
    });
    for (int round = 0; round < rounds; ++round) {
        start.wait();
        (round % 2 == 0 ? automatic : manual).SetEvent();
        start.wait();
    }
    waiter.join();
    EXPECT_EQ(failedRound.load(), -1) << "wake-up lost or wrong event";
    EXPECT_FALSE(automatic.IsSignalled());
}

TEST(SyncEventTest, InterruptedWaitFailsAndLeavesNoRegistration) {
    CSyncEvent event(false);
    CSyncEvent* events[] = {&event};
    std::atomic<uint32_t> result{0};
    boost::thread waiter([&] { result = WaitForObjects(1, events, false, kWaitInfinite); });
    ASSERT_TRUE(WaitForWaiters(event, 1));
    waiter.interrupt();
    waiter.join();
    EXPECT_EQ(result.load(), kWaitFailed);
    EXPECT_EQ(event.GetWaiterCount(), 0u);
}

}  // namespace
