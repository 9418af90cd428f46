// SPDX-License-Identifier: Apache-2.0
// Losses and returns of the connection that nobody reports.
#include "face_support.h"

namespace {

using face::AConnectedSession;
using face::ASession;
using face::ReportOf;
using face::Word;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using velmora::svcmgr::State;
namespace vs = velmora::svcmgr;
using namespace std::chrono_literals;

class AConnection : public AConnectedSession {};

TEST_F(AConnection, IsExpectedBackForeverWherePatienceHasNoLimit) {
  vs::Options options;
  options.restart_patience = vs::kNoLimit;
  Open(std::move(options));
  Connect();
  const vs::Token token = Ask();
  LoseInUpdate();
  loop.Pass(1s);
  EXPECT_EQ(session->state(), State::kRestarting);
  EXPECT_THAT(answers, IsEmpty());
}

TEST_F(AConnection, IsLostWhereTheAgentIsRemovedWhileItRestarts) {
  const vs::Token token = Ask();
  LoseInUpdate();
  loop.Pass(1s);
  EXPECT_EQ(session->state(), State::kRestarting);
  fake::RemoveAgent();
  loop.Pass(10min);
  EXPECT_EQ(session->state(), State::kLost);
  EXPECT_THAT(answers, SizeIs(1));
}

TEST_F(AConnection, ThatIsHiddenAndLostIsFoundAgainWhereTheAgentComesBackLate) {
  const vs::Token token = Ask();
  LoseInUpdate();
  loop.Pass(61s);
  EXPECT_EQ(session->state(), State::kLost);
  ReturnFromUpdate();
  loop.Pass(1h);
  EXPECT_EQ(session->state(), State::kConnected);
}

TEST_F(AConnection, ThatComesBackLateCarriesTheQueriesThatWaitForIt) {
  vs::Options options;
  options.resend = vs::Resend::kAfterAnyLoss;
  Open(std::move(options));
  Connect();
  const vs::Token token = Ask();
  LoseInUpdate();
  loop.Pass(61s);
  ReturnFromUpdate();
  loop.Pass(1h);
  EXPECT_THAT(fake::SentParcels(), SizeIs(2)) << "sent again";
}

TEST_F(AConnection, LostBetweenTwoLooksShowsThoughTheUpdateEndsAtOnce) {
  const auto hearing = session->OnUpdateStatus(nullptr);
  ASSERT_TRUE(hearing.has_value());
  const vs::Token token = Ask();
  LoseInUpdate();
  ReturnFromUpdate();
  events::AnnounceComplete();
  loop.Pass(1h);
  EXPECT_THAT(fake::SentParcels(), SizeIs(2)) << "sent again";
}

TEST_F(AConnection, ThatIsBackIsNotDoubtedForSilentWork) {
  const vs::Token query = Ask();
  LoseInUpdate();
  loop.Pass(1s);
  ReturnFromUpdate();
  loop.Pass(1s);
  ASSERT_EQ(session->state(), State::kConnected);
  Answer(1, {"a"});
  std::vector<std::string> ends;
  const vs::ModelWork work = session->Update(
      {"a"}, nullptr, [&](const vs::Outcome<void>& end) { ends.push_back(Word(end)); });
  loop.Pass(5min);
  EXPECT_THAT(ends, IsEmpty()) << "the connection stands";
  fake::DeliverDelegateMessage(face::kUpdate, 2, ReportOf(1, 1, 100, 2));
  EXPECT_THAT(ends, ElementsAre("ok"));
}

TEST_F(AConnection, ThatIsBackIsNotDoubtedForASlowQuery) {
  const vs::Token query = Ask();
  LoseInUpdate();
  loop.Pass(1s);
  ReturnFromUpdate();
  loop.Pass(1s);
  Answer(1, {"a"});
  fake::ClearRecord();
  const vs::Token slow = Ask();
  loop.Pass(1min);
  EXPECT_THAT(fake::SentParcels(), SizeIs(1)) << "asked once, over a connection that stands";
}

TEST_F(ASession, ThatIsLeftBeforeTheLoopTurnsDoesNotConnect) {
  session->Disconnect();
  loop.Turn();
  EXPECT_EQ(session->state(), State::kIdle);
  EXPECT_THAT(fake::CallNames("rpc_port_proxy_connect"), IsEmpty());
}

TEST_F(AConnection, LostBetweenTwoLooksCarriesWorkAgainWhereItIsToldTo) {
  vs::WorkOptions options;
  options.resend = vs::Resend::kAfterRestart;
  std::vector<std::string> ends;
  const vs::ModelWork work = session->Update(
      {"a"}, nullptr, [&](const vs::Outcome<void>& end) { ends.push_back(Word(end)); },
      std::move(options));
  LoseInUpdate();
  ReturnFromUpdate();
  loop.Pass(10min);
  EXPECT_THAT(ends, IsEmpty());
  EXPECT_THAT(fake::SentParcels(), testing::SizeIs(testing::Ge(2))) << "asked for again";
}

}  // namespace
