// SPDX-License-Identifier: Apache-2.0
#include "agent_world.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "scenario/scenario_reader.h"
#include "unique_fd.h"
#include "world/child.h"

AgentWorld::AgentWorld(const std::string& document)
    : file_(folder_.Write("scenario.json", document)),
      scenario_(sim::ReadScenario(document, "scenario.json", folder_.path())) {
  world_.emplace(scenario_, sim::MakeWorldFolder());
  for (const auto& [name, value] : world_->ClientEnvironment(scenario_.client).set) {
    setenv(name.c_str(), value.c_str(), 1);
  }
  if (scenario_.agent.running) {
    Start();
  }
}

void AgentWorld::Start() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  base::UniqueFd ready(ends[0]);
  base::UniqueFd told(ends[1]);
  sim::ChildSetup setup;
  setup.program = SVCMGR_SIM;
  setup.arguments = {"svcmgr-sim-agent", "agent", file_, "--folder", folder_.path()};
  setup.environment = world_->AgentEnvironment(scenario_.agent);
  setup.detached = true;
  setup.passed = {told.get()};
  sigprocmask(SIG_SETMASK, nullptr, &setup.signal_mask);
  sigaction(SIGCHLD, nullptr, &setup.child_action);
  agent_ = sim::StartChild(setup);
  told.Reset();
  char byte = 0;
  if (read(ready.get(), &byte, 1) != 1) {
    throw std::runtime_error("the agent does not start");
  }
}

AgentWorld::~AgentWorld() { End(); }

void AgentWorld::Restart() {
  End();
  Start();
}

void AgentWorld::Kill() {
  kill(agent_, SIGKILL);
  AwaitEnd();
}

void AgentWorld::End() {
  if (agent_ > 0) {
    kill(agent_, SIGTERM);
    EXPECT_EQ(AwaitEnd(), 0) << "the agent did not end well";
  }
}

int AgentWorld::AwaitEnd() {
  int status = 0;
  EXPECT_EQ(waitpid(agent_, &status, 0), agent_);
  agent_ = -1;
  return status;
}
