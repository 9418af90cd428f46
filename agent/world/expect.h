// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_WORLD_EXPECT_H_
#define AGENT_WORLD_EXPECT_H_

#include <string>
#include <vector>

namespace sim {

/** The environment variable that names the world's trace. */
constexpr char kTraceVariable[] = "SVCMGR_SIM_TRACE";

/**
 * Waits until the trace of this world shows what is expected, one condition after the other, and
 * returns the exit status to end with. Throws std::runtime_error for what is no condition, and where
 * there is no world.
 */
int Expect(const std::vector<std::string>& conditions, double seconds);

}  // namespace sim

#endif  // AGENT_WORLD_EXPECT_H_
