// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_PACKAGE_MANAGER_FRESHNESS_H_
#define PLATFORM_PACKAGE_MANAGER_FRESHNESS_H_

#include <stdint.h>
#include <time.h>

#include <atomic>
#include <memory>
#include <utility>

#include "generation.h"

namespace packages {

// Whether what was read of a package folder is still the latest, known without asking the kernel.
//
// It is while the folder's generation word, which the functions of package_desktop.h change before
// they return, is what it was before the reading, and the folder's watch, which notices all other
// changes, had no news less than 10 ms ago. In a folder without a generation word, this is never
// known.
//
// A generation file that somebody truncates ends the process that next looks at its word. The watch
// tells of it, so that only those 10 ms are dangerous; without them, every look-up would have to
// read the watch.
class Freshness {
 public:
  using Nanoseconds = int64_t;

  // Made before the folder is read. Holds once it has been confirmed.
  explicit Freshness(std::shared_ptr<const Generation> generation)
      : generation_(std::move(generation)), word_(generation_ ? generation_->Load() : 0) {}
  // Must be confirmed again.
  Freshness(Freshness&& other) noexcept
      : generation_(std::move(other.generation_)), word_(other.word_) {}

  bool Holds() const {
    const Nanoseconds until = until_.load(std::memory_order_acquire);
    return until != 0 && Now() < until && generation_->Load() == word_;
  }

  // To be asked when the watch has no news, not even of the generation file.
  bool GenerationMoved() const { return generation_ && generation_->Load() != word_; }

  // The watch, read at this time, had no news since the folder was read.
  void Confirm(Nanoseconds watch_read_at) {
    if (generation_) until_.store(watch_read_at + kTrust, std::memory_order_release);
  }

  // There is something newer: it no longer holds in any thread.
  void End() { until_.store(0, std::memory_order_release); }

  const std::shared_ptr<const Generation>& generation() const { return generation_; }

  // Accurate to a few milliseconds, without a system call.
  static Nanoseconds Now() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<Nanoseconds>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
  }

 private:
  static constexpr Nanoseconds kTrust = 10'000'000;

  std::shared_ptr<const Generation> generation_;
  const uint64_t word_;
  std::atomic<Nanoseconds> until_{0};
};

}  // namespace packages

#endif  // PLATFORM_PACKAGE_MANAGER_FRESHNESS_H_
