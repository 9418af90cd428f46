// SPDX-License-Identifier: Apache-2.0
#include "own_app_id.h"

#include <app_common.h>

#include <cstdlib>
#include <memory>

#include "codes.h"
#include "handshake.h"

namespace rpc_port_desktop {

int OwnAppId(std::string* id) {
  char* text = nullptr;
  const int result = app_get_id(&text);
  const std::unique_ptr<char, void (*)(void*)> owned(text, std::free);
  if (result != kOk) return result;
  if (text == nullptr || !IsId(text)) return kInvalidParameter;
  *id = text;
  return kOk;
}

}  // namespace rpc_port_desktop
