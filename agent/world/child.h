// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_WORLD_CHILD_H_
#define AGENT_WORLD_CHILD_H_

#include <signal.h>
#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace sim {

/** Changes to the environment: a name and its value, or a name to be removed. */
struct EnvironmentChanges {
  std::vector<std::pair<std::string, std::string>> set;
  std::vector<std::string> unset;
};

/** How a child process starts. Beyond 0, 1, 2 it inherits no descriptors but `passed`. */
struct ChildSetup {
  const char* program = nullptr;  // null: the first argument, looked up along PATH
  std::vector<std::string> arguments;
  EnvironmentChanges environment;
  sigset_t signal_mask;
  struct sigaction child_action;  // what SIGCHLD did when this process started
  bool detached = false;          // a session of its own, and nothing to read
  int output = -1;                // in place of both outputs, unless -1
  std::vector<int> passed;        // become the descriptors from kFirstPassedFd on
};

constexpr int kFirstPassedFd = 3;

/** A child that could not be started: why, as an errno. */
struct StartError {
  int reason;
};

/**
 * Starts a child that dies when this process dies, and returns as soon as its program runs. The
 * calling process must have a single thread. Throws StartError.
 */
pid_t StartChild(const ChildSetup& setup);

}  // namespace sim

#endif  // AGENT_WORLD_CHILD_H_
