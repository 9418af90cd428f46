// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SERVICE_EVENTS_H_
#define AGENT_SERVICE_EVENTS_H_

#include <string>
#include <vector>

#include "scenario/steps.h"

namespace sim {

/**
 * Makes this process the one whose events are the agent's. Throws if another process already is. A
 * bus that is missing or does not answer is not an error: a record in the log says what is lost.
 */
void OwnName(const std::string& id);

/**
 * Sends an event of the agent `id`. `agents` are those that an update was asked for; none means
 * the agent itself. Without a bus the event is lost, with a record in the log.
 */
void Publish(const std::string& id, const Broadcast& broadcast,
             const std::vector<std::string>& agents = {});

}  // namespace sim

#endif  // AGENT_SERVICE_EVENTS_H_
