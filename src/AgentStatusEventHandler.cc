// SPDX-License-Identifier: Apache-2.0
#include "AgentStatusEventHandler.h"

#include "UpdateObserver.h"

AgentStatusEventHandler::AgentStatusEventHandler()
    : event_("event." AGENT_PACKAGE_ID ".agent_status") {
  event_.event_callback = AgentEventCallback;
}

void AgentStatusEventHandler::KeepConnection() {
  CLIENT_INFO("Keep the CONNECTION");
  // Whether or not the subscription succeeds: the next connection tries it again.
  keep_connection_ = true;
  event_.Subscribe(SVCMGR_HERE, [this] { return keep_connection_; });
}

void AgentStatusEventHandler::DontCareConnection() {
  CLIENT_INFO("Don't care about CONNECTION");
  keep_connection_ = false;
  event_.Unsubscribe(SVCMGR_HERE);
}
