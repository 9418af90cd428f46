// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_PACKAGE_MANAGER_APP_INFO_RECORD_H_
#define PLATFORM_PACKAGE_MANAGER_APP_INFO_RECORD_H_

// What the application library needs of the package library. Not installed: both are built
// together.

#include <string>
#include <utility>
#include <vector>

struct package_info_s;

// What an app_info_h points to: a part of its package's snapshot.
struct app_info_s {
  const package_info_s* package = nullptr;
  std::string id;
  std::vector<std::pair<std::string, std::string>> metadata;  // in stored order
};

namespace packages {

// Looks an installed application up. Returns 0 and a record that the caller releases, -22 if there
// is none, another negative code if the folder cannot be read.
__attribute__((visibility("default"))) int HoldApplication(const char* id, const app_info_s** held);
__attribute__((visibility("default"))) void ReleaseApplication(const app_info_s* held);

}  // namespace packages

#endif  // PLATFORM_PACKAGE_MANAGER_APP_INFO_RECORD_H_
