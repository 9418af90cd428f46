// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SCENARIO_STEPS_H_
#define AGENT_SCENARIO_STEPS_H_

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "scenario/object_reader.h"
#include "scenario/package.h"

namespace sim {

/** An event of the agent: the last part of its name, and what it carries. */
struct Broadcast {
  std::string event;
  std::map<std::string, std::string> texts;
  std::map<std::string, std::vector<std::string>> lists;
  std::map<std::string, std::int32_t> numbers;
  bool names_agents = false;  // the agents that an update was asked for stand under "Start"
};

/** One thing that the agent does in an update. */
struct Step {
  enum class Action {
    kBroadcast,
    kWait,
    kInstall,  // installs a package, or replaces it
    kRestart,  // ends, and is replaced by a new process
    kKill,     // dies without a word
    kUpdate,   // goes through the scenario's update
    kRemove,   // removes a package
    kPermit,   // changes which clients its own package admits
    kAdmit,    // changes which clients it accepts
    kDrop,     // ends connections
    kClose,    // ends all connections, and serves nobody until its next process does
    kKillBus,  // kills the session bus
    kLevel,    // changes its API level
  };

  Action action = Action::kBroadcast;
  Broadcast broadcast;
  std::int32_t number = 0;  // kWait: milliseconds of the scenario; kLevel
  Package package;          // kInstall, kRemove; no ID: its own; no version: the next one
  Admission admission;      // kAdmit
  Patterns clients;         // kPermit, kDrop
};

using Steps = std::vector<Step>;

/** Where steps are written: only those from outside may ask for the scenario's own update. */
enum class StepsFrom { kScenario, kOutside };

/** Reads a list of steps; notes what is wrong with it. */
Steps ReadSteps(const Value& list, StepsFrom from);

/** Reads a document that is a list of steps from outside. Throws ScenarioError. */
Steps ReadStepsDocument(std::string_view document, const std::string& name);

/** The steps of an update where the scenario names none: "Start", then "Complete". */
Steps UsualUpdate();

/** What an agent that has died in an update does when it comes back: "Launch", then "Fail". */
Steps UsualRecovery();

/** The step that announces that the agent runs. */
Step LaunchStep();

/** The step that reports the status of model work: "START", "COMPLETED" or "FAILED". */
Step ModelStatusStep(const char* status);

}  // namespace sim

#endif  // AGENT_SCENARIO_STEPS_H_
