// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SWEEP_RUNS_H_
#define TESTS_SWEEP_RUNS_H_

#include <string>
#include <vector>

#include "run_record.h"

namespace sweep {

/** What a run is judged to be. */
enum class Verdict {
  kPassed,
  kGlibAbort,   // GLib ends a process whose g_malloc fails
  kAssertion,   // velmora_svcmgr_get_client_api_level, as the public header says
  kFailed,
};

struct Judgement {
  Verdict verdict = Verdict::kPassed;
  std::string why;
  std::vector<std::string> stack;  // of what `why` tells of, if it is not the failing allocation
};

/** What holds after a run in which nothing failed; others are measured by it. */
struct Reference {
  int descriptors = 0;
  std::vector<LiveBlocks> places;
};

/**
 * Runs clients, one after the other, each in a process forked from this one, which must not have
 * called the library.
 */
class Runs {
 public:
  Runs();
  ~Runs();
  Runs(const Runs&) = delete;
  Runs& operator=(const Runs&) = delete;

  /** Runs a client in which nothing fails, and takes it as the reference. */
  Judgement Measure(From from);

  /** Runs a client. */
  Judgement Run(const Injection& injection);

  /** What the last client told; valid until the next run. */
  const RunRecord& record() const { return *record_; }
  /** The last lines that it wrote to standard error. */
  std::string Errors() const;

 private:
  int Start(const Injection& injection, void* kept_caller);
  Judgement Judge(int status, bool hung) const;
  Judgement JudgeDeath() const;
  Judgement JudgeWhatIsLeft(const Injection& injection);

  RunRecord* record_;
  int errors_;
  Reference reference_;
};

}  // namespace sweep

#endif  // TESTS_SWEEP_RUNS_H_
