// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SWEEP_RUN_RECORD_H_
#define TESTS_SWEEP_RUN_RECORD_H_

#include <atomic>

#include "failing_allocations.h"

namespace sweep {

/** Where counting begins. */
enum class From { kStart, kConnection };

/** Which allocations of one run fail. */
struct Injection {
  From from = From::kStart;
  long first = 0;  // from 1; 0: none
  long burst = 1;
};

/** How a client's run ended, as it says itself. */
enum class Ending {
  kNone,    // it has not come to an end
  kPassed,  // all was as it should be
  kFailed,  // `why` says what was not
};

/** What a client tells the process that started it, in memory that both share. */
struct RunRecord {
  static constexpr int kMostPlaces = 2048;

  Failures failures;
  /** Grows with all that the client does or hears. */
  std::atomic<long> progress{0};

  Ending ending = Ending::kNone;
  char why[512] = "";
  /** Whether the application was told of a loss, and whether that had to end the run. */
  bool lost = false;
  bool stranded = false;

  int death_signal = 0;
  Stack death;

  int descriptors = 0;
  int place_count = 0;
  LiveBlocks places[kMostPlaces] = {};
  Stack kept;  // see KeepStacksOf
};

}  // namespace sweep

#endif  // TESTS_SWEEP_RUN_RECORD_H_
