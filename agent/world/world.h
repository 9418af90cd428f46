// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_WORLD_WORLD_H_
#define AGENT_WORLD_WORLD_H_

#include <string>
#include <system_error>

#include "scenario/scenario.h"
#include "world/child.h"

namespace sim {

/**
 * A private folder in which one agent and its clients live:
 *
 *   run/         the runtime folder, where ports are
 *   packages/    the installed packages
 *   app/res/     the client application's root and its resources, unless the scenario has others
 *   xdg/         the agent's home
 *   agent.log    what the agent prints
 *   agent.pid    the agent's process ID
 *   bus          the session bus, with bus.conf, bus.log and bus.pid
 *   control      where the agent takes steps from outside
 *   journal      what the agent leaves for the process that follows it
 *   trace.jsonl  what has happened
 */
class World {
 public:
  /** Takes over an empty folder and installs the packages there. Throws std::exception. */
  World(const Scenario& scenario, const std::string& folder);

  /** Removes the folder, unless it is kept. */
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  void Keep() { kept_ = true; }

  const std::string& folder() const { return folder_; }
  std::string log_file() const { return folder_ + "/agent.log"; }
  std::string pid_file() const { return folder_ + "/agent.pid"; }
  std::string control_file() const { return folder_ + "/control"; }
  std::string journal_file() const { return folder_ + "/journal"; }
  std::string trace_file() const { return folder_ + "/trace.jsonl"; }

  /** Where the session bus is, whether there is one or not. */
  std::string bus_address() const;

  /** What the command's environment has that this process's has not. */
  EnvironmentChanges ClientEnvironment(const Client& client) const;
  EnvironmentChanges AgentEnvironment(const Agent& agent) const;

 private:
  void Furnish(const Scenario& scenario);
  void Install(const Package& package) const;

  std::string folder_;
  bool kept_ = false;
};

/** Makes an empty folder, mode 0700, below TMPDIR or /tmp. Throws std::system_error. */
std::string MakeWorldFolder();

/** What MakeWorldFolder throws: it names where the folder was to be. */
std::system_error NoWorldFolder(int reason);

/** Removes a folder with all that is in it, even while others write there. False if it remains. */
bool RemoveTree(const std::string& folder);

}  // namespace sim

#endif  // AGENT_WORLD_WORLD_H_
