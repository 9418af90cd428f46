// SPDX-License-Identifier: Apache-2.0
#include "ModelUpdateEventHandler.h"
#include "frame.h"

int velmora_svcmgr_ai_register_status_cb(velmora_svcmgr_ai_status_cb callback,
                                         void* user_data) try {
  CLIENT_INFO("__ velmora_svcmgr_ai_register_status_cb __");
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(callback, "parameter is NULL!!");
  // A refused subscription is a success on purpose: the callback stays, and the next call tries
  // again.
  ModelUpdateEventHandler::GetInstance().SetEventCallback(callback, user_data);
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_deregister_status_cb() try {
  CLIENT_INFO("__ velmora_svcmgr_ai_deregister_status_cb __");
  RETURN_IF_AGENT_MISSING();
  RETURN_ERROR_IF(!ModelUpdateEventHandler::GetInstance().UnsetEventCallback(),
                  "UnsetEventCallback Error", SVCMGR_ERROR_INVALID_OPERATION);
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);
