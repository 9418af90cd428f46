// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SCENARIO_SCENARIO_FILES_H_
#define AGENT_SCENARIO_SCENARIO_FILES_H_

#include <optional>
#include <string>
#include <vector>

namespace sim {

/** Reads a file; says why it cannot be read, nothing if it was. */
std::optional<std::string> ReadFile(const std::string& path, std::string* content);

/** A scenario's text and where it came from. */
struct ScenarioSource {
  std::string name;      // for messages
  std::string document;  // JSON
  std::string folder;    // absolute; empty for a scenario that ships
};

/**
 * Finds a scenario: a name with a slash or with the ending ".json" is a file, any other name is one
 * of the scenarios that ship. Throws ScenarioError.
 */
ScenarioSource FindScenario(const std::string& name);

/** A scenario that ships inside the program. */
struct ShippedScenario {
  const char* name;
  const char* document;
};

/** All of them, sorted by name. */
const std::vector<ShippedScenario>& ShippedScenarios();

}  // namespace sim

#endif  // AGENT_SCENARIO_SCENARIO_FILES_H_
