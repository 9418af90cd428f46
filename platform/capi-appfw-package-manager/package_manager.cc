// SPDX-License-Identifier: Apache-2.0
#include "package_manager.h"

#include <errno.h>

#include <exception>

#include "copy_text.h"
#include "package_codes.h"
#include "package_store.h"

using packages::LatestSnapshot;
using packages::SnapshotRef;

int package_info_create(const char* package, package_info_h* package_info) try {
  if (!package || !package_info) return -EINVAL;
  SnapshotRef snapshot;
  if (const int error = LatestSnapshot(&snapshot)) return error;
  const package_info_s* found = snapshot->FindPackage(package);
  if (!found) return platform::kNoSuchPackage;
  // The share now belongs to the handle.
  snapshot.Detach();
  *package_info = const_cast<package_info_h>(found);
  return 0;
} catch (const std::exception&) {
  return -ENOMEM;
}

int package_info_destroy(package_info_h package_info) {
  if (!package_info) return -EINVAL;
  packages::GiveBack(package_info->snapshot);
  return 0;
}

int package_info_get_package(package_info_h package_info, char** package) {
  if (!package_info || !package) return -EINVAL;
  return platform::CopyText(package_info->id.c_str(), package);
}

int package_info_get_version(package_info_h package_info, char** version) {
  if (!package_info || !version) return -EINVAL;
  return platform::CopyText(package_info->version.c_str(), version);
}

int package_manager_foreach_package_info(package_manager_package_info_cb callback,
                                         void* user_data) {
  if (!callback) return -EINVAL;
  SnapshotRef snapshot;
  try {
    if (const int error = LatestSnapshot(&snapshot)) return error;
  } catch (const std::exception&) {
    return -ENOMEM;
  }
  for (const package_info_s& package : snapshot->packages()) {
    if (!callback(const_cast<package_info_h>(&package), user_data)) break;
  }
  return 0;
}

int packages::HoldApplication(const char* id, const app_info_s** held) try {
  SnapshotRef snapshot;
  if (const int error = LatestSnapshot(&snapshot)) return error;
  const app_info_s* found = snapshot->FindApplication(id);
  if (!found) return -EINVAL;
  *held = found;
  snapshot.Detach();
  return 0;
} catch (const std::exception&) {
  return -ENOMEM;
}

void packages::ReleaseApplication(const app_info_s* held) { GiveBack(held->package->snapshot); }
