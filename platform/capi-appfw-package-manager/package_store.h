// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_PACKAGE_MANAGER_PACKAGE_STORE_H_
#define PLATFORM_PACKAGE_MANAGER_PACKAGE_STORE_H_

#include "snapshot.h"

namespace packages {

// Finds the snapshot that holds every change of the package folder made before the call. Returns 0,
// or a negative code if the folder cannot be read.
int LatestSnapshot(SnapshotRef* snapshot);

// Finds a package in it; null if there is none. A package that is found comes with a share of its
// snapshot, for GiveBack.
int HoldLatestPackage(const char* id, const package_info_s** held);

// Gives a share back, in any thread: cheap for a share of the snapshot that the thread used last.
void GiveBack(const Snapshot* snapshot);

}  // namespace packages

#endif  // PLATFORM_PACKAGE_MANAGER_PACKAGE_STORE_H_
