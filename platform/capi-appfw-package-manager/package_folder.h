// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_PACKAGE_MANAGER_PACKAGE_FOLDER_H_
#define PLATFORM_PACKAGE_MANAGER_PACKAGE_FOLDER_H_

#include <string>

namespace packages {

// Absolute path of the folder of installed packages, as environment and working directory have it
// now.
std::string PackageFolder();

}  // namespace packages

#endif  // PLATFORM_PACKAGE_MANAGER_PACKAGE_FOLDER_H_
