// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_PACKAGE_MANAGER_THREAD_SNAPSHOT_H_
#define PLATFORM_PACKAGE_MANAGER_THREAD_SNAPSHOT_H_

#include <type_traits>

#include "snapshot.h"

namespace packages {

// The snapshot that a thread used last, with shares of it that were taken in advance: handing one
// out, and taking it back, then needs neither a lock nor an atomic operation.
//
// Trivial, so that a thread may still look packages up while it ends; what it holds is released all
// the same.
class ThreadSnapshot {
 public:
  bool IsLatest() const { return snapshot_ && snapshot_->freshness().Holds(); }

  // A share of the snapshot, of which there must be one.
  SnapshotRef Share() {
    // One always stays, to keep the snapshot alive.
    if (--shares_ == 0) TakeShares();
    return SnapshotRef(snapshot_);
  }
  // False for a share of another snapshot.
  bool TakeBack(const Snapshot* snapshot) {
    if (snapshot != snapshot_) return false;
    ++shares_;
    return true;
  }

  // Holds this one from now on, unless nothing would release it at the thread's end.
  void Hold(const Snapshot* snapshot);
  void LetGo();

 private:
  void TakeShares();
  static void EndOfThread(void* ending);
  bool WillHearOfItsEnd();

  const Snapshot* snapshot_;
  uint64_t shares_;
  bool closed_;
};

static_assert(std::is_trivial_v<ThreadSnapshot>, "to register a destructor may abort the process");

// The calling thread's. In memory that a thread has from its start.
inline __attribute__((tls_model("initial-exec"))) thread_local ThreadSnapshot thread_snapshot;

}  // namespace packages

#endif  // PLATFORM_PACKAGE_MANAGER_THREAD_SNAPSHOT_H_
