// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SCENARIO_SCENARIO_READER_H_
#define AGENT_SCENARIO_SCENARIO_READER_H_

#include <string>
#include <string_view>

#include "scenario/problems.h"
#include "scenario/scenario.h"

namespace sim {

/**
 * Reads a scenario. `name` is what messages call it; `folder` is where relative paths start, empty
 * where there is no such folder. Throws ScenarioError.
 */
Scenario ReadScenario(std::string_view document, const std::string& name,
                      const std::string& folder);

}  // namespace sim

#endif  // AGENT_SCENARIO_SCENARIO_READER_H_
