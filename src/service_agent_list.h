// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_SERVICE_AGENT_LIST_H_
#define SVCMGR_SERVICE_AGENT_LIST_H_

#include <velmora_svcmgr.h>

#include <vector>

// Allocated zero-filled by calloc. Owns its texts, which are released with free.
struct velmora_svcmgr_agent_list_s {
  std::vector<char*> agents;
};

#endif  // SVCMGR_SERVICE_AGENT_LIST_H_
