// SPDX-License-Identifier: Apache-2.0
#include "SvcMgrAppProxyCallback.h"

#include <iterator>

#include "client_log.h"
#include "kept_blocks.h"

namespace svcmgr {

namespace {

constexpr int kErrorOfAgentResult[] = {
    /*  0 */ SVCMGR_ERROR_NONE,
    /*  1 */ SVCMGR_ERROR_INVALID_OPERATION,
    /*  2 */ SVCMGR_ERROR_NONE,
    /*  3 */ SVCMGR_ERROR_AGENT_CODE_3,
    /*  4 */ SVCMGR_ERROR_INVALID_OPERATION,
    /*  5 */ SVCMGR_ERROR_NO_SPACE,
    /*  6 */ SVCMGR_ERROR_AGENT_CODE_6,
    /*  7 */ SVCMGR_ERROR_INVALID_OPERATION,
    /*  8 */ SVCMGR_ERROR_KYR_DISABLED,
    /*  9 */ SVCMGR_ERROR_PERMISSION_DENIED,
    /* 10 */ SVCMGR_ERROR_NONE,
};

// The list is delivered whatever the result is.
void Deliver(const ModelListReceiver& receiver, int result, const rpc::AIModelList& list) {
  const velmora_svcmgr_ai_model_list_h handle = Convert(list);
  receiver.callback(TranslateAgentResult(result), handle, receiver.user_data);
}

void Deliver(const ProgressReceiver& receiver, int result, const rpc::AIUpdateProgressInfo& info) {
  velmora_svcmgr_ai_progress_h progress = nullptr;
  Convert(info, &progress);
  // The state is not used: the call is part of what a delivery does, and logs a missing handle.
  int state = 0;
  velmora_svcmgr_ai_progress_get_state(progress, &state);
  receiver.callback(TranslateAgentResult(result), progress, receiver.user_data);
}

}  // namespace

int TranslateAgentResult(int result) {
  // Unsigned, so that a negative result is out of the table too.
  const auto index = static_cast<unsigned>(result);
  return index < std::size(kErrorOfAgentResult) ? kErrorOfAgentResult[index]
                                                : SVCMGR_ERROR_INVALID_OPERATION;
}

velmora_svcmgr_ai_model_list_h Convert(const rpc::AIModelList& list) {
  CLIENT_INFO("conver AIModelList to model_list_handle");
  velmora_svcmgr_ai_model_list_h handle = nullptr;
  if (velmora_svcmgr_ai_model_list_create(&handle) == SVCMGR_ERROR_NONE && list.count > 0) {
    KeptBlocks kept(list.models.size());
    for (const rpc::AIModelInfo& model : list.models) {
      velmora_svcmgr_ai_model_info_h info = nullptr;
      const int result = velmora_svcmgr_ai_model_info_create(&info);
      CLIENT_INFO_F("model [%s - %s - %s - %s]", model.id, model.version, model.title,
                    model.description);
      if (result != SVCMGR_ERROR_NONE) continue;
      // The temporary record is kept on purpose: what a conversion calls and logs is fixed, and
      // destroying the record would look the agent's package up and log once more for each model.
      kept.Add(info);
      // Results are ignored on purpose: the answer is delivered with what there is memory for.
      velmora_svcmgr_ai_model_info_set_id(info, model.id);
      velmora_svcmgr_ai_model_info_set_version(info, model.version);
      velmora_svcmgr_ai_model_info_set_title(info, model.title);
      velmora_svcmgr_ai_model_info_set_description(info, model.description);
      velmora_svcmgr_ai_model_list_add(handle, info);
    }
  }
  CLIENT_INFO_F("Successful conversion of [%d] models.", list.count);
  return handle;
}

void Convert(const rpc::AIUpdateProgressInfo& info, velmora_svcmgr_ai_progress_h* progress) {
  CLIENT_INFO("conver AIUpdateProgressInfo to progress_handle");
  velmora_svcmgr_ai_progress_h handle = nullptr;
  if (velmora_svcmgr_ai_progress_create(&handle) == SVCMGR_ERROR_NONE) {
    velmora_svcmgr_ai_progress_set_index(handle, info.index);
    velmora_svcmgr_ai_progress_set_count(handle, info.count);
    velmora_svcmgr_ai_progress_set_percentage(handle, info.percentage);
    velmora_svcmgr_ai_progress_set_state(handle, info.state);
  }
  CLIENT_INFO("Successful conversion");
  *progress = handle;
}

void GetUsableModelListCB::OnReceived(int result, rpc::AIModelList list) {
  // The record names the version list's delegate; log readers know it by this text.
  CLIENT_INFO_F("GetModelVersionListCB::OnReceived error_code[%d]", result);
  Deliver(receiver_, result, list);
}

void GetUsableModelListWithDescCB::OnReceived(int result, rpc::AIModelList list) {
  CLIENT_INFO_F("GetUsableModelListWithDescCB::OnReceived error_code[%d]", result);
  Deliver(receiver_, result, list);
}

void GetModelVersionListCB::OnReceived(int result, rpc::AIModelList list) {
  Deliver(receiver_, result, list);
}

void RequestToUpdateCB::OnReceived(int result, rpc::AIUpdateProgressInfo info) {
  Deliver(receiver_, result, info);
}

void RequestToUninstallCB::OnReceived(int result, rpc::AIUpdateProgressInfo info) {
  Deliver(receiver_, result, info);
}

}  // namespace svcmgr
