// SPDX-License-Identifier: Apache-2.0
#include "UpdateObserver.h"

#include "AgentStatusEventHandler.h"
#include "SvcMgrAppProxyHandler.h"
#include "agent_update_state.h"
#include "event_data.h"
#include "frame.h"

void AgentEventCallback(const char* event_name, bundle* data, void*) try {
  const AgentStatusEventHandler& watch = AgentStatusEventHandler::GetInstance();
  if (!watch.IsNamed(event_name)) return;
  if (svcmgr::HoldsText(data, "Update")) {
    PrepareSvcmgrUpdate();
    return;
  }
  SvcMgrAppProxyHandler& context = SvcMgrAppProxyHandler::GetInstance();
  const bool launched = svcmgr::HoldsText(data, "Launch");
  if (!launched || !watch.IsConnectionKept() || context.IsConnected()) return;
  svcmgr::agent_update_state.RelaunchAgent();
  // Ends the subscription that called this function: nothing may follow.
  context.Reconnect();
}
RETURN_ON_EXCEPTION();

void PrepareSvcmgrUpdate() {
  svcmgr::agent_update_state.AnnounceAgentUpdate();
  CLIENT_INFO(
      "The connection to the proxy will be disconnected soonas the service-manager is updated.");
}
