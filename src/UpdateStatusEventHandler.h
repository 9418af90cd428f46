// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_UPDATESTATUSEVENTHANDLER_H_
#define SVCMGR_UPDATESTATUSEVENTHANDLER_H_

#include <velmora_svcmgr.h>

#include "Singleton.h"
#include "VorlaEventHandler.h"

// Follows the update of the agents.
class UpdateStatusEventHandler final : public Singleton<UpdateStatusEventHandler> {
 public:
  // Stores the pair, also if subscribing fails. False, logged, if it fails.
  bool SetEventCallback(velmora_svcmgr_update_status_cb callback, void* user_data);
  // Clears the pair and ends the subscription. False, logged, if the platform refuses.
  bool UnsetEventCallback();

 private:
  friend class Singleton<UpdateStatusEventHandler>;
  UpdateStatusEventHandler();
  void ForgetSubscription() { event_.event_handle = nullptr; }
  void ForgetAll() {
    ForgetSubscription();
    callback_ = nullptr;
    user_data_ = nullptr;
  }

  static void UpdateEventCallback(const char* event_name, bundle* data, void* user_data);
  void Notify(int status) const;
  void NotifyFinal(int status) const;

  VorlaEventHandler event_;
  velmora_svcmgr_update_status_cb callback_ = nullptr;
  void* user_data_ = nullptr;
};

#endif  // SVCMGR_UPDATESTATUSEVENTHANDLER_H_
