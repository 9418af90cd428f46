// SPDX-License-Identifier: Apache-2.0
#include <app_common.h>
#include <velmora_svcmgr.h>

#include <algorithm>
#include <cstring>

#include "SvcMgrAppProxyHandler.h"
#include "UpdateStatusEventHandler.h"
#include "agent_update_state.h"
#include "frame.h"
#include "kyr-section.h"

// An application without a resource path is broken: that ends it in every build, as it always has.
#undef NDEBUG
#include <cassert>

int velmora_svcmgr_connect(velmora_svcmgr_connection_cb callback, void* user_data) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(callback, "parameter is NULL!!");
  SvcMgrAppProxyHandler& context = SvcMgrAppProxyHandler::GetInstance();
  RETURN_ERROR_IF(context.IsConnected(), "already connected\n", SVCMGR_ERROR_ALREADY_CONNECTED);
  const int result = context.Connect(callback, user_data);
  if (result != SVCMGR_ERROR_NONE) CLIENT_ERROR_F("connection result = [%d]", result);
  return result;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_disconnect() try {
  RETURN_IF_AGENT_MISSING();
  SvcMgrAppProxyHandler& context = SvcMgrAppProxyHandler::GetInstance();
  if (context.IsConnected()) context.Disconnect();
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_get_license_fulltext(char** text) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(text, "parameter is NULL!!");
  RETURN_IF_NOT_CONNECTED();
  const svcmgr::Text license = SvcMgrAppProxyHandler::GetInstance().get_license();
  if (license == nullptr || *license == '\0') {
    // On purpose a success, also when the agent could not be asked: callers preset their pointer.
    CLIENT_INFO("can't get agent license");
    return SVCMGR_ERROR_NONE;
  }
  if (std::strcmp(license.get(), "SVCMGR_ERROR_KYR_DISABLED") == 0) {
    CLIENT_INFO("KYR is disabled");
    return SVCMGR_ERROR_KYR_DISABLED;
  }
  // Handed out as it is, on purpose: callers test their pointer anyway.
  *text = strdup(license.get());
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_get_agent_api_level(int* level) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(level, "parameter is NULL!!");
  RETURN_IF_NOT_CONNECTED();
  const int answer = SvcMgrAppProxyHandler::GetInstance().get_agent_api_level();
  if (answer == SVCMGR_ERROR_KYR_DISABLED) {
    CLIENT_INFO("KYR is disabled");
    return SVCMGR_ERROR_KYR_DISABLED;
  }
  if (answer == SvcMgrAppProxyHandler::kNoApiLevel) {
    CLIENT_INFO("invalid api level");
    return SVCMGR_ERROR_INVALID_API_LEVEL;
  }
  *level = answer;
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_API_LEVEL);

int velmora_svcmgr_request_update() try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NOT_CONNECTED();
  const int answer = SvcMgrAppProxyHandler::GetInstance().request_update();
  switch (answer) {
    case SVCMGR_ERROR_NONE:
      return SVCMGR_ERROR_NONE;
    case SVCMGR_ERROR_PERMISSION_DENIED:
      CLIENT_INFO("Permission denied");
      return SVCMGR_ERROR_PERMISSION_DENIED;
    case SVCMGR_ERROR_KYR_DISABLED:
      CLIENT_INFO("KYR is disabled");
      return SVCMGR_ERROR_KYR_DISABLED;
    default:
      CLIENT_INFO_F("Failed to invoke_request_update. err = %d", answer);
      return SVCMGR_ERROR_NOT_CONNECTED;
  }
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_request_update_with_list(velmora_svcmgr_agent_list_h list) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_AGENT_BELOW(svcmgr::kAgentLevelLists);
  RETURN_IF_NULL(list, "parameter is NULL!!");
  RETURN_IF_NOT_CONNECTED();
  const int result = SvcMgrAppProxyHandler::GetInstance().request_update_with_list(*list);
  if (result == SVCMGR_ERROR_NONE) return SVCMGR_ERROR_NONE;
  CLIENT_INFO_F("Failed to invoke_request_update. err = %d", result);
  return SVCMGR_ERROR_NOT_CONNECTED;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_is_being_updated(bool* updating) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(updating, "parameter is NULL!!");
  RETURN_IF_NOT_CONNECTED();
  *updating = svcmgr::agent_update_state.IsUpdating();
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

// Both succeed on purpose when the platform refuses the subscription or its end: that is logged
// alone.

int velmora_svcmgr_set_update_status_cb(velmora_svcmgr_update_status_cb callback,
                                        void* user_data) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(callback, "parameter is NULL!!");
  UpdateStatusEventHandler::GetInstance().SetEventCallback(callback, user_data);
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_unset_update_status_cb() try {
  RETURN_IF_AGENT_MISSING();
  UpdateStatusEventHandler::GetInstance().UnsetEventCallback();
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_get_client_api_level(int* level) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(level, "parameter is NULL!!");
  const svcmgr::Text res_path_owner(app_get_resource_path());
  const char* res_path = res_path_owner.get();
  assert(res_path);
  // The application's folder: the path without its last component, "res/".
  const std::size_t length = std::strlen(res_path);
  const svcmgr::Text root_path_owner(strndup(res_path, length - std::min<std::size_t>(length, 4)));
  const char* root_path = root_path_owner.get();
  assert(root_path);
  const svcmgr::OwnedKyrRecord record = kyr_section_get_latest(root_path);
  if (record == nullptr) {
    CLIENT_INFO("Failed to get latest KYR section.\n");
    return SVCMGR_ERROR_NOT_SUPPORTED;
  }
  *level = record->api_level;
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);
