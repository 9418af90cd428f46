// SPDX-License-Identifier: Apache-2.0
#include "ModelUpdateEventHandler.h"

#include "event_data.h"
#include "frame.h"

namespace {

// In order of precedence.
constexpr struct {
  const char* key;
  int status;
} kModelStates[] = {
    {"START", SVCMGR_AI_STATUS_STARTED},
    {"COMPLETED", SVCMGR_AI_STATUS_COMPLETED},
    {"FAILED", SVCMGR_AI_STATUS_FAILED},
};

}  // namespace

ModelUpdateEventHandler::ModelUpdateEventHandler()
    : event_("event." AGENT_PACKAGE_ID ".model_status") {
  event_.event_callback = ModelEventCallback;
}

bool ModelUpdateEventHandler::SetEventCallback(velmora_svcmgr_ai_status_cb callback,
                                               void* user_data) {
  callback_ = callback;
  user_data_ = user_data;
  try {
    event_.RegisterEvent();
    // The callback may have been unset inside the subscription.
    if (callback_ == nullptr) event_.DeregisterEvent();
    return true;
  }
  LET_THREAD_EXIT_PASS
  catch (...) {
    CLIENT_ERROR("Failed to register event");
    return false;
  }
}

bool ModelUpdateEventHandler::UnsetEventCallback() {
  callback_ = nullptr;
  user_data_ = nullptr;
  try {
    event_.DeregisterEvent();
    return true;
  }
  LET_THREAD_EXIT_PASS
  catch (...) {
    CLIENT_ERROR("Failed to deregister event");
    return false;
  }
}

void ModelUpdateEventHandler::ModelEventCallback(const char* event_name, bundle* data, void*) try {
  const ModelUpdateEventHandler& self = GetInstance();
  if (event_name == nullptr || data == nullptr) {
    CLIENT_ERROR("EVENT CALLBACK : INVALID PARAMETER");
    return;
  }
  // Copies: the callback may register another one.
  const auto callback = self.callback_;
  void* const user_data = self.user_data_;
  if (callback == nullptr) {
    CLIENT_INFO("There is no registered callback");
    return;
  }
  if (!self.event_.IsNamed(event_name)) {
    CLIENT_ERROR("Received Unknown Event");
    return;
  }
  for (const auto& state : kModelStates) {
    if (!svcmgr::HoldsText(data, state.key)) continue;
    CLIENT_INFO_F("Received UPDATE EVENT : %s", state.key);
    callback(SVCMGR_ERROR_NONE, state.status, user_data);
    return;
  }
  CLIENT_ERROR("Received Unknown State");
}
RETURN_ON_EXCEPTION()
