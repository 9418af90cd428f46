// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_PACKAGE_MANAGER_FOLDER_WATCH_H_
#define PLATFORM_PACKAGE_MANAGER_FOLDER_WATCH_H_

#include <string>
#include <vector>

#include "unique_fd.h"

struct inotify_event;

namespace packages {

// Watches a folder that may be absent, appear, disappear or be replaced by another of the same
// name.
class FolderWatch {
 public:
  // `folder` is an absolute path.
  explicit FolderWatch(std::string folder) : folder_(std::move(folder)) {}

  // Whether the folder may hold something other than at the last call. Costs one read while nothing
  // happens. Always true at the first call, and as long as the kernel grants no watch. After an
  // exception, the next call tries again and returns true.
  bool Changed();

  // False as long as the kernel grants no watch.
  bool stands() const { return static_cast<bool>(inotify_); }

 private:
  // A folder on the way to the watched one, and the entry of it that leads on; no entry for the
  // watched folder itself.
  struct Step {
    int watch;
    std::string entry;
  };
  enum class News { kNone, kContent, kPath };
  // How closely the folders above are watched.
  enum class Care { kMoves, kEntries };

  News Judge(const inotify_event& event) const;
  News ReadEvents();
  void WatchPath();
  void Forget();
  bool WatchSteps(const std::string& path, Care care);
  bool Add(const std::string& folder, const std::string& entry, unsigned mask);

  const std::string folder_;
  base::UniqueFd inotify_;
  bool short_of_watches_ = false;
  std::vector<Step> steps_;
};

}  // namespace packages

#endif  // PLATFORM_PACKAGE_MANAGER_FOLDER_WATCH_H_
