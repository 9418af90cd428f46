// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_VERSION_H_
#define TOOLS_SVCMGRCTL_VERSION_H_

#include <string>

#include "velmora_svcmgr.h"

namespace svcmgrctl {

/** The version of the client library that this program is built with. */
inline std::string LibraryVersion() {
  return std::to_string(VELMORA_SVCMGR_VERSION_MAJOR) + "." +
         std::to_string(VELMORA_SVCMGR_VERSION_MINOR) + "." +
         std::to_string(VELMORA_SVCMGR_VERSION_PATCH);
}

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_VERSION_H_
