// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_PORT_FOLDER_H_
#define TOOLS_SVCMGRCTL_PORT_FOLDER_H_

#include <string>

namespace svcmgrctl {

/** What can be seen from outside of the place where the desktop platform has the agent's port. */
struct PortFolder {
  enum class State { kNoFolder, kNotTrusted, kNoPort, kPort };

  std::string path;
  State state;
};

PortFolder LookAtPortFolder();

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_PORT_FOLDER_H_
