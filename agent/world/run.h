// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_WORLD_RUN_H_
#define AGENT_WORLD_RUN_H_

#include <optional>
#include <string>
#include <vector>

#include "scenario/scenario.h"
#include "scenario/scenario_files.h"

namespace sim {

/** Exit statuses of svcmgr-sim beside those of the command, as shells and env(1) have them. */
constexpr int kOwnFailure = 125;
constexpr int kNotExecutable = 126;
constexpr int kNotFound = 127;
constexpr int kKilledBy = 128;  // plus the signal

struct RunOptions {
  bool keep = false;     // leave the world's folder behind
  bool verbose = false;  // the agent prints to standard error, and more
  std::optional<double> time_scale;
  bool untraced = false;              // the world keeps no trace of its own
  std::vector<std::string> traces;    // files for the trace; "-": standard error, in words
  std::vector<std::string> captures;  // files for what goes over the sockets, as pcapng
  std::vector<std::string> command;
};

/**
 * Runs a command in a world of its own and returns the exit status to end with. The calling process
 * must have a single thread. `source` is the text that `scenario` was read from.
 */
int RunInWorld(const ScenarioSource& source, const Scenario& scenario, const RunOptions& options);

}  // namespace sim

#endif  // AGENT_WORLD_RUN_H_
