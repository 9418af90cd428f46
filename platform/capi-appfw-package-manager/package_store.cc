// SPDX-License-Identifier: Apache-2.0
#include "package_store.h"

#include <dlog.h>
#include <pthread.h>

#include <memory>
#include <mutex>
#include <string>

#include "folder_watch.h"
#include "generation.h"
#include "package_folder.h"
#include "snapshot_reader.h"

// How a look-up finds the latest snapshot
//
// Its thread may have one whose freshness holds: no lock, no system call. Otherwise the store may
// have one whose freshness holds, or of which the folder's watch has no news: one system call,
// which confirms the freshness. Otherwise the folder is read.
//
// The watch sees only what is done under names in the folder. A key file that also has a name
// elsewhere makes every look-up read the folder.

namespace packages {

namespace {

// The latest snapshot of the process.
class Store {
 public:
  // Never destroyed: look-ups from other libraries' destructors still work.
  static Store& Get();

  int Latest(SnapshotRef* latest, Snapshot::Complaints* fresh_complaints);

 private:
  bool IsLatest(const SnapshotRef& snapshot);
  int Read(const SnapshotRef& former, Snapshot::Complaints* fresh_complaints);

  static void LockForFork() { Get().mutex_.lock(); }
  static void UnlockInParent() { Get().mutex_.unlock(); }
  static void ForgetInChild();

  std::mutex mutex_;    // guards all that follows
  std::string folder_;  // empty before the first look-up
  std::unique_ptr<FolderWatch> watch_;
  Freshness::Nanoseconds watch_read_at_ = 0;
  SnapshotRef snapshot_;
  Snapshot::Complaints complaints_;
};

Store& Store::Get() {
  static Store& store = []() -> Store& {
    auto* made = new Store;
    pthread_atfork(LockForFork, UnlockInParent, ForgetInChild);
    return *made;
  }();
  return store;
}

// Runs before there can be a second thread, so that even a fork during the first look-up handles
// the lock.
__attribute__((constructor)) void PrepareStore() { Store::Get(); }

// The watch's queue is shared with the parent.
void Store::ForgetInChild() {
  Store& store = Get();
  store.watch_.reset();
  if (store.snapshot_) store.snapshot_->freshness().End();
  store.snapshot_ = SnapshotRef();
  store.mutex_.unlock();
}

int Store::Latest(SnapshotRef* latest, Snapshot::Complaints* fresh_complaints) {
  const std::lock_guard<std::mutex> lock(mutex_);
  // While the store has none, a failure leaves nothing that could pass as the latest.
  SnapshotRef former = std::move(snapshot_);
  if (IsLatest(former)) {
    snapshot_ = std::move(former);
  } else if (const int error = Read(former, fresh_complaints)) {
    return error;
  }
  if (watch_->stands() && !snapshot_->may_change_unheard()) {
    snapshot_->freshness().Confirm(watch_read_at_);
  }
  *latest = snapshot_;
  return 0;
}

bool Store::IsLatest(const SnapshotRef& snapshot) {
  if (snapshot && snapshot->freshness().Holds()) return true;
  if (folder_.empty()) folder_ = PackageFolder();
  if (!watch_) watch_ = std::make_unique<FolderWatch>(folder_);
  watch_read_at_ = Freshness::Now();
  if (watch_->Changed()) return false;
  return snapshot && !snapshot->may_change_unheard() && !snapshot->freshness().GenerationMoved();
}

int Store::Read(const SnapshotRef& former, Snapshot::Complaints* fresh_complaints) {
  std::shared_ptr<const Generation> generation;
  if (former) {
    former->freshness().End();
    generation = former->freshness().generation();
  }
  // Before the folder is read: a change in between is found by the next look-up.
  Freshness freshness(Generation::Open(folder_, std::move(generation)));
  Snapshot::Content content;
  if (const int error = ReadFolder(folder_, &content)) return error;
  SnapshotRef read(new Snapshot(std::move(content), std::move(freshness)));
  for (const std::string& complaint : read->complaints()) {
    if (complaints_.count(complaint) == 0) fresh_complaints->insert(complaint);
  }
  complaints_ = read->complaints();
  snapshot_ = std::move(read);
  return 0;
}

// Outside the store's lock, because a program may define dlog_print itself.
void Complain(const Snapshot::Complaints& complaints) {
  for (const std::string& complaint : complaints) {
    dlog_print(DLOG_ERROR, "PACKAGE_MANAGER", "Left out a broken package: %s", complaint.c_str());
  }
}

}  // namespace

int AskStore(SnapshotRef* latest) {
  Snapshot::Complaints complaints;
  const int error = Store::Get().Latest(latest, &complaints);
  Complain(complaints);
  if (error) return error;
  if ((*latest)->freshness().Holds()) {
    thread_snapshot.Hold(latest->get());
  } else {
    thread_snapshot.LetGo();
  }
  return 0;
}

}  // namespace packages
