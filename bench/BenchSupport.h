// Pieces shared by the benchmark programs: the raw Unix-socket frame helpers of the yardstick
// round trip, and a reporter that keeps each run's time per iteration for the ratios printed at
// the end of a program.
#ifndef TIDEWAY_BENCH_BENCHSUPPORT_H_
#define TIDEWAY_BENCH_BENCHSUPPORT_H_

#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

namespace bench_support {

// Writes all `n` bytes; false when the socket fails.
inline bool WriteAllRaw(int fd, const char* data, size_t n) {
    while (n > 0) {
        const ssize_t sent = write(fd, data, n);
        if (sent <= 0)
            return false;
        data += sent;
        n -= static_cast<size_t>(sent);
    }
    return true;
}

// Reads one whole frame (4-byte length + payload) into `buffer`; false at end of stream.
inline bool ReadFrameRaw(int fd, std::vector<char>& buffer) {
    size_t have = 0;
    size_t want = 4;
    for (;;) {
        if (buffer.size() < want)
            buffer.resize(want);
        const ssize_t got = read(fd, buffer.data() + have, buffer.size() - have);
        if (got <= 0)
            return false;
        have += static_cast<size_t>(got);
        if (have >= 4) {
            uint32_t length = 0;
            memcpy(&length, buffer.data(), 4);
            want = 4 + size_t{length};
            if (have >= want)
                return true;
        }
    }
}

// A connected AF_UNIX stream pair whose far end echoes every frame back: the yardstick for the
// module's round trips. `fd` is the near end; ok() is false when the pair could not be made.
class EchoPair {
  public:
    EchoPair() {
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0)
            return;
        fd = pair[0];
        m_Far = pair[1];
        m_Echo = std::thread([far = m_Far] {
            std::vector<char> buffer(64 * 1024);
            while (ReadFrameRaw(far, buffer)) {
                uint32_t length = 0;
                memcpy(&length, buffer.data(), 4);
                if (!WriteAllRaw(far, buffer.data(), 4 + size_t{length}))
                    break;
            }
        });
    }
    ~EchoPair() {
        if (fd < 0)
            return;
        shutdown(fd, SHUT_RDWR);
        m_Echo.join();
        close(fd);
        close(m_Far);
    }
    EchoPair(const EchoPair&) = delete;
    EchoPair& operator=(const EchoPair&) = delete;
    bool ok() const { return fd >= 0; }

    int fd = -1;

  private:
    int m_Far = -1;
    std::thread m_Echo;
};

// Keeps the time per iteration (in ns) of every run by name; with --benchmark_repetitions the
// median stands for the benchmark (it comes last).
class TimeKeepingReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if ((run.run_type == Run::RT_Iteration || median) && !run.error_occurred) {
                m_Nanos[run.run_name.str()] =
                    run.GetAdjustedRealTime() *
                    benchmark::GetTimeUnitMultiplier(benchmark::kNanosecond) /
                    benchmark::GetTimeUnitMultiplier(run.time_unit);
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

  protected:
    std::map<std::string, double> m_Nanos;
};

}  // namespace bench_support

#endif  // TIDEWAY_BENCH_BENCHSUPPORT_H_
