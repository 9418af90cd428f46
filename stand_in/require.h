// SPDX-License-Identifier: Apache-2.0
#ifndef STAND_IN_REQUIRE_H_
#define STAND_IN_REQUIRE_H_

#include <cstdio>
#include <cstdlib>

// Ends the process, which is a finding for a fuzzer.
#define REQUIRE(condition)                                                           \
  do {                                                                               \
    if (!(condition)) {                                                              \
      std::fprintf(stderr, "%s:%d: not true: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                  \
    }                                                                                \
  } while (false)

#endif  // STAND_IN_REQUIRE_H_
