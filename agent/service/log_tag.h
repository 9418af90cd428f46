// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SERVICE_LOG_TAG_H_
#define AGENT_SERVICE_LOG_TAG_H_

namespace sim {

/** The tag of the agent's records in the platform's log. */
inline constexpr char kLogTag[] = "SVCMGR_SIM_AGENT";

}  // namespace sim

#endif  // AGENT_SERVICE_LOG_TAG_H_
