// SPDX-License-Identifier: Apache-2.0
#include "work_progress.h"

#include <algorithm>

#include "velmora_svcmgr.h"

namespace svcmgrctl {
namespace {

constexpr int kWhole = 100;
constexpr double kSettleSeconds = 2;
constexpr double kStallSeconds = 3;
// What the rate is measured over, and what it takes at least to be worth telling.
constexpr double kWindowSeconds = 10;
constexpr double kLeastSeconds = 0.5;

}  // namespace

WorkProgress::WorkProgress(std::size_t models, double now)
    : percents_(models, 0), heard_(now), samples_({{now, 0}}) {}

void WorkProgress::Take(const ProgressNumbers& message, double now) {
  heard_ = now;
  if (end_ != End::kNone) return;
  // Work that goes on has not ended: the events were about other work.
  pending_ = End::kNone;
  reported_ = true;
  Advance(message);
  if (message.error != SVCMGR_ERROR_NONE || message.state == kStateFailed) {
    end_ = End::kFailed;
    error_ = message.error;
  } else if (message.state == kStateDone) {
    end_ = End::kDone;
  }
  const double total = ExactTotal();
  if (total > samples_.back().total) samples_.push_back({now, total});
  while (samples_.size() > 2 && samples_[1].time <= now - kWindowSeconds) samples_.pop_front();
}

void WorkProgress::Advance(const ProgressNumbers& message) {
  if (message.index < 1 || static_cast<std::size_t>(message.index) > percents_.size()) return;
  const auto model = static_cast<std::size_t>(message.index) - 1;
  if (model < current_) return;
  std::fill_n(percents_.begin(), model, kWhole);
  current_ = model;
  percents_[model] = std::max(percents_[model], std::clamp(message.percentage, 0, kWhole - 1));
}

void WorkProgress::TakeStatus(int status, double now) {
  heard_ = now;
  if (status == SVCMGR_AI_STATUS_STARTED) {
    ++begun_;
    return;
  }
  if (status != SVCMGR_AI_STATUS_COMPLETED && status != SVCMGR_AI_STATUS_FAILED) return;
  ++ended_;
  if (begun_ == 0 || ended_ < begun_) return;
  const bool last_reached = !reported_ || current_ + 1 == percents_.size();
  if (status == SVCMGR_AI_STATUS_FAILED)
    pending_ = End::kFailed;
  else if (last_reached)
    pending_ = End::kDone;
}

WorkProgress::End WorkProgress::EndAt(double now) {
  if (now - heard_ >= kSettleSeconds) BelieveEvents();
  return end_;
}

bool WorkProgress::BelieveEvents() {
  if (end_ != End::kNone || pending_ == End::kNone) return false;
  end_ = pending_;
  ended_by_events_ = true;
  return true;
}

int WorkProgress::PercentOf(std::size_t model) const {
  return end_ == End::kDone ? kWhole : percents_[model];
}

double WorkProgress::ExactTotal() const {
  double sum = 0;
  for (const int percent : percents_) sum += percent;
  return sum / static_cast<double>(percents_.size());
}

int WorkProgress::Total() const {
  return end_ == End::kDone ? kWhole : std::min(static_cast<int>(ExactTotal()), kWhole - 1);
}

std::optional<double> WorkProgress::RateAt(double now) const {
  const Sample& first = samples_.front();
  const double gained = samples_.back().total - first.total;
  if (gained <= 0 || now - first.time < kLeastSeconds || StallAt(now)) return std::nullopt;
  return gained / (now - first.time);
}

std::optional<double> WorkProgress::RemainingAt(double now) const {
  const auto rate = RateAt(now);
  if (!rate || end_ != End::kNone) return std::nullopt;
  return (kWhole - ExactTotal()) / *rate;
}

std::optional<double> WorkProgress::StallAt(double now) const {
  const double silence = now - heard_;
  if (silence < kStallSeconds || end_ != End::kNone) return std::nullopt;
  return silence;
}

}  // namespace svcmgrctl
