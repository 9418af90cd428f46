// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_APP_IDENTITY_H_
#define SVCMGR_APP_IDENTITY_H_

#include <app_common.h>

#include <string>

#include "text.h"

namespace svcmgr {

// One of the calling application's texts; empty if the platform fails.
inline std::string ReadAppText(int (*get)(char**)) {
  char* text = nullptr;
  if (get(&text) != 0 || text == nullptr) return {};
  const Text owner(text);
  return text;
}

}  // namespace svcmgr

#endif  // SVCMGR_APP_IDENTITY_H_
