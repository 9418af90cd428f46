// SPDX-License-Identifier: Apache-2.0
#ifndef BENCH_QUERY_RUNS_H_
#define BENCH_QUERY_RUNS_H_

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "times.h"

// What query_client and query_limit share: one kind of query, many times in a row.
//
//     PROGRAM int32|licence|models QUERIES MODELS
//
// prints the bytes of text in an answer, and then the nanoseconds of each query, a line each.

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
// answer goes to `size_of_texts` before.
template <typename Ask, typename SizeOfTexts, typename Release>
void RunQueries(std::size_t queries, Ask ask, SizeOfTexts size_of_texts, Release release) {
  std::vector<Clock::duration> times(queries);
  std::size_t bytes = 0;
  for (std::size_t i = 0; i < queries; ++i) {
    const auto start = Clock::now();
    auto answer = ask();
    times[i] = Clock::now() - start;
    if (i + 1 == queries) bytes = size_of_texts(answer);
    release(answer);
  }
  std::printf("%zu\n", bytes);
  PrintTimes(times);
}

#endif  // BENCH_QUERY_RUNS_H_
