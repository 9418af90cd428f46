// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_WORK_PROGRESS_H_
#define TOOLS_SVCMGRCTL_WORK_PROGRESS_H_

#include <cstddef>
#include <deque>
#include <optional>
#include <vector>

namespace svcmgrctl {

/** A progress message as it came. */
struct ProgressNumbers {
  int error = 0;
  int state = 0;
  int index = 0;
  int count = 0;
  int percentage = 0;
};

/** The states of work, as the agent counts them. Others are none of these. */
constexpr int kStateDone = 2;
constexpr int kStateFailed = 3;

/**
 * Turns what the agent reports about an operation on models into what a person can be shown: progress
 * that never goes backwards and is complete only when the work is, whatever order and numbers the
 * messages have.
 *
 * The operation is over
 *
 *  - with the first message that has an error, or the state "done" or "failed";
 *  - without such a message: when the device has reported the end of work on models (as often as it
 *    has reported a beginning since the request, because others may work at the same time), and
 *    nothing more is heard for two seconds. A success is believed if the last model had been
 *    reached.
 *
 * Times are seconds of any clock that goes forward.
 */
class WorkProgress {
 public:
  enum class End { kNone, kDone, kFailed };

  WorkProgress(std::size_t models, double now);

  void Take(const ProgressNumbers& message, double now);
  /** @param status  One of velmora_svcmgr_ai_status_e. */
  void TakeStatus(int status, double now);

  /** How the work has ended, as far as it can be told by now. */
  End EndAt(double now);
  /** Believes the events without waiting any longer; false if they have told of no end. */
  bool BelieveEvents();
  /** Whether events have told of the end. */
  bool EndedByEvents() const { return ended_by_events_; }
  /** The error of the message that ended the work; SVCMGR_ERROR_NONE if it had none. */
  int error() const { return error_; }

  /** The model that is worked on, from 0. */
  std::size_t Current() const { return current_; }
  int PercentOf(std::size_t model) const;
  int Total() const;

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

  void Advance(const ProgressNumbers& message);
  double ExactTotal() const;

  // Hundredths of each model.
  std::vector<int> percents_;
  std::size_t current_ = 0;
  bool reported_ = false;
  End end_ = End::kNone;
  int error_ = 0;
  int begun_ = 0;
  int ended_ = 0;
  // What events have told, which is not believed yet.
  End pending_ = End::kNone;
  bool ended_by_events_ = false;
  double heard_;
  std::deque<Sample> samples_;
};

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_WORK_PROGRESS_H_
