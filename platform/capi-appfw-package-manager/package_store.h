// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_PACKAGE_MANAGER_PACKAGE_STORE_H_
#define PLATFORM_PACKAGE_MANAGER_PACKAGE_STORE_H_

#include "snapshot.h"

namespace packages {

// Finds the snapshot that is as new as package_desktop.h promises. Returns 0, or a negative code if
// the folder cannot be read.
int LatestSnapshot(SnapshotRef* latest);

// Gives a share back, in any thread: cheap for a share of the snapshot that the thread used last.
void GiveBack(const Snapshot* snapshot);

}  // namespace packages

#endif  // PLATFORM_PACKAGE_MANAGER_PACKAGE_STORE_H_
