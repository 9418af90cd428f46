// SPDX-License-Identifier: Apache-2.0
// Work on models: its progress and its one final word.
#include "face_support.h"

namespace {

using face::AConnectedSession;
using face::kUninstall;
using face::kUpdate;
using face::ReportOf;
using face::Word;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
namespace vs = velmora::svcmgr;
using namespace std::chrono_literals;

class AWork : public AConnectedSession {
 protected:
  void Update(const std::vector<vs::ModelName>& models = {"a", "b"}, vs::WorkOptions options = {}) {
    work = session->Update(
        models, [this](const vs::Progress& progress) { totals.push_back(progress.total); },
        [this](const vs::Outcome<void>& end) { ends.push_back(Word(end)); }, std::move(options));
  }

  static vs::WorkOptions AskedAgain(vs::Resend when) {
    vs::WorkOptions options;
    options.resend = when;
    return options;
  }

  static void Report(const fake::Items& report, int request = 0) {
    fake::DeliverDelegateMessage(kUpdate, request, report);
  }

  static void Event(const char* key) { events::Announce(events::kModelStatus, {key}); }

  vs::ModelWork work;
  std::vector<int> totals;
  std::vector<std::string> ends;
};

constexpr int kDone = 2;
constexpr int kFailed = 3;

TEST_F(AWork, TellsItsProgressAndThatItIsDone) {
  Update();
  EXPECT_TRUE(work.pending());
  Report(ReportOf(1, 2, 50));
  Report(ReportOf(2, 2, 50));
  EXPECT_THAT(ends, IsEmpty());
  EXPECT_EQ(work.progress().model, 1U);
  EXPECT_EQ(work.progress().count, 2U);
  EXPECT_EQ(work.progress().percent, 50);
  Report(ReportOf(2, 2, 100, kDone));
  EXPECT_THAT(totals, ElementsAre(25, 75, 100));
  EXPECT_THAT(ends, ElementsAre("ok"));
  EXPECT_FALSE(work.pending());
  EXPECT_EQ(work.progress().total, 100);
}

TEST_F(AWork, AsksForTheModelsByNameAndVersion) {
  Update({{"a", "1.0"}, "b"});
  ASSERT_THAT(fake::SentParcels(), SizeIs(1));
  const fake::Items sent = fake::SentParcels()[0].items;
  EXPECT_THAT(sent, testing::IsSupersetOf({fake::Item("a"), fake::Item("1.0"), fake::Item("b")}));
}

TEST_F(AWork, NeverGoesBackwards) {
  Update();
  Report(ReportOf(2, 2, 60));
  Report(ReportOf(2, 2, 20));
  Report(ReportOf(1, 2, 90));
  Report(ReportOf(7, 2, 90));
  Report(ReportOf(2, 2, 100));
  EXPECT_THAT(totals, ElementsAre(80, 80, 80, 80, 99));
  EXPECT_THAT(ends, IsEmpty());
}

TEST_F(AWork, FailsWithTheAgentsReason) {
  Update();
  Report(ReportOf(1, 2, 50, kFailed, 6));
  EXPECT_THAT(ends, ElementsAre("SVCMGR_ERROR_AGENT_CODE_6"));
}

TEST_F(AWork, FailsWithoutAReason) {
  Update();
  Report(ReportOf(1, 2, 50, kFailed));
  EXPECT_THAT(ends, ElementsAre("WORK_FAILED"));
}

TEST_F(AWork, HasOneFinalWordOnly) {
  Update();
  Report(ReportOf(2, 2, 100, kDone));
  Report(ReportOf(2, 2, 100, kDone));
  Report(ReportOf(2, 2, 100, kFailed, 6));
  Event("FAILED");
  fake::Proxy().FireDisconnected();
  loop.Pass(1h);
  EXPECT_THAT(ends, ElementsAre("ok"));
  EXPECT_THAT(totals, SizeIs(1));
}

TEST_F(AWork, EndsByEventsWhereTheFinalMessageIsMissing) {
  Update();
  Event("START");
  Report(ReportOf(2, 2, 90));
  Event("COMPLETED");
  loop.Pass(1s);
  EXPECT_THAT(ends, IsEmpty());
  loop.Pass(2s);
  EXPECT_THAT(ends, ElementsAre("ok"));
  EXPECT_TRUE(work.ended_by_events());
}

TEST_F(AWork, WhoseEndAMessageOvertakesEndsWithTheLimitOfSilence) {
  vs::WorkOptions options;
  options.silence_limit = 30s;
  Update({"a"}, std::move(options));
  Event("START");
  Event("COMPLETED");
  Report(ReportOf(1, 1, 100));
  loop.Pass(29s);
  EXPECT_THAT(ends, IsEmpty());
  loop.Pass(2s);
  EXPECT_THAT(ends, ElementsAre("TIMEOUT"));
}

TEST_F(AWork, WhoseBeginningWasNotHeardEndsWithTheLimitOfSilence) {
  vs::WorkOptions options;
  options.silence_limit = 30s;
  Update({"a"}, std::move(options));
  Report(ReportOf(1, 1, 100));
  Event("COMPLETED");
  loop.Pass(31s);
  EXPECT_THAT(ends, ElementsAre("TIMEOUT"));
}

TEST_F(AWork, DoesNotBelieveEventsOfWhatWasBeforeTheRequest) {
  vs::Options options;
  Open(std::move(options));
  Update();
  Event("START");
  Event("COMPLETED");
  Connect();
  loop.Pass(10s);
  EXPECT_THAT(ends, IsEmpty());
}

TEST_F(AWork, IsLostWithTheConnection) {
  Update();
  Report(ReportOf(1, 2, 40));
  fake::Proxy().FireDisconnected();
  loop.Turn();
  EXPECT_THAT(ends, ElementsAre("CONNECTION_LOST"));
  EXPECT_EQ(work.progress().percent, 40);
}

TEST_F(AWork, IsLostInTheAgentsRestart) {
  Update();
  LoseInUpdate();
  loop.Pass(1s);
  EXPECT_THAT(ends, ElementsAre("CONNECTION_LOST"));
}

TEST_F(AWork, ThatSaysNothingAfterARestartBetweenTwoLooksIsLost) {
  Update();
  LoseInUpdate();
  ReturnFromUpdate();
  loop.Pass(59s);
  EXPECT_THAT(ends, IsEmpty());
  loop.Pass(2s);
  EXPECT_THAT(ends, ElementsAre("CONNECTION_LOST"));
}

TEST_F(AWork, IsAskedForAgainAfterARestartBetweenTwoLooksWhereItIsToldTo) {
  Update({"a"}, AskedAgain(vs::Resend::kAfterRestart));
  LoseInUpdate();
  ReturnFromUpdate();
  loop.Pass(61s);
  Report(ReportOf(1, 1, 100, kDone), 1);
  EXPECT_THAT(ends, ElementsAre("ok"));
}

TEST_F(AWork, IsAskedForAgainAfterARestartWhereItIsToldTo) {
  vs::WorkOptions options = AskedAgain(vs::Resend::kAfterRestart);
  Update({"a", "b"}, std::move(options));
  Report(ReportOf(2, 2, 60));
  LoseInUpdate();
  loop.Pass(1s);
  EXPECT_THAT(ends, IsEmpty());
  ReturnFromUpdate();
  loop.Pass(1s);
  Report(ReportOf(1, 2, 10), 1);
  Report(ReportOf(2, 2, 100, kDone), 1);
  EXPECT_THAT(totals, ElementsAre(80, 80, 100));
  EXPECT_THAT(ends, ElementsAre("ok"));
}

TEST_F(AWork, IsLostWithTheConnectionWhereOnlyARestartIsToBeLivedThrough) {
  Update({"a"}, AskedAgain(vs::Resend::kAfterRestart));
  fake::Proxy().FireDisconnected();
  loop.Turn();
  EXPECT_THAT(ends, ElementsAre("CONNECTION_LOST"));
}

TEST_F(AWork, IsAskedForAgainAfterAnyLossWhereItIsToldTo) {
  Update({"a"}, AskedAgain(vs::Resend::kAfterAnyLoss));
  Report(ReportOf(1, 1, 40));
  fake::Proxy().FireDisconnected();
  loop.Pass(1h);
  EXPECT_EQ(session->state(), vs::State::kLost);
  EXPECT_THAT(ends, IsEmpty());
  ReturnFromUpdate();
  loop.Pass(1s);
  EXPECT_THAT(fake::SentParcels(), SizeIs(2));
  Report(ReportOf(1, 1, 10), 1);
  Report(ReportOf(1, 1, 100, kDone), 1);
  EXPECT_THAT(totals, ElementsAre(40, 40, 100));
  EXPECT_THAT(ends, ElementsAre("ok"));
}

TEST_F(AWork, BegunAfterALossWaitsForTheAgentWhereItIsToldTo) {
  fake::Proxy().FireDisconnected();
  loop.Turn();
  Update({"a"}, AskedAgain(vs::Resend::kAfterAnyLoss));
  loop.Pass(1h);
  EXPECT_THAT(ends, IsEmpty());
  ReturnFromUpdate();
  loop.Pass(1s);
  EXPECT_THAT(fake::SentParcels(), SizeIs(1));
}

TEST_F(AWork, ThatIsSilentAfterARestartBetweenTwoLooksIsAskedForAgainBeforeItTimesOut) {
  vs::WorkOptions options = AskedAgain(vs::Resend::kAfterRestart);
  options.silence_limit = 10s;
  Update({"a"}, std::move(options));
  LoseInUpdate();
  ReturnFromUpdate();
  loop.Pass(11s);
  EXPECT_THAT(ends, IsEmpty());
  EXPECT_THAT(fake::SentParcels(), SizeIs(2));
  Report(ReportOf(1, 1, 10), 1);
  loop.Pass(9s);
  EXPECT_THAT(ends, IsEmpty());
  Report(ReportOf(1, 1, 100, kDone), 1);
  EXPECT_THAT(ends, ElementsAre("ok"));
}

TEST_F(AWork, ThatFallsSilentWithTheAnnouncementOfARestartIsAskedForAgainSoon) {
  Update({"a"}, AskedAgain(vs::Resend::kAfterRestart));
  loop.Pass(1s);
  Report(ReportOf(1, 1, 40));
  LoseInUpdate();
  ReturnFromUpdate();
  loop.Pass(4s);
  EXPECT_THAT(fake::SentParcels(), SizeIs(1));
  loop.Pass(2s);
  EXPECT_THAT(fake::SentParcels(), SizeIs(2));
  loop.Pass(30s);
  EXPECT_THAT(fake::SentParcels(), SizeIs(2)) << "once, if that is how long the agent takes";
}

TEST_F(AWork, ThatIsBegunAfterAnAnnouncementMayBeSilent) {
  LoseInUpdate();
  ReturnFromUpdate();
  Update({"a"}, AskedAgain(vs::Resend::kAfterRestart));
  loop.Pass(30s);
  EXPECT_THAT(fake::SentParcels(), SizeIs(1));
}

TEST_F(AWork, ThatStaysSilentWhenItWasAskedForAgainTimesOut) {
  vs::WorkOptions options = AskedAgain(vs::Resend::kAfterRestart);
  options.silence_limit = 10s;
  Update({"a"}, std::move(options));
  LoseInUpdate();
  ReturnFromUpdate();
  loop.Pass(22s);
  EXPECT_THAT(ends, ElementsAre("TIMEOUT"));
  EXPECT_THAT(fake::SentParcels(), SizeIs(2));
}

TEST_F(AWork, TimesOut) {
  vs::WorkOptions options;
  options.limit = 10s;
  Update({"a"}, std::move(options));
  Report(ReportOf(1, 1, 50));
  loop.Pass(11s);
  EXPECT_THAT(ends, ElementsAre("TIMEOUT"));
  Report(ReportOf(1, 1, 100, kDone));
  EXPECT_THAT(ends, SizeIs(1));
}

TEST_F(AWork, TimesOutAfterSilence) {
  vs::WorkOptions options;
  options.silence_limit = 10s;
  Update({"a"}, std::move(options));
  for (int i = 0; i < 5; ++i) {
    loop.Pass(8s);
    Report(ReportOf(1, 1, i));
  }
  EXPECT_THAT(ends, IsEmpty());
  loop.Pass(11s);
  EXPECT_THAT(ends, ElementsAre("TIMEOUT"));
}

TEST_F(AWork, BelievesEventsWhenItsTimeIsUp) {
  vs::WorkOptions options;
  options.limit = 1s;
  Update({"a"}, std::move(options));
  Event("START");
  Event("FAILED");
  loop.Pass(1s);
  EXPECT_THAT(ends, ElementsAre("WORK_FAILED"));
}

TEST_F(AWork, EndsWhenTheApplicationSaysThatItsTimeIsUp) {
  Update({"a"});
  EXPECT_TRUE(work.asked());
  EXPECT_EQ(work.TimeIsUp(), vs::Verdict::kGoesOn);
  EXPECT_FALSE(work.pending());
  Update({"a"});
  Event("START");
  Event("COMPLETED");
  EXPECT_EQ(work.TimeIsUp(), vs::Verdict::kDone);
  EXPECT_TRUE(work.ended_by_events());
  loop.Pass(1h);
  EXPECT_THAT(ends, IsEmpty());
  EXPECT_EQ(vs::ModelWork().TimeIsUp(), vs::Verdict::kGoesOn);
}

TEST_F(AWork, IsNotAskedForWhileItWaits) {
  Open();
  Update({"a"});
  EXPECT_FALSE(work.asked());
  EXPECT_TRUE(work.pending());
  Connect();
  EXPECT_TRUE(work.asked());
}

TEST_F(AWork, EndsByTheRuleOfTheApplication) {
  vs::WorkOptions options;
  options.rule = [](const vs::WorkSight& sight) {
    return sight.report != nullptr && sight.report->percentage == 100 ? vs::Verdict::kDone
                                                                      : vs::Verdict::kGoesOn;
  };
  Update({"a"}, std::move(options));
  Report(ReportOf(1, 1, 99, kDone));
  EXPECT_THAT(ends, IsEmpty());
  Report(ReportOf(1, 1, 100));
  EXPECT_THAT(ends, ElementsAre("ok"));
}

TEST_F(AWork, ThatIsReleasedIsSilent) {
  Update();
  work.Release();
  Report(ReportOf(2, 2, 100, kDone));
  Event("START");
  EXPECT_THAT(totals, IsEmpty());
  EXPECT_THAT(ends, IsEmpty());
  EXPECT_THAT(fake::Subscriptions(), testing::Not(testing::Contains(events::kModelStatus)));
}

TEST_F(AWork, MayBeReleasedWhenItTellsItsProgress) {
  work = session->Update(
      {"a"}, [this](const vs::Progress&) { work.Release(); },
      [this](const vs::Outcome<void>& end) { ends.push_back(Word(end)); });
  Report(ReportOf(1, 1, 100, kDone));
  EXPECT_THAT(ends, IsEmpty());
}

TEST_F(AWork, MayDestroyTheSessionWhenItTellsItsProgress) {
  work = session->Update(
      {"a"}, [this](const vs::Progress&) { session.reset(); },
      [this](const vs::Outcome<void>& end) { ends.push_back(Word(end)); });
  Report(ReportOf(1, 1, 100, kDone));
  EXPECT_THAT(ends, IsEmpty());
  EXPECT_EQ(work.progress().total, 100);
}

TEST_F(AWork, MayBeginAnotherAtItsEnd) {
  work = session->Update({"a"}, nullptr, [this](const vs::Outcome<void>& end) {
    ends.push_back(Word(end));
    Update({"b"});
  });
  Report(ReportOf(1, 1, 100, kDone));
  Report(ReportOf(1, 1, 100, kDone), 1);
  EXPECT_THAT(ends, ElementsAre("ok", "ok"));
}

TEST_F(AWork, OfUninstallationIsFollowedLikewise) {
  work = session->Uninstall({"a"}, nullptr,
                            [this](const vs::Outcome<void>& end) { ends.push_back(Word(end)); });
  fake::DeliverDelegateMessage(kUninstall, 0, ReportOf(1, 1, 100, kDone));
  EXPECT_THAT(ends, ElementsAre("ok"));
}

TEST_F(AWork, OnNoModelsEndsAsTheAgentSays) {
  Update({});
  Report(ReportOf(0, 0, 0, kDone));
  EXPECT_THAT(totals, ElementsAre(100));
  EXPECT_THAT(ends, ElementsAre("ok"));
}

TEST_F(AWork, ThatCannotBeAskedForSaysWhy) {
  fake::InstallAgent("1.6.0");
  Update();
  EXPECT_THAT(ends, IsEmpty());
  loop.Turn();
  EXPECT_THAT(ends, ElementsAre("SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION"));
}

TEST_F(AWork, TellsAMessageThatComesInsideTheRequestAfterwards) {
  fake::OnSend([](const fake::Sent&) {
    fake::OnSend(nullptr);
    Report(ReportOf(2, 2, 100, kDone));
  });
  Update();
  EXPECT_THAT(totals, IsEmpty());
  loop.Turn();
  EXPECT_THAT(ends, ElementsAre("ok"));
}

}  // namespace
