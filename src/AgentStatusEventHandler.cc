// SPDX-License-Identifier: Apache-2.0
#include "AgentStatusEventHandler.h"

AgentStatusEventHandler& AgentStatusEventHandler::GetInstance() {
  static AgentStatusEventHandler instance;
  return instance;
}

// The agent's status events are not watched yet: its own update is seen as a lost connection.
void AgentStatusEventHandler::KeepConnection() {}
void AgentStatusEventHandler::DontCareConnection() {}
