// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SERVICE_BUS_BARRIER_H_
#define AGENT_SERVICE_BUS_BARRIER_H_

#include <string>

namespace sim {

/**
 * Waits until everybody on the session bus but the owner of the name `own` has taken in what was sent
 * there before the call. Neither a peer that does not run its main loop nor a bus that does not
 * answer is waited for longer than two seconds.
 *
 * A process that ends right after an announcement would race with it: its clients hear of both on
 * different sockets.
 */
void AwaitBusPeers(const std::string& own);

}  // namespace sim

#endif  // AGENT_SERVICE_BUS_BARRIER_H_
