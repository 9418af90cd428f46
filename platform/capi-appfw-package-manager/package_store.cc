// SPDX-License-Identifier: Apache-2.0
#include "package_store.h"

#include <dlog.h>
#include <limits.h>
#include <pthread.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "folder_watch.h"
#include "generation.h"
#include "snapshot_reader.h"

// How a look-up knows that its snapshot is the latest
//
// The sure way is to read the folder's watch, one system call. Where the folder has a generation file,
// the word in it, which the functions of package_desktop.h change before they return, does instead, and
// the watch is read every 10 ms only, for what others do to the folder. Each thread keeps the snapshot
// that it used last, with the word as it was; while that stays so, a look-up takes no lock either.
//
// A generation file that somebody makes empty ends the process that looks at its word next. The watch
// tells of it, so that only look-ups within those 10 ms are in danger; to be in none, each would have to
// read the watch.
//
// The watch hears what is done under the folder's own names. A key file that has a name elsewhere, too,
// makes every look-up read the folder.

namespace packages {

namespace {

// For how long the generation word is trusted alone.
constexpr int64_t kTrustMs = 10;

// Costs no system call, and is right to a few milliseconds.
int64_t CoarseMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Counts up whenever a look-up has found something new.
std::atomic<uint64_t> store_version{1};

// What tells whether a snapshot is the latest; without a generation word, nothing does.
struct Stamp {
  std::shared_ptr<const Generation> generation;
  uint64_t generation_seen = 0;
  int64_t trusted_until = 0;
  uint64_t version = 0;

  bool GenerationMoved() const { return generation && generation->Load() != generation_seen; }
  bool CanTell() const { return generation && trusted_until > 0; }
  bool IsLatest() const {
    return CanTell() && version == store_version.load(std::memory_order_acquire) &&
           CoarseMs() < trusted_until && !GenerationMoved();
  }
};

// Null for an empty variable, and for all of them where the environment cannot be trusted.
const char* FromEnvironment(const char* variable) {
  const char* value = secure_getenv(variable);
  return value && *value ? value : nullptr;
}

std::string HomeFolder() {
  if (const char* home = FromEnvironment("HOME")) return home;
  passwd user;
  passwd* found = nullptr;
  char texts[4096];
  getpwuid_r(geteuid(), &user, texts, sizeof texts, &found);
  return found ? found->pw_dir : "/";
}

std::string GivenFolder() {
  if (const char* folder = FromEnvironment("VELMORA_PACKAGE_DIR")) return folder;
  if (const char* data = FromEnvironment("XDG_DATA_HOME")) {
    return std::string(data) + "/velmora/packages";
  }
  return HomeFolder() + "/.local/share/velmora/packages";
}

std::string PackageFolder() {
  const std::string given = GivenFolder();
  if (given[0] == '/') return given;
  char current[PATH_MAX];
  return std::string(getcwd(current, sizeof current) ? current : "") + "/" + given;
}

class Store {
 public:
  // Never destroyed: look-ups from other libraries' destructors still work.
  static Store& Get();

  int Latest(SnapshotRef* snapshot, Stamp* stamp, Snapshot::Complaints* fresh_complaints);

 private:
  int Refresh(Snapshot::Complaints* fresh_complaints);
  int Read(Snapshot::Complaints* fresh_complaints);
  bool Ask();

  static void LockForFork() { Get().mutex_.lock(); }
  static void UnlockInParent() { Get().mutex_.unlock(); }
  static void ForgetInChild();

  std::mutex mutex_;    // guards all that follows
  std::string folder_;  // empty before the first look-up
  std::unique_ptr<FolderWatch> watch_;
  SnapshotRef snapshot_;  // none until the folder has been read since its last change
  Snapshot::Complaints complaints_;
  Stamp stamp_;
};

// What a thread used last. Trivial, so that late look-ups of a thread that ends may still touch it.
struct ThreadCache {
  const Snapshot* snapshot;
  const Stamp* stamp;  // where there is a snapshot
  // Shares of the snapshot that the thread took in advance: handing out a handle and taking it back
  // then needs no atomic operation.
  uint64_t shares;
  // Most threads ask for the same package again and again.
  const package_info_s* last_found;
  bool closed;

  bool IsLatest() const { return snapshot && stamp->IsLatest(); }
  // Without memory the cache stays empty.
  void Fill(const Snapshot* latest, Stamp latest_stamp) {
    stamp = new (std::nothrow) Stamp(std::move(latest_stamp));
    if (!stamp) return;
    snapshot = latest;
    TakeShares();
  }
  void TakeShares() {
    constexpr uint64_t kInAdvance = 1 << 16;
    snapshot->Hold(kInAdvance);
    shares += kInAdvance;
  }
  // Always leaves one share, which keeps the snapshot itself.
  const Snapshot* HandOut() {
    if (--shares == 0) TakeShares();
    return snapshot;
  }
  void Clear() {
    delete stamp;
    if (snapshot) snapshot->Release(shares);
    stamp = nullptr;
    snapshot = nullptr;
    shares = 0;
    last_found = nullptr;
  }
};
__attribute__((tls_model("initial-exec"))) thread_local ThreadCache cache;

// Gives back at the thread's end what its cache holds. A key of the C library: without memory for the
// destructor of a thread-local object, the process would be aborted.
pthread_key_t closing_key;
bool has_closing_key = false;

void CloseCache(void*) {
  cache.Clear();
  cache.closed = true;
}

// False if nothing would give back what the cache held.
bool WillBeClosed() { return has_closing_key && pthread_setspecific(closing_key, &cache) == 0; }

Store& Store::Get() {
  static Store& store = []() -> Store& {
    auto* made = new Store;
    pthread_atfork(LockForFork, UnlockInParent, ForgetInChild);
    return *made;
  }();
  return store;
}

// The watch's queue is shared with the parent.
void Store::ForgetInChild() {
  Store& store = Get();
  store.watch_.reset();
  store.snapshot_ = SnapshotRef();
  store_version.fetch_add(1, std::memory_order_release);
  store.mutex_.unlock();
}

int Store::Latest(SnapshotRef* snapshot, Stamp* stamp, Snapshot::Complaints* fresh_complaints) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const int error = Refresh(fresh_complaints);
  if (error) return error;
  *snapshot = snapshot_;
  *stamp = stamp_;
  return 0;
}

// Before there can be a second thread: a fork while the first look-up runs finds the lock taken
// care of.
__attribute__((constructor)) void PrepareStore() {
  Store::Get();
  has_closing_key = pthread_key_create(&closing_key, CloseCache) == 0;
}

// Whether the folder may have changed since it was last asked.
bool Store::Ask() {
  if (folder_.empty()) folder_ = PackageFolder();
  if (!watch_) watch_ = std::make_unique<FolderWatch>(folder_);
  stamp_.trusted_until = CoarseMs() + kTrustMs;
  const bool changed = watch_->Changed();
  if (!watch_->stands()) stamp_.trusted_until = 0;
  if (changed || stamp_.GenerationMoved()) {
    stamp_.version = store_version.fetch_add(1, std::memory_order_release) + 1;
  }
  return changed;
}

int Store::Refresh(Snapshot::Complaints* fresh_complaints) {
  if (snapshot_ && stamp_.IsLatest()) return 0;
  if (Ask()) snapshot_ = SnapshotRef();
  // Only a folder in which nobody touched the generation file has a word that is safe to look at.
  if (snapshot_ && !snapshot_->may_change_unheard() && !stamp_.GenerationMoved()) return 0;
  const int error = Read(fresh_complaints);
  if (snapshot_ && snapshot_->may_change_unheard()) stamp_.trusted_until = 0;
  return error;
}

int Store::Read(Snapshot::Complaints* fresh_complaints) {
  snapshot_ = SnapshotRef();
  // The word is read before the folder: a change in between is found by the next look-up.
  stamp_.generation = Generation::Open(folder_, stamp_.generation);
  stamp_.generation_seen = stamp_.generation ? stamp_.generation->Load() : 0;
  SnapshotRef snapshot;
  const int error = ReadSnapshot(folder_, &snapshot);
  if (error) return error;
  for (const std::string& complaint : snapshot->complaints()) {
    if (complaints_.count(complaint) == 0) fresh_complaints->insert(complaint);
  }
  complaints_ = snapshot->complaints();
  snapshot_ = std::move(snapshot);
  return 0;
}

// Outside the store's lock, because the log may be anybody's.
void Complain(const Snapshot::Complaints& complaints) {
  for (const std::string& complaint : complaints) {
    dlog_print(DLOG_ERROR, "PACKAGE_MANAGER", "Left out a broken package: %s", complaint.c_str());
  }
}

int AskStore(SnapshotRef* snapshot) {
  cache.Clear();
  Snapshot::Complaints complaints;
  Stamp stamp;
  const int error = Store::Get().Latest(snapshot, &stamp, &complaints);
  Complain(complaints);
  if (error) return error;
  if (!cache.closed && stamp.CanTell() && WillBeClosed()) {
    cache.Fill(snapshot->get(), std::move(stamp));
  }
  return 0;
}

}  // namespace

int LatestSnapshot(SnapshotRef* snapshot) {
  if (!cache.IsLatest()) return AskStore(snapshot);
  *snapshot = SnapshotRef(cache.HandOut());
  return 0;
}

int HoldLatestPackage(const char* id, const package_info_s** held) {
  if (cache.last_found && cache.IsLatest() && strcmp(cache.last_found->id.c_str(), id) == 0) {
    cache.HandOut();
    *held = cache.last_found;
    return 0;
  }
  SnapshotRef snapshot;
  if (const int error = LatestSnapshot(&snapshot)) return error;
  *held = snapshot->FindPackage(id);
  if (!*held) return 0;
  if (snapshot.get() == cache.snapshot) cache.last_found = *held;
  snapshot.Detach();
  return 0;
}

void GiveBack(const Snapshot* snapshot) {
  if (snapshot == cache.snapshot) {
    ++cache.shares;
  } else {
    snapshot->Release();
  }
}

}  // namespace packages
