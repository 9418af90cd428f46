// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_WORLD_COMMAND_H_
#define AGENT_WORLD_COMMAND_H_

#include <signal.h>
#include <sys/signalfd.h>

#include <optional>
#include <string>

#include "unique_fd.h"
#include "world/child.h"

namespace sim {

/**
 * The signals that this process takes one by one, SIGCHLD among them; their previous actions are kept
 * for its children. Throws std::runtime_error.
 */
class Signals {
 public:
  Signals();

  int fd() const { return fd_.get(); }
  const sigset_t& mask() const { return mask_; }
  const struct sigaction& child_action() const { return child_action_; }

  /** The next one that has arrived. */
  std::optional<signalfd_siginfo> Next() const;

 private:
  sigset_t mask_;
  struct sigaction child_action_;
  base::UniqueFd fd_;
};

/** The exit status that stands for how a child has ended, as waitpid tells it. */
int ExitStatus(int raw);

/** Says why a command could not be started; the exit status that stands for it. */
int ReportStartError(const std::string& command, const StartError& error);

}  // namespace sim

#endif  // AGENT_WORLD_COMMAND_H_
