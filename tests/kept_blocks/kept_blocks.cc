// SPDX-License-Identifier: Apache-2.0
// Accounts, block by block, for what the library keeps on purpose in a real process: the record that
// each conversion of a model leaves, and the array of each list that was destroyed.
//
// The library calls its exported functions through the dynamic linker, which finds these first.
#include <dlfcn.h>
#include <velmora_svcmgr.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>

namespace {

// The beginnings of the library's records.
struct ModelInfo {
  char* texts[4];
};
struct ModelList {
  void** begin;
};
struct AgentList {
  void** begin;
};

std::mutex mutex;
std::set<ModelInfo*>& Kept() {
  static auto* kept = new std::set<ModelInfo*>;
  return *kept;
}

template <typename Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

bool IsLibrary(const void* address) {
  Dl_info info;
  return dladdr(address, &info) != 0 && std::strstr(info.dli_fname, "libvelmora-svcmgr") != nullptr;
}

const struct AtExit {
  ~AtExit() {
    for (ModelInfo* record : Kept()) {
      for (char* text : record->texts) std::free(text);
      std::free(record);
    }
    Kept().clear();
  }
} at_exit;

}  // namespace

int velmora_svcmgr_ai_model_info_create(velmora_svcmgr_ai_model_info_h* info) {
  static const auto next =
      Next<decltype(velmora_svcmgr_ai_model_info_create)>("velmora_svcmgr_ai_model_info_create");
  const int result = next(info);
  // What a program makes itself, it has to release itself.
  if (result == SVCMGR_ERROR_NONE && IsLibrary(__builtin_return_address(0))) {
    const std::lock_guard lock(mutex);
    Kept().insert(reinterpret_cast<ModelInfo*>(*info));
  }
  return result;
}

int velmora_svcmgr_ai_model_list_destroy(velmora_svcmgr_ai_model_list_h list) {
  static const auto next =
      Next<decltype(velmora_svcmgr_ai_model_list_destroy)>("velmora_svcmgr_ai_model_list_destroy");
  void* const array = list == nullptr ? nullptr : reinterpret_cast<ModelList*>(list)->begin;
  const int result = next(list);
  if (result == SVCMGR_ERROR_NONE) ::operator delete(array);
  return result;
}

int velmora_svcmgr_agent_list_destroy(velmora_svcmgr_agent_list_h list) {
  static const auto next =
      Next<decltype(velmora_svcmgr_agent_list_destroy)>("velmora_svcmgr_agent_list_destroy");
  void* const array = list == nullptr ? nullptr : reinterpret_cast<AgentList*>(list)->begin;
  const int result = next(list);
  if (result == SVCMGR_ERROR_NONE) ::operator delete(array);
  return result;
}
