// SPDX-License-Identifier: Apache-2.0
#include <rpc-port-desktop.h>

#include "add_callback.h"
#include "codes.h"
#include "handles.h"
#include "handshake.h"
#include "stub.h"

using rpc_port_desktop::AddCallback;
using rpc_port_desktop::Guarded;
using rpc_port_desktop::Handles;
using rpc_port_desktop::IsId;
using rpc_port_desktop::kInvalidParameter;
using rpc_port_desktop::kOk;
using rpc_port_desktop::Stub;

int rpc_port_stub_create(rpc_port_stub_h* h, const char* port_name) {
  if (h == nullptr || port_name == nullptr || !IsId(port_name)) return kInvalidParameter;
  return Guarded([&]() -> int {
    *h = Handles<Stub>::Get().Add(std::make_shared<Stub>(port_name));
    return kOk;
  });
}

int rpc_port_stub_destroy(rpc_port_stub_h h) {
  const auto stub = Handles<Stub>::Get().Remove(h);
  if (!stub) return kInvalidParameter;
  stub->Destroy();
  return kOk;
}

int rpc_port_stub_listen(rpc_port_stub_h h) {
  return Guarded([&]() -> int {
    const auto stub = Handles<Stub>::Get().Find(h);
    return stub ? stub->Listen() : kInvalidParameter;
  });
}

int rpc_port_stub_add_connected_event_cb(rpc_port_stub_h h, rpc_port_stub_connected_event_cb cb,
                                         void* data) {
  return AddCallback(h, &Stub::connected_callbacks, cb, data);
}

int rpc_port_stub_add_disconnected_event_cb(rpc_port_stub_h h,
                                            rpc_port_stub_disconnected_event_cb cb, void* data) {
  return AddCallback(h, &Stub::disconnected_callbacks, cb, data);
}

int rpc_port_stub_add_received_event_cb(rpc_port_stub_h h, rpc_port_stub_received_event_cb cb,
                                        void* data) {
  return AddCallback(h, &Stub::received_callbacks, cb, data);
}

int rpc_port_stub_get_port(rpc_port_stub_h h, rpc_port_port_type_e type, const char* instance,
                           rpc_port_h* port) {
  if (port == nullptr || instance == nullptr ||
      (type != RPC_PORT_PORT_MAIN && type != RPC_PORT_PORT_CALLBACK)) {
    return kInvalidParameter;
  }
  return Guarded([&]() -> int {
    const auto stub = Handles<Stub>::Get().Find(h);
    return stub ? stub->GetPort(type, instance, port) : kInvalidParameter;
  });
}

int rpc_port_desktop_stub_set_admission_cb(rpc_port_stub_h h, rpc_port_desktop_admission_cb cb,
                                           void* data) {
  const auto stub = Handles<Stub>::Get().Find(h);
  if (!stub) return kInvalidParameter;
  stub->SetAdmission(cb, data);
  return kOk;
}

int rpc_port_desktop_stub_disconnect(rpc_port_stub_h h, const char* instance) {
  if (instance == nullptr) return kInvalidParameter;
  return Guarded([&]() -> int {
    const auto stub = Handles<Stub>::Get().Find(h);
    return stub ? stub->Disconnect(instance) : kInvalidParameter;
  });
}
