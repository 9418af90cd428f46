// SPDX-License-Identifier: Apache-2.0
#include "kept_records.h"

#include <new>
#include <utility>
#include <vector>

#include "require.h"
#include "service_model_list.h"

extern "C" int __real_velmora_svcmgr_ai_model_info_create(velmora_svcmgr_ai_model_info_h* info);
extern "C" int __wrap_velmora_svcmgr_ai_model_info_create(velmora_svcmgr_ai_model_info_h* info);
// svcmgr::KeepStorage and svcmgr::KeepLink, by the names that the linker knows.
extern "C" void __wrap__ZN6svcmgr11KeepStorageEPv(void* storage);
extern "C" void __wrap__ZN6svcmgr8KeepLinkEPv(void* link);

namespace kept_records {
namespace {

std::vector<velmora_svcmgr_ai_model_info_h> records;
std::vector<void*> storages;

}  // namespace

void Release() {
  for (const auto info : std::exchange(records, {})) velmora_svcmgr_ai_model_info_destroy(info);
  for (void* const storage : storages) ::operator delete(storage);
  storages.clear();
}

void Forget() {
  records.clear();
  storages.clear();
}

void Disown(velmora_svcmgr_ai_model_info_h info) { std::erase(records, info); }

void DestroyWholly(velmora_svcmgr_ai_model_list_h list) {
  if (list != nullptr) REQUIRE(velmora_svcmgr_ai_model_list_destroy(list) == 0);
}

}  // namespace kept_records

int __wrap_velmora_svcmgr_ai_model_info_create(velmora_svcmgr_ai_model_info_h* info) {
  const int result = __real_velmora_svcmgr_ai_model_info_create(info);
  if (result == 0) kept_records::records.push_back(*info);
  return result;
}

void __wrap__ZN6svcmgr11KeepStorageEPv(void* storage) { kept_records::storages.push_back(storage); }
void __wrap__ZN6svcmgr8KeepLinkEPv(void* link) { kept_records::storages.push_back(link); }
