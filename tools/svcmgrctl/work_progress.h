// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_WORK_PROGRESS_H_
#define TOOLS_SVCMGRCTL_WORK_PROGRESS_H_

#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <velmora_svcmgr.hpp>

namespace svcmgrctl {

namespace vs = velmora::svcmgr;

/**
 * Adds to how far work on models has come, which a tracker knows, what a person wants to know of it:
 * how fast it goes and how long it will take, or that it does not go.
 *
 * Times are seconds of any clock that goes forward.
 */
class WorkProgress {
 public:
  WorkProgress(std::shared_ptr<const vs::WorkTracker> tracker, double now);

  /** The tracker has heard something. */
  void Note(double now);

  /** The model that is worked on, from 0. */
  std::size_t Current() const { return tracker_->progress().model; }
  int PercentOf(std::size_t model) const { return tracker_->PercentOf(model); }
  int Total() const { return tracker_->progress().total; }

  /** Hundredths of the whole per second; absent as long as it cannot be told. */
  std::optional<double> RateAt(double now) const;
  /** Seconds; absent as long as they cannot be told. */
  std::optional<double> RemainingAt(double now) const;
  /** How long nothing has been heard; absent while that is not long. */
  std::optional<double> StallAt(double now) const;

 private:
  struct Sample {
    double time;
    double total;
  };

  bool HasEnded() const { return tracker_->verdict() != vs::Verdict::kGoesOn; }

  std::shared_ptr<const vs::WorkTracker> tracker_;
  double heard_;
  std::deque<Sample> samples_;
};

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_WORK_PROGRESS_H_
