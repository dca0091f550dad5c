// Pieces shared by the benchmark programs: the raw Unix-socket frame helpers of the yardstick
// round trip, and a reporter that keeps each run's time per iteration for the ratios printed at
// the end of a program.
#ifndef TIDEWAY_BENCH_BENCHSUPPORT_H_
#define TIDEWAY_BENCH_BENCHSUPPORT_H_

#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <string>
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
