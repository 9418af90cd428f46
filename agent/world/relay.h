// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_WORLD_RELAY_H_
#define AGENT_WORLD_RELAY_H_

#include <app_event.h>
#include <rpc-port.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "protocol/parcel.h"
#include "world/recording.h"

namespace sim {

/**
 * Stands between clients and the agent: serves a port in a runtime folder of its own, passes on all
 * that either side says, and notes it. Used on the thread that runs the default main context.
 */
class Relay {
 public:
  /** Listens in `folder` as the application `agent`. Throws PlatformError. */
  Relay(const std::string& agent, const std::string& folder, Recording& recording);
  ~Relay();
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

 private:
  struct Link;
  struct Arrival;

  static bool OnAdmission(const char* sender, const char* instance, void* data);
  static void OnClientGone(const char* sender, const char* instance, void* data);
  static int OnRequest(const char* sender, const char* instance, rpc_port_h port, void* data);
  static void OnConnected(const char*, const char*, rpc_port_h port, void* data);
  static void OnDisconnected(const char*, const char*, void* data);
  static void OnRejected(const char*, const char*, void* data);
  static void OnMessage(const char*, const char*, void* data);
  static void OnEvent(const char* name, bundle* event, void* data);

  void Subscribe(const char* suffix);
  bool Connect(const std::string& sender, const std::string& instance);
  void PassOn(const std::string& instance, rpc_port_port_type_e type, const Parcel& message);
  void LoseAgent(const std::string& instance);
  void Unlink(const std::shared_ptr<Link>& link);
  void NoteRestart();

  const std::string agent_;
  Recording& recording_;
  rpc_port_stub_h stub_ = nullptr;
  std::map<std::string, std::shared_ptr<Link>> links_;  // by the clients' instances
  std::vector<event_handler_h> subscriptions_;
  bool updating_ = false;    // the agent has said that it updates itself
  bool restarting_ = false;  // it has ended since, and nobody has connected again
};

}  // namespace sim

#endif  // AGENT_WORLD_RELAY_H_
