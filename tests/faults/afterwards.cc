// SPDX-License-Identifier: Apache-2.0
#include "afterwards.h"

#include <velmora_svcmgr.h>

#include <algorithm>
#include <string>

#include "fake_platform.h"
#include "injection.h"
#include "internal.h"

namespace faults {
namespace {

void BecomeSound() {
  const fake::internal::Guard guard;
  auto& world = fake::internal::state();
  world.scripts.clear();
  world.on_log = nullptr;
  world.on_send = nullptr;
  world.main_messages.clear();
  world.packages = {{fake::kAgentId, "2.3.0", {}}};
}

bool Succeeds(const char* call, int code) {
  if (code != SVCMGR_ERROR_NONE) Find("afterwards %s returns %d", call, code);
  return code == SVCMGR_ERROR_NONE;
}

/** After a loss only the agent's launch leads to a new attempt; others are under way already. */
void LaunchTheAgent() {
  const std::string event = std::string("event.") + fake::kAgentId + ".agent_status";
  fake::FireEvent(event, fake::BundleBuilder().Str("Launch", ""));
}

void Accept() {
  for (int n = fake::ProxyCount(); n > 0; --n) {
    if (!fake::Proxy(n).Alive()) continue;
    fake::Proxy(n).FireConnected();
    return;
  }
  Find("afterwards nothing connects");
}

/** The platform has refused to tell of a connection, which is ignored on purpose. */
bool NobodyHears() {
  const fake::internal::Guard guard;
  const auto& proxies = fake::internal::state().proxies;
  return std::any_of(proxies.begin(), proxies.end(), [](const auto* proxy) {
    return proxy->alive && proxy->connected_callbacks.empty();
  });
}

}  // namespace

Use UseTheConnectionAfterwards() {
  BecomeSound();
  if (!Succeeds("disconnect", velmora_svcmgr_disconnect())) return Use::kDone;
  if (NobodyHears()) return Use::kStranded;
  const int before = fake::ProxyCount();
  bool connected = false;
  const auto on_connection = [](int error, int state, void* user_data) {
    if (error == 0 && state == SVCMGR_CONNECTION_STATE_CONNECTED) {
      *static_cast<bool*>(user_data) = true;
    }
  };
  if (!Succeeds("connect", velmora_svcmgr_connect(on_connection, &connected))) return Use::kDone;
  if (fake::ProxyCount() == before) LaunchTheAgent();
  Accept();
  fake::ForgetMessages();
  fake::QueueReply({11});
  int level = 0;
  if (Succeeds("a query", velmora_svcmgr_get_agent_api_level(&level)) && level != 11) {
    Find("afterwards the agent's level is %d", level);
  }
  Succeeds("disconnect", velmora_svcmgr_disconnect());
  if (velmora_svcmgr_get_agent_api_level(&level) != SVCMGR_ERROR_NOT_CONNECTED) {
    Find("afterwards the connection stands although it was ended");
  }
  return Use::kDone;
}

}  // namespace faults
