// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_PACKAGE_MANAGER_PACKAGE_STORE_H_
#define PLATFORM_PACKAGE_MANAGER_PACKAGE_STORE_H_

#include "snapshot.h"

namespace packages {

// Finds the snapshot that holds every change of the package folder made before the call. Returns 0,
// or a negative code if the folder cannot be read.
int LatestSnapshot(SnapshotRef* snapshot);

}  // namespace packages

#endif  // PLATFORM_PACKAGE_MANAGER_PACKAGE_STORE_H_
