// SPDX-License-Identifier: Apache-2.0
#include "stub.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "codes.h"
#include "own_app_id.h"
#include "runtime_folder.h"
#include "stub_client.h"
#include "stub_guest.h"
#include "unique_fd.h"

namespace rpc_port_desktop {
namespace {

// Enough for many clients that connect at the same moment. Beyond it the oldest guest goes, which
// is never one that has only just connected.
constexpr size_t kMaxGuests = 256;
// How many streams are accepted before the loop turns to its other sources.
constexpr int kMaxAcceptedAtOnce = 32;

}  // namespace

Stub::Stub(std::string port_name) : port_name_(std::move(port_name)) {}

Stub::~Stub() = default;

int Stub::Listen() {
  if (socket_) return kInvalidParameter;
  std::string app_id;
  int result = OwnAppId(&app_id);
  base::UniqueFd folder;
  if (result == kOk) result = OpenRuntimeFolder(IfMissing::kMake, &folder);
  if (result != kOk) return result;
  auto socket = std::make_unique<ServerSocket>();
  result = socket->Listen(std::move(folder), SocketName(app_id, port_name_));
  if (result != kOk) return result;
  app_id_ = std::move(app_id);
  socket_ = std::move(socket);
  source_ = std::make_unique<LoopSource>();
  source_->Watch(socket_->fd(), G_IO_IN);
  source_->Attach(weak_from_this());
  return kOk;
}

void Stub::Destroy() {
  gate_.Close();
  if (source_) source_->Destroy();
  for (const auto& guest : guests_) guest->Leave()->Close();
  guests_.clear();
  for (const auto& [instance, client] : clients_) {
    client->End();
    client->connection.Close();
  }
  clients_.clear();
  socket_.reset();
  gate_.AwaitRunning();
}

int Stub::GetPort(rpc_port_port_type_e type, std::string_view instance, rpc_port_h* port) {
  const auto found = clients_.find(instance);
  if (found == clients_.end()) return kInvalidParameter;
  const Connection& connection = found->second->connection;
  *port = type == RPC_PORT_PORT_MAIN ? connection.main_port : connection.callback_port;
  return kOk;
}

int Stub::Disconnect(const std::string& instance) {
  const auto found = clients_.find(instance);
  if (found == clients_.end()) return kInvalidParameter;
  const auto client = found->second;
  clients_.erase(found);
  client->End();
  client->connection.Close();
  return kOk;
}

void Stub::SetAdmission(rpc_port_desktop_admission_cb callback, void* data) {
  admission_ = callback;
  admission_data_ = data;
}

void Stub::Dispatch() {
  for (int i = 0; i < kMaxAcceptedAtOnce && !gate_.closed() && Accept(); ++i) {
  }
}

// False if no more are waiting, or none can be accepted now.
bool Stub::Accept() {
  base::UniqueFd socket(accept4(socket_->fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!socket) {
    if (errno == EINTR || errno == ECONNABORTED) return true;
    // Without a free descriptor the socket stays readable.
    if (errno != EAGAIN) source_->Rest();
    return false;
  }
  if (!PeerIsOwnUser(socket.get())) return true;
  if (guests_.size() >= kMaxGuests) Dismiss(*guests_.front());
  const auto guest = std::make_shared<StubGuest>(std::move(socket), weak_from_this());
  guests_.push_back(guest);
  guest->Attach();
  // Its hello has nearly always arrived with it.
  guest->Dispatch();
  return true;
}

void Stub::Dismiss(const StubGuest& guest) {
  const auto found = std::find_if(guests_.begin(), guests_.end(),
                                  [&](const auto& other) { return other.get() == &guest; });
  if (found == guests_.end()) return;
  const auto leaving = std::move(*found);
  guests_.erase(found);
  leaving->Leave()->Close();
}

std::shared_ptr<StubGuest> Stub::FindPartner(const StubGuest& guest) const {
  for (const auto& other : guests_) {
    const bool waits = other.get() != &guest && other->has_said_hello();
    if (waits && other->hello().token == guest.hello().token) return other;
  }
  return nullptr;
}

void Stub::OnHello(const std::shared_ptr<StubGuest>& guest) {
  const Hello& hello = guest->hello();
  if (hello.version != kProtocolVersion) {
    guest->Answer(Verdict::kRejected);
    return Dismiss(*guest);
  }
  const bool is_for_us = hello.server == app_id_ && hello.port_name == port_name_;
  if (!is_for_us || clients_.count(hello.token) != 0) return Dismiss(*guest);
  const auto partner = FindPartner(*guest);
  if (!partner) return;
  if (partner->hello().kind == hello.kind || partner->hello().sender != hello.sender) {
    return Dismiss(*guest);
  }
  const bool is_main = hello.kind == kMainStream;
  Pair(is_main ? guest : partner, is_main ? partner : guest);
}

void Stub::Pair(const std::shared_ptr<StubGuest>& main,
                const std::shared_ptr<StubGuest>& callback) {
  // They leave before anybody is asked, so that no nested main loop finds half a connection.
  const auto main_stream = main->Leave();
  const auto callback_stream = callback->Leave();
  guests_.erase(
      std::remove_if(guests_.begin(), guests_.end(),
                     [&](const auto& guest) { return guest == main || guest == callback; }),
      guests_.end());
  const bool admitted = Admits(main->hello());
  if (gate_.closed()) return;
  if (!admitted) return main->Answer(Verdict::kRejected);
  main->Answer(Verdict::kAccepted);
  Welcome(std::make_shared<StubClient>(main->hello().sender, main->hello().token, main_stream,
                                       callback_stream, weak_from_this()));
}

bool Stub::Admits(const Hello& hello) {
  if (admission_ == nullptr) return true;
  const CallbackGate::Pass pass(&gate_);
  return pass && admission_(hello.sender.c_str(), hello.token.c_str(), admission_data_);
}

void Stub::Welcome(const std::shared_ptr<StubClient>& client) {
  clients_.emplace(client->instance, client);
  client->Attach();
  CallEach(&gate_, &connected_callbacks, Always, [&](const auto& entry) {
    entry.function(client->sender.c_str(), client->instance.c_str(), entry.data);
  });
}

void Stub::OnMessage(const std::shared_ptr<StubClient>& client, uint64_t number) {
  bool goes_on = true;
  CallEach(
      &gate_, &received_callbacks, [&] { return goes_on && client->Waits(number); },
      [&](const auto& entry) {
        goes_on = entry.function(client->sender.c_str(), client->instance.c_str(),
                                 client->connection.main_port, entry.data) == 0;
      });
  if (!goes_on) OnGone(client);
}

void Stub::OnGone(const std::shared_ptr<StubClient>& client) {
  if (!client->End()) return;
  clients_.erase(client->instance);
  CallEach(&gate_, &disconnected_callbacks, Always, [&](const auto& entry) {
    entry.function(client->sender.c_str(), client->instance.c_str(), entry.data);
  });
  client->connection.Close();
}

}  // namespace rpc_port_desktop
