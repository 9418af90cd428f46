// SPDX-License-Identifier: Apache-2.0
#include "ModelUpdateEventHandler.h"

#include "event_data.h"
#include "frame.h"

ModelUpdateEventHandler::ModelUpdateEventHandler()
    : event_("event." AGENT_PACKAGE_ID ".model_status") {
  event_.event_callback = ModelEventCallback;
}

bool ModelUpdateEventHandler::SetEventCallback(velmora_svcmgr_ai_status_cb callback,
                                               void* user_data) {
  callback_ = callback;
  user_data_ = user_data;
  return event_.Subscribe(SVCMGR_HERE, [this] { return callback_ != nullptr; });
}

bool ModelUpdateEventHandler::UnsetEventCallback() {
  callback_ = nullptr;
  user_data_ = nullptr;
  return event_.Unsubscribe(SVCMGR_HERE);
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
  // In order of precedence.
  if (svcmgr::HoldsText(data, "START")) {
    CLIENT_INFO("Received UPDATE EVENT : START");
    callback(SVCMGR_ERROR_NONE, SVCMGR_AI_STATUS_STARTED, user_data);
  } else if (svcmgr::HoldsText(data, "COMPLETED")) {
    CLIENT_INFO("Received UPDATE EVENT : COMPLETED");
    callback(SVCMGR_ERROR_NONE, SVCMGR_AI_STATUS_COMPLETED, user_data);
  } else if (svcmgr::HoldsText(data, "FAILED")) {
    CLIENT_INFO("Received UPDATE EVENT : FAILED");
    callback(SVCMGR_ERROR_NONE, SVCMGR_AI_STATUS_FAILED, user_data);
  } else {
    CLIENT_ERROR("Received Unknown State");
  }
}
RETURN_ON_EXCEPTION();
