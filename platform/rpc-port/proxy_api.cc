// SPDX-License-Identifier: Apache-2.0
#include <rpc-port.h>

#include "add_callback.h"
#include "codes.h"
#include "handles.h"
#include "handshake.h"
#include "proxy.h"

using rpc_port_desktop::AddCallback;
using rpc_port_desktop::Guarded;
using rpc_port_desktop::Handles;
using rpc_port_desktop::IsId;
using rpc_port_desktop::kInvalidParameter;
using rpc_port_desktop::kIoError;
using rpc_port_desktop::kOk;
using rpc_port_desktop::kPermissionDenied;
using rpc_port_desktop::Proxy;

int rpc_port_proxy_create(rpc_port_proxy_h* h) {
  if (h == nullptr) return kInvalidParameter;
  return Guarded([&]() -> int {
    *h = Handles<Proxy>::Get().Add(std::make_shared<Proxy>());
    return kOk;
  });
}

int rpc_port_proxy_destroy(rpc_port_proxy_h h) {
  const auto proxy = Handles<Proxy>::Get().Remove(h);
  if (!proxy) return kInvalidParameter;
  proxy->Destroy();
  return kOk;
}

int rpc_port_proxy_connect(rpc_port_proxy_h h, const char* appid, const char* port) {
  if (appid == nullptr || port == nullptr || !IsId(appid) || !IsId(port)) return kInvalidParameter;
  const int result = Guarded([&]() -> int {
    const auto proxy = Handles<Proxy>::Get().Find(h);
    return proxy ? proxy->Connect(appid, port) : kInvalidParameter;
  });
  // Callers know no other failures: after one, they would wait in vain for the events.
  const bool known = result == kOk || result == kInvalidParameter || result == kPermissionDenied;
  return known ? result : kIoError;
}

int rpc_port_proxy_add_connected_event_cb(rpc_port_proxy_h h, rpc_port_proxy_connected_event_cb cb,
                                          void* data) {
  return AddCallback(h, &Proxy::connected_callbacks, cb, data);
}

int rpc_port_proxy_add_disconnected_event_cb(rpc_port_proxy_h h,
                                             rpc_port_proxy_disconnected_event_cb cb, void* data) {
  return AddCallback(h, &Proxy::disconnected_callbacks, cb, data);
}

int rpc_port_proxy_add_rejected_event_cb(rpc_port_proxy_h h, rpc_port_proxy_rejected_event_cb cb,
                                         void* data) {
  return AddCallback(h, &Proxy::rejected_callbacks, cb, data);
}

int rpc_port_proxy_add_received_event_cb(rpc_port_proxy_h h, rpc_port_proxy_received_event_cb cb,
                                         void* data) {
  return AddCallback(h, &Proxy::received_callbacks, cb, data);
}

int rpc_port_proxy_get_port(rpc_port_proxy_h h, rpc_port_port_type_e type, rpc_port_h* port) {
  if (port == nullptr || (type != RPC_PORT_PORT_MAIN && type != RPC_PORT_PORT_CALLBACK)) {
    return kInvalidParameter;
  }
  const auto proxy = Handles<Proxy>::Get().Find(h);
  return proxy ? proxy->GetPort(type, port) : kInvalidParameter;
}
