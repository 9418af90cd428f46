// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_SVCMGRAPPPROXY_H_
#define SVCMGR_SVCMGRAPPPROXY_H_

#include <rpc-port.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "SvcMgrAppProxyException.h"
#include "call_site.h"
#include "delegate_list.h"
#include "parcel.h"
#include "svcmgr_protocol.h"

namespace rpc_port::SvcMgrAppProxy::proxy {

// The agent's port as the client sees it. One object serves one connection.
//
// Methods may be called on any thread; events arrive on the main loop's. A caller holds a shared
// pointer to the port for the time of its call, so that an event may close the port in the middle.
class SvcMgrAppPort : public std::enable_shared_from_this<SvcMgrAppPort> {
 public:
  class IEventListener {
   public:
    virtual void OnConnected() = 0;
    virtual void OnDisconnected() = 0;
    virtual void OnRejected() = 0;
    virtual ~IEventListener() = default;
  };

  // Awaits the messages that answer one request.
  class CallbackBase {
   public:
    CallbackBase(DelegateId id, bool once);
    CallbackBase(const CallbackBase&) = delete;
    CallbackBase& operator=(const CallbackBase&) = delete;
    virtual ~CallbackBase() = default;

    // Reads what follows the header, and handles it.
    virtual void OnReceivedEvent(rpc_port_parcel_h parcel) = 0;

    const DelegateHeader& header() const { return header_; }
    int id() const { return header_.id; }
    int seq() const { return header_.seq; }
    bool once() const { return header_.once; }

   private:
    DelegateHeader header_;
  };

  // Throws InvalidIOException. The listener must outlive the port.
  SvcMgrAppPort(IEventListener* listener, std::string target_app_id);
  SvcMgrAppPort(const SvcMgrAppPort&) = delete;
  SvcMgrAppPort& operator=(const SvcMgrAppPort&) = delete;
  virtual ~SvcMgrAppPort();

  // Starts connecting. Throws InvalidIDException, InvalidIOException, PermissionDeniedException.
  void Connect();

  // Ends the connection at once and drops all delegates, also while calls or a dispatch are under
  // way that keep the object alive. No event arrives afterwards.
  void Close();

  // Each method throws NotConnectedSocketException before the connected event and
  // InvalidIOException if the request cannot be sent. Those with a result wait for it, and throw
  // InvalidProtocolException if none comes. Those with a delegate take it over when they send.
  int get_agent_api_level();
  svcmgr::Text get_license();
  int request_update();
  int request_update_with_list(const AgentUpdateRequest& request);
  void GetUsableModelList(std::unique_ptr<CallbackBase> delegate, const std::string& app_id,
                          const std::string& app_version);
  void GetUsableModelListWithDesc(std::unique_ptr<CallbackBase> delegate, const std::string& app_id,
                                  const std::string& app_version);
  void GetModelVersionList(std::unique_ptr<CallbackBase> delegate, const AIModelInfo& model,
                           const std::string& app_id, const std::string& app_version);
  void RequestToUpdate(std::unique_ptr<CallbackBase> delegate, const AIModelList& models);
  void RequestToUninstall(std::unique_ptr<CallbackBase> delegate, const AIModelList& models);

 private:
  using Delegates = svcmgr::DelegateList<CallbackBase>;

  static void OnConnectedCB(const char* endpoint, const char* port_name, rpc_port_h port,
                            void* user_data);
  static void OnDisconnectedCB(const char* endpoint, const char* port_name, void* user_data);
  static void OnRejectedCB(const char* endpoint, const char* port_name, void* user_data);
  static void OnReceivedCB(const char* endpoint, const char* port_name, void* user_data);

  void Dispatch(const svcmgr::Parcel& message);

  template <typename Result, typename... Arguments>
  Result Call(const svcmgr::CallSite& site, Method method, Result (svcmgr::ParcelReader::*read)(),
              const Arguments&... arguments);
  template <typename... Arguments>
  void Post(const svcmgr::CallSite& site, Method method, std::unique_ptr<CallbackBase> delegate,
            const Arguments&... arguments);
  bool IsClosed() const { return proxy_handle_ == nullptr; }
  rpc_port_h ConnectedPort(const svcmgr::CallSite& site) const;
  void RequirePort(const svcmgr::CallSite& site, rpc_port_h port) const;
  static void Send(const svcmgr::CallSite& site, svcmgr::Parcel& request, rpc_port_h port);
  svcmgr::Parcel Exchange(const svcmgr::CallSite& site, svcmgr::Parcel& request, rpc_port_h port);

  // Set by the connected event, left in place by a drop; null again once closed.
  std::atomic<rpc_port_h> port_{nullptr};
  std::atomic<rpc_port_h> callback_port_{nullptr};
  std::atomic<rpc_port_proxy_h> proxy_handle_{nullptr};
  IEventListener* listener_;
  // Keeps requests and their replies together. Recursive: sending may run events that send in turn.
  std::recursive_mutex mutex_;
  // Shared with a dispatch, which may outlive the port.
  std::shared_ptr<Delegates> delegates_ = std::make_shared<Delegates>();
  std::string target_app_id_;
};

// The base of a delegate whose messages carry the agent's result and a payload. A payload that
// cannot be read to its end is handed over as a failure with an empty payload.
template <DelegateId delegate_id, typename Payload>
class PayloadCallback : public SvcMgrAppPort::CallbackBase {
 public:
  PayloadCallback() : CallbackBase(delegate_id, /*once=*/false) {}
  void OnReceivedEvent(rpc_port_parcel_h parcel) final;
  virtual void OnReceived(int result, Payload payload) = 0;
};

using GetUsableModelListCallback = PayloadCallback<DelegateId::GetUsableModelList, AIModelList>;
using GetUsableModelListWithDescCallback =
    PayloadCallback<DelegateId::GetUsableModelListWithDesc, AIModelList>;
using GetModelVersionListCallback = PayloadCallback<DelegateId::GetModelVersionList, AIModelList>;
using RequestToUpdateCallback = PayloadCallback<DelegateId::RequestToUpdate, AIUpdateProgressInfo>;
using RequestToUninstallCallback =
    PayloadCallback<DelegateId::RequestToUninstall, AIUpdateProgressInfo>;

}  // namespace rpc_port::SvcMgrAppProxy::proxy

#endif  // SVCMGR_SVCMGRAPPPROXY_H_
