// What the benchmark programs share on top of the tests' support library: children of the
// running program and latency percentiles.
#ifndef BENCH_BENCHSUPPORT_H_
#define BENCH_BENCHSUPPORT_H_

#include <benchmark/benchmark.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/IpcSupport.h"

namespace qvbench {

using Clock = std::chrono::steady_clock;

inline double SecondsSince(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

// Service names of their own and their clean-up, and whole reads and writes: the tests' own.
inline std::string NewGuid() { return qvtest::TestGuid(); }
using qvtest::ReadFull;
using qvtest::RemoveGuidFiles;
using qvtest::WriteFull;

// Runs this program again with args (argv[1] onwards) in a child; fds listed in keepFds stay
// open in it, every other descriptor made here is close-on-exec. Returns the child's pid.
pid_t SpawnSelf(const std::vector<std::string>& args, const std::vector<int>& keepFds);
// SIGTERM (or the given signal), then reaps the child.
void StopChild(pid_t pid, int sig = 15);
void WaitChild(pid_t pid);

// A pipe whose ends are close-on-exec; SpawnSelf's keepFds clears the flag in the child.
bool MakePipe(int fds[2]);

// Round-trip latencies of one benchmark run: each is also the iteration's manual time, and
// Report sets the median and the 99th percentile (microseconds) as counters.
class CLatencies {
public:
    void add(double seconds) { m_samples.push_back(seconds); }
    void report(benchmark::State& state);

private:
    std::vector<double> m_samples;
};

}  // namespace qvbench

#endif  // BENCH_BENCHSUPPORT_H_
