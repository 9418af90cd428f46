// SPDX-License-Identifier: Apache-2.0
#include "SvcMgrAppProxy.h"

#include <velmora_svcmgr.h>

#include <array>
#include <memory_resource>
#include <new>
#include <type_traits>
#include <utility>

#include "marshalling.h"
#include "proxy_log.h"
#include "thread_exit.h"

// Closes a function that the platform calls: nothing that is thrown reaches the platform's C code.
// A semicolon follows, as after RETURN_ON_EXCEPTION.
#define END_ON_EXCEPTION              \
  LET_THREAD_EXIT_PASS                \
  catch (...) {                       \
    PROXY_ERROR("Unknown Exception"); \
  }

namespace rpc_port::SvcMgrAppProxy::proxy {

using svcmgr::CallSite;
using svcmgr::Parcel;
using svcmgr::ParcelReader;
using svcmgr::ParcelWriter;
using svcmgr::Text;

namespace {

// Codes of the platform.
constexpr int kPlatformIoError = -5;
constexpr int kPlatformPermissionDenied = -13;
constexpr int kPlatformInvalidParameter = -22;

// Of the process, across all ports.
std::atomic<int> next_seq{0};

template <typename... Arguments>
Parcel MakeRequest(Method method, const Arguments&... arguments) {
  Parcel request = svcmgr::CreateParcel();
  ParcelWriter out(request);
  out.Int32(static_cast<int>(method));
  (Write(out, arguments), ...);
  return request;
}

}  // namespace

// ---- Methods: number, arguments in wire order, result -------------------------------------------

int SvcMgrAppPort::get_agent_api_level() {
  return Call(PROXY_HERE, Method::get_agent_api_level, &ParcelReader::Int32);
}

Text SvcMgrAppPort::get_license() {
  return Call(PROXY_HERE, Method::get_license, &ParcelReader::String);
}

int SvcMgrAppPort::request_update() {
  return Call(PROXY_HERE, Method::request_update, &ParcelReader::Int32);
}

int SvcMgrAppPort::request_update_with_list(const AgentUpdateRequest& request) {
  return Call(PROXY_HERE, Method::request_update_with_list, &ParcelReader::Int32, request);
}

void SvcMgrAppPort::GetUsableModelList(std::unique_ptr<CallbackBase> delegate,
                                       const std::string& app_id, const std::string& app_version) {
  Post(PROXY_HERE, Method::GetUsableModelList, std::move(delegate), app_id, app_version);
}

void SvcMgrAppPort::GetUsableModelListWithDesc(std::unique_ptr<CallbackBase> delegate,
                                               const std::string& app_id,
                                               const std::string& app_version) {
  Post(PROXY_HERE, Method::GetUsableModelListWithDesc, std::move(delegate), app_id, app_version);
}

void SvcMgrAppPort::GetModelVersionList(std::unique_ptr<CallbackBase> delegate,
                                        const AIModelInfo& model, const std::string& app_id,
                                        const std::string& app_version) {
  Post(PROXY_HERE, Method::GetModelVersionList, std::move(delegate), model, app_id, app_version);
}

void SvcMgrAppPort::RequestToUpdate(std::unique_ptr<CallbackBase> delegate,
                                    const AIModelList& models) {
  Post(PROXY_HERE, Method::RequestToUpdate, std::move(delegate), models);
}

void SvcMgrAppPort::RequestToUninstall(std::unique_ptr<CallbackBase> delegate,
                                       const AIModelList& models) {
  Post(PROXY_HERE, Method::RequestToUninstall, std::move(delegate), models);
}

// ---- Life ---------------------------------------------------------------------------------------

SvcMgrAppPort::CallbackBase::CallbackBase(DelegateId id, bool once)
    : header_{static_cast<int>(id), next_seq++, once} {}

SvcMgrAppPort::SvcMgrAppPort(IEventListener* listener, std::string target_app_id)
    : listener_(listener), target_app_id_(std::move(target_app_id)) {
  rpc_port_proxy_h handle = nullptr;
  if (rpc_port_proxy_create(&handle) != 0 || handle == nullptr) {
    PROXY_ERROR("Failed to create proxy");
    throw InvalidIOException();
  }
  proxy_handle_ = handle;
  try {
    rpc_port_proxy_add_connected_event_cb(handle, OnConnectedCB, this);
    rpc_port_proxy_add_disconnected_event_cb(handle, OnDisconnectedCB, this);
    rpc_port_proxy_add_rejected_event_cb(handle, OnRejectedCB, this);
    rpc_port_proxy_add_received_event_cb(handle, OnReceivedCB, this);
  } catch (...) {
    // The destructor does not run for an object that was never whole.
    Close();
    throw;
  }
}

SvcMgrAppPort::~SvcMgrAppPort() { Close(); }

void SvcMgrAppPort::Connect() {
  const int result = rpc_port_proxy_connect(proxy_handle_, target_app_id_.c_str(), kPortName);
  if (result == 0) return;
  PROXY_ERROR("Failed to connect SvcMgrAppPort");
  switch (result) {
    case kPlatformInvalidParameter:
      throw InvalidIDException();
    case kPlatformIoError:
      throw InvalidIOException();
    case kPlatformPermissionDenied:
      throw PermissionDeniedException();
    default:
      return;  // counts as started
  }
}

void SvcMgrAppPort::Close() {
  // The port handles end with the proxy handle.
  port_ = nullptr;
  callback_port_ = nullptr;
  const rpc_port_proxy_h handle = proxy_handle_.exchange(nullptr);
  if (handle != nullptr) rpc_port_proxy_destroy(handle);
  delegates_->Clear();
}

// ---- Requests -----------------------------------------------------------------------------------

rpc_port_h SvcMgrAppPort::ConnectedPort(const CallSite& site) const {
  const rpc_port_h port = port_;
  if (port == nullptr) {
    PROXY_ERROR_AT(site, "Not connected");
    throw NotConnectedSocketException();
  }
  return port;
}

// Under the mutex: the port may have been closed while the request was built or the mutex awaited,
// and its handle is gone then.
void SvcMgrAppPort::RequirePort(const CallSite& site, rpc_port_h port) const {
  if (ConnectedPort(site) != port) throw NotConnectedSocketException();
}

void SvcMgrAppPort::Send(const CallSite& site, Parcel& request, rpc_port_h port) {
  const int result = rpc_port_parcel_send(request.get(), port);
  if (result == 0) return;
  PROXY_ERROR_F_AT(site, "Failed to send parcel. result(%d)", result);
  // While the mutex is held, as long as the request counts as under way.
  request.reset();
  throw InvalidIOException();
}

// Sends a request and waits for its reply; empty if none can come any more.
Parcel SvcMgrAppPort::Exchange(const CallSite& site, Parcel& request, rpc_port_h port) {
  const std::lock_guard lock(mutex_);
  RequirePort(site, port);
  Send(site, request, port);
  // Sending may have run events that closed the port.
  while (port_ == port) {
    Parcel message = svcmgr::ReceiveParcel(port);
    if (message == nullptr) break;
    ParcelReader in(message.get());
    if (in.Int32() == kReplyCommand && in.ok()) return message;
  }
  return nullptr;
}

template <typename Result, typename... Arguments>
Result SvcMgrAppPort::Call(const CallSite& site, Method method, Result (ParcelReader::*read)(),
                           const Arguments&... arguments) {
  const rpc_port_h port = ConnectedPort(site);
  Parcel request = MakeRequest(method, arguments...);
  const Parcel reply = Exchange(site, request, port);
  ParcelReader in(reply.get());
  Result result = reply == nullptr ? Result{} : (in.*read)();
  if (reply == nullptr || !in.ok()) {
    PROXY_ERROR_AT(site, "Invalid protocol");
    throw InvalidProtocolException();
  }
  request.reset();  // before the reply, which goes with this function
  return result;
}

template <typename... Arguments>
void SvcMgrAppPort::Post(const CallSite& site, Method method,
                         std::unique_ptr<CallbackBase> delegate, const Arguments&... arguments) {
  const rpc_port_h port = ConnectedPort(site);
  Parcel request = MakeRequest(method, delegate->header(), arguments...);
  const std::lock_guard lock(mutex_);
  RequirePort(site, port);
  // In place before the request leaves: the answer may be dispatched inside the send.
  delegates_->Append(std::move(delegate));
  Send(site, request, port);
}

// ---- Events -------------------------------------------------------------------------------------
//
// A listener or a delegate may close the port. Each event function therefore keeps the port alive,
// and calls the listener last.

void SvcMgrAppPort::OnConnectedCB(const char*, const char*, rpc_port_h port, void* user_data) try {
  auto* self = static_cast<SvcMgrAppPort*>(user_data);
  const auto alive = self->weak_from_this().lock();
  if (self->IsClosed()) return;
  self->port_ = port;
  rpc_port_h callback_port = nullptr;
  const int result =
      rpc_port_proxy_get_port(self->proxy_handle_, RPC_PORT_PORT_CALLBACK, &callback_port);
  // Without a callback port the connection counts all the same; only its answers are lost.
  if (result == 0) self->callback_port_ = callback_port;
  if (self->IsClosed()) return;
  self->listener_->OnConnected();
}
END_ON_EXCEPTION;

void SvcMgrAppPort::OnDisconnectedCB(const char*, const char*, void* user_data) try {
  auto* self = static_cast<SvcMgrAppPort*>(user_data);
  const auto alive = self->weak_from_this().lock();
  if (self->IsClosed()) return;
  self->delegates_->Clear();
  self->listener_->OnDisconnected();
}
END_ON_EXCEPTION;

void SvcMgrAppPort::OnRejectedCB(const char*, const char*, void* user_data) try {
  auto* self = static_cast<SvcMgrAppPort*>(user_data);
  const auto alive = self->weak_from_this().lock();
  if (self->IsClosed()) return;
  self->listener_->OnRejected();
}
END_ON_EXCEPTION;

void SvcMgrAppPort::OnReceivedCB(const char*, const char*, void* user_data) try {
  auto* self = static_cast<SvcMgrAppPort*>(user_data);
  const auto alive = self->weak_from_this().lock();
  if (self->IsClosed()) return;
  const Parcel message = svcmgr::ReceiveParcel(self->callback_port_);
  if (message == nullptr) {
    PROXY_ERROR("Failed to create parcel from port");
    return;
  }
  self->Dispatch(message);
}
END_ON_EXCEPTION;

void SvcMgrAppPort::Dispatch(const Parcel& message) {
  ParcelReader in(message.get());
  if (in.Int32() != kDelegateCommand) return;
  DelegateHeader header;
  Read(in, header);
  if (!in.ok()) return;

  const auto delegates = delegates_;
  const auto delegate = delegates->Find(header.id, header.seq);
  if (delegate == nullptr) return;
  delegate->OnReceivedEvent(message.get());
  // Its own flag counts, whatever the message says.
  if (delegate->once()) delegates->Remove(*delegate);
}

namespace {

// Holds what is read of an answer, its records and its texts, in one piece: as thousands of small
// ones, it would leave its holes between what the application and the library keep. A usual answer
// needs no allocation.
class AnswerMemory {
 public:
  std::pmr::memory_resource* get() { return &memory_; }

 private:
  std::array<char, 4096> first_;
  std::pmr::monotonic_buffer_resource memory_{first_.data(), first_.size()};
};

template <typename Payload>
Payload EmptyPayload(AnswerMemory& memory) {
  if constexpr (std::is_constructible_v<Payload, std::pmr::memory_resource*>) {
    return Payload(memory.get());
  } else {
    return {};
  }
}

// False if the payload cannot be read to its end, also for lack of memory.
template <typename Payload>
bool TryRead(ParcelReader& in, Payload& payload) {
  try {
    Read(in, payload);
    return in.ok();
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace

template <DelegateId delegate_id, typename Payload>
void PayloadCallback<delegate_id, Payload>::OnReceivedEvent(rpc_port_parcel_h parcel) {
  ParcelReader in(parcel);
  const int result = in.Int32();
  AnswerMemory memory;
  auto payload = EmptyPayload<Payload>(memory);
  if (TryRead(in, payload)) {
    OnReceived(result, std::move(payload));
  } else {
    OnReceived(SVCMGR_ERROR_INVALID_OPERATION, Payload{});
  }
}

template class PayloadCallback<DelegateId::GetUsableModelList, AIModelList>;
template class PayloadCallback<DelegateId::GetUsableModelListWithDesc, AIModelList>;
template class PayloadCallback<DelegateId::GetModelVersionList, AIModelList>;
template class PayloadCallback<DelegateId::RequestToUpdate, AIUpdateProgressInfo>;
template class PayloadCallback<DelegateId::RequestToUninstall, AIUpdateProgressInfo>;

}  // namespace rpc_port::SvcMgrAppProxy::proxy
