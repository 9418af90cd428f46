// SPDX-License-Identifier: Apache-2.0
#include "folder_watch.h"

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/inotify.h>

#include <algorithm>
#include <string_view>

#include "generation.h"
#include "owned.h"
#include "snapshot_reader.h"

namespace packages {

namespace {

constexpr uint32_t kEntryMoved = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB;
constexpr uint32_t kSelfMoved = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT;
constexpr uint32_t kMoveMask = IN_MOVE_SELF | IN_DELETE_SELF;
constexpr uint32_t kStepMask = kEntryMoved | kMoveMask;
constexpr uint32_t kFolderMask = kStepMask | IN_MODIFY | IN_CLOSE_WRITE;

// That the generation file was closed, or its attributes changed, says nothing that its word does
// not.
bool Matters(std::string_view entry, uint32_t mask) {
  if (entry == kGenerationFile) return (mask & (kFolderMask ^ (IN_CLOSE_WRITE | IN_ATTRIB))) != 0;
  return IsKeyFileName(entry);
}

}  // namespace

bool FolderWatch::Changed() {
  if (!inotify_) {
    inotify_ = base::UniqueFd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (inotify_) WatchPath();
    return true;
  }
  const News news = ReadEvents();
  if (news == News::kPath) WatchPath();
  return news != News::kNone;
}

FolderWatch::News FolderWatch::ReadEvents() {
  alignas(inotify_event) char events[4096];
  News news = News::kNone;
  for (;;) {
    const ssize_t size = read(inotify_.get(), events, sizeof events);
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) return news;
    for (const char* at = events; at < events + size;) {
      const auto* event = reinterpret_cast<const inotify_event*>(at);
      news = std::max(news, Judge(*event));
      at += sizeof *event + event->len;
    }
  }
}

FolderWatch::News FolderWatch::Judge(const inotify_event& event) const {
  if (event.mask & IN_Q_OVERFLOW) return News::kPath;
  const std::string_view entry = event.len > 0 ? event.name : "";
  News news = News::kNone;
  for (const Step& step : steps_) {
    if (step.watch != event.wd) continue;
    if (event.mask & kSelfMoved) return News::kPath;
    if (!step.entry.empty()) {
      if (entry == step.entry && (event.mask & kEntryMoved)) return News::kPath;
    } else if (entry.empty() || Matters(entry, event.mask)) {
      news = News::kContent;
    }
  }
  return news;
}

void FolderWatch::Forget() {
  for (const Step& step : steps_) inotify_rm_watch(inotify_.get(), step.watch);
  steps_.clear();
}

// Watches come before the folder is read, so that whatever changes during the reading is news.
//
// A folder above that exists and is no link can only be moved: it must be empty before it can be
// removed or replaced. What else happens in it, say in /tmp, is better ignored. Where the path ends
// early or leads through a link, the entries of every folder on the way must be watched.
void FolderWatch::WatchPath() try {
  Forget();
  short_of_watches_ = false;
  if (!WatchSteps(folder_, Care::kMoves)) {
    Forget();
    WatchSteps(folder_, Care::kEntries);
    const base::Malloced<char> real(realpath(folder_.c_str(), nullptr));
    if (real && folder_ != real.get()) WatchSteps(real.get(), Care::kEntries);
  }
  // With only some of the watches, news could be missed.
  if (steps_.empty() || short_of_watches_) inotify_ = base::UniqueFd();
} catch (...) {
  inotify_ = base::UniqueFd();
  throw;
}

// Stops at the first folder that is missing: its appearance is news from the one before.
bool FolderWatch::WatchSteps(const std::string& path, Care care) {
  const uint32_t follow = care == Care::kMoves ? IN_DONT_FOLLOW : 0;
  for (size_t slash = 0; slash != std::string::npos;) {
    const size_t entry = path.find_first_not_of('/', slash);
    if (entry == std::string::npos) break;
    const size_t next = path.find('/', entry);
    const bool is_last = path.find_first_not_of('/', next) == std::string::npos;
    const bool listen = care == Care::kEntries || is_last;
    const uint32_t mask = (listen ? kStepMask : kMoveMask) | follow;
    if (!Add(path.substr(0, slash), path.substr(entry, next - entry), mask)) return false;
    slash = next;
  }
  return Add(path.substr(0, path.find_last_not_of('/') + 1), "", kFolderMask | follow);
}

bool FolderWatch::Add(const std::string& folder, const std::string& entry, uint32_t mask) {
  const char* path = folder.empty() ? "/" : folder.c_str();
  const int watch = inotify_add_watch(inotify_.get(), path, mask | IN_MASK_ADD | IN_ONLYDIR);
  if (watch >= 0) {
    steps_.push_back({watch, entry});
    return true;
  }
  if (errno == ENOSPC || errno == ENOMEM) short_of_watches_ = true;
  // A folder that may be searched but not read cannot be watched, and the user cannot replace it.
  return errno == EACCES;
}

}  // namespace packages
