// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_PACKAGE_MANAGER_THREAD_SNAPSHOT_H_
#define PLATFORM_PACKAGE_MANAGER_THREAD_SNAPSHOT_H_

#include <type_traits>

#include "snapshot.h"

namespace packages {

// The snapshot that a thread used last, with shares of it that were taken in advance: to hand one out,
// and to take it back, then needs neither a lock nor an atomic operation.
//
// Trivial, so that a thread may still look packages up while it ends; what is held goes with it all the
// same.
class ThreadSnapshot {
 public:
  bool IsLatest() const { return snapshot_ && snapshot_->freshness().Holds(); }

  // A share of the snapshot, of which there must be one.
  SnapshotRef Share() {
    // One always stays: it keeps the snapshot itself.
    if (--shares_ == 0) TakeShares();
    return SnapshotRef(snapshot_);
  }
  // False for a share of another snapshot.
  bool TakeBack(const Snapshot* snapshot) {
    if (snapshot != snapshot_) return false;
    ++shares_;
    return true;
  }

  // From now on this one, unless nobody would let it go at the thread's end.
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
