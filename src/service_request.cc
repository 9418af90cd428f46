// SPDX-License-Identifier: Apache-2.0
#include "SvcMgrAppProxyHandler.h"
#include "frame.h"

int velmora_svcmgr_ai_request_usable_model_list(velmora_svcmgr_ai_model_list_cb callback,
                                                void* user_data) try {
  CLIENT_INFO("__ velmora_svcmgr_ai_request_usable_model_list __");
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_AGENT_BELOW(svcmgr::kAgentLevelModels);
  RETURN_IF_NULL(callback, "parameter is NULL!!");
  const int result = SvcMgrAppProxyHandler::GetInstance().GetUsableModelList({callback, user_data});
  if (result != SVCMGR_ERROR_NONE) CLIENT_ERROR_F("connection error [%d]", result);
  return result;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_request_usable_model_list_with_description(
    velmora_svcmgr_ai_model_list_cb callback, void* user_data) try {
  CLIENT_INFO("__ velmora_svcmgr_ai_request_usable_model_list_with_description __");
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_AGENT_BELOW(svcmgr::kAgentLevelModels);
  RETURN_IF_NULL(callback, "parameter is NULL!!");
  const int result =
      SvcMgrAppProxyHandler::GetInstance().GetUsableModelListWithDesc({callback, user_data});
  if (result != SVCMGR_ERROR_NONE) CLIENT_ERROR_F("connection error [%d]", result);
  return result;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_request_usable_model_list_with_category(
    velmora_svcmgr_ai_model_list_cb callback, const char* category, void* user_data) try {
  CLIENT_INFO("__ velmora_svcmgr_ai_request_usable_model_list_with_category __");
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_AGENT_BELOW(svcmgr::kAgentLevelCategories);
  RETURN_IF_NULL(callback, "parameter is NULL!!");
  // A null category is left to the look-up, which finds no application for it.
  const int result = SvcMgrAppProxyHandler::GetInstance().GetUsableModelListWithCategory(
      category, {callback, user_data});
  if (result != SVCMGR_ERROR_NONE) CLIENT_ERROR_F("connection error [%d]", result);
  return result;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_request_model_version_list(velmora_svcmgr_ai_model_info_h info,
                                                 velmora_svcmgr_ai_model_list_cb callback,
                                                 void* user_data) try {
  // The usable list's entry record; log readers know this request by it.
  CLIENT_INFO("__ velmora_svcmgr_ai_request_usable_model_list __");
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_AGENT_BELOW(svcmgr::kAgentLevelModels);
  RETURN_IF_NULL(info, "parameter is NULL!!");
  RETURN_IF_NULL(callback, "parameter is NULL!!");
  const int result =
      SvcMgrAppProxyHandler::GetInstance().GetModelVersionList(info, {callback, user_data});
  if (result != SVCMGR_ERROR_NONE) CLIENT_ERROR_F("error [%d]", result);
  return result;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_request_to_update(velmora_svcmgr_ai_model_list_h list,
                                        velmora_svcmgr_ai_progress_cb callback,
                                        void* user_data) try {
  CLIENT_INFO("__ velmora_svcmgr_ai_request_to_update __");
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_AGENT_BELOW(svcmgr::kAgentLevelModels);
  RETURN_IF_NULL(list, "parameter is NULL!!");
  RETURN_IF_NULL(callback, "parameter is NULL!!");
  const int result =
      SvcMgrAppProxyHandler::GetInstance().RequestToUpdate(*list, {callback, user_data});
  if (result != SVCMGR_ERROR_NONE) CLIENT_ERROR_F("error [%d]", result);
  return result;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_request_to_uninstall(velmora_svcmgr_ai_model_list_h list,
                                           velmora_svcmgr_ai_progress_cb callback,
                                           void* user_data) try {
  CLIENT_INFO("__ velmora_svcmgr_ai_request_to_uninstall __");
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_AGENT_BELOW(svcmgr::kAgentLevelModels);
  RETURN_IF_NULL(list, "parameter is NULL!!");
  RETURN_IF_NULL(callback, "parameter is NULL!!");
  const int result =
      SvcMgrAppProxyHandler::GetInstance().RequestToUninstall(*list, {callback, user_data});
  if (result != SVCMGR_ERROR_NONE) CLIENT_ERROR_F("error [%d]", result);
  return result;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);
