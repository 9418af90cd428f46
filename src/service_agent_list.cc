// SPDX-License-Identifier: Apache-2.0
#include "service_agent_list.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "frame.h"
#include "kept_blocks.h"
#include "text.h"

namespace {

// Throws std::bad_alloc.
svcmgr::Text CopyAgent(const char* agent) {
  svcmgr::Text copy(strndup(agent, std::strlen(agent) + 1));
  if (copy == nullptr) throw std::bad_alloc();
  return copy;
}

}  // namespace

int velmora_svcmgr_agent_list_create(velmora_svcmgr_agent_list_h* list) try {
  CLIENT_INFO("velmora_svcmgr_agent_list_create");
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(list, "Invalid parameter!!");
  void* storage = std::calloc(1, sizeof **list);
  RETURN_ERROR_IF(storage == nullptr, "Failed to create velmora_svcmgr_agent_list_s.",
                  SVCMGR_ERROR_OUT_OF_MEMORY);
  *list = new (storage) velmora_svcmgr_agent_list_s();
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_agent_list_destroy(velmora_svcmgr_agent_list_h list) try {
  CLIENT_INFO("velmora_svcmgr_agent_list_destroy");
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(list, "Invalid parameter!!");
  for (char*& agent : list->agents) {
    std::free(agent);
    agent = nullptr;
  }
  // The vector's storage is kept on purpose: releasing the texts and the record alone is this
  // function's fixed behaviour.
  svcmgr::KeepStorageOf(list->agents);
  std::free(list);
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_agent_list_add(velmora_svcmgr_agent_list_h list, const char* agent) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(list, "Invalid parameter!!");
  RETURN_IF_NULL(agent, "Invalid parameter!!");
  svcmgr::Text copy = CopyAgent(agent);
  list->agents.push_back(copy.get());
  static_cast<void>(copy.release());  // the list's from here on
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_agent_list_get(velmora_svcmgr_agent_list_h list, int index, char** agent) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(list, "Invalid parameter!!");
  RETURN_IF_NULL(agent, "Invalid parameter!!");
  // No lower bound, on purpose: passing a negative index is the caller's error.
  RETURN_ERROR_IF(index >= static_cast<int>(list->agents.size()), "Out of Index!!!",
                  SVCMGR_ERROR_OUT_OF_INDEX);
  *agent = CopyAgent(list->agents[static_cast<std::size_t>(index)]).release();
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_agent_list_get_size(velmora_svcmgr_agent_list_h list, int* size) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(list, "Invalid parameter");
  RETURN_IF_NULL(size, "Invalid parameter");
  *size = static_cast<int>(list->agents.size());
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);
