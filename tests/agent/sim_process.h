// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_AGENT_SIM_PROCESS_H_
#define TESTS_AGENT_SIM_PROCESS_H_

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "unique_fd.h"

/** A process of svcmgr-sim, its outputs in pipes. */
class SimProcess {
 public:
  /** Starts it; `prepare` runs in the child before. */
  explicit SimProcess(const std::vector<std::string>& arguments,
                      const std::function<void()>& prepare = nullptr);

  /** Kills it if it still runs. */
  ~SimProcess();
  SimProcess(const SimProcess&) = delete;
  SimProcess& operator=(const SimProcess&) = delete;

  pid_t pid() const { return pid_; }
  void Signal(int signal) const;

  /** The next line that it prints, without its end. */
  std::string Line();

  /** Waits for its end; the exit status, or minus the signal that killed it. */
  int Await();

  /** What it has printed since, to the end; where it still runs, or others hold the output: blocks. */
  std::string Output();
  std::string Errors();

 private:
  void ReadToTheEndOf(const base::UniqueFd& output);

  pid_t pid_;
  base::UniqueFd output_;
  base::UniqueFd errors_;
  std::string output_text_;
  std::string errors_text_;
};

/** How a finished run went. */
struct Finished {
  int status;
  std::string output;
  std::string errors;
};

/** Runs svcmgr-sim to its end. */
Finished RunSim(const std::vector<std::string>& arguments,
                const std::function<void()>& prepare = nullptr);

#endif  // TESTS_AGENT_SIM_PROCESS_H_
