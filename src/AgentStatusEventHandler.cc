// SPDX-License-Identifier: Apache-2.0
#include "AgentStatusEventHandler.h"

#include "UpdateObserver.h"
#include "thread_exit.h"

AgentStatusEventHandler::AgentStatusEventHandler()
    : event_("event." AGENT_PACKAGE_ID ".agent_status") {
  event_.event_callback = AgentEventCallback;
}

void AgentStatusEventHandler::KeepConnection() {
  CLIENT_INFO("Keep the CONNECTION");
  // Whether or not the subscription succeeds: the next connection tries it again.
  keep_connection_ = true;
  try {
    event_.RegisterEvent();
    // The connection may have been ended inside the subscription.
    if (!keep_connection_) event_.DeregisterEvent();
  }
  LET_THREAD_EXIT_PASS
  catch (...) {
    CLIENT_ERROR("Failed to register event");
  }
}

void AgentStatusEventHandler::DontCareConnection() {
  CLIENT_INFO("Don't care about CONNECTION");
  keep_connection_ = false;
  try {
    event_.DeregisterEvent();
  }
  LET_THREAD_EXIT_PASS
  catch (...) {
    CLIENT_ERROR("Failed to deregister event");
  }
}
