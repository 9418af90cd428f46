// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_WORLD_RECORD_H_
#define AGENT_WORLD_RECORD_H_

#include <string>
#include <vector>

namespace sim {

/**
 * Runs a command as a client of the agent that runs here, writes what that answers as a scenario, and
 * returns the exit status to end with. The calling process must have a single thread.
 */
int Record(const std::string& file, const std::vector<std::string>& command);

}  // namespace sim

#endif  // AGENT_WORLD_RECORD_H_
