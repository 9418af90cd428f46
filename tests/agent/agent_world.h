// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_AGENT_AGENT_WORLD_H_
#define TESTS_AGENT_AGENT_WORLD_H_

#include <sys/types.h>

#include <optional>
#include <string>

#include "scenario/scenario.h"
#include "temp_folder.h"
#include "world/world.h"

/** A world with an agent process of its own; this process becomes a client application in it. */
class AgentWorld {
 public:
  /** Returns when the agent listens. `document` is the scenario. */
  explicit AgentWorld(const std::string& document);

  /** Ends the agent, and fails the test if it did not end well. */
  ~AgentWorld();
  AgentWorld(const AgentWorld&) = delete;
  AgentWorld& operator=(const AgentWorld&) = delete;

  /** Ends the agent and starts another in the same world. */
  void Restart();

  const std::string& folder() const { return world_->folder(); }

  /** Kills the agent. */
  void Kill();

  /** Waits for an agent that ends by itself, and tells how (as waitpid does). */
  int AwaitEnd();

 private:
  void Start();
  void End();

  TempFolder folder_;
  std::string file_;
  sim::Scenario scenario_;
  std::optional<sim::World> world_;
  pid_t agent_ = -1;
};

#endif  // TESTS_AGENT_AGENT_WORLD_H_
