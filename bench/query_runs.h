// SPDX-License-Identifier: Apache-2.0
#ifndef BENCH_QUERY_RUNS_H_
#define BENCH_QUERY_RUNS_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "times.h"

// What query_client, query_limit and the peers share: one kind of query, many times in a row.
//
//     PROGRAM int32|licence|models QUERIES MODELS
//
// prints the checksum of an answer (see checksum.h), and then the nanoseconds of each query, a line each.

struct QueryRuns {
  std::string kind;
  std::size_t queries;
  int models;  // in an answer to "models"
};

inline QueryRuns ReadQueryRuns(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s int32|licence|models QUERIES MODELS\n", argv[0]);
    std::exit(2);
  }
  return {argv[1], std::strtoul(argv[2], nullptr, 10), std::atoi(argv[3])};
}

// Runs a kind of query. `ask` returns what `release` takes after the time has been read; the last
// answer goes to `checksum_of` before.
template <typename Ask, typename ChecksumOfAnswer, typename Release>
void RunQueries(std::size_t queries, Ask ask, ChecksumOfAnswer checksum_of, Release release) {
  std::vector<Clock::duration> times(queries);
  std::uint64_t checksum = 0;
  for (std::size_t i = 0; i < queries; ++i) {
    const auto start = Clock::now();
    auto answer = ask();
    times[i] = Clock::now() - start;
    if (i + 1 == queries) checksum = checksum_of(answer);
    release(answer);
  }
  std::printf("%llu\n", static_cast<unsigned long long>(checksum));
  PrintTimes(times);
}

#endif  // BENCH_QUERY_RUNS_H_
