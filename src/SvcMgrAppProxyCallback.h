// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_SVCMGRAPPPROXYCALLBACK_H_
#define SVCMGR_SVCMGRAPPPROXYCALLBACK_H_

#include <velmora_svcmgr.h>

#include "SvcMgrAppProxy.h"

// The delegates that turn the agent's answers into calls of the application's callbacks.

namespace svcmgr {

// Application callbacks, each with its user data.
struct ModelListReceiver {
  velmora_svcmgr_ai_model_list_cb callback;
  void* user_data;
};

struct ProgressReceiver {
  velmora_svcmgr_ai_progress_cb callback;
  void* user_data;
};

// The error code for an agent's result.
int TranslateAgentResult(int result);

// Makes a handle of a list; null if it cannot be created.
velmora_svcmgr_ai_model_list_h Convert(const rpc::AIModelList& list);

// Makes a handle of a progress record; null if it cannot be created.
void Convert(const rpc::AIUpdateProgressInfo& info, velmora_svcmgr_ai_progress_h* progress);

class GetUsableModelListCB final : public rpc::GetUsableModelListCallback {
 public:
  explicit GetUsableModelListCB(ModelListReceiver receiver) : receiver_(receiver) {}
  void OnReceived(int result, rpc::AIModelList list) override;

 private:
  ModelListReceiver receiver_;
};

class GetUsableModelListWithDescCB final : public rpc::GetUsableModelListWithDescCallback {
 public:
  explicit GetUsableModelListWithDescCB(ModelListReceiver receiver) : receiver_(receiver) {}
  void OnReceived(int result, rpc::AIModelList list) override;

 private:
  ModelListReceiver receiver_;
};

class GetModelVersionListCB final : public rpc::GetModelVersionListCallback {
 public:
  explicit GetModelVersionListCB(ModelListReceiver receiver) : receiver_(receiver) {}
  void OnReceived(int result, rpc::AIModelList list) override;

 private:
  ModelListReceiver receiver_;
};

class RequestToUpdateCB final : public rpc::RequestToUpdateCallback {
 public:
  explicit RequestToUpdateCB(ProgressReceiver receiver) : receiver_(receiver) {}
  void OnReceived(int result, rpc::AIUpdateProgressInfo info) override;

 private:
  ProgressReceiver receiver_;
};

class RequestToUninstallCB final : public rpc::RequestToUninstallCallback {
 public:
  explicit RequestToUninstallCB(ProgressReceiver receiver) : receiver_(receiver) {}
  void OnReceived(int result, rpc::AIUpdateProgressInfo info) override;

 private:
  ProgressReceiver receiver_;
};

}  // namespace svcmgr

#endif  // SVCMGR_SVCMGRAPPPROXYCALLBACK_H_
