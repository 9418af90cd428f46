// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_PACKAGES_H_
#define TOOLS_SVCMGRCTL_PACKAGES_H_

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace svcmgrctl {

/** What the platform says of a package. */
struct Package {
  /** Absent if the platform cannot tell. */
  std::optional<bool> is_installed;
  /** Absent if it is not installed, or its version cannot be read. */
  std::optional<std::string> version;
};

/** Looks the agent's package up; needs no agent that runs. */
Package FindAgentPackage();

/** The same for the package with this ID. */
Package FindPackage(const std::string& id);

/** How many packages are installed; absent if they cannot be read. */
std::optional<std::size_t> CountPackages();

/** The IDs of the installed packages; empty if they cannot be read. */
std::vector<std::string> PackageIds();

/** The agent's package ID. */
const char* AgentPackageId();

/** Whether an agent of that version, such as "2.3.182", is new enough. Its first two numbers count;
 *  one that is missing is 0. */
bool IsAtLeast(const std::string& version, int major, int minor);

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_PACKAGES_H_
