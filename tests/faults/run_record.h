/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_TESTS_FAULTS_RUN_RECORD_H_
#define SVCMGR_TESTS_FAULTS_RUN_RECORD_H_

/* What a run tells the process that has started it, in memory that both share. */

#include <array>
#include <cstdint>

#include "owners.h"

namespace faults {

/** What fails: each family counts its calls by itself. */
enum class Family { kPlatform, kMemory, kFiles };
inline constexpr int kFamilies = 3;

enum class Ending {
  kGone,       // ended without a word
  kDone,       // judged to the end
  kGaveUp,     // the test's own code crashed on what a fault had left it
  kStranded,   // judged to the end, but for the connection: the platform tells nothing of it
  kAssertion,  // an assertion that the public header names
};

/** A function that may fail, by its index in FunctionNames(). */
using Function = std::uint8_t;

struct RunRecord {
  static constexpr long kMostCalls = 1 << 20;

  Ending ending;
  long counted[kFamilies];
  long injected;
  Function function;                      // that failed first
  char finding[1024];                     // the first; empty for none
  Caller where;                           // of the finding
  Function calls[kFamilies][kMostCalls];  // which function the n-th call was of
};

/** A place of the library where something failed. */
struct Site {
  Function function;
  Caller caller;
};

struct SiteRecord {
  static constexpr int kMostSites = 1 << 14;

  int count;
  std::array<Site, kMostSites> sites;
};

}  // namespace faults

#endif  // SVCMGR_TESTS_FAULTS_RUN_RECORD_H_
