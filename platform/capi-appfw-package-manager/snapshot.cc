// SPDX-License-Identifier: Apache-2.0
#include "snapshot.h"

#include <algorithm>

namespace packages {

Snapshot::Snapshot(Content content)
    : packages_(std::move(content.packages)),
      complaints_(std::move(content.complaints)),
      may_change_unheard_(content.may_change_unheard) {
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
  std::stable_sort(applications_.begin(), applications_.end(),
                   [](const auto* a, const auto* b) { return a->id < b->id; });
}

const package_info_s* Snapshot::FindPackage(std::string_view id) const {
  const auto found = std::lower_bound(packages_.begin(), packages_.end(), id,
                                      [](const auto& a, std::string_view b) { return a.id < b; });
  return found != packages_.end() && found->id == id ? &*found : nullptr;
}

const app_info_s* Snapshot::FindApplication(std::string_view id) const {
  const auto found = std::lower_bound(applications_.begin(), applications_.end(), id,
                                      [](const auto* a, std::string_view b) { return a->id < b; });
  return found != applications_.end() && (*found)->id == id ? *found : nullptr;
}

}  // namespace packages
