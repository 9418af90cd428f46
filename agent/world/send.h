// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_WORLD_SEND_H_
#define AGENT_WORLD_SEND_H_

#include <string>
#include <vector>

namespace sim {

/** The words that `svcmgr-sim send` knows, one line each. */
std::string HelpForSteps();

/** The words that stand for steps, without what may be behind "=". */
std::vector<std::string> StepWords();

/**
 * The steps that words stand for, as a JSON document: each word is a step, or JSON itself. Throws
 * std::runtime_error for a word that means nothing, ScenarioError for wrong steps.
 */
std::string StepsOfWords(const std::vector<std::string>& words);

/** Has the agent of this world take steps, and returns the exit status to end with. */
int Send(const std::vector<std::string>& words);

}  // namespace sim

#endif  // AGENT_WORLD_SEND_H_
