// SPDX-License-Identifier: Apache-2.0
#ifndef BENCH_TIMES_H_
#define BENCH_TIMES_H_

#include <chrono>
#include <cstdio>
#include <vector>

// The same in all processes.
using Clock = std::chrono::steady_clock;

// In nanoseconds, a line each, as bench.py reads them.
inline void PrintTimes(const std::vector<Clock::duration>& times) {
  for (const auto time : times) {
    std::printf("%lld\n", static_cast<long long>(
                              std::chrono::duration_cast<std::chrono::nanoseconds>(time).count()));
  }
}

#endif  // BENCH_TIMES_H_
