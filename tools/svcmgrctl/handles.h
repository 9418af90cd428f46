// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_HANDLES_H_
#define TOOLS_SVCMGRCTL_HANDLES_H_

#include "owned.h"
#include "velmora_svcmgr.h"

namespace svcmgrctl {

using ModelInfo = base::Owned<velmora_svcmgr_ai_model_info_s, velmora_svcmgr_ai_model_info_destroy>;
using ModelList = base::Owned<velmora_svcmgr_ai_model_list_s, velmora_svcmgr_ai_model_list_destroy>;
using AgentList = base::Owned<velmora_svcmgr_agent_list_s, velmora_svcmgr_agent_list_destroy>;
using Progress = base::Owned<velmora_svcmgr_ai_progress_s, velmora_svcmgr_ai_progress_destroy>;
using Text = base::Malloced<char>;

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_HANDLES_H_
