// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_AGENT_PACKAGE_H_
#define SVCMGR_AGENT_PACKAGE_H_

// What the installed package of the agent tells.

namespace svcmgr {

constexpr int kAgentLevelNone = -1;
constexpr int kAgentLevelModels = 8;
constexpr int kAgentLevelLists = 11;
constexpr int kAgentLevelCategories = 11;

bool IsAgentMissing();

// The level of the installed agent, or kAgentLevelNone.
int AgentLevel();

}  // namespace svcmgr

#endif  // SVCMGR_AGENT_PACKAGE_H_
