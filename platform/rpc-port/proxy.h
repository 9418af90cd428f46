// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_PROXY_H_
#define RPC_PORT_PROXY_H_

#include <rpc-port.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "callbacks.h"
#include "connection.h"
#include "handshake.h"
#include "message_pump.h"

namespace rpc_port_desktop {

// The client's side of one connection. Thread-safe; its events come from the main loop.
class Proxy final : public LoopSource::Handler, public std::enable_shared_from_this<Proxy> {
 public:
  int Connect(const std::string& app_id, const std::string& port_name);
  int GetPort(rpc_port_port_type_e type, rpc_port_h* port);
  void Destroy();

  CallbackList<rpc_port_proxy_connected_event_cb> connected_callbacks;
  CallbackList<rpc_port_proxy_disconnected_event_cb> disconnected_callbacks;
  CallbackList<rpc_port_proxy_rejected_event_cb> rejected_callbacks;
  CallbackList<rpc_port_proxy_received_event_cb> received_callbacks;

  bool HasWork() override;
  void Dispatch() override;

 private:
  enum class State {
    kIdle,
    kStarting,    // inside Connect
    kConnecting,  // the streams are open, the verdict is awaited
    kConnected,
    kGone,  // rejected, disconnected or destroyed
  };

  int Start();
  void AwaitVerdict();
  void OnVerdict();
  void OnReadable();
  void Lose();
  State state();
  bool Become(State state);
  template <typename Function, typename Wanted, typename... Arguments>
  void Emit(CallbackList<Function>* list, Wanted wanted, Arguments... arguments);

  CallbackGate gate_;

  std::mutex mutex_;  // guards the next three
  State state_ = State::kIdle;
  // Null until connected. Kept when the connection ends; invalid once it is destroyed.
  rpc_port_h main_port_ = nullptr;
  rpc_port_h callback_port_ = nullptr;

  // Made before the state becomes kConnecting, and constant from then on.
  std::string app_id_;
  std::string port_name_;
  std::unique_ptr<Connection> connection_;
  std::unique_ptr<MessagePump> pump_;

  // For the main loop's thread: the server's answer, as long as there is something to be done
  // about it.
  std::optional<Verdict> verdict_;
};

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_PROXY_H_
