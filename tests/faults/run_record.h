/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_TESTS_FAULTS_RUN_RECORD_H_
#define SVCMGR_TESTS_FAULTS_RUN_RECORD_H_

/* What a run tells the process that has started it, in memory that both share. */

#include <array>

#include "owners.h"
#include "stacks.h"

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
  kNothingFailed,
};

struct RunRecord {
  static constexpr long kMostCalls = 1 << 21;

  Ending ending;
  long counted[kFamilies];
  long injected;
  long verdicts;            // that the test has asked for
  StackTable::Number site;  // in the SiteRecord, of the call that failed first
  char finding[1024];       // the first; empty for none
  Caller where;             // of the finding
  // Of a run in which nothing fails.
  StackTable stacks;
  StackTable::Number calls[kFamilies][kMostCalls];  // the stack of the n-th call
};

/** Places of the library where something has failed. */
struct SiteRecord {
  StackTable stacks;
  std::array<bool, StackTable::kMost> judged;  // a run that failed there first came to its end
};

}  // namespace faults

#endif  // SVCMGR_TESTS_FAULTS_RUN_RECORD_H_
