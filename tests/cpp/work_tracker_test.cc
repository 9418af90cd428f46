// SPDX-License-Identifier: Apache-2.0
// The rule by which work on models is over, and progress that never goes backwards.
#include <gmock/gmock.h>

#include <chrono>
#include <velmora_svcmgr.hpp>

namespace {

namespace vs = velmora::svcmgr;
using namespace std::chrono_literals;
using vs::Verdict;

vs::TimePoint At(vs::Milliseconds time) { return vs::TimePoint(1h) + time; }

vs::WorkReport Report(int index, int percentage, vs::WorkState state = vs::WorkState::kWorking,
                      int error = 0) {
  return {error, state, index, 3, percentage};
}

constexpr int kStarted = SVCMGR_AI_STATUS_STARTED;
constexpr int kCompleted = SVCMGR_AI_STATUS_COMPLETED;
constexpr int kFailed = SVCMGR_AI_STATUS_FAILED;

struct ATracker : testing::Test {
  vs::WorkTracker tracker{3, At(0ms)};
};

TEST_F(ATracker, BeginsAtNothing) {
  EXPECT_EQ(tracker.progress().total, 0);
  EXPECT_EQ(tracker.progress().count, 3U);
  EXPECT_EQ(tracker.Judge(At(1h)), Verdict::kGoesOn);
}

TEST_F(ATracker, CountsEarlierModelsAsDone) {
  tracker.Take(Report(3, 50), At(1ms));
  EXPECT_EQ(tracker.PercentOf(0), 100);
  EXPECT_EQ(tracker.PercentOf(1), 100);
  EXPECT_EQ(tracker.PercentOf(2), 50);
  EXPECT_EQ(tracker.progress().total, 83);
}

TEST_F(ATracker, IsNotCompleteBeforeTheWorkIsDone) {
  tracker.Take(Report(3, 100), At(1ms));
  EXPECT_EQ(tracker.progress().percent, 99);
  EXPECT_EQ(tracker.progress().total, 99);
  tracker.Take(Report(3, 100, vs::WorkState::kDone), At(2ms));
  EXPECT_EQ(tracker.progress().percent, 100);
  EXPECT_EQ(tracker.progress().total, 100);
}

TEST_F(ATracker, TakesWildNumbers) {
  for (const int n : {INT_MIN, -1, 0, 4, INT_MAX}) tracker.Take(Report(n, n), At(1ms));
  EXPECT_EQ(tracker.progress().total, 0);
  tracker.Take(Report(1, INT_MAX), At(1ms));
  tracker.Take(Report(1, INT_MIN), At(1ms));
  EXPECT_EQ(tracker.progress().percent, 99);
}

TEST_F(ATracker, IsDecidedByTheFirstMessageThatEnds) {
  tracker.Take(Report(1, 0, vs::WorkState::kFailed, SVCMGR_ERROR_NO_SPACE), At(1ms));
  tracker.Take(Report(3, 100, vs::WorkState::kDone), At(2ms));
  EXPECT_EQ(tracker.verdict(), Verdict::kFailed);
  EXPECT_EQ(tracker.failure(), vs::Error(SVCMGR_ERROR_NO_SPACE));
  EXPECT_FALSE(tracker.ended_by_events());
}

TEST_F(ATracker, BelievesEventsAfterTwoSecondsOfSilence) {
  tracker.TakeStatus(kStarted, At(0ms));
  tracker.TakeStatus(kFailed, At(100ms));
  EXPECT_EQ(tracker.Judge(At(2099ms)), Verdict::kGoesOn);
  EXPECT_EQ(tracker.Judge(At(2100ms)), Verdict::kFailed);
  EXPECT_TRUE(tracker.ended_by_events());
  EXPECT_EQ(tracker.failure(), vs::Error(vs::kWorkFailed));
}

TEST_F(ATracker, DoesNotBelieveAnEndWithoutABeginning) {
  tracker.TakeStatus(kCompleted, At(0ms));
  EXPECT_EQ(tracker.Judge(At(1h)), Verdict::kGoesOn);
}

TEST_F(ATracker, WaitsForAsManyEndsAsBeginnings) {
  tracker.TakeStatus(kStarted, At(0ms));
  tracker.TakeStatus(kStarted, At(0ms));
  tracker.TakeStatus(kCompleted, At(0ms));
  EXPECT_EQ(tracker.Judge(At(1h)), Verdict::kGoesOn);
  tracker.TakeStatus(kCompleted, At(1h));
  EXPECT_EQ(tracker.Judge(At(2h)), Verdict::kDone);
}

TEST_F(ATracker, DoesNotBelieveASuccessBeforeTheLastModel) {
  tracker.TakeStatus(kStarted, At(0ms));
  tracker.Take(Report(2, 90), At(0ms));
  tracker.TakeStatus(kCompleted, At(0ms));
  EXPECT_EQ(tracker.Judge(At(1h)), Verdict::kGoesOn);
}

TEST_F(ATracker, ForgetsEventsWhenAMessageFollows) {
  tracker.TakeStatus(kStarted, At(0ms));
  tracker.TakeStatus(kFailed, At(0ms));
  tracker.Take(Report(1, 10), At(1s));
  EXPECT_EQ(tracker.Judge(At(1h)), Verdict::kGoesOn);
}

TEST_F(ATracker, BelievesEventsWhenTheTimeIsUp) {
  tracker.TakeStatus(kStarted, At(0ms));
  tracker.TakeStatus(kCompleted, At(0ms));
  EXPECT_EQ(tracker.Judge(At(1ms), true), Verdict::kDone);
}

TEST_F(ATracker, CountsEventsFromTheRequestOn) {
  tracker.TakeStatus(kStarted, At(0ms));
  tracker.Begin(At(1ms));
  tracker.TakeStatus(kCompleted, At(2ms));
  EXPECT_EQ(tracker.Judge(At(1h)), Verdict::kGoesOn);
}

}  // namespace
