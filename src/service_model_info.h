// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_SERVICE_MODEL_INFO_H_
#define SVCMGR_SERVICE_MODEL_INFO_H_

#include <velmora_svcmgr.h>

#include <memory>

// Allocated zero-filled by calloc. The texts are owned, released with free, and null until set.
struct velmora_svcmgr_ai_model_info_s {
  char* id;
  char* version;
  char* title;
  char* description;
};

namespace svcmgr {

// A copy of at most the first 2048 bytes of a text, released with free. Throws std::bad_alloc.
char* CopyModelText(const char* text);

// Releases a record and its texts.
void FreeModelInfo(velmora_svcmgr_ai_model_info_s* info) noexcept;

struct ModelInfoDeleter {
  void operator()(velmora_svcmgr_ai_model_info_s* info) const noexcept { FreeModelInfo(info); }
};

using OwnedModelInfo = std::unique_ptr<velmora_svcmgr_ai_model_info_s, ModelInfoDeleter>;

// A deep copy. Throws std::bad_alloc, and std::logic_error for a null record.
OwnedModelInfo CopyModelInfo(const velmora_svcmgr_ai_model_info_s* info);

}  // namespace svcmgr

#endif  // SVCMGR_SERVICE_MODEL_INFO_H_
