// Test-side synchronisation outside the module, so that the event and queue tests do not lean
// on the code they test.
#ifndef TIDEWAY_TESTS_COMM_LATCH_H_
#define TIDEWAY_TESTS_COMM_LATCH_H_

#include <chrono>
#include <condition_variable>
#include <mutex>

#include <boost/thread/barrier.hpp>

namespace comm_test {

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
using Barrier = boost::barrier;

inline long ElapsedMs(std::chrono::steady_clock::time_point since) {
    using namespace std::chrono;
    return static_cast<long>(duration_cast<milliseconds>(steady_clock::now() - since).count());
}

}  // namespace comm_test

#endif  // TIDEWAY_TESTS_COMM_LATCH_H_
