// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_PACKAGE_MANAGER_SNAPSHOT_H_
#define PLATFORM_PACKAGE_MANAGER_SNAPSHOT_H_

#include <app_info_record.h>

#include <atomic>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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

// All installed packages at one moment: immutable, and released by its last holder.
class Snapshot {
 public:
  // Complaints about key files that could not be read; the same complaint is made once.
  using Complaints = std::set<std::string>;

  // The new snapshot has one holder.
  Snapshot(std::vector<package_info_s> packages, Complaints complaints);
  Snapshot(const Snapshot&) = delete;
  Snapshot& operator=(const Snapshot&) = delete;

  // Ordered by ID.
  const std::vector<package_info_s>& packages() const { return packages_; }
  const Complaints& complaints() const { return complaints_; }
  const package_info_s* FindPackage(std::string_view id) const;
  const app_info_s* FindApplication(std::string_view id) const;

  void Hold() const { holders_.fetch_add(1, std::memory_order_relaxed); }
  void Release() const {
    if (holders_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

 private:
  ~Snapshot() = default;

  mutable std::atomic<unsigned> holders_{1};
  std::vector<package_info_s> packages_;
  std::vector<const app_info_s*> applications_;  // ordered by ID
  const Complaints complaints_;
};

// One holder's share of a snapshot.
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
