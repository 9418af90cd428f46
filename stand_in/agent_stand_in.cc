// SPDX-License-Identifier: Apache-2.0
#include "agent_stand_in.h"

#include <app_common.h>
#include <dlog.h>
#include <package_info.h>
#include <rpc-port-desktop.h>
#include <velmora_svcmgr.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

#include "kept_records.h"
#include "require.h"

namespace agent_stand_in {

std::deque<std::string> messages;
std::vector<std::string> sent;

namespace {

// The one proxy that may live at a time.
struct Proxy {
  rpc_port_proxy_connected_event_cb connected = nullptr;
  rpc_port_proxy_disconnected_event_cb disconnected = nullptr;
  rpc_port_proxy_received_event_cb received = nullptr;
  void* data = nullptr;
  bool live = false;
};

Proxy proxy;
// Only their addresses matter.
char main_port;
char callback_port;
char package;

int CopyOut(const char* text, char** out) {
  *out = strdup(text);
  return *out == nullptr ? -12 : 0;
}

}  // namespace

void Push(std::string_view message) {
  if (!proxy.live) return;
  messages.emplace_back(message);
  proxy.received(AGENT_PACKAGE_ID, "SvcMgrAppPort", proxy.data);
}

void Lose() {
  if (proxy.live) proxy.disconnected(AGENT_PACKAGE_ID, "SvcMgrAppPort", proxy.data);
}

void EndInput() {
  REQUIRE(velmora_svcmgr_disconnect() == 0);
  messages.clear();
  sent.clear();
  kept_records::Release();
}

}  // namespace agent_stand_in

using namespace agent_stand_in;

// Formats each record, so that arguments that do not fit their conversions are found.
int dlog_print(log_priority, const char*, const char* fmt, ...) {
  char record[512];
  va_list args;
  va_start(args, fmt);
  const int length = std::vsnprintf(record, sizeof record, fmt, args);
  va_end(args);
  return length;
}

int app_get_id(char** id) { return CopyOut("com.example.client", id); }
int app_get_version(char** version) { return CopyOut("1.0.0", version); }

int package_info_create(const char*, package_info_h* info) {
  *info = reinterpret_cast<package_info_h>(&package);
  return 0;
}
int package_info_destroy(package_info_h) { return 0; }
int package_info_get_version(package_info_h, char** version) { return CopyOut("2.3.0", version); }

int rpc_port_proxy_create(rpc_port_proxy_h* h) {
  REQUIRE(!proxy.live);
  proxy.live = true;
  *h = &proxy;
  return 0;
}

int rpc_port_proxy_destroy(rpc_port_proxy_h h) {
  REQUIRE(h == &proxy && proxy.live);
  proxy = {};
  return 0;
}

int rpc_port_proxy_add_connected_event_cb(rpc_port_proxy_h, rpc_port_proxy_connected_event_cb cb,
                                          void* data) {
  proxy.connected = cb;
  proxy.data = data;
  return 0;
}
int rpc_port_proxy_add_disconnected_event_cb(rpc_port_proxy_h,
                                             rpc_port_proxy_disconnected_event_cb cb, void*) {
  proxy.disconnected = cb;
  return 0;
}
int rpc_port_proxy_add_rejected_event_cb(rpc_port_proxy_h, rpc_port_proxy_rejected_event_cb,
                                         void*) {
  return 0;
}
int rpc_port_proxy_add_received_event_cb(rpc_port_proxy_h, rpc_port_proxy_received_event_cb cb,
                                         void*) {
  proxy.received = cb;
  return 0;
}

int rpc_port_proxy_connect(rpc_port_proxy_h, const char* appid, const char* port) {
  proxy.connected(appid, port, &main_port, proxy.data);
  return 0;
}

int rpc_port_proxy_get_port(rpc_port_proxy_h, rpc_port_port_type_e type, rpc_port_h* port) {
  *port = type == RPC_PORT_PORT_MAIN ? &main_port : &callback_port;
  return 0;
}

int rpc_port_parcel_send(rpc_port_parcel_h h, rpc_port_h) {
  const void* bytes = nullptr;
  std::size_t size = 0;
  REQUIRE(rpc_port_desktop_parcel_get_bytes(h, &bytes, &size) == 0);
  sent.emplace_back(static_cast<const char*>(bytes), size);
  return 0;
}

int rpc_port_parcel_create_from_port(rpc_port_parcel_h* h, rpc_port_h) {
  if (messages.empty()) return -5;
  const std::string message = std::move(messages.front());
  messages.pop_front();
  REQUIRE(rpc_port_parcel_create(h) == 0);
  return rpc_port_desktop_parcel_set_bytes(*h, message.data(), message.size());
}
