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
    std::vector<int> turns(kWaiters, 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < kWaiters; ++i) {
        threads.emplace_back([&, i] {
            for (;;) {
                if (WaitForObjects(1, events, false, kWaitInfinite) != 0)
                    return;
                if (stop)
                    return;
                ++turns[i];
                released.Add();
            }
        });
    }
    for (int round = 1; round <= kRounds; ++round) {
        // Every waiter is back in its wait, so every earlier release has been counted.
        ASSERT_TRUE(WaitForWaiters(event, kWaiters));
        ASSERT_EQ(released.Get(), round - 1) << "one signal released two waits";
        event.SetEvent();
        ASSERT_TRUE(released.WaitAtLeast(round, milliseconds(10000))) << "signal lost";
    }
    ASSERT_TRUE(WaitForWaiters(event, kWaiters));
    EXPECT_EQ(released.Get(), kRounds);
    stop = true;
    for (int i = kWaiters; i > 0; --i) {
        ASSERT_TRUE(WaitForWaiters(event, static_cast<size_t>(i)));
        event.SetEvent();
    }
    for (std::thread& thread : threads)
        thread.join();
    for (int i = 0; i < kWaiters; ++i)
        EXPECT_GT(turns[i], 0) << "waiter " << i << " never woke";
}

TEST(SyncEventTest, SignalRacingTheWaitIsNeverLost) {
    // Each round the setter and the waiter start together, so the signal lands before, during
    // or after the waiter's registration and check. A lost wake-up shows as a time-out.
    constexpr int kRounds = 1000;
    CSyncEvent automatic(true);
    CSyncEvent manual(false);
    CSyncEvent* events[] = {&automatic, &manual};
    comm_test::Barrier start(2);
    std::vector<uint32_t> results(kRounds, 0);
    std::thread waiter([&] {
        for (int round = 0; round < kRounds; ++round) {
            start.ArriveAndWait();
            results[round] = WaitForObjects(2, events, false, 10000);
            manual.ResetEvent();
            start.ArriveAndWait();
        }
    });
    for (int round = 0; round < kRounds; ++round) {
        start.ArriveAndWait();
        if (round % 2 == 0) {
            automatic.SetEvent();
        } else {
            manual.SetEvent();
        }
        start.ArriveAndWait();
    }
    waiter.join();
    for (int round = 0; round < kRounds; ++round) {
        ASSERT_EQ(results[round], static_cast<uint32_t>(round % 2)) << "round " << round;
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
