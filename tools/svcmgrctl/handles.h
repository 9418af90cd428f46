// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_HANDLES_H_
#define TOOLS_SVCMGRCTL_HANDLES_H_

#include <cstdlib>
#include <memory>

#include "velmora_svcmgr.h"

namespace svcmgrctl {

struct DestroyModelInfo {
  using pointer = velmora_svcmgr_ai_model_info_h;
  void operator()(pointer info) const { velmora_svcmgr_ai_model_info_destroy(info); }
};

struct DestroyModelList {
  using pointer = velmora_svcmgr_ai_model_list_h;
  void operator()(pointer list) const { velmora_svcmgr_ai_model_list_destroy(list); }
};

struct DestroyAgentList {
  using pointer = velmora_svcmgr_agent_list_h;
  void operator()(pointer list) const { velmora_svcmgr_agent_list_destroy(list); }
};

struct DestroyProgress {
  using pointer = velmora_svcmgr_ai_progress_h;
  void operator()(pointer progress) const { velmora_svcmgr_ai_progress_destroy(progress); }
};

struct FreeText {
  void operator()(char* text) const { std::free(text); }
};

using ModelInfo = std::unique_ptr<velmora_svcmgr_ai_model_info_h, DestroyModelInfo>;
using ModelList = std::unique_ptr<velmora_svcmgr_ai_model_list_h, DestroyModelList>;
using AgentList = std::unique_ptr<velmora_svcmgr_agent_list_h, DestroyAgentList>;
using Progress = std::unique_ptr<velmora_svcmgr_ai_progress_h, DestroyProgress>;
using Text = std::unique_ptr<char, FreeText>;

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_HANDLES_H_
