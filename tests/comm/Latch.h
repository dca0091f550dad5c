// Test-side synchronisation outside the module, so that the event and queue tests do not lean
// on the code they test.
#ifndef TIDEWAY_TESTS_COMM_LATCH_H_
#define TIDEWAY_TESTS_COMM_LATCH_H_

#include <chrono>
#include <functional>
#include <thread>

#include <boost/thread/barrier.hpp>

namespace comm_test {

// A reusable meeting point for a fixed number of threads.
using Barrier = boost::barrier;

inline long ElapsedMs(std::chrono::steady_clock::time_point since) {
    using namespace std::chrono;
    return static_cast<long>(duration_cast<milliseconds>(steady_clock::now() - since).count());
}

// Polls until `ready` holds or `timeout` passes, for states that no thread announces.
inline bool PollUntil(const std::function<bool()>& ready, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!ready() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    return ready();
}

}  // namespace comm_test

#endif  // TIDEWAY_TESTS_COMM_LATCH_H_
