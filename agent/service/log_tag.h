// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SERVICE_LOG_TAG_H
#define AGENT_SERVICE_LOG_TAG_H

namespace sim {

/** What the agent's records in the platform's log are found by. */
inline constexpr char kLogTag[] = "SVCMGR_SIM_AGENT";

}  // namespace sim

#endif  // AGENT_SERVICE_LOG_TAG_H
