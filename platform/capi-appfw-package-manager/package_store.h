// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_PACKAGE_MANAGER_PACKAGE_STORE_H_
#define PLATFORM_PACKAGE_MANAGER_PACKAGE_STORE_H_

#include "snapshot.h"
#include "thread_snapshot.h"

namespace packages {

// What LatestSnapshot does where the thread has none, or none that holds.
int AskStore(SnapshotRef* latest);

// Finds the snapshot that is as new as package_desktop.h promises. Returns 0, or a negative code if
// the folder cannot be read.
inline int LatestSnapshot(SnapshotRef* latest) {
  if (!thread_snapshot.IsLatest()) return AskStore(latest);
  *latest = thread_snapshot.Share();
  return 0;
}

// Gives a share back, in any thread: cheap for a share of the snapshot that the thread used last.
inline void GiveBack(const Snapshot* snapshot) {
  if (!thread_snapshot.TakeBack(snapshot)) snapshot->Release();
}

}  // namespace packages

#endif  // PLATFORM_PACKAGE_MANAGER_PACKAGE_STORE_H_
