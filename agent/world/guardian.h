// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_WORLD_GUARDIAN_H_
#define AGENT_WORLD_GUARDIAN_H_

#include <sys/types.h>

#include <string>

#include "unique_fd.h"

namespace sim {

/**
 * A small process that makes the world's folder and outlives this process if that is killed: it then
 * ends the watched processes and removes the folder. It has a session of its own and none of this
 * process's descriptors.
 */
class Guardian {
 public:
  /** Starts it and waits for the folder. Throws std::system_error. */
  Guardian();

  /** Sends it away. */
  ~Guardian();
  Guardian(const Guardian&) = delete;
  Guardian& operator=(const Guardian&) = delete;

  const std::string& folder() const { return folder_; }

  /** Adds a child of this process that must not outlive it. */
  void Watch(pid_t child);

 private:
  void AwaitFolder();

  pid_t pid_ = -1;
  base::UniqueFd lifeline_;
  std::string folder_;
};

}  // namespace sim

#endif  // AGENT_WORLD_GUARDIAN_H_
