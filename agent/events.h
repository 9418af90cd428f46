// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_EVENTS_H
#define AGENT_EVENTS_H

#include <string>
#include <vector>

#include "steps.h"

namespace sim {

/**
 * Sends an event of the agent `id`. `agents` are those that an update was asked for; none stands for
 * the agent itself. Without a bus the event is lost, with a record in the log.
 */
void Publish(const std::string& id, const Broadcast& broadcast,
             const std::vector<std::string>& agents = {});

}  // namespace sim

#endif  // AGENT_EVENTS_H
