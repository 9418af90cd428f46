// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_AGENTSTATUSEVENTHANDLER_H_
#define SVCMGR_AGENTSTATUSEVENTHANDLER_H_

#include "Singleton.h"
#include "VorlaEventHandler.h"

// The watch that keeps a connection across the agent's own update. The client context switches
// it on when a connection stands and off when the connection is ended.
class AgentStatusEventHandler final : public Singleton<AgentStatusEventHandler> {
 public:
  // Neither throws: a failure is logged.
  void KeepConnection();
  void DontCareConnection();

  bool IsConnectionKept() const { return keep_connection_; }
  bool IsNamed(const char* event_name) const { return event_.IsNamed(event_name); }

 private:
  friend class Singleton<AgentStatusEventHandler>;
  AgentStatusEventHandler();
  void ForgetSubscription() { event_.event_handle = nullptr; }
  void ForgetAll() {
    ForgetSubscription();
    keep_connection_ = false;
  }

  // Whether the application wants a connection.
  bool keep_connection_ = false;
  VorlaEventHandler event_;
};

#endif  // SVCMGR_AGENTSTATUSEVENTHANDLER_H_
