// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_SERVICE_MODEL_LIST_H_
#define SVCMGR_SERVICE_MODEL_LIST_H_

#include <velmora_svcmgr.h>

#include <vector>

// Allocated zero-filled by calloc. Owns its models; a slot is null only after a destroy that
// stopped midway.
struct velmora_svcmgr_ai_model_list_s {
  std::vector<velmora_svcmgr_ai_model_info_h> models;
};

#endif  // SVCMGR_SERVICE_MODEL_LIST_H_
