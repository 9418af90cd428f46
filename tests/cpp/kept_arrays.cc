// SPDX-License-Identifier: Apache-2.0
// Releases the array that the library keeps of each destroyed list, so that whatever else is left is a
// leak.
#include <service_agent_list.h>
#include <service_model_list.h>

#include <new>

extern "C" int __real_velmora_svcmgr_ai_model_list_destroy(velmora_svcmgr_ai_model_list_h list);
extern "C" int __wrap_velmora_svcmgr_ai_model_list_destroy(velmora_svcmgr_ai_model_list_h list);
extern "C" int __real_velmora_svcmgr_agent_list_destroy(velmora_svcmgr_agent_list_h list);
extern "C" int __wrap_velmora_svcmgr_agent_list_destroy(velmora_svcmgr_agent_list_h list);

int __wrap_velmora_svcmgr_ai_model_list_destroy(velmora_svcmgr_ai_model_list_h list) {
  void* const array = list == nullptr ? nullptr : list->models.data();
  const int result = __real_velmora_svcmgr_ai_model_list_destroy(list);
  if (result == SVCMGR_ERROR_NONE) ::operator delete(array);
  return result;
}

int __wrap_velmora_svcmgr_agent_list_destroy(velmora_svcmgr_agent_list_h list) {
  void* const array = list == nullptr ? nullptr : list->agents.data();
  const int result = __real_velmora_svcmgr_agent_list_destroy(list);
  if (result == SVCMGR_ERROR_NONE) ::operator delete(array);
  return result;
}
