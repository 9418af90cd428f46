// SPDX-License-Identifier: Apache-2.0
#include "own_app_id.h"

#include <app_common.h>

#include "codes.h"
#include "handshake.h"
#include "owned.h"

namespace rpc_port_desktop {

int OwnAppId(std::string* id) {
  char* text = nullptr;
  const int result = app_get_id(&text);
  const base::Malloced<char> owned(text);
  if (result != kOk) return result;
  if (text == nullptr || !IsId(text)) return kInvalidParameter;
  *id = text;
  return kOk;
}

}  // namespace rpc_port_desktop
