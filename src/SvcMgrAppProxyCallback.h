// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_SVCMGRAPPPROXYCALLBACK_H_
#define SVCMGR_SVCMGRAPPPROXYCALLBACK_H_

#include <velmora_svcmgr.h>

#include "SvcMgrAppProxy.h"

// The delegates that turn the agent's answers into calls of the application's callbacks.

namespace svcmgr {

namespace wire = rpc_port::SvcMgrAppProxy::proxy;

// An application callback and its user data.
struct ModelListReceiver {
  velmora_svcmgr_ai_model_list_cb callback;
  void* user_data;
};

// The error code for an agent's result.
int TranslateAgentResult(int result);

// Makes a handle of a list; null if it cannot be created.
velmora_svcmgr_ai_model_list_h Convert(const wire::AIModelList& list);

class GetUsableModelListCB final : public wire::GetUsableModelListCallback {
 public:
  explicit GetUsableModelListCB(ModelListReceiver receiver) : receiver_(receiver) {}
  void OnReceived(int result, const wire::AIModelList& list) override;

 private:
  ModelListReceiver receiver_;
};

class GetUsableModelListWithDescCB final : public wire::GetUsableModelListWithDescCallback {
 public:
  explicit GetUsableModelListWithDescCB(ModelListReceiver receiver) : receiver_(receiver) {}
  void OnReceived(int result, const wire::AIModelList& list) override;

 private:
  ModelListReceiver receiver_;
};

class GetModelVersionListCB final : public wire::GetModelVersionListCallback {
 public:
  explicit GetModelVersionListCB(ModelListReceiver receiver) : receiver_(receiver) {}
  void OnReceived(int result, const wire::AIModelList& list) override;

 private:
  ModelListReceiver receiver_;
};

}  // namespace svcmgr

#endif  // SVCMGR_SVCMGRAPPPROXYCALLBACK_H_
