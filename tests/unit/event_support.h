/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_EVENT_SUPPORT_H_
#define SVCMGR_EVENT_SUPPORT_H_

/* The agent's events, and an application that hears of them. */

#include <agent_update_state.h>
#include <velmora_svcmgr.h>

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "fake_platform.h"

namespace events {

inline constexpr char kAgentStatus[] = "event." AGENT_PACKAGE_ID ".agent_status";
inline constexpr char kUpdateStatus[] = "event." AGENT_PACKAGE_ID ".update_status";
inline constexpr char kModelStatus[] = "event." AGENT_PACKAGE_ID ".model_status";

inline constexpr char kAdd[] = "event_add_event_handler";
inline constexpr char kRemove[] = "event_remove_event_handler";

/** The record of a refused subscription. */
inline std::string RefusalOf(int code, const std::string& event) {
  return "err: [" + std::to_string(code) + " (" + fake::ErrorText(code) + ")] - [" + event + "]";
}

/** The records except those of entering an exported function. */
inline std::vector<fake::LogRecord> Errors() {
  std::vector<fake::LogRecord> errors;
  for (const fake::LogRecord& record : fake::Logs()) {
    if (record.priority == DLOG_ERROR) errors.push_back(record);
  }
  return errors;
}

/** What a model status callback received. */
struct ModelNotice {
  int error;
  int status;
};
inline bool operator==(const ModelNotice& a, const ModelNotice& b) {
  return a.error == b.error && a.status == b.status;
}
inline std::ostream& operator<<(std::ostream& out, const ModelNotice& notice) {
  return out << "(error " << notice.error << ", status " << notice.status << ')';
}

/** Receives statuses; passed as user data. */
template <typename Status>
struct Receiver {
  std::vector<Status> received;
  std::function<void()> inside;  // runs inside the next callback, once

 protected:
  static void Receive(const Status& status, void* user_data) {
    auto* const self = static_cast<Receiver*>(user_data);
    self->received.push_back(status);
    std::function<void()> action;
    action.swap(self->inside);
    if (action) action();
  }
};

/** Receives update statuses. */
struct Statuses : Receiver<int> {
  static void Callback(int status, void* user_data) { Receive(status, user_data); }
  int Set() { return velmora_svcmgr_set_update_status_cb(Callback, this); }
  static int Unset() { return velmora_svcmgr_unset_update_status_cb(); }
};

/** Receives model statuses. */
struct ModelStatuses : Receiver<ModelNotice> {
  static void Callback(int error, int status, void* user_data) {
    Receive({error, status}, user_data);
  }
  int Set() { return velmora_svcmgr_ai_register_status_cb(Callback, this); }
  static int Unset() { return velmora_svcmgr_ai_deregister_status_cb(); }
};

/** Statuses are received from the first line of a test on. */
template <typename Received>
class AReceived : public fake::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    ASSERT_EQ(statuses.Set(), 0);
    fake::ClearRecord();
    fake::AllowHeld(fake::Kind::kEventHandler, 1);
  }

  void TearDown() override {
    Received::Unset();
    PlatformTest::TearDown();
  }

  Received statuses;
};

/** Delivers an event that holds a text under each key; returns how many handlers ran. */
inline int Announce(const char* event, const std::vector<std::string>& keys) {
  fake::BundleBuilder data;
  for (const std::string& key : keys) data.Str(key, "");
  return fake::FireEvent(event, data);
}

inline int AnnounceUpdate() { return Announce(kAgentStatus, {"Update"}); }
inline int AnnounceLaunch() { return Announce(kAgentStatus, {"Launch"}); }
inline int AnnounceStart() {
  return fake::FireEvent(kUpdateStatus, fake::BundleBuilder().StrArray("Start", {"an agent"}));
}
inline int AnnounceComplete() { return Announce(kUpdateStatus, {"Complete"}); }
inline int AnnounceFailure(int code) {
  return fake::FireEvent(kUpdateStatus, fake::BundleBuilder().Int("Fail", code));
}

/** Brings the update state to a value by its own transitions. */
inline void Enter(int state) {
  svcmgr::AgentUpdateState& updates = svcmgr::agent_update_state;
  updates.End();
  if (state == svcmgr::UPDATE_STATE_REQUESTED) updates.Request();
  if (state == svcmgr::UPDATE_STATE_IN_PROGRESS) updates.Start();
  if (state < svcmgr::UPDATE_STATE_AGENT_UPDATING || state > svcmgr::UPDATE_STATE_AGENT_RELAUNCHED)
    return;
  updates.AnnounceAgentUpdate();
  if (state > svcmgr::UPDATE_STATE_AGENT_UPDATING) updates.LoseAgent();
  if (state > svcmgr::UPDATE_STATE_AGENT_DISCONNECTED) updates.RelaunchAgent();
}

/** The value of the update state, which is left as it is. */
inline int State() {
  svcmgr::AgentUpdateState& updates = svcmgr::agent_update_state;
  if (updates.IsIdle()) return svcmgr::UPDATE_STATE_IDLE;
  if (updates.IsAgentRelaunched()) return svcmgr::UPDATE_STATE_AGENT_RELAUNCHED;
  if (!updates.IsUpdating()) return svcmgr::UPDATE_STATE_REQUESTED;
  int state = svcmgr::UPDATE_STATE_IN_PROGRESS;
  if (updates.LoseAgent()) {
    state = svcmgr::UPDATE_STATE_AGENT_UPDATING;
  } else if (updates.RelaunchAgent()) {
    state = svcmgr::UPDATE_STATE_AGENT_DISCONNECTED;
  }
  Enter(state);
  return state;
}

}  // namespace events

#endif  // SVCMGR_EVENT_SUPPORT_H_
