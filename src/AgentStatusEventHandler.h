// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_AGENTSTATUSEVENTHANDLER_H_
#define SVCMGR_AGENTSTATUSEVENTHANDLER_H_

// The watch that keeps a connection across the agent's own update. The connection manager switches
// it on when a connection stands and off when the application ends it.
class AgentStatusEventHandler {
 public:
  static AgentStatusEventHandler& GetInstance();

  void KeepConnection();
  void DontCareConnection();
};

#endif  // SVCMGR_AGENTSTATUSEVENTHANDLER_H_
