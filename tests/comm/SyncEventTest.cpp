#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <boost/thread/thread.hpp>

#include "Latch.h"
#include "comm/SyncEvent.h"

namespace {

using comm_test::ElapsedMs;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// Polls until `event` has `count` registered waits: the only way to know a thread is blocked
// inside WaitForObjects.
bool WaitForWaiters(const CSyncEvent& event, size_t count) {
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
    while (event.GetWaiterCount() != count) {
        if (Clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}

// Waits, and checks the result and how long the wait took: a time-out its full time, anything
// else at once (generous bounds).
void ExpectWait(uint32_t count, CSyncEvent* const* events, bool all, uint32_t timeoutMs,
                uint32_t result) {
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(WaitForObjects(count, events, all, timeoutMs), result);
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
    CSyncEvent* m[] = {&manual};
    CSyncEvent* a[] = {&automatic};
    CSyncEvent* both[] = {&manual, &automatic};
    CSyncEvent* withNull[] = {&manual, nullptr, &automatic};
    ExpectWait(2, both, false, 0, kWaitTimeout);
    ExpectWait(2, both, false, 200, kWaitTimeout);

    // Manual reset stays signalled until reset; wait-all with one of two still times out.
    manual.SetEvent();
    ExpectWait(1, m, false, 0, 0);
    ExpectWait(1, m, false, 0, 0);
    ExpectWait(2, both, true, 200, kWaitTimeout);
    manual.ResetEvent();
    ExpectWait(1, m, false, 0, kWaitTimeout);

    // Auto reset: two signals with nobody waiting are one, taken by one wait; reset clears it.
    automatic.SetEvent();
    automatic.SetEvent();
    ExpectWait(1, a, false, 0, 0);
    ExpectWait(1, a, false, 0, kWaitTimeout);
    automatic.SetEvent();
    automatic.ResetEvent();
    ExpectWait(1, a, false, 0, kWaitTimeout);

    // A null entry counts as signalled in index order, even for an infinite wait; the
    // auto-reset event after it is not looked at, and not taken.
    automatic.SetEvent();
    ExpectWait(3, withNull, false, kWaitInfinite, 1);
    EXPECT_TRUE(automatic.IsSignalled());
    manual.SetEvent();
    ExpectWait(3, withNull, false, 0, 0);
    ExpectWait(3, withNull, true, 0, 0);
    EXPECT_FALSE(automatic.IsSignalled());  // taken by the wait-all
    // An empty or missing array is a failed wait, not an eternal one.
    ExpectWait(0, withNull, false, kWaitInfinite, kWaitFailed);
    ExpectWait(1, nullptr, false, kWaitInfinite, kWaitFailed);
    EXPECT_EQ(manual.GetWaiterCount() + automatic.GetWaiterCount(), 0u);
}

TEST(SyncEventTest, WaitAllReturnsOnlyOnceEveryEventWasSignalled) {
    CSyncEvent first(false), second(true), third(false);
    CSyncEvent* events[] = {&first, nullptr, &second, &third};
    std::atomic<uint32_t> result{0xDEAD};
    comm_test::Counter done;
    std::thread waiter([&] {
        result = WaitForObjects(4, events, true, 20000);
        done.Add();
    });
    ASSERT_TRUE(WaitForWaiters(third, 1));
    std::thread setFirst([&] { first.SetEvent(); });
    std::thread setSecond([&] { second.SetEvent(); });
    setFirst.join();
    setSecond.join();
    EXPECT_FALSE(done.WaitAtLeast(1, milliseconds(100)));  // two of three: the wait goes on
    third.SetEvent();
    EXPECT_TRUE(done.WaitAtLeast(1, milliseconds(10000)));
    waiter.join();
    EXPECT_EQ(result.load(), 0u);
    EXPECT_FALSE(second.IsSignalled());  // the auto-reset one was taken
    EXPECT_TRUE(first.IsSignalled() && third.IsSignalled());
    EXPECT_EQ(first.GetWaiterCount() + second.GetWaiterCount() + third.GetWaiterCount(), 0u);
}

TEST(SyncEventTest, AutoResetReleasesOneWaiterPerSignalInTurn) {
    constexpr int kWaiters = 3, kRounds = 30;
    CSyncEvent event(true);
    CSyncEvent* events[] = {&event};
    std::atomic<bool> stop{false};
    comm_test::Counter released, exited;
    std::vector<int> turns(kWaiters, 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < kWaiters; ++i) {
        threads.emplace_back([&, i] {
            while (!stop) {
                if (WaitForObjects(1, events, false, 1000) == 0 && !stop) {
                    ++turns[i];
                    released.Add();
                }
            }
            exited.Add();
        });
    }
    // Returns at the first failure so that the threads are always ended below.
    [&] {
        for (int round = 1; round <= kRounds; ++round) {
            // Every waiter is back in its wait, so every earlier release has been counted.
            ASSERT_TRUE(WaitForWaiters(event, kWaiters));
            ASSERT_EQ(released.Get(), round - 1) << "one signal released two waits";
            event.SetEvent();
            ASSERT_TRUE(released.WaitAtLeast(round, milliseconds(500))) << "signal lost";
        }
    }();
    stop = true;
    while (!exited.WaitAtLeast(kWaiters, milliseconds(10)))
        event.SetEvent();
    for (std::thread& thread : threads)
        thread.join();
    for (int i = 0; i < kWaiters; ++i)
        EXPECT_GT(turns[i], 0) << "waiter " << i << " never woke";
}

TEST(SyncEventTest, AutoResetSignalIsTakenOnceWhenAnotherWaitRacesTheWokenOne) {
    // The signal wakes the blocked waiter, but a second wait may take the flag first: the woken
    // waiter must then go back to sleep rather than count the same signal again.
    constexpr int kRounds = 50;
    CSyncEvent event(true);
    CSyncEvent* events[] = {&event};
    std::atomic<bool> stop{false};
    comm_test::Counter woken;
    std::thread waiter([&] {
        while (!stop) {
            if (WaitForObjects(1, events, false, 5000) == 0 && !stop)
                woken.Add();
        }
    });
    int taken = 0;
    [&] {
        for (int round = 1; round <= kRounds; ++round) {
            ASSERT_TRUE(WaitForWaiters(event, 1));
            ASSERT_EQ(woken.Get() + taken, round - 1) << "one signal released two waits";
            event.SetEvent();
            if (WaitForObjects(1, events, false, 0) == 0) {
                ++taken;
                // Gives the woken waiter time to (wrongly) count the signal too.
                ASSERT_FALSE(woken.WaitAtLeast(round - taken + 1, milliseconds(20)));
            } else {
                ASSERT_TRUE(woken.WaitAtLeast(round - taken, milliseconds(5000))) << "lost";
            }
        }
    }();
    ASSERT_TRUE(WaitForWaiters(event, 1));
    stop = true;
    event.SetEvent();
    waiter.join();
    EXPECT_EQ(woken.Get() + taken, kRounds) << "one signal released two waits";
}

TEST(SyncEventTest, AutoResetSignalGoesOnWhenItsWaiterLeavesWithAnotherEvent) {
    // The first waiter leaves with the manual event; the auto-reset signal it was handed must
    // reach the second waiter instead of sleeping in the flag.
    CSyncEvent automatic(true), manual(false);
    CSyncEvent* both[] = {&manual, &automatic};
    CSyncEvent* one[] = {&automatic};
    for (int round = 0; round < 20; ++round) {
        uint32_t firstResult = 0xDEAD, secondResult = 0xDEAD;
        long secondMs = 0;
        std::thread first([&] { firstResult = WaitForObjects(2, both, false, 3000); });
        ASSERT_TRUE(WaitForWaiters(automatic, 1));
        std::thread second([&] {
            const Clock::time_point begin = Clock::now();
            secondResult = WaitForObjects(1, one, false, 3000);
            secondMs = ElapsedMs(begin);
        });
        ASSERT_TRUE(WaitForWaiters(automatic, 2));
        manual.SetEvent();
        automatic.SetEvent();
        first.join();
        second.join();
        manual.ResetEvent();
        EXPECT_EQ(firstResult, 0u);
        EXPECT_EQ(secondResult, 0u);
        ASSERT_LT(secondMs, 1500) << "round " << round << ": the signal slept in the flag";
    }
}

TEST(SyncEventTest, SignalRacingTheWaitIsNeverLost) {
    // Setter and waiter start each round together, so the signal lands before, during or after
    // the waiter's registration; a lost wake-up shows as a wait that lasts until its time-out.
    constexpr int kRounds = 5000;
    CSyncEvent automatic(true), manual(false);
    CSyncEvent* events[] = {&automatic, &manual};
    comm_test::Barrier start(2);
    std::vector<uint32_t> results(kRounds, 0);
    std::vector<long> durations(kRounds, 0);
    std::atomic<int> rounds{kRounds};  // cut short at the first lost wake-up
    std::thread waiter([&] {
        for (int round = 0; round < rounds; ++round) {
            start.ArriveAndWait();
            const Clock::time_point begin = Clock::now();
            results[round] = WaitForObjects(2, events, false, 3000);
            durations[round] = ElapsedMs(begin);
            if (durations[round] >= 1500)
                rounds = round + 1;
            manual.ResetEvent();
            start.ArriveAndWait();
        }
    });
    for (int round = 0; round < rounds; ++round) {
        start.ArriveAndWait();
        (round % 2 == 0 ? automatic : manual).SetEvent();
        start.ArriveAndWait();
    }
    waiter.join();
    ASSERT_EQ(rounds.load(), kRounds) << "wake-up lost in round " << rounds - 1;
    for (int round = 0; round < kRounds; ++round)
        ASSERT_EQ(results[round], static_cast<uint32_t>(round % 2)) << "round " << round;
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
