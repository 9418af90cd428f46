// SPDX-License-Identifier: Apache-2.0
#ifndef BENCH_PROMISES_H_
#define BENCH_PROMISES_H_

#include <benchmark/benchmark.h>

#include <vector>

// A bench measures some work and its limit, the least that any implementation has to do, in turns
// in the same run. What counts is the ratio of the two medians.
struct Promise {
  const char* work;      // what the report calls it
  const char* measured;  // the benchmark's name, with arguments as in "Name/100"
  const char* limit;     // the limit's name; null for work that is measured in nanoseconds
  double target;         // highest ratio, or nanoseconds
};

// Keeps this process, and those that it starts, on one CPU, and the memory that it releases in
// reach. Comes first in main.
void PrepareProcess();

// Runs all benchmarks, prints their medians, and one line for each promise. Returns the exit
// status; a missed target is only reported, because the machine may be to blame.
int RunBenches(int argc, char** argv, const std::vector<Promise>& promises);

// Says so if this build is not worth measuring.
void WarnOfBuild();

// Prints one promise's line. `spread` stands behind the figure.
void PrintPromise(const char* work, double measured, const char* unit, double target,
                  const char* spread = "");

#endif  // BENCH_PROMISES_H_
