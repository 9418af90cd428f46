// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_STUB_H_
#define RPC_PORT_STUB_H_

#include <rpc-port-desktop.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "callbacks.h"
#include "handshake.h"
#include "loop_source.h"
#include "unix_socket.h"

namespace rpc_port_desktop {

class StubClient;
class StubGuest;

// The server's side of a port: accepts streams as guests, pairs them, and serves the pairs as
// clients. Used on the thread that runs the default main context.
class Stub final : public LoopSource::Handler, public std::enable_shared_from_this<Stub> {
 public:
  explicit Stub(std::string port_name);
  ~Stub() override;

  int Listen();
  void Destroy();
  int GetPort(rpc_port_port_type_e type, std::string_view instance, rpc_port_h* port);
  // Ends a client without an event.
  int Disconnect(const std::string& instance);

  CallbackList<rpc_port_stub_connected_event_cb> connected_callbacks;
  CallbackList<rpc_port_stub_disconnected_event_cb> disconnected_callbacks;
  CallbackList<rpc_port_stub_received_event_cb> received_callbacks;
  void SetAdmission(rpc_port_desktop_admission_cb callback, void* data);

  // Accepts what waits at the socket.
  void Dispatch() override;

  // From guests: one has said hello; one is to be forgotten.
  void OnHello(const std::shared_ptr<StubGuest>& guest);
  void Dismiss(const StubGuest& guest);

  // From clients: one has sent a message; one is gone.
  void OnMessage(const std::shared_ptr<StubClient>& client, uint64_t number);
  void OnGone(const std::shared_ptr<StubClient>& client);

 private:
  bool Accept();
  void Pair(const std::shared_ptr<StubGuest>& main, const std::shared_ptr<StubGuest>& callback);
  bool Admits(const Hello& hello);
  void Welcome(const std::shared_ptr<StubClient>& client);
  std::shared_ptr<StubGuest> FindPartner(const StubGuest& guest) const;

  const std::string port_name_;
  std::string app_id_;
  CallbackGate gate_;
  rpc_port_desktop_admission_cb admission_ = nullptr;
  void* admission_data_ = nullptr;
  std::unique_ptr<ServerSocket> socket_;
  std::unique_ptr<LoopSource> source_;
  std::vector<std::shared_ptr<StubGuest>> guests_;  // the oldest first
  std::map<std::string, std::shared_ptr<StubClient>, std::less<>> clients_;
};

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_STUB_H_
