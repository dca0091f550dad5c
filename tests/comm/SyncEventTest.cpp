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

// Polls until `event` has `count` registered waits; a handshake with threads blocked inside
// WaitForObjects, which has no other way to say it is waiting.
bool WaitForWaiters(const CSyncEvent& event, size_t count) {
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
    while (event.GetWaiterCount() != count) {
        if (Clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}

TEST(SyncEventTest, NullEntriesCountAsSignalledInIndexOrder) {
    CSyncEvent manual(false);
    CSyncEvent automatic(true);
    CSyncEvent* events[] = {&manual, nullptr, &automatic};
    automatic.SetEvent();
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(WaitForObjects(3, events, false, kWaitInfinite), 1u);
    EXPECT_LT(ElapsedMs(start), 1000);
    EXPECT_TRUE(automatic.IsSignalled());  // not looked at: the null entry came first
    manual.SetEvent();
    EXPECT_EQ(WaitForObjects(3, events, false, 0), 0u);
    // Wait-all: the null entry counts as seen.
    EXPECT_EQ(WaitForObjects(3, events, true, 0), 0u);
    EXPECT_FALSE(automatic.IsSignalled());  // taken by the wait
    // An empty or missing array is a failed wait, not an eternal one.
    EXPECT_EQ(WaitForObjects(0, events, false, kWaitInfinite), kWaitFailed);
    EXPECT_EQ(WaitForObjects(1, nullptr, false, kWaitInfinite), kWaitFailed);
    EXPECT_EQ(manual.GetWaiterCount(), 0u);
    EXPECT_EQ(automatic.GetWaiterCount(), 0u);
}

TEST(SyncEventTest, ManualStaysSignalledAndAutoIsTakenByOneWait) {
    CSyncEvent manual(false);
    CSyncEvent automatic(true);
    CSyncEvent* m[] = {&manual};
    CSyncEvent* a[] = {&automatic};

    manual.SetEvent();
    EXPECT_EQ(WaitForObjects(1, m, false, 0), 0u);
    EXPECT_EQ(WaitForObjects(1, m, false, 0), 0u);
    manual.ResetEvent();
    EXPECT_EQ(WaitForObjects(1, m, false, 0), kWaitTimeout);

    // Two signals with nobody waiting are one.
    automatic.SetEvent();
    automatic.SetEvent();
    EXPECT_EQ(WaitForObjects(1, a, false, 0), 0u);
    EXPECT_EQ(WaitForObjects(1, a, false, 0), kWaitTimeout);
    automatic.SetEvent();
    automatic.ResetEvent();
    EXPECT_EQ(WaitForObjects(1, a, false, 0), kWaitTimeout);
}

TEST(SyncEventTest, TimeOutsKeepTheirBounds) {
    CSyncEvent manual(false);
    CSyncEvent automatic(true);
    CSyncEvent* events[] = {&manual, &automatic};
    Clock::time_point start = Clock::now();
    EXPECT_EQ(WaitForObjects(2, events, false, 200), kWaitTimeout);
    long elapsed = ElapsedMs(start);
    EXPECT_GE(elapsed, 150);
    EXPECT_LE(elapsed, 1500);

    start = Clock::now();
    EXPECT_EQ(WaitForObjects(2, events, false, 0), kWaitTimeout);
    EXPECT_LT(ElapsedMs(start), 150);

    // Wait-all with one of two signalled still times out.
    manual.SetEvent();
    start = Clock::now();
    EXPECT_EQ(WaitForObjects(2, events, true, 200), kWaitTimeout);
    elapsed = ElapsedMs(start);
    EXPECT_GE(elapsed, 150);
    EXPECT_LE(elapsed, 1500);
    EXPECT_EQ(manual.GetWaiterCount(), 0u);
    EXPECT_EQ(automatic.GetWaiterCount(), 0u);
}

TEST(SyncEventTest, WaitAllReturnsOnlyOnceEveryEventWasSignalled) {
    CSyncEvent first(false);
    CSyncEvent second(true);
    CSyncEvent third(false);
    CSyncEvent* events[] = {&first, nullptr, &second, &third};
    std::atomic<uint32_t> result{0xDEAD};
    comm_test::Latch done(1);
    std::thread waiter([&] {
        result = WaitForObjects(4, events, true, 20000);
        done.CountDown();
    });
    ASSERT_TRUE(WaitForWaiters(third, 1));
    std::thread setFirst([&] { first.SetEvent(); });
    std::thread setSecond([&] { second.SetEvent(); });
    setFirst.join();
    setSecond.join();
    // Two of three: the wait goes on.
    EXPECT_FALSE(done.WaitFor(milliseconds(100)));
    third.SetEvent();
    EXPECT_TRUE(done.WaitFor(milliseconds(10000)));
    waiter.join();
    EXPECT_EQ(result.load(), 0u);
    EXPECT_TRUE(first.IsSignalled());
    EXPECT_FALSE(second.IsSignalled());  // the auto-reset one was taken
    EXPECT_TRUE(third.IsSignalled());
    EXPECT_EQ(first.GetWaiterCount() + second.GetWaiterCount() + third.GetWaiterCount(), 0u);
}

TEST(SyncEventTest, AutoResetReleasesOneWaiterPerSignalInTurn) {
    constexpr int kWaiters = 3;
    constexpr int kRounds = 30;
    CSyncEvent event(true);
    CSyncEvent* events[] = {&event};
    std::atomic<bool> stop{false};
    comm_test::Counter released;
    comm_test::Counter exited;
    std::vector<int> turns(kWaiters, 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < kWaiters; ++i) {
        threads.emplace_back([&, i] {
            while (!stop) {
                if (WaitForObjects(1, events, false, 1000) != 0 || stop)
                    continue;
                ++turns[i];
                released.Add();
            }
            exited.Add();
        });
    }
    // Runs the rounds; returns at the first failure so that the threads are always ended.
    [&] {
        for (int round = 1; round <= kRounds; ++round) {
            // Every waiter is back in its wait, so every earlier release has been counted.
            ASSERT_TRUE(WaitForWaiters(event, kWaiters));
            ASSERT_EQ(released.Get(), round - 1) << "one signal released two waits";
            event.SetEvent();
            ASSERT_TRUE(released.WaitAtLeast(round, milliseconds(500))) << "signal lost";
        }
        ASSERT_TRUE(WaitForWaiters(event, kWaiters));
        EXPECT_EQ(released.Get(), kRounds);
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
    // The signal wakes the blocked waiter, but a second wait checks the flag first and takes it:
    // the woken waiter must go back to sleep rather than count the same signal again.
    constexpr int kRounds = 50;
    CSyncEvent event(true);
    CSyncEvent* events[] = {&event};
    std::atomic<bool> stop{false};
    comm_test::Counter woken;
    std::thread waiter([&] {
        while (!stop) {
            if (WaitForObjects(1, events, false, 5000) != 0 || stop)
                continue;
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
                // Give the woken waiter time to (wrongly) count the signal too.
                ASSERT_FALSE(woken.WaitAtLeast(round - taken + 1, milliseconds(20)))
                    << "one signal released two waits";
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
    // Whether the second wait ever won the race depends on the scheduler; on a busy machine the
    // woken waiter may win every round, which is no fault. The count is recorded for the report.
    RecordProperty("rounds_taken_by_the_racing_wait", taken);
}

TEST(SyncEventTest, AutoResetSignalGoesOnWhenItsWaiterLeavesWithAnotherEvent) {
    // The first waiter of the auto-reset event also waits for a manual one, which is signalled
    // just before: it leaves with the manual event, and the auto-reset signal it was handed must
    // reach the second waiter instead of staying in the flag while that one sleeps.
    constexpr int kRounds = 20;
    CSyncEvent automatic(true);
    CSyncEvent manual(false);
    for (int round = 0; round < kRounds; ++round) {
        CSyncEvent* both[] = {&manual, &automatic};
        CSyncEvent* one[] = {&automatic};
        uint32_t firstResult = 0xDEAD;
        uint32_t secondResult = 0xDEAD;
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
    // Each round the setter and the waiter start together, so the signal lands before, during
    // or after the waiter's registration and check. A lost wake-up shows as a wait that lasts
    // until its time-out (after which the final check still finds the flag).
    constexpr int kRounds = 5000;
    CSyncEvent automatic(true);
    CSyncEvent manual(false);
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
        if (round % 2 == 0) {
            automatic.SetEvent();
        } else {
            manual.SetEvent();
        }
        start.ArriveAndWait();
    }
    waiter.join();
    ASSERT_EQ(rounds.load(), kRounds) << "wake-up lost in round " << rounds - 1;
    for (int round = 0; round < kRounds; ++round) {
        ASSERT_EQ(results[round], static_cast<uint32_t>(round % 2)) << "round " << round;
        ASSERT_LT(durations[round], 1500) << "wake-up lost in round " << round;
    }
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
