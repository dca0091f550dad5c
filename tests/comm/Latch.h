// Test-side synchronisation built on the standard library only, so that tests of the event and
// the queue do not lean on the code they test.
#ifndef TIDEWAY_TESTS_COMM_LATCH_H_
#define TIDEWAY_TESTS_COMM_LATCH_H_

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace comm_test {

// Counts down once per arrival; Wait returns when the count reached zero.
class Latch {
  public:
    explicit Latch(int count) : m_Count(count) {}
    void CountDown() {
        std::lock_guard<std::mutex> guard(m_Mutex);
        if (m_Count > 0 && --m_Count == 0)
            m_Cond.notify_all();
    }
    void Wait() {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Cond.wait(lock, [this] { return m_Count == 0; });
    }
    // False when `timeout` ran out first.
    bool WaitFor(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Cond.wait_for(lock, timeout, [this] { return m_Count == 0; });
    }

  private:
    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    int m_Count;
};

// A counter that others can wait on until it reaches a value.
class Counter {
  public:
    void Add() {
        std::lock_guard<std::mutex> guard(m_Mutex);
        ++m_Value;
        m_Cond.notify_all();
    }
    bool WaitAtLeast(int value, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Cond.wait_for(lock, timeout, [&] { return m_Value >= value; });
    }
    int Get() {
        std::lock_guard<std::mutex> guard(m_Mutex);
        return m_Value;
    }

  private:
    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    int m_Value = 0;
};

// A reusable meeting point for a fixed number of threads.
class Barrier {
  public:
    explicit Barrier(int count) : m_Count(count) {}
    void ArriveAndWait() {
        std::unique_lock<std::mutex> lock(m_Mutex);
        const unsigned generation = m_Generation;
        if (++m_Arrived == m_Count) {
            m_Arrived = 0;
            ++m_Generation;
            m_Cond.notify_all();
            return;
        }
        m_Cond.wait(lock, [&] { return m_Generation != generation; });
    }

  private:
    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    const int m_Count;
    int m_Arrived = 0;
    unsigned m_Generation = 0;
};

inline long ElapsedMs(std::chrono::steady_clock::time_point since) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::steady_clock::now() - since)
                                 .count());
}

}  // namespace comm_test

#endif  // TIDEWAY_TESTS_COMM_LATCH_H_
