// SPDX-License-Identifier: Apache-2.0
// A session's connection: what it tells, and how it lives through losses and restarts.
#include "face_support.h"

namespace {

using face::ASession;
using testing::ElementsAre;
using testing::IsEmpty;
using velmora::svcmgr::State;
namespace vs = velmora::svcmgr;
using namespace std::chrono_literals;

TEST_F(ASession, ConnectsByItselfWhenTheLoopTurns) {
  EXPECT_EQ(session->state(), State::kConnecting);
  EXPECT_THAT(fake::CallNames("rpc_port_proxy_connect"), IsEmpty());
  loop.Turn();
  EXPECT_EQ(session->state(), State::kConnecting);
  fake::Proxy().FireConnected();
  EXPECT_EQ(session->state(), State::kConnected);
  EXPECT_THAT(states, ElementsAre(State::kConnected));
}

TEST_F(ASession, StaysIdleWhereItIsToldTo) {
  vs::Options options;
  options.connect = false;
  Open(std::move(options));
  loop.Turn();
  EXPECT_EQ(session->state(), State::kIdle);
  EXPECT_EQ(fake::ProxyCount(), 0);
  EXPECT_TRUE(session->Connect().has_value());
  fake::Proxy().FireConnected();
  loop.Turn();
  EXPECT_THAT(states, ElementsAre(State::kConnecting, State::kConnected));
}

TEST_F(ASession, TellsWhyConnectingFails) {
  fake::Next("rpc_port_proxy_connect", fake::Fail(fake::kIoError));
  loop.Turn();
  EXPECT_THAT(states, ElementsAre(State::kFailed));
  EXPECT_EQ(session->error(), vs::Error(SVCMGR_ERROR_CONNECTION_FAILED));
  // Nothing is left that would keep it from trying again.
  EXPECT_TRUE(session->Connect().has_value());
  fake::Proxy().FireConnected();
  EXPECT_EQ(session->state(), State::kConnected);
  EXPECT_EQ(session->error(), std::nullopt);
}

TEST_F(ASession, TellsThatItWasRefused) {
  loop.Turn();
  fake::Proxy().FireRejected();
  EXPECT_THAT(states, ElementsAre(State::kRejected));
  EXPECT_EQ(session->error(), vs::Error(SVCMGR_ERROR_PERMISSION_DENIED));
  EXPECT_EQ(face::Word(session->Connect()), "SVCMGR_ERROR_PERMISSION_DENIED");
}

TEST_F(ASession, GivesUpConnectingWhenTheLimitIsOver) {
  loop.Turn();
  loop.Pass(29s);
  EXPECT_THAT(states, IsEmpty());
  loop.Pass(2s);
  EXPECT_THAT(states, ElementsAre(State::kFailed));
  EXPECT_EQ(session->error(), vs::Error(vs::kTimedOut));
  fake::Proxy().FireConnected();
  EXPECT_THAT(states, ElementsAre(State::kFailed, State::kConnected));
}

TEST_F(ASession, LeavesAConnectionThatIsReportedAlthoughConnectingFails) {
  fake::Next("rpc_port_proxy_connect",
             fake::Fail(fake::kIoError).Entering([] { fake::Proxy().FireConnected(); }));
  loop.Turn();
  EXPECT_THAT(states, ElementsAre(State::kFailed));
  EXPECT_TRUE(session->Connect().has_value());
  EXPECT_EQ(fake::ProxyCount(), 2);
}

TEST_F(ASession, TellsALossAndTheReturn) {
  Connect();
  fake::Proxy().FireDisconnected();
  EXPECT_THAT(states, ElementsAre(State::kLost));
  EXPECT_EQ(session->error(), vs::Error(vs::kConnectionLost));
  ReturnFromUpdate();
  EXPECT_THAT(states, ElementsAre(State::kLost, State::kConnected));
}

TEST_F(ASession, FindsARestartThatNobodyReportsByLooking) {
  Connect();
  const vs::Token token = Ask();
  LoseInUpdate();
  EXPECT_THAT(states, IsEmpty());
  loop.Pass(250ms);
  EXPECT_THAT(states, ElementsAre(State::kRestarting));
  ReturnFromUpdate();
  EXPECT_THAT(states, ElementsAre(State::kRestarting));
  loop.Pass(250ms);
  EXPECT_THAT(states, ElementsAre(State::kRestarting, State::kConnected));
}

TEST_F(ASession, DoesNotWakeUpWhenNothingIsUnderWay) {
  Connect();
  loop.Pass(1s);
  EXPECT_EQ(loop.timers(), 0U);
}

TEST_F(ASession, TakesALossDuringAnUpdateThatItHasHeardOfForARestart) {
  Connect();
  const auto hearing = session->OnUpdateStatus(nullptr);
  ASSERT_TRUE(hearing.has_value());
  events::AnnounceStart();
  fake::Proxy().FireDisconnected();
  EXPECT_THAT(states, ElementsAre(State::kRestarting));
  ReturnFromUpdate();
  EXPECT_THAT(states, ElementsAre(State::kRestarting, State::kConnected));
}

TEST_F(ASession, CountsTheConnectionAsLostWhenTheAgentStaysAway) {
  Connect();
  const vs::Token token = Ask();
  LoseInUpdate();
  loop.Pass(59s);
  EXPECT_THAT(states, ElementsAre(State::kRestarting));
  EXPECT_THAT(answers, IsEmpty());
  loop.Pass(2s);
  EXPECT_THAT(states, ElementsAre(State::kRestarting, State::kLost));
  EXPECT_THAT(answers, ElementsAre(ElementsAre("CONNECTION_LOST")));
}

TEST_F(ASession, WaitsForTheAgentWithoutALimitWhereItIsToldTo) {
  vs::Options options;
  options.restart_patience = vs::kNoLimit;
  options.connect_limit = vs::kNoLimit;
  Open(std::move(options));
  Connect();
  const vs::Token token = Ask();
  LoseInUpdate();
  loop.Pass(10min);
  EXPECT_THAT(states, ElementsAre(State::kRestarting));
}

TEST_F(ASession, ConnectsAgainWhereTheLibraryCouldNotReconnect) {
  Connect();
  const vs::Token token = Ask();
  LoseInUpdate();
  fake::Next("rpc_port_proxy_connect", fake::Fail(fake::kIoError));
  events::AnnounceLaunch();
  loop.Pass(2s);
  fake::Proxy().FireConnected();
  loop.Pass(1s);
  EXPECT_EQ(session->state(), State::kConnected);
}

TEST_F(ASession, DisconnectsAndConnectsAgain) {
  Connect();
  session->Disconnect();
  EXPECT_EQ(session->state(), State::kIdle);
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 0);
  EXPECT_TRUE(session->Connect().has_value());
  fake::Proxy().FireConnected();
  loop.Turn();
  EXPECT_EQ(states.back(), State::kConnected);
}

TEST_F(ASession, FindsAConnectionThatIsNotReportedAfterAnUpdate) {
  Connect();
  LoseInUpdate();
  ReturnFromUpdate();
  session->Disconnect();
  EXPECT_TRUE(session->Connect().has_value());
  fake::Proxy().FireConnected();
  loop.Pass(250ms);
  EXPECT_EQ(session->state(), State::kConnected);
}

TEST_F(ASession, EndsAConnectionThatComesUpAfterItWasLeft) {
  loop.Turn();
  session->Disconnect();
  fake::Proxy().FireConnected();
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 0);
  EXPECT_EQ(session->state(), State::kIdle);
}

TEST_F(ASession, IsRefusedBesideAnother) {
  Connect();
  vs::Session second(loop);
  EXPECT_EQ(second.state(), State::kRefused);
  std::string word;
  const vs::Token token =
      second.Models([&](const vs::Outcome<vs::ModelList>& models) { word = face::Word(models); });
  EXPECT_EQ(word, "");
  loop.Turn();
  EXPECT_EQ(word, "SESSION_EXISTS");
  EXPECT_EQ(face::Word(second.Connect()), "SESSION_EXISTS");
  EXPECT_EQ(session->state(), State::kConnected);
  EXPECT_EQ(face::Word(second.OnModelStatus(nullptr)), "SESSION_EXISTS");
}

TEST_F(ASession, ThatWasRefusedLeavesTheOtherAlone) {
  Connect();
  {
    const vs::Session second(loop);
  }
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 1);
  const vs::Token token = Ask();
  Answer(0, {"a"});
  EXPECT_THAT(answers, ElementsAre(ElementsAre("a")));
}

TEST_F(ASession, FollowsAnother) {
  Connect();
  Open();
  EXPECT_EQ(session->state(), State::kConnecting);
  Connect();
}

TEST_F(ASession, DisconnectsWhenItIsDestroyed) {
  Connect();
  session.reset();
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 0);
  EXPECT_EQ(loop.timers(), 0U);
}

TEST_F(ASession, MayBeDestroyedWhenItTellsItsState) {
  bool told = false;
  session->OnState([&](State) {
    told = true;
    session.reset();
  });
  loop.Turn();
  fake::Proxy().FireConnected();
  loop.Turn();
  EXPECT_TRUE(told);
  EXPECT_EQ(session, nullptr);
}

TEST_F(ASession, MayConnectWhenItTellsItsState) {
  session->OnState([&](State state) {
    states.push_back(state);
    if (state == State::kFailed) {
      EXPECT_TRUE(session->Connect().has_value());
    }
  });
  fake::Next("rpc_port_proxy_connect", fake::Fail(fake::kIoError));
  loop.Turn();
  fake::Proxy().FireConnected();
  EXPECT_THAT(states, ElementsAre(State::kFailed, State::kConnecting, State::kConnected));
}

TEST_F(ASession, TellsOfALossThatComesWhileItConnects) {
  loop.Turn();
  fake::Proxy().FireDisconnected();
  EXPECT_THAT(states, ElementsAre(State::kLost));
}

TEST_F(ASession, PassesOnWhatTheCInterfaceReports) {
  std::vector<std::pair<int, int>> reports;
  const auto hearing = session->OnConnection(
      [&](vs::ConnectionReport report) { reports.emplace_back(report.result, report.state); });
  ASSERT_TRUE(hearing.has_value());
  EXPECT_TRUE(hearing->pending());
  Connect();
  fake::Proxy().FireDisconnected();
  ReturnFromUpdate();
  fake::Proxy().FireRejected();
  EXPECT_THAT(reports,
              ElementsAre(std::pair(0, 0), std::pair(0, 1), std::pair(0, 0), std::pair(-13, 2)));
}

TEST_F(ASession, PassesOnWhatIsReportedInsideConnecting) {
  int reports = 0;
  const auto hearing = session->OnConnection([&](vs::ConnectionReport) { ++reports; });
  fake::Next("rpc_port_proxy_connect",
             fake::Succeed().Leaving([] { fake::Proxy().FireConnected(); }));
  loop.Turn();
  EXPECT_EQ(session->state(), State::kConnected);
  EXPECT_EQ(reports, 1);
}

TEST_F(ASession, GoesOnWithALoopThatTakesNothing) {
  loop.refuses = true;
  Open();
  fake::Proxy().FireConnected();
  EXPECT_EQ(session->state(), State::kConnected);
  const vs::Token token = Ask();
  Answer(0, {"a"});
  EXPECT_THAT(answers, ElementsAre(ElementsAre("a")));
  const vs::Token limited = Ask(1s);
  fake::Proxy().FireDisconnected();
  EXPECT_EQ(session->state(), State::kLost);
  loop.refuses = false;
  const vs::Token last = Ask();
  loop.Turn();
  EXPECT_THAT(answers, ElementsAre(ElementsAre("a"), ElementsAre("SVCMGR_ERROR_OUT_OF_MEMORY"),
                                   ElementsAre("CONNECTION_LOST")));
}

}  // namespace
