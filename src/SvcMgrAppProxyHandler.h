// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_SVCMGRAPPPROXYHANDLER_H_
#define SVCMGR_SVCMGRAPPPROXYHANDLER_H_

#include <velmora_svcmgr.h>

#include <atomic>
#include <memory>
#include <string>

#include "SvcMgrAppProxy.h"
#include "SvcMgrAppProxyCallback.h"
#include "app_identity.h"
#include "call_site.h"
#include "text.h"

// The client context: the process's one connection to the agent, and what is asked over it.
//
//     state        connected  proxy   entered by
//     idle         false      null    start, Disconnect, a Connect that failed
//     connecting   false      set     Connect
//     connected    true       set     OnConnected
//     dropped      false      set     OnDisconnected, OnRejected
//
// It is connected without a proxy if the connected event came inside a Connect that then failed.
//
// Connect and Disconnect belong on the main loop's thread, where the events arrive.
class SvcMgrAppProxyHandler final
    : public rpc_port::SvcMgrAppProxy::proxy::SvcMgrAppPort::IEventListener {
 public:
  static SvcMgrAppProxyHandler& GetInstance();

  bool IsConnected() const { return connected_; }

  int Connect(velmora_svcmgr_connection_cb callback, void* user_data);
  void Disconnect();
  void Reconnect();

  void OnConnected() override;
  void OnDisconnected() override;
  void OnRejected() override;

  // What the agent answers when it has no API level, and what stands for a failed query.
  static constexpr int kNoApiLevel = -1;

  // The agent's answers; kNoApiLevel or no text, logged, if it cannot be asked.
  int get_agent_api_level();
  svcmgr::Text get_license();

  // The first returns the agent's result, the second SVCMGR_ERROR_NONE; both an error code, logged,
  // if the agent cannot be asked.
  int request_update();
  int request_update_with_list(const velmora_svcmgr_agent_list_s& list);

  // Each returns an error code; the receiver gets the agent's answer.
  int GetUsableModelList(svcmgr::ModelListReceiver receiver);
  int GetUsableModelListWithDesc(svcmgr::ModelListReceiver receiver);
  int GetUsableModelListWithCategory(const char* category, svcmgr::ModelListReceiver receiver);
  int GetModelVersionList(velmora_svcmgr_ai_model_info_h info, svcmgr::ModelListReceiver receiver);

  int RequestToUpdate(const velmora_svcmgr_ai_model_list_s& list,
                      svcmgr::ProgressReceiver receiver);
  int RequestToUninstall(const velmora_svcmgr_ai_model_list_s& list,
                         svcmgr::ProgressReceiver receiver);

  // The calling application's own; throw AppInfoException.
  std::string GetAppId();
  std::string GetAppVersion();

 private:
  using SvcMgrAppPort = rpc_port::SvcMgrAppProxy::proxy::SvcMgrAppPort;

  SvcMgrAppProxyHandler() = default;
  // Never runs: a proxy that is still held when the process exits is left as it is.
  ~SvcMgrAppProxyHandler() override = default;

  static SvcMgrAppProxyHandler* Make();
  void ForgetInChild();

  std::shared_ptr<SvcMgrAppPort> Proxy() const;
  void Discard(const std::shared_ptr<SvcMgrAppPort>& proxy);
  void Notify(int result, int state) const;

  // What the members above do, in whose name they log. Each hands the proxy to the work.
  std::shared_ptr<SvcMgrAppPort> RequireProxy(const svcmgr::CallSite& site) const;
  template <typename Result, typename Work>
  Result AskAgent(const svcmgr::CallSite& site, Result failure, Work work);
  template <typename Work>
  int SendRequest(const svcmgr::CallSite& site, Work work);
  template <typename Refusal, typename Work>
  int SendUnlessRefused(const svcmgr::CallSite& site, int refusal_code, Work work);
  template <typename Work>
  int SendAsApp(const svcmgr::CallSite& site, Work work);

  // Read by requests on any thread, hence the atomic accesses.
  std::shared_ptr<SvcMgrAppPort> proxy_;
  std::atomic<bool> connected_{false};
  velmora_svcmgr_connection_cb callback_ = nullptr;
  void* user_data_ = nullptr;
};

#endif  // SVCMGR_SVCMGRAPPPROXYHANDLER_H_
