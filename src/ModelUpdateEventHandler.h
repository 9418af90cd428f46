// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_MODELUPDATEEVENTHANDLER_H_
#define SVCMGR_MODELUPDATEEVENTHANDLER_H_

#include <velmora_svcmgr.h>

#include "Singleton.h"
#include "VorlaEventHandler.h"

// Follows what happens to the device's AI models.
class ModelUpdateEventHandler final : public Singleton<ModelUpdateEventHandler> {
 public:
  // Stores the pair, also if subscribing fails. False, logged, if it fails.
  bool SetEventCallback(velmora_svcmgr_ai_status_cb callback, void* user_data);
  // Clears the pair and ends the subscription. False, logged, if the platform refuses.
  bool UnsetEventCallback();

 private:
  friend class Singleton<ModelUpdateEventHandler>;
  ModelUpdateEventHandler();
  void ForgetSubscription() { event_.event_handle = nullptr; }
  void ForgetAll() {
    ForgetSubscription();
    callback_ = nullptr;
    user_data_ = nullptr;
  }

  static void ModelEventCallback(const char* event_name, bundle* data, void* user_data);

  VorlaEventHandler event_;
  velmora_svcmgr_ai_status_cb callback_ = nullptr;
  void* user_data_ = nullptr;
};

#endif  // SVCMGR_MODELUPDATEEVENTHANDLER_H_
