// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_ADD_CALLBACK_H_
#define RPC_PORT_ADD_CALLBACK_H_

#include "callbacks.h"
#include "codes.h"
#include "handles.h"

namespace rpc_port_desktop {

// Adds a callback to a list of the object that the handle stands for.
template <typename Object, typename Function>
int AddCallback(void* handle, CallbackList<Function> Object::* list, Function callback,
                void* data) {
  if (callback == nullptr) return kInvalidParameter;
  return Guarded([&]() -> int {
    const auto object = Handles<Object>::Get().Find(handle);
    if (!object) return kInvalidParameter;
    (object.get()->*list).Add(callback, data);
    return kOk;
  });
}

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_ADD_CALLBACK_H_
