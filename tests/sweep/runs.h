// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SWEEP_RUNS_H_
#define TESTS_SWEEP_RUNS_H_

#include <string>
#include <vector>

#include "client.h"
#include "run_record.h"

namespace sweep {

/** What a run is judged to be. */
enum class Verdict {
  kPassed,
  kGlibAbort,  // GLib ends a process whose g_malloc fails
  kAssertion,  // velmora_svcmgr_get_client_api_level, as the public header says
  kFailed,
};

struct Judgement {
  Verdict verdict = Verdict::kPassed;
  std::string why;
  std::vector<std::string> stack;  // where `why` happened, if not at the failing allocation
};

/** A run, and what is known of it. */
struct Outcome {
  Judgement judgement;
  bool injected = false;
  Stack allocation;  // the first that failed
  Stack last_allocation;
  std::string doing;
  bool lost = false;
  bool stranded = false;
  std::string errors;  // the last that the client wrote to standard error
};

/** What a run in which nothing fails leaves; others are measured by it. */
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
  explicit Runs(Plant plant);
  ~Runs();
  Runs(const Runs&) = delete;
  Runs& operator=(const Runs&) = delete;

  /** Runs a client in which nothing fails, and takes it as the reference. */
  Outcome Measure(From from);

  /** Runs a client. */
  Outcome Run(const Injection& injection);

 private:
  int Start(const Injection& injection, void* kept_caller);
  Judgement Judge(int status) const;
  Judgement JudgeDeath() const;
  Outcome Tell(Judgement judgement) const;
  std::string Errors() const;
  void* PlaceWithMoreBlocks() const;
  /** Whether it left more than the reference did; runs it again, to see what and to be sure. */
  Judgement JudgeWhatIsLeft(const Injection& injection);

  const Plant plant_;
  RunRecord* record_;
  int errors_;
  Reference reference_;
};

}  // namespace sweep

#endif  // TESTS_SWEEP_RUNS_H_
