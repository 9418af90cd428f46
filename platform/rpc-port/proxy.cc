// SPDX-License-Identifier: Apache-2.0
#include "proxy.h"

#include <package_desktop.h>

#include "codes.h"
#include "handshake.h"
#include "own_app_id.h"
#include "runtime_folder.h"
#include "unique_fd.h"
#include "unix_socket.h"

namespace rpc_port_desktop {
namespace {

int OpenStream(int folder, const Hello& hello, std::shared_ptr<Stream>* stream) {
  base::UniqueFd socket;
  const int result = ConnectTo(folder, SocketName(hello.server, hello.port_name), &socket);
  if (result != kOk) return result;
  *stream = std::make_shared<Stream>(std::move(socket), kMaxHandshakeSize);
  Parcel parcel;
  if (!hello.Write(&parcel)) return kOutOfMemory;
  // A server that ends just now is reported when the streams end.
  (void)(*stream)->Send(parcel.Seal(), parcel.message_size());
  return kOk;
}

}  // namespace

Proxy::State Proxy::state() {
  std::lock_guard<std::mutex> lock(mutex_);
  return state_;
}

// False if the proxy is gone, which is final.
bool Proxy::Become(State state) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (state_ == State::kGone) return false;
  state_ = state;
  return true;
}

int Proxy::Connect(const std::string& app_id, const std::string& port_name) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ != State::kIdle) return kInvalidParameter;
    state_ = State::kStarting;
  }
  const int result = Guarded([&] {
    app_id_ = app_id;
    port_name_ = port_name;
    return Start();
  });
  if (result != kOk) Become(State::kIdle);
  return result;
}

int Proxy::Start() {
  Hello hello;
  hello.version = kProtocolVersion;
  hello.server = app_id_;
  hello.port_name = port_name_;
  hello.token = DrawToken();
  if (hello.token.empty()) return kIoError;
  int result = OwnAppId(&hello.sender);
  if (result == kOk) result = package_desktop_check_client(app_id_.c_str(), hello.sender.c_str());
  base::UniqueFd folder;
  if (result == kOk) result = OpenRuntimeFolder(IfMissing::kFail, &folder);
  std::shared_ptr<Stream> main;
  if (result == kOk) result = OpenStream(folder.get(), hello, &main);
  hello.kind = kCallbackStream;
  std::shared_ptr<Stream> callback;
  if (result == kOk) result = OpenStream(folder.get(), hello, &callback);
  if (result != kOk) return result;

  connection_ = std::make_unique<Connection>(std::move(main), std::move(callback));
  pump_ = std::make_unique<MessagePump>(connection_->callback, connection_->source);
  connection_->source->Watch(connection_->main->fd(), G_IO_IN);
  connection_->source->Watch(connection_->callback->fd(), GIOCondition{});
  // A proxy that another thread has destroyed meanwhile stays silent.
  if (Become(State::kConnecting)) connection_->source->Attach(weak_from_this());
  return kOk;
}

int Proxy::GetPort(rpc_port_port_type_e type, rpc_port_h* port) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (main_port_ == nullptr) return kIoError;
  *port = type == RPC_PORT_PORT_MAIN ? main_port_ : callback_port_;
  return kOk;
}

void Proxy::Destroy() {
  gate_.Close();
  State before;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    before = std::exchange(state_, State::kGone);
  }
  // In the first two states the connection is not made yet, or belongs to the thread that makes it.
  if (before != State::kIdle && before != State::kStarting && connection_) connection_->Close();
  gate_.AwaitRunning();
}

template <typename Function, typename Wanted, typename... Arguments>
void Proxy::Emit(CallbackList<Function>* list, Wanted wanted, Arguments... arguments) {
  CallEach(&gate_, list, wanted, [&](const auto& entry) {
    entry.function(app_id_.c_str(), port_name_.c_str(), arguments..., entry.data);
  });
}

bool Proxy::HasWork() {
  const State now = state();
  return now == State::kConnecting ? verdict_.has_value()
                                   : now == State::kConnected && pump_->HasWork();
}

void Proxy::Dispatch() {
  switch (state()) {
    case State::kConnecting:
      return AwaitVerdict();
    case State::kConnected:
      return OnReadable();
    default:
      return;
  }
}

void Proxy::AwaitVerdict() {
  if (verdict_) return OnVerdict();
  Stream& main = *connection_->main;
  const bool callback_is_gone = Connection::HungUp(connection_->Look().callback);
  main.Fill();
  Parcel message;
  if (!main.Take(&message)) {
    if (main.ended() || callback_is_gone) Lose();
    return;
  }
  Verdict verdict;
  if (!ReadVerdict(&message, &verdict)) return Lose();
  verdict_ = verdict;
  OnVerdict();
}

// Called again if memory was short.
void Proxy::OnVerdict() {
  if (verdict_ == Verdict::kRejected) {
    if (!Become(State::kGone)) return;
    connection_->End();
    return Emit(&rejected_callbacks, Always);
  }
  connection_->main->set_max_content(kMaxContentSize);
  connection_->callback->set_max_content(kMaxContentSize);
  {
    // Not Publish and then Become: a proxy destroyed in between would leave its handles behind.
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == State::kGone) return;
    connection_->Publish();
    main_port_ = connection_->main_port;
    callback_port_ = connection_->callback_port;
    state_ = State::kConnected;
  }
  // Replies are read by those who wait for them; the loop only needs to know of the end.
  connection_->source->Watch(connection_->main->fd(), GIOCondition{});
  connection_->source->Watch(connection_->callback->fd(), G_IO_IN);
  Emit(&connected_callbacks, Always, connection_->main_port);
}

void Proxy::OnReadable() {
  const Connection::Events events = connection_->Look();
  const bool ends = Connection::HungUp(events.main) || Connection::HungUp(events.callback);
  // What the server made known by other means before its end comes first, if it has arrived.
  if (ends && connection_->source->StandBack()) return;
  if (Connection::HungUp(events.main)) {
    // Without one of its streams the connection is over; what the other still holds comes first.
    connection_->source->Unwatch(connection_->main->fd());
    connection_->callback->ShutDown();
  }
  const auto connected = [this] { return state() == State::kConnected; };
  const auto offer = [this](uint64_t number) {
    Emit(&received_callbacks, [&] { return pump_->Waits(number); });
  };
  if (!pump_->Deliver(events.callback, connected, offer)) Lose();
}

void Proxy::Lose() {
  if (!Become(State::kGone)) return;
  connection_->End();
  Emit(&disconnected_callbacks, Always);
}

}  // namespace rpc_port_desktop
