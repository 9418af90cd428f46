// SPDX-License-Identifier: Apache-2.0
#include "work_progress.h"

#include <utility>

namespace svcmgrctl {
namespace {

constexpr int kWhole = 100;
constexpr double kStallSeconds = 3;
// What the rate is measured over, and what it takes at least to be worth telling.
constexpr double kWindowSeconds = 10;
constexpr double kLeastSeconds = 0.5;

}  // namespace

WorkProgress::WorkProgress(std::shared_ptr<const vs::WorkTracker> tracker, double now)
    : tracker_(std::move(tracker)), heard_(now), samples_({{now, 0}}) {}

void WorkProgress::Note(double now) {
  heard_ = now;
  const double total = tracker_->ExactTotal();
  if (total > samples_.back().total) samples_.push_back({now, total});
  while (samples_.size() > 2 && samples_[1].time <= now - kWindowSeconds) samples_.pop_front();
}

std::optional<double> WorkProgress::RateAt(double now) const {
  const Sample& first = samples_.front();
  const double gained = samples_.back().total - first.total;
  if (gained <= 0 || now - first.time < kLeastSeconds || StallAt(now)) return std::nullopt;
  return gained / (now - first.time);
}

std::optional<double> WorkProgress::RemainingAt(double now) const {
  const auto rate = RateAt(now);
  if (!rate || HasEnded()) return std::nullopt;
  return (kWhole - tracker_->ExactTotal()) / *rate;
}

std::optional<double> WorkProgress::StallAt(double now) const {
  const double silence = now - heard_;
  if (silence < kStallSeconds || HasEnded()) return std::nullopt;
  return silence;
}

}  // namespace svcmgrctl
