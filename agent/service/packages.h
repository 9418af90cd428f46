// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SERVICE_PACKAGES_H_
#define AGENT_SERVICE_PACKAGES_H_

#include <string>

#include "scenario/scenario.h"

namespace sim {

/** Installs a package into a folder, in place of another version; the platform's code. */
int InstallPackage(const char* folder, const Package& package);

/** The version of an installed package. Throws PlatformError. */
std::string InstalledVersion(const std::string& id);

}  // namespace sim

#endif  // AGENT_SERVICE_PACKAGES_H_
