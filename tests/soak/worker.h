// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SOAK_WORKER_H_
#define TESTS_SOAK_WORKER_H_

#include <cstdint>
#include <string>

#include "client.h"

namespace soak {

/** What befalls a world. */
enum class Trouble {
  kKills,  // of the agent, at random moments and at its marks
  kStops,  // of the agent, of a client, of the session bus; each goes on after a while
  kBuses,  // the session bus is killed and another one begins, with and without a kill of the agent
};

struct WorkerOptions {
  Trouble trouble = Trouble::kKills;
  int count = 0;  // how often
  std::uint32_t seed = 0;
  std::string folder;  // for logs, one of each client, and "worker.json", which tells of the rest
  Plant plant = Plant::kNone;
};

/**
 * Runs clients in the world that surrounds this process, and troubles them. The process must not
 * have called the library. Returns the exit status; what was not as it has to be is in worker.json.
 */
int RunWorker(const WorkerOptions& options);

}  // namespace soak

#endif  // TESTS_SOAK_WORKER_H_
