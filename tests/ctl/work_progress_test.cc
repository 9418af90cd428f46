// SPDX-License-Identifier: Apache-2.0
//
// What people are shown of an operation on models, whatever the agent says.
#include "work_progress.h"

#include <gmock/gmock.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <memory>

#include "bars.h"
#include "terminal_text.h"
#include "velmora_svcmgr.h"

namespace svcmgrctl {
namespace {

using testing::DoubleNear;
using testing::ElementsAre;
using testing::Optional;

using End = vs::Verdict;

constexpr int kStateDone = static_cast<int>(vs::WorkState::kDone);
constexpr int kStateFailed = static_cast<int>(vs::WorkState::kFailed);

/** Progress that a test feeds itself. */
class FedProgress {
 public:
  FedProgress(std::size_t models, double now)
      : tracker_(std::make_shared<vs::WorkTracker>(models, At(now))), progress_(tracker_, now) {}

  void Take(const vs::WorkReport& report, double now) {
    tracker_->Take(report, At(now));
    progress_.Note(now);
  }
  void TakeStatus(int status, double now) {
    tracker_->TakeStatus(status, At(now));
    progress_.Note(now);
  }
  End EndAt(double now) { return tracker_->Judge(At(now)); }
  End EndWhenTimeIsUp(double now) { return tracker_->Judge(At(now), true); }
  bool EndedByEvents() const { return tracker_->ended_by_events(); }
  int error() const { return tracker_->failure().code(); }

  operator const WorkProgress&() const { return progress_; }  // NOLINT(google-explicit-constructor)
  const WorkProgress* operator->() const { return &progress_; }

 private:
  static vs::TimePoint At(double seconds) {
    return vs::TimePoint(
        std::chrono::milliseconds(static_cast<std::int64_t>(std::round(seconds * 1000))));
  }

  std::shared_ptr<vs::WorkTracker> tracker_;
  WorkProgress progress_;
};

vs::WorkReport Working(int index, int count, int percentage) {
  return {SVCMGR_ERROR_NONE, vs::WorkState::kWorking, index, count, percentage};
}
vs::WorkReport Message(int error, int state) {
  return {error, static_cast<vs::WorkState>(state), 1, 1, 50};
}

TEST(Progress, OfAModelIsWhatTheAgentSays) {
  FedProgress progress(2, 0);
  EXPECT_EQ(progress->PercentOf(0), 0);
  EXPECT_EQ(progress->Total(), 0);
  progress.Take(Working(1, 2, 40), 1);
  EXPECT_EQ(progress->PercentOf(0), 40);
  EXPECT_EQ(progress->PercentOf(1), 0);
  EXPECT_EQ(progress->Total(), 20);
}

TEST(Progress, OfAModelIsWholeOnceTheNextHasBegun) {
  FedProgress progress(3, 0);
  progress.Take(Working(1, 3, 100), 1);
  EXPECT_EQ(progress->PercentOf(0), 99);
  progress.Take(Working(3, 3, 0), 2);
  EXPECT_EQ(progress->PercentOf(0), 100);
  EXPECT_EQ(progress->PercentOf(1), 100);
  EXPECT_EQ(progress->PercentOf(2), 0);
  EXPECT_EQ(progress->Current(), 2u);
}

TEST(Progress, NeverGoesBackwards) {
  FedProgress progress(2, 0);
  progress.Take(Working(1, 2, 60), 1);
  progress.Take(Working(1, 2, 20), 2);
  EXPECT_EQ(progress->PercentOf(0), 60);
  progress.Take(Working(2, 2, 10), 3);
  progress.Take(Working(1, 2, 70), 4);
  EXPECT_EQ(progress->PercentOf(0), 100);
  EXPECT_EQ(progress->PercentOf(1), 10);
  EXPECT_EQ(progress->Current(), 1u);
  EXPECT_EQ(progress->Total(), 55);
}

TEST(Progress, IsNeverWholeBeforeTheEnd) {
  FedProgress progress(1, 0);
  for (const int percentage : {100, 101, 2147483647}) {
    progress.Take(Working(1, 1, percentage), 1);
    EXPECT_EQ(progress->PercentOf(0), 99);
    EXPECT_EQ(progress->Total(), 99);
  }
  progress.Take({SVCMGR_ERROR_NONE, vs::WorkState::kDone, 1, 1, 100}, 2);
  EXPECT_EQ(progress->PercentOf(0), 100);
  EXPECT_EQ(progress->Total(), 100);
}

TEST(Progress, IsNotMovedByNumbersThatCannotBe) {
  FedProgress progress(2, 0);
  progress.Take(Working(1, 2, 30), 1);
  for (const vs::WorkReport& wrong :
       {Working(0, 2, 90), Working(-1, 2, 90), Working(3, 2, 90), Working(2147483647, 2, 90),
        Working(-2147483647 - 1, 2, 90), Working(1, 2, -5), Working(1, -7, 10)}) {
    progress.Take(wrong, 2);
    EXPECT_EQ(progress->Current(), 0u);
    EXPECT_EQ(progress->PercentOf(0), 30);
    EXPECT_EQ(progress.EndAt(2), End::kGoesOn);
  }
}

TEST(TheEnd, IsTheFirstMessageOfItsState) {
  FedProgress done(1, 0);
  done.Take(Message(SVCMGR_ERROR_NONE, kStateDone), 1);
  EXPECT_EQ(done.EndAt(1), End::kDone);
  done.Take(Message(SVCMGR_ERROR_NO_SPACE, kStateFailed), 2);
  EXPECT_EQ(done.EndAt(2), End::kDone) << "what follows changes nothing";

  FedProgress failed(1, 0);
  failed.Take(Message(SVCMGR_ERROR_NONE, kStateFailed), 1);
  EXPECT_EQ(failed.EndAt(1), End::kFailed);
  EXPECT_EQ(failed->PercentOf(0), 50);
}

TEST(TheEnd, IsAnErrorWhateverTheState) {
  for (const int state : {0, 1, kStateDone, kStateFailed, -1, 77}) {
    FedProgress progress(1, 0);
    progress.Take(Message(SVCMGR_ERROR_NO_SPACE, state), 1);
    EXPECT_EQ(progress.EndAt(1), End::kFailed) << state;
    EXPECT_EQ(progress.error(), SVCMGR_ERROR_NO_SPACE);
    EXPECT_FALSE(progress.EndedByEvents());
  }
}

TEST(TheEnd, IsNotAStateThatNobodyKnows) {
  FedProgress progress(1, 0);
  for (const int state : {0, 1, 4, -2, 77}) {
    progress.Take(Message(SVCMGR_ERROR_NONE, state), 1);
    EXPECT_EQ(progress.EndAt(1000), End::kGoesOn) << state;
  }
}

TEST(TheEnd, IsBelievedOfAnEventOnceNothingMoreIsHeard) {
  FedProgress progress(1, 0);
  progress.TakeStatus(SVCMGR_AI_STATUS_STARTED, 0);
  progress.Take(Working(1, 1, 98), 1);
  progress.TakeStatus(SVCMGR_AI_STATUS_COMPLETED, 2);
  EXPECT_EQ(progress.EndAt(3.9), End::kGoesOn);
  EXPECT_EQ(progress->Total(), 98);
  EXPECT_EQ(progress.EndAt(4), End::kDone);
  EXPECT_EQ(progress->Total(), 100);
  EXPECT_TRUE(progress.EndedByEvents());
}

TEST(TheEnd, MayComeFromEventsAlone) {
  for (const auto& [status, end] : {std::pair(SVCMGR_AI_STATUS_COMPLETED, End::kDone),
                                    {SVCMGR_AI_STATUS_FAILED, End::kFailed}}) {
    FedProgress progress(3, 0);
    progress.TakeStatus(SVCMGR_AI_STATUS_STARTED, 0);
    progress.TakeStatus(status, 1);
    EXPECT_EQ(progress.EndAt(3), end);
  }
}

TEST(TheEnd, IsNotAnEventAfterWhichTheWorkGoesOn) {
  FedProgress progress(1, 0);
  progress.TakeStatus(SVCMGR_AI_STATUS_STARTED, 0);
  progress.TakeStatus(SVCMGR_AI_STATUS_FAILED, 1);
  progress.Take(Working(1, 1, 10), 2);
  EXPECT_EQ(progress.EndAt(100), End::kGoesOn);
}

TEST(TheEnd, IsNotAnEventOfWorkThatWasBegunByOthers) {
  FedProgress others_before(1, 0);
  others_before.TakeStatus(SVCMGR_AI_STATUS_COMPLETED, 1);
  EXPECT_EQ(others_before.EndAt(100), End::kGoesOn);

  FedProgress others_beside(1, 0);
  others_beside.TakeStatus(SVCMGR_AI_STATUS_STARTED, 0);
  others_beside.TakeStatus(SVCMGR_AI_STATUS_STARTED, 1);
  others_beside.TakeStatus(SVCMGR_AI_STATUS_COMPLETED, 2);
  EXPECT_EQ(others_beside.EndAt(100), End::kGoesOn) << "it may be the other's";
  others_beside.TakeStatus(SVCMGR_AI_STATUS_COMPLETED, 101);
  EXPECT_EQ(others_beside.EndAt(103), End::kDone);
}

TEST(TheEnd, IsNotAnEventAboutSuccessWhenTheLastModelWasNotReached) {
  FedProgress progress(2, 0);
  progress.TakeStatus(SVCMGR_AI_STATUS_STARTED, 0);
  progress.Take(Working(1, 2, 98), 1);
  progress.TakeStatus(SVCMGR_AI_STATUS_COMPLETED, 2);
  EXPECT_EQ(progress.EndAt(100), End::kGoesOn);
}

TEST(TheEnd, MayBeBelievedBeforehandWhenEventsHaveToldOfIt) {
  FedProgress progress(1, 0);
  EXPECT_EQ(progress.EndWhenTimeIsUp(0), End::kGoesOn);
  progress.TakeStatus(SVCMGR_AI_STATUS_STARTED, 0);
  progress.TakeStatus(SVCMGR_AI_STATUS_COMPLETED, 0);
  EXPECT_EQ(progress.EndWhenTimeIsUp(0), End::kDone);
  EXPECT_EQ(progress.EndAt(0), End::kDone);
}

TEST(ThePace, IsTheGainOfTheLastTenSeconds) {
  FedProgress progress(1, 0);
  progress.Take(Working(1, 1, 1), 20);
  progress.Take(Working(1, 1, 21), 30);
  progress.Take(Working(1, 1, 41), 35);
  progress.Take(Working(1, 1, 61), 40);
  EXPECT_THAT(progress->RateAt(40), Optional(DoubleNear(4, 0.2)));
  EXPECT_THAT(progress->RemainingAt(40), Optional(DoubleNear(39 / 4.0, 1)));
}

TEST(ThePace, IsNotToldTooEarly) {
  FedProgress progress(1, 0);
  EXPECT_EQ(progress->RateAt(2), std::nullopt);
  progress.Take(Working(1, 1, 0), 0.1);
  EXPECT_EQ(progress->RateAt(2), std::nullopt);
  progress.Take(Working(1, 1, 10), 0.2);
  EXPECT_EQ(progress->RateAt(0.2), std::nullopt);
  EXPECT_THAT(progress->RateAt(1), Optional(DoubleNear(10, 0.01)));
  EXPECT_EQ(Pace(progress, 1), "10.0 %/s, 9 s left");
}

TEST(ThePace, IsAStallAfterASilence) {
  FedProgress progress(1, 0);
  progress.Take(Working(1, 1, 10), 1);
  EXPECT_EQ(progress->StallAt(3.9), std::nullopt);
  EXPECT_THAT(progress->StallAt(8.5), Optional(DoubleNear(7.5, 0.01)));
  EXPECT_EQ(progress->RateAt(8.5), std::nullopt);
  EXPECT_EQ(Pace(progress, 8.5), "stalled for 7 s");
  progress.Take(Working(1, 1, 10), 9);
  EXPECT_EQ(progress->StallAt(9), std::nullopt) << "it was heard of";
}

TEST(ThePace, HasNoRemainingTimeAtTheEnd) {
  FedProgress progress(1, 0);
  progress.Take(Working(1, 1, 50), 1);
  progress.Take({SVCMGR_ERROR_NONE, vs::WorkState::kDone, 1, 1, 100}, 2);
  EXPECT_EQ(progress->RemainingAt(2), std::nullopt);
  EXPECT_EQ(progress->StallAt(100), std::nullopt);
}

TEST(ADuration, IsShownInTheUnitsThatFit) {
  EXPECT_EQ(Duration(0), "0 s");
  EXPECT_EQ(Duration(0.2), "1 s");
  EXPECT_EQ(Duration(59), "59 s");
  EXPECT_EQ(Duration(60), "1 min 0 s");
  EXPECT_EQ(Duration(3599), "59 min 59 s");
  EXPECT_EQ(Duration(3600 * 26 + 61), "26 h 1 min");
}

TEST(TheBars, AreOneForEachModelAndOneForTheWhole) {
  FedProgress progress(2, 0);
  progress.Take(Working(2, 2, 50), 0);
  EXPECT_THAT(Bars({"a", "model-b"}, progress, 0, {24, 55}),
              ElementsAre("a        [##########] 100 %", "model-b  [#####-----]  50 %",
                          "total    [#######---]  75 %"));
}

TEST(TheBars, AreAlignedByCellsAndCutNamesThatAreTooLong) {
  FedProgress progress(2, 0);
  const std::string longest(100, 'x');
  const auto lines = Bars({"\xe4\xb8\xad\xe6\x96\x87", longest}, progress, 0, {24, 60});
  EXPECT_EQ(lines[0], "\xe4\xb8\xad\xe6\x96\x87" + std::string(36, ' ') + "  [-----]   0 %");
  EXPECT_EQ(lines[1], std::string(39, 'x') + "\u2026  [-----]   0 %");
}

TEST(TheBars, AreThoseAroundTheCurrentModelWhereThereIsNotSpaceForAll) {
  FedProgress progress(9, 0);
  std::vector<std::string> names;
  for (char c = 'a'; c < 'j'; ++c) names.emplace_back(1, c);
  const auto shown = [&] {
    std::string first_letters;
    for (const std::string& line : Bars(names, progress, 0, {5, 80})) first_letters += line[0];
    return first_letters;
  };
  EXPECT_EQ(shown(), "abct");
  progress.Take(Working(5, 9, 0), 0);
  EXPECT_EQ(shown(), "deft");
  progress.Take(Working(9, 9, 0), 0);
  EXPECT_EQ(shown(), "ghit");
}

TEST(TheBars, FitIntoEveryWidthFromTwentyColumnsOn) {
  FedProgress progress(2, 0);
  progress.Take(Working(2, 2, 50), 1);
  for (std::size_t columns = 20; columns <= 200; ++columns) {
    for (const std::string& line :
         Bars({"a-model-with-a-long-name", "b"}, progress, 1, {24, columns}))
      EXPECT_LT(terminal_text::CellWidth(line), columns) << line;
  }
  EXPECT_THAT(
      Bars({"model-a", "b"}, progress, 9, {24, 20}),
      ElementsAre("mode\u2026  [####] 100 %", "b      [##--]  50 %", "total  [###-]  75 %"));
}

TEST(TheBars, AreColoredWhereThereIsColor) {
  FedProgress progress(1, 0);
  progress.Take(Working(1, 1, 40), 0);
  EXPECT_EQ(Bars({"a"}, progress, 0, {24, 20}, true).front(), "a      [\x1b[32m#\x1b[0m---]  40 %");
}

TEST(TheBars, FitIntoTheSmallestTerminal) {
  FedProgress progress(1, 0);
  EXPECT_EQ(Bars({"a"}, progress, 0, {1, 1}).size(), 2u);
}

}  // namespace
}  // namespace svcmgrctl
