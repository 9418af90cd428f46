// SPDX-License-Identifier: Apache-2.0
#include "snapshot.h"

#include <string.h>

#include <algorithm>
#include <tuple>

namespace packages {

Snapshot::Snapshot(Content content, Freshness freshness)
    : packages_(std::move(content.packages)),
      complaints_(std::move(content.complaints)),
      may_change_unheard_(content.may_change_unheard),
      freshness_(std::move(freshness)) {
  std::sort(packages_.begin(), packages_.end(),
            [](const auto& a, const auto& b) { return a.id < b.id; });
  for (package_info_s& package : packages_) {
    package.snapshot = this;
    for (app_info_s& application : package.applications) {
      application.package = &package;
      applications_.push_back(&application);
    }
  }
  // Of two packages that claim the same application, the first by ID has it.
  std::sort(applications_.begin(), applications_.end(), [](const auto* a, const auto* b) {
    return std::tie(a->id, a->package->id) < std::tie(b->id, b->package->id);
  });
}

// Kept apart from the look-ups, which are then much shorter.
void Snapshot::End() const { delete this; }

const package_info_s* Snapshot::SearchPackage(const char* id) const {
  const auto found =
      std::lower_bound(packages_.begin(), packages_.end(), id,
                       [](const auto& a, const char* b) { return strcmp(a.id.c_str(), b) < 0; });
  if (found == packages_.end() || strcmp(found->id.c_str(), id) != 0) return nullptr;
  last_found_.store(&*found, std::memory_order_relaxed);
  return &*found;
}

const app_info_s* Snapshot::FindApplication(const char* id) const {
  const auto found =
      std::lower_bound(applications_.begin(), applications_.end(), id,
                       [](const auto* a, const char* b) { return strcmp(a->id.c_str(), b) < 0; });
  return found != applications_.end() && strcmp((*found)->id.c_str(), id) == 0 ? *found : nullptr;
}

}  // namespace packages
