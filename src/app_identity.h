// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_APP_IDENTITY_H_
#define SVCMGR_APP_IDENTITY_H_

#include <app_common.h>

#include <string>

#include "text.h"

namespace svcmgr {

// What the agent is told of the application that it is asked for.
struct AppIdentity {
  std::string id;
  std::string version;
};

// One of the calling application's texts as the platform hands it out; null if the platform fails.
// Needs no memory of its own.
inline Text TakeAppText(int (*get)(char**)) {
  char* text = nullptr;
  return Text(get(&text) == 0 ? text : nullptr);
}

// The same as a copy; empty if the platform fails.
inline std::string ReadAppText(int (*get)(char**)) {
  const Text text = TakeAppText(get);
  return text == nullptr ? std::string() : std::string(text.get());
}

}  // namespace svcmgr

#endif  // SVCMGR_APP_IDENTITY_H_
