// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SERVICE_PACKAGES_H_
#define AGENT_SERVICE_PACKAGES_H_

#include <optional>
#include <string>

#include "scenario/scenario.h"

namespace sim {

/** Installs a package into a folder, in place of another version; the platform's code. */
int InstallPackage(const char* folder, const Package& package);

/** Removes a package from a folder; the platform's code. */
int RemovePackage(const char* folder, const std::string& id);

/** A package that InstallPackage has installed there; nothing if there is none. */
std::optional<Package> InstalledPackage(const char* folder, const std::string& id);

/** The version of a package that is installed where the platform looks; empty if there is none. */
std::string InstalledVersion(const std::string& id);

}  // namespace sim

#endif  // AGENT_SERVICE_PACKAGES_H_
