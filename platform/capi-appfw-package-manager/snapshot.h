// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_PACKAGE_MANAGER_SNAPSHOT_H_
#define PLATFORM_PACKAGE_MANAGER_SNAPSHOT_H_

#include <app_info_record.h>
#include <stdint.h>
#include <string.h>

#include <atomic>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "freshness.h"

namespace packages {
class Snapshot;
}

// What a package_info_h points to: a part of a snapshot, which every handle keeps alive as a whole.
struct package_info_s {
  const packages::Snapshot* snapshot = nullptr;
  std::string id;
  std::string version;
  bool admits_all = true;
  std::vector<std::string> admitted_clients;
  std::vector<app_info_s> applications;
};

namespace packages {

// All installed packages at one moment: immutable, and released with its last share.
class Snapshot {
 public:
  // Complaints about key files that could not be read; the same complaint is made once.
  using Complaints = std::set<std::string>;

  // What was read, and whether every change to it will be noticed.
  struct Content {
    std::vector<package_info_s> packages;
    Complaints complaints;
    // A key file that has another name outside the folder can be written unnoticed.
    bool may_change_unheard = false;
  };

  // The new snapshot has one share, the maker's.
  Snapshot(Content content, Freshness freshness);
  Snapshot(const Snapshot&) = delete;
  Snapshot& operator=(const Snapshot&) = delete;

  // Ordered by ID.
  const std::vector<package_info_s>& packages() const { return packages_; }
  const Complaints& complaints() const { return complaints_; }
  bool may_change_unheard() const { return may_change_unheard_; }
  const package_info_s* FindPackage(const char* id) const {
    const package_info_s* const last = last_found_.load(std::memory_order_relaxed);
    return last && strcmp(last->id.c_str(), id) == 0 ? last : SearchPackage(id);
  }
  const app_info_s* FindApplication(const char* id) const;
  Freshness& freshness() const { return freshness_; }

  void Hold(uint64_t shares = 1) const { shares_.fetch_add(shares, std::memory_order_relaxed); }
  void Release(uint64_t shares = 1) const {
    if (shares_.fetch_sub(shares, std::memory_order_acq_rel) == shares) End();
  }

 private:
  ~Snapshot() = default;
  void End() const;
  const package_info_s* SearchPackage(const char* id) const;

  mutable std::atomic<uint64_t> shares_{1};
  std::vector<package_info_s> packages_;
  // Most processes ask for the same package again and again.
  mutable std::atomic<const package_info_s*> last_found_{nullptr};
  std::vector<const app_info_s*> applications_;  // ordered by ID
  const Complaints complaints_;
  const bool may_change_unheard_;
  mutable Freshness freshness_;
};

// Owner of one share of a snapshot.
class SnapshotRef {
 public:
  SnapshotRef() = default;
  explicit SnapshotRef(const Snapshot* taken_over) : snapshot_(taken_over) {}
  SnapshotRef(const SnapshotRef& other) : snapshot_(other.snapshot_) {
    if (snapshot_) snapshot_->Hold();
  }
  SnapshotRef(SnapshotRef&& other) noexcept : snapshot_(other.Detach()) {}
  SnapshotRef& operator=(SnapshotRef other) noexcept {
    std::swap(snapshot_, other.snapshot_);
    return *this;
  }
  ~SnapshotRef() {
    if (snapshot_) snapshot_->Release();
  }

  const Snapshot* get() const { return snapshot_; }
  const Snapshot* operator->() const { return snapshot_; }
  explicit operator bool() const { return snapshot_ != nullptr; }

  // The share now belongs to the caller.
  const Snapshot* Detach() { return std::exchange(snapshot_, nullptr); }

 private:
  const Snapshot* snapshot_ = nullptr;
};

}  // namespace packages

#endif  // PLATFORM_PACKAGE_MANAGER_SNAPSHOT_H_
