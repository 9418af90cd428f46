// SPDX-License-Identifier: Apache-2.0
#include "SvcMgrAppProxyHandler.h"

#include <pthread.h>

#include <new>
#include <stdexcept>
#include <utility>

#include "AgentStatusEventHandler.h"
#include "SvcMgrAppProxyCallback.h"
#include "SvcmgrException.h"
#include "agent_update_state.h"
#include "category_lookup.h"
#include "client_log.h"
#include "service_agent_list.h"
#include "service_model_info.h"
#include "service_model_list.h"
#include "thread_exit.h"

using svcmgr::AppIdentity;
using svcmgr::CallSite;
using svcmgr::ModelListReceiver;
using svcmgr::ProgressReceiver;
using svcmgr::Text;

namespace {

// Throws std::logic_error if a text is not set.
const char* RequireText(const char* text) {
  if (text == nullptr) throw std::logic_error("null text");
  return text;
}

rpc::AIModelInfo ToWire(const velmora_svcmgr_ai_model_info_s& info) {
  return {RequireText(info.id), RequireText(info.version), RequireText(info.title),
          RequireText(info.description)};
}

rpc::AIModelList ToWire(const velmora_svcmgr_ai_model_list_s& list) {
  rpc::AIModelList models;
  for (const velmora_svcmgr_ai_model_info_h info : list.models) {
    if (info == nullptr) throw std::logic_error("null model");
    models.models.push_back(ToWire(*info));
  }
  models.count = static_cast<int>(list.models.size());
  return models;
}

}  // namespace

SvcMgrAppProxyHandler& SvcMgrAppProxyHandler::GetInstance() {
  static SvcMgrAppProxyHandler* const instance = Make();
  return *instance;
}

SvcMgrAppProxyHandler* SvcMgrAppProxyHandler::Make() {
  alignas(SvcMgrAppProxyHandler) static char storage[sizeof(SvcMgrAppProxyHandler)];
  static SvcMgrAppProxyHandler* made = nullptr;
  made = new (storage) SvcMgrAppProxyHandler();
  pthread_atfork(nullptr, nullptr, [] { made->ForgetInChild(); });
  return made;
}

std::shared_ptr<SvcMgrAppProxyHandler::SvcMgrAppPort> SvcMgrAppProxyHandler::Proxy() const {
  return std::atomic_load(&proxy_);
}

// A forked child begins as its parent once did. The connection is the parent's, so that the proxy
// must not be closed here; it is left as it is, because a thread that the child does not have may
// have been inside it.
void SvcMgrAppProxyHandler::ForgetInChild() {
  new (&proxy_) std::shared_ptr<SvcMgrAppPort>();
  connected_ = false;
  callback_ = nullptr;
  user_data_ = nullptr;
  svcmgr::agent_update_state.End();
}

// ---- Connection ---------------------------------------------------------------------------------

int SvcMgrAppProxyHandler::Connect(velmora_svcmgr_connection_cb callback, void* user_data) {
  CLIENT_INFO("Connect");
  callback_ = callback;
  user_data_ = user_data;
  if (Proxy() != nullptr) return SVCMGR_ERROR_NONE;

  // Held here, because the application may disconnect, and connect again, inside the attempt.
  std::shared_ptr<SvcMgrAppPort> proxy;
  try {
    // Built here, where a lack of memory can still be reported: the events need it.
    AgentStatusEventHandler::GetInstance();
    proxy = std::make_shared<SvcMgrAppPort>(this, AGENT_PACKAGE_ID);
    std::atomic_store(&proxy_, proxy);
    proxy->Connect();
    return SVCMGR_ERROR_NONE;
  }
  LET_THREAD_EXIT_PASS
  catch (const rpc::InvalidIDException&) {
    CLIENT_ERROR("Invalid ID exception occurred!!!");
    Discard(proxy);
    return SVCMGR_ERROR_CONNECTION_FAILED;
  }
  catch (const rpc::InvalidIOException&) {
    CLIENT_ERROR("Invalid IO exception occurred!!!");
    Discard(proxy);
    return SVCMGR_ERROR_CONNECTION_FAILED;
  }
  catch (const rpc::PermissionDeniedException&) {
    CLIENT_ERROR("Permission denied exception occurred!!!");
    Discard(proxy);
    return SVCMGR_ERROR_PERMISSION_DENIED;
  }
  catch (...) {
    CLIENT_ERROR("Unexpected Exception occurred!!!");
    Discard(proxy);
    return SVCMGR_ERROR_INVALID_OPERATION;
  }
}

// Ends a proxy whose Connect failed. A proxy that was made inside that attempt is not touched.
void SvcMgrAppProxyHandler::Discard(const std::shared_ptr<SvcMgrAppPort>& proxy) {
  if (proxy == nullptr) return;
  std::shared_ptr<SvcMgrAppPort> expected = proxy;
  std::atomic_compare_exchange_strong(&proxy_, &expected, {});
  proxy->Close();
}

void SvcMgrAppProxyHandler::Disconnect() {
  CLIENT_INFO("Disconnect");
  connected_ = false;
  // Taken out first: what closing calls finds no proxy, and may connect again.
  const auto proxy = std::atomic_exchange(&proxy_, {});
  if (proxy != nullptr) proxy->Close();
  // A connection that stands by now, made inside the closing, keeps its watch.
  if (!connected_) AgentStatusEventHandler::GetInstance().DontCareConnection();
  CLIENT_INFO("proxy handle was destroyed");
}

void SvcMgrAppProxyHandler::Reconnect() {
  CLIENT_INFO("Re-connect");
  Disconnect();
  Connect(callback_, user_data_);
}

void SvcMgrAppProxyHandler::OnConnected() {
  CLIENT_INFO("OnConnected");
  connected_ = true;
  const auto proxy = Proxy();
  AgentStatusEventHandler::GetInstance().KeepConnection();
  // The connection may have ended, or another have taken its place, inside the subscription.
  if (!connected_ || Proxy() != proxy) return;
  if (svcmgr::agent_update_state.IsAgentRelaunched()) return;
  Notify(SVCMGR_ERROR_NONE, SVCMGR_CONNECTION_STATE_CONNECTED);
}

void SvcMgrAppProxyHandler::OnDisconnected() {
  CLIENT_INFO("OnDisconnected");
  connected_ = false;
  if (svcmgr::agent_update_state.LoseAgent()) return;
  Notify(SVCMGR_ERROR_NONE, SVCMGR_CONNECTION_STATE_DISCONNECTED);
}

void SvcMgrAppProxyHandler::OnRejected() {
  CLIENT_INFO("OnRejected");
  connected_ = false;
  Notify(SVCMGR_ERROR_PERMISSION_DENIED, SVCMGR_CONNECTION_STATE_REJECTED);
}

void SvcMgrAppProxyHandler::Notify(int result, int state) const {
  // Copies: the callback may connect with another one.
  const auto callback = callback_;
  void* const user_data = user_data_;
  if (callback != nullptr) callback(result, state, user_data);
}

// ---- Requests that wait -------------------------------------------------------------------------

int SvcMgrAppProxyHandler::get_agent_api_level() {
  return AskAgent(SVCMGR_HERE, kNoApiLevel,
                  [](SvcMgrAppPort& proxy) { return proxy.get_agent_api_level(); });
}

Text SvcMgrAppProxyHandler::get_license() {
  return AskAgent(SVCMGR_HERE, Text(), [](SvcMgrAppPort& proxy) { return proxy.get_license(); });
}

int SvcMgrAppProxyHandler::request_update() {
  const int failure = SVCMGR_ERROR_INVALID_OPERATION;
  return AskAgent(SVCMGR_HERE, failure, [](SvcMgrAppPort& proxy) {
    // Whatever becomes of the request.
    svcmgr::agent_update_state.Request();
    return proxy.request_update();
  });
}

int SvcMgrAppProxyHandler::request_update_with_list(const velmora_svcmgr_agent_list_s& list) {
  return SendRequest(SVCMGR_HERE, [&](SvcMgrAppPort& proxy) {
    svcmgr::agent_update_state.Request();
    rpc::AgentUpdateRequest request;
    for (const char* agent : list.agents) request.agents.push_back(RequireText(agent));
    request.count = static_cast<int>(list.agents.size());
    // The agent's result is ignored on purpose: the events tell how the update goes.
    proxy.request_update_with_list(request);
  });
}

// ---- Model requests -----------------------------------------------------------------------------
//
// A delegate, and with it a sequence number, is made when all that it is sent with stands.

int SvcMgrAppProxyHandler::GetUsableModelList(ModelListReceiver receiver) {
  return SendAsApp(SVCMGR_HERE, [&](SvcMgrAppPort& proxy, const AppIdentity& app) {
    proxy.GetUsableModelList(std::make_unique<svcmgr::GetUsableModelListCB>(receiver), app.id,
                             app.version);
  });
}

int SvcMgrAppProxyHandler::GetUsableModelListWithDesc(ModelListReceiver receiver) {
  return SendAsApp(SVCMGR_HERE, [&](SvcMgrAppPort& proxy, const AppIdentity& app) {
    proxy.GetUsableModelListWithDesc(
        std::make_unique<svcmgr::GetUsableModelListWithDescCB>(receiver), app.id, app.version);
  });
}

int SvcMgrAppProxyHandler::GetUsableModelListWithCategory(const char* category,
                                                          ModelListReceiver receiver) {
  const int refusal = SVCMGR_ERROR_INVALID_PARAMETER;
  return SendUnlessRefused<NoSuchAppException>(SVCMGR_HERE, refusal, [&](SvcMgrAppPort& proxy) {
    const AppIdentity app = svcmgr::FindPackageOfCategory(category);
    proxy.GetUsableModelList(std::make_unique<svcmgr::GetUsableModelListCB>(receiver), app.id,
                             app.version);
  });
}

int SvcMgrAppProxyHandler::GetModelVersionList(velmora_svcmgr_ai_model_info_h info,
                                               ModelListReceiver receiver) {
  const int refusal = SVCMGR_ERROR_INVALID_OPERATION;
  return SendUnlessRefused<AppInfoException>(SVCMGR_HERE, refusal, [&](SvcMgrAppPort& proxy) {
    const rpc::AIModelInfo model = ToWire(*info);
    const AppIdentity app = {GetAppId(), GetAppVersion()};
    proxy.GetModelVersionList(std::make_unique<svcmgr::GetModelVersionListCB>(receiver), model,
                              app.id, app.version);
  });
}

int SvcMgrAppProxyHandler::RequestToUpdate(const velmora_svcmgr_ai_model_list_s& list,
                                           ProgressReceiver receiver) {
  return SendRequest(SVCMGR_HERE, [&](SvcMgrAppPort& proxy) {
    const rpc::AIModelList models = ToWire(list);
    proxy.RequestToUpdate(std::make_unique<svcmgr::RequestToUpdateCB>(receiver), models);
  });
}

int SvcMgrAppProxyHandler::RequestToUninstall(const velmora_svcmgr_ai_model_list_s& list,
                                              ProgressReceiver receiver) {
  return SendRequest(SVCMGR_HERE, [&](SvcMgrAppPort& proxy) {
    const rpc::AIModelList models = ToWire(list);
    proxy.RequestToUninstall(std::make_unique<svcmgr::RequestToUninstallCB>(receiver), models);
  });
}

// ---- What all requests share --------------------------------------------------------------------

// Null, logged, if there is none.
std::shared_ptr<SvcMgrAppProxyHandler::SvcMgrAppPort> SvcMgrAppProxyHandler::RequireProxy(
    const CallSite& site) const {
  auto proxy = Proxy();
  if (proxy == nullptr) CLIENT_ERROR_AT(site, "Not connected");
  return proxy;
}

// Runs a query whose answer is waited for; the failure value, logged, if it cannot be asked.
template <typename Result, typename Work>
Result SvcMgrAppProxyHandler::AskAgent(const CallSite& site, Result failure, Work work) {
  const auto proxy = RequireProxy(site);
  if (proxy == nullptr) return failure;
  try {
    return work(*proxy);
  }
  LET_THREAD_EXIT_PASS
  catch (const AppInfoException& exception) {
    CLIENT_ERROR_F_AT(site, "%s", exception.what());
  }
  catch (const rpc::Exception&) {
    CLIENT_ERROR_AT(site, "PROXY EXCEPTION!!!");
  }
  catch (...) {
    CLIENT_ERROR_AT(site, "Unknown Exception");
  }
  return failure;
}

// Runs a request; anything that it throws is logged and becomes SVCMGR_ERROR_INVALID_OPERATION.
template <typename Work>
int SvcMgrAppProxyHandler::SendRequest(const CallSite& site, Work work) {
  const auto proxy = RequireProxy(site);
  if (proxy == nullptr) return SVCMGR_ERROR_NOT_CONNECTED;
  try {
    work(*proxy);
    return SVCMGR_ERROR_NONE;
  }
  LET_THREAD_EXIT_PASS
  catch (...) {
    CLIENT_ERROR_AT(site, "Unknown Exception");
    return SVCMGR_ERROR_INVALID_OPERATION;
  }
}

// The same for a request that a client exception may refuse; refusal_code is what that means.
template <typename Refusal, typename Work>
int SvcMgrAppProxyHandler::SendUnlessRefused(const CallSite& site, int refusal_code, Work work) {
  int refused = SVCMGR_ERROR_NONE;
  const int result = SendRequest(site, [&](SvcMgrAppPort& proxy) {
    try {
      work(proxy);
    } catch (const Refusal& exception) {
      CLIENT_ERROR_F_AT(site, "%s", exception.what());
      refused = refusal_code;
    }
  });
  return result != SVCMGR_ERROR_NONE ? result : refused;
}

// The same for a request that tells the agent who asks.
template <typename Work>
int SvcMgrAppProxyHandler::SendAsApp(const CallSite& site, Work work) {
  const int refusal = SVCMGR_ERROR_INVALID_OPERATION;
  return SendUnlessRefused<AppInfoException>(site, refusal, [&](SvcMgrAppPort& proxy) {
    work(proxy, AppIdentity{GetAppId(), GetAppVersion()});
  });
}

std::string SvcMgrAppProxyHandler::GetAppId() {
  std::string id = svcmgr::ReadAppText(app_get_id);
  if (id.empty()) {
    CLIENT_ERROR("Failed to get app ID.");
    throw AppInfoException();
  }
  return id;
}

std::string SvcMgrAppProxyHandler::GetAppVersion() {
  std::string version = svcmgr::ReadAppText(app_get_version);
  if (version.empty()) {
    CLIENT_ERROR("Failed to get app version.");
    throw AppInfoException();
  }
  return version;
}
