// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_GUARDIAN_H
#define AGENT_GUARDIAN_H

#include <sys/types.h>

#include <string>

#include "unique_fd.h"

namespace sim {

/**
 * A small process that outlives this one if that is killed: it then ends the watched processes and
 * removes the world's folder. It has a session of its own and none of this process's descriptors.
 */
class Guardian {
 public:
  /** Starts it; without one (no process to be had) everything works but the clean-up after SIGKILL.
   */
  explicit Guardian(const std::string& folder);

  /** Sends it away. */
  ~Guardian();
  Guardian(const Guardian&) = delete;
  Guardian& operator=(const Guardian&) = delete;

  /** Adds a child of this process that must not outlive it. */
  void Watch(pid_t child);

 private:
  pid_t pid_ = -1;
  UniqueFd lifeline_;
};

}  // namespace sim

#endif  // AGENT_GUARDIAN_H
