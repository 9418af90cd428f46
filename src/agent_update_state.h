// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_AGENT_UPDATE_STATE_H_
#define SVCMGR_AGENT_UPDATE_STATE_H_

#include <atomic>

namespace svcmgr {

// How far an update of the agents has come. Each value is entered by one transition below:
//
//     value                                from           by
//     0 UPDATE_STATE_IDLE                  any            End
//     1 UPDATE_STATE_REQUESTED             any            Request
//     2 UPDATE_STATE_AGENT_UPDATING        any            AnnounceAgentUpdate
//     3 UPDATE_STATE_AGENT_DISCONNECTED    2              LoseAgent
//     4 UPDATE_STATE_AGENT_RELAUNCHED      3              RelaunchAgent
//     5 UPDATE_STATE_IN_PROGRESS           any            Start
enum UpdateState {
  UPDATE_STATE_IDLE = 0,
  UPDATE_STATE_REQUESTED = 1,
  UPDATE_STATE_AGENT_UPDATING = 2,
  UPDATE_STATE_AGENT_DISCONNECTED = 3,
  UPDATE_STATE_AGENT_RELAUNCHED = 4,
  UPDATE_STATE_IN_PROGRESS = 5,
};

// The one state of the process. Disconnecting never resets it. Atomic, because requests come from
// any thread while events arrive on the main loop's.
class AgentUpdateState {
 public:
  void End() { state_ = UPDATE_STATE_IDLE; }
  void Request() { state_ = UPDATE_STATE_REQUESTED; }
  void AnnounceAgentUpdate() { state_ = UPDATE_STATE_AGENT_UPDATING; }
  void Start() { state_ = UPDATE_STATE_IN_PROGRESS; }

  // True if the connection was lost because the agent replaces itself.
  bool LoseAgent() { return Step(UPDATE_STATE_AGENT_UPDATING, UPDATE_STATE_AGENT_DISCONNECTED); }
  bool RelaunchAgent() {
    return Step(UPDATE_STATE_AGENT_DISCONNECTED, UPDATE_STATE_AGENT_RELAUNCHED);
  }

  bool IsIdle() const { return state_ == UPDATE_STATE_IDLE; }
  bool IsAgentRelaunched() const { return state_ == UPDATE_STATE_AGENT_RELAUNCHED; }
  // A requested update that has not begun does not count.
  bool IsUpdating() const { return state_ > UPDATE_STATE_REQUESTED; }

 private:
  bool Step(int from, int to) { return state_.compare_exchange_strong(from, to); }

  std::atomic<int> state_{UPDATE_STATE_IDLE};
};

inline AgentUpdateState agent_update_state;

}  // namespace svcmgr

#endif  // SVCMGR_AGENT_UPDATE_STATE_H_
