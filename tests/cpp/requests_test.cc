// SPDX-License-Identifier: Apache-2.0
// Requests: their answers, tokens and time limits, and what a loss of the connection does to them.
#include <unistd.h>

#include <thread>

#include "face_support.h"
#include "kept.h"

namespace {

using face::AConnectedSession;
using face::AnswerOf;
using face::Gate;
using face::kDescribed;
using face::kModels;
using face::kVersions;
using face::Word;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using velmora::svcmgr::State;
namespace vs = velmora::svcmgr;
using namespace std::chrono_literals;

class ARequest : public AConnectedSession {};

/** Tells when it is freed. */
struct Held {
  explicit Held(bool* f) : freed(f) {}
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;
  ~Held() { *freed = true; }
  bool* freed;
};

TEST_F(ARequest, IsAnsweredWithTheModels) {
  const vs::Token token = Ask();
  EXPECT_TRUE(token.pending());
  Answer(0, {"a", "b"});
  EXPECT_THAT(answers, ElementsAre(ElementsAre("a", "b")));
  EXPECT_FALSE(token.pending());
  EXPECT_EQ(loop.timers(), 1U) << "the last look";
  loop.Pass(1s);
  EXPECT_EQ(loop.timers(), 0U);
}

TEST_F(ARequest, IsAnsweredWithTheAgentsError) {
  const vs::Token token = Ask();
  fake::DeliverDelegateMessage(kModels, 0, AnswerOf({}, 5));
  EXPECT_THAT(answers, SizeIs(1));
  EXPECT_THAT(answers[0], ElementsAre(testing::StartsWith("SVCMGR_ERROR_")));
}

TEST_F(ARequest, ThatIsAnsweredTwiceIsToldOnce) {
  const vs::Token token = Ask();
  Answer(0, {"a"});
  Answer(0, {"b"});
  EXPECT_THAT(answers, ElementsAre(ElementsAre("a")));
}

TEST_F(ARequest, WaitsForTheConnection) {
  Open();
  const vs::Token token = Ask();
  loop.Turn();
  EXPECT_THAT(fake::SentParcels(), IsEmpty());
  fake::Proxy().FireConnected();
  EXPECT_THAT(fake::SentParcels(), SizeIs(1));
}

TEST_F(ARequest, OfEachKindAsksForItsOwn) {
  std::vector<std::string> ids;
  const auto note = [&](const vs::Outcome<vs::ModelList>& models) {
    for (const std::string& id : face::Ids(models)) ids.push_back(id);
  };
  const vs::Token plain = session->Models(note);
  const vs::Token described = session->ModelsWithDescriptions(note);
  const vs::Token versions = session->Versions({"a", "1.0"}, note);
  Answer(0, {"plain"}, kModels);
  Answer(1, {"described"}, kDescribed);
  Answer(2, {"version"}, kVersions);
  EXPECT_THAT(ids, ElementsAre("plain", "described", "version"));
}

TEST_F(ARequest, OfACategoryThatNobodyDeclaresFailsLater) {
  // The library keeps a platform's record of each application that it looks at.
  fake::AllowHeld(fake::Kind::kAppInfo, 1);
  fake::ExpectKept(fake::Kept::kAppInfo, 1);
  std::string word;
  const vs::Token token = session->ModelsOfCategory(
      "nobody's", [&](const vs::Outcome<vs::ModelList>& models) { word = Word(models); });
  EXPECT_EQ(word, "");
  loop.Turn();
  EXPECT_EQ(word, "SVCMGR_ERROR_INVALID_PARAMETER");
}

TEST_F(ARequest, ThatIsReleasedFreesWhatItsCallableHolds) {
  bool freed = false;
  vs::Token token = session->Models(
      [held = std::make_unique<Held>(&freed)](const vs::Outcome<vs::ModelList>&) { FAIL(); });
  EXPECT_FALSE(freed);
  token.Release();
  EXPECT_TRUE(freed);
  Answer(0, {"a"});
}

TEST_F(ARequest, ThatIsDetachedGoesOn) {
  Ask().Detach();
  Answer(0, {"a"});
  EXPECT_THAT(answers, ElementsAre(ElementsAre("a")));
}

TEST_F(ARequest, WhoseTokenIsReplacedIsReleased) {
  vs::Token token = Ask();
  token = Ask();
  Answer(0, {"first"});
  Answer(1, {"second"});
  EXPECT_THAT(answers, ElementsAre(ElementsAre("second")));
}

TEST_F(ARequest, MayBeReleasedInItsOwnCallable) {
  bool freed = false;
  bool freed_inside = true;
  vs::Token token;
  token = session->Models(
      [&, held = std::make_unique<Held>(&freed)](const vs::Outcome<vs::ModelList>&) {
        token.Release();
        freed_inside = freed;
      });
  Answer(0, {"a"});
  EXPECT_FALSE(freed_inside);
  EXPECT_TRUE(freed);
}

TEST_F(ARequest, MayHoldTheTokenOfAnother) {
  auto other = std::make_unique<vs::Token>(Ask());
  vs::Token token =
      session->Models([held = std::move(other)](const vs::Outcome<vs::ModelList>&) { FAIL(); });
  vs::Token subscription =
      session->OnModelStatus([held = std::move(token)](vs::ModelStatus) {}).value();
  subscription.Release();
  Answer(0, {"a"});
  EXPECT_THAT(answers, IsEmpty());
}

TEST_F(ARequest, MayDestroyTheSessionInItsCallable) {
  const vs::Token other = Ask();
  const vs::Token token = session->Models([this](const vs::Outcome<vs::ModelList>& models) {
    answers.push_back(face::Ids(models));
    session.reset();
  });
  Answer(1, {"a"});
  loop.Turn();
  EXPECT_THAT(answers, ElementsAre(ElementsAre("a")));
  EXPECT_FALSE(other.pending());
}

TEST_F(ARequest, MayMakeAnotherInItsCallable) {
  vs::Token second;
  const vs::Token first =
      session->Models([&](const vs::Outcome<vs::ModelList>&) { second = Ask(); });
  Answer(0, {"a"});
  Answer(1, {"b"});
  EXPECT_THAT(answers, ElementsAre(ElementsAre("b")));
}

TEST_F(ARequest, IsFreedAndNotCalledWhenTheSessionIsDestroyed) {
  bool freed = false;
  vs::Token token = session->Models(
      [held = std::make_unique<Held>(&freed)](const vs::Outcome<vs::ModelList>&) { FAIL(); }, 1s);
  session.reset();
  EXPECT_TRUE(freed);
  EXPECT_FALSE(token.pending());
  token.Release();
  loop.Pass(2s);
}

TEST_F(ARequest, OfAFormerSessionIsNotAnsweredInTheNext) {
  const vs::Token former = Ask();
  Open();
  Connect();
  const vs::Token token = Ask();
  fake::DeliverDelegateMessage(kModels, 0, AnswerOf({"former"}));
  EXPECT_THAT(answers, IsEmpty());
  Answer(1, {"own"});
  EXPECT_THAT(answers, ElementsAre(ElementsAre("own")));
}

TEST_F(ARequest, EndsWhenItsTimeLimitIsOver) {
  const vs::Token token = Ask(10s);
  loop.Pass(9s);
  EXPECT_THAT(answers, IsEmpty());
  loop.Pass(2s);
  EXPECT_THAT(answers, ElementsAre(ElementsAre("TIMEOUT")));
  Answer(0, {"late"});
  EXPECT_THAT(answers, SizeIs(1));
}

TEST_F(ARequest, CountsItsTimeLimitWhileItWaitsForTheConnection) {
  Open();
  const vs::Token token = Ask(10s);
  loop.Pass(11s);
  EXPECT_THAT(answers, ElementsAre(ElementsAre("TIMEOUT")));
  fake::Proxy().FireConnected();
  EXPECT_THAT(fake::SentParcels(), IsEmpty());
}

TEST_F(ARequest, WithATimeLimitOfNothingEndsAtOnceButLater) {
  const vs::Token token = Ask(0s);
  EXPECT_THAT(answers, IsEmpty());
  loop.Pass(0s);
  EXPECT_THAT(answers, ElementsAre(ElementsAre("TIMEOUT")));
}

TEST_F(ARequest, ThatALossSwallowsEndsWithAnError) {
  const vs::Token token = Ask();
  fake::Proxy().FireDisconnected();
  loop.Turn();
  EXPECT_THAT(answers, ElementsAre(ElementsAre("CONNECTION_LOST")));
}

TEST_F(ARequest, MadeAfterALossEndsWithAnError) {
  fake::Proxy().FireDisconnected();
  const vs::Token token = Ask();
  EXPECT_THAT(answers, IsEmpty());
  loop.Turn();
  EXPECT_THAT(answers, ElementsAre(ElementsAre("CONNECTION_LOST")));
}

TEST_F(ARequest, ThatTheAgentsRestartSwallowsIsSentAgain) {
  const vs::Token token = Ask();
  LoseInUpdate();
  loop.Pass(1s);
  ReturnFromUpdate();
  loop.Pass(1s);
  EXPECT_THAT(fake::SentParcels(), SizeIs(2));
  EXPECT_THAT(answers, IsEmpty());
  Answer(1, {"a"});
  EXPECT_THAT(answers, ElementsAre(ElementsAre("a")));
}

TEST_F(ARequest, ThatARestartSwallowsBetweenTwoLooksIsSentAgain) {
  const vs::Token token = Ask();
  LoseInUpdate();
  ReturnFromUpdate();
  loop.Pass(3s);
  EXPECT_THAT(fake::SentParcels(), SizeIs(2));
  Answer(1, {"a"});
  EXPECT_THAT(answers, ElementsAre(ElementsAre("a")));
  loop.Pass(1h);
  EXPECT_THAT(answers, SizeIs(1));
}

TEST_F(ARequest, ThatIsSentAgainIsSentEverMoreSeldom) {
  const vs::Token token = Ask();
  events::AnnounceUpdate();
  loop.Pass(60s);
  EXPECT_LE(fake::SentParcels().size(), 9U);
}

TEST_F(ARequest, MadeAfterARestartThatWasSeenIsNotSentTwice) {
  const vs::Token token = Ask();
  LoseInUpdate();
  loop.Pass(1s);
  ReturnFromUpdate();
  loop.Pass(1min);
  EXPECT_THAT(fake::SentParcels(), SizeIs(2));
}

TEST_F(ARequest, IsNotSentAgainWhereOptionsForbidIt) {
  vs::Options options;
  options.resend = vs::Resend::kNever;
  Open(std::move(options));
  Connect();
  const vs::Token token = Ask();
  LoseInUpdate();
  loop.Pass(1s);
  EXPECT_THAT(answers, ElementsAre(ElementsAre("CONNECTION_LOST")));
}

TEST_F(ARequest, WaitsThroughAnyLossWhereOptionsSaySo) {
  vs::Options options;
  options.resend = vs::Resend::kAfterAnyLoss;
  Open(std::move(options));
  Connect();
  const vs::Token before = Ask();
  fake::Proxy().FireDisconnected();
  const vs::Token after = Ask();
  loop.Pass(1h);
  EXPECT_THAT(answers, IsEmpty());
  ReturnFromUpdate();
  EXPECT_THAT(fake::SentParcels(), SizeIs(3));
}

TEST_F(ARequest, MadeDuringARestartWaitsForItsEnd) {
  LoseInUpdate();
  const vs::Token token = Ask();
  EXPECT_EQ(session->state(), State::kRestarting);
  ReturnFromUpdate();
  loop.Pass(1s);
  EXPECT_THAT(fake::SentParcels(), SizeIs(1));
}

TEST_F(ARequest, ThatCannotBeSentFailsWithItsCode) {
  const vs::Token token = Ask();
  fake::Next("app_get_id", fake::Fail(fake::kIoError));
  const vs::Token unknown = Ask();
  EXPECT_THAT(answers, IsEmpty());
  loop.Turn();
  EXPECT_THAT(answers, ElementsAre(ElementsAre("SVCMGR_ERROR_INVALID_OPERATION")));
}

TEST_F(ARequest, ThatCannotBeSentBecauseTheAgentDiedIsLost) {
  fake::Next("rpc_port_parcel_send", fake::Fail(fake::kIoError));
  const vs::Token token = Ask();
  fake::Proxy().FireDisconnected();
  loop.Turn();
  EXPECT_THAT(answers, ElementsAre(ElementsAre("CONNECTION_LOST")));
}

TEST_F(ARequest, EndsWhenTheApplicationDisconnects) {
  const vs::Token token = Ask();
  session->Disconnect();
  EXPECT_THAT(answers, IsEmpty());
  loop.Turn();
  EXPECT_THAT(answers, ElementsAre(ElementsAre("SVCMGR_ERROR_NOT_CONNECTED")));
}

TEST_F(ARequest, ThatIsAnsweredInsideTheRequestIsToldLater) {
  fake::OnSend([](const fake::Sent&) {
    fake::OnSend(nullptr);
    fake::DeliverDelegateMessage(kModels, 0, AnswerOf({"a"}));
  });
  kept += 5;
  const vs::Token token = Ask();
  EXPECT_THAT(answers, IsEmpty());
  loop.Turn();
  EXPECT_THAT(answers, ElementsAre(ElementsAre("a")));
}

TEST_F(ARequest, ThatIsAnsweredOnAnotherThreadIsToldOnThisOne) {
  const vs::Token token = Ask();
  std::thread([this] { Answer(0, {"a"}); }).join();
  EXPECT_THAT(answers, IsEmpty());
  loop.Turn();
  EXPECT_THAT(answers, ElementsAre(ElementsAre("a")));
}

TEST_F(ARequest, ThatBlocksIsAnsweredOnTheMainLoop) {
  fake::OnSend([](const fake::Sent&) { fake::QueueReply({11}); });
  std::string word;
  int level = 0;
  const vs::Token token = session->AgentApiLevel([&](const vs::Outcome<int>& answer) {
    word = Word(answer);
    level = answer.value_or(0);
  });
  EXPECT_EQ(word, "");
  loop.Await();
  EXPECT_EQ(word, "ok");
  EXPECT_EQ(level, 11);
}

TEST_F(ARequest, ForTheLicenceTellsWhenThereIsNone) {
  fake::OnSend([](const fake::Sent&) { fake::QueueReply({std::string()}); });
  std::string word;
  const vs::Token token =
      session->License([&](const vs::Outcome<std::string>& text) { word = Word(text); });
  loop.Await();
  EXPECT_EQ(word, "NO_LICENSE");
}

TEST_F(ARequest, ForAnUpdateThatTheAgentDoesNotTakeSaysSo) {
  fake::OnSend([](const fake::Sent&) { fake::QueueReply({-1}); });
  std::string word;
  const vs::Token token =
      session->RequestUpdate([&](const vs::Outcome<void>& taken) { word = Word(taken); });
  loop.Await();
  EXPECT_EQ(word, "NOT_TAKEN");
}

TEST_F(ARequest, ForAnUpdateInsideTheEndOfAnotherIsMadeAfterwards) {
  std::string word;
  vs::Token again;
  const auto hearing = session->OnUpdateStatus([&](vs::UpdateStatus status) {
    if (status != vs::UpdateStatus::kCompleted) return;
    again = session->RequestUpdate([&](const vs::Outcome<void>& taken) { word = Word(taken); });
  });
  fake::OnSend([](const fake::Sent&) { fake::QueueReply({0}); });
  events::AnnounceStart();
  events::AnnounceComplete();
  EXPECT_THAT(fake::SentParcels(), IsEmpty());
  loop.Turn();
  while (word.empty()) loop.Await();
  EXPECT_EQ(word, "ok");
  // Its end is reported, although its start is not.
  std::vector<vs::UpdateStatus> heard;
  const auto ends =
      session->OnUpdateStatus([&](vs::UpdateStatus status) { heard.push_back(status); });
  events::AnnounceFailure(7);
  EXPECT_THAT(heard, ElementsAre(vs::UpdateStatus::kResult7));
}

TEST_F(ARequest, ThatBlocksMayOutliveTheSession) {
  const auto gate = std::make_shared<Gate>();
  const auto left = std::make_shared<Gate>();
  struct Leave {
    ~Leave() { gate->Open(); }
    std::shared_ptr<Gate> gate;
  };
  bool freed = false;
  const vs::Token token = session->RunBlocking<int>(
      [gate, leave = std::make_unique<Leave>(Leave{left})]() -> vs::Outcome<int> {
        gate->Pass();
        return 1;
      },
      [held = std::make_unique<Held>(&freed)](const vs::Outcome<int>&) { FAIL(); });
  session.reset();
  EXPECT_TRUE(freed);
  gate->Open();
  left->Pass();
}

TEST_F(ARequest, ThatBlocksEndsWhenItsTimeLimitIsOver) {
  const auto gate = std::make_shared<Gate>();
  std::string word;
  const vs::Token token = session->RunBlocking<int>(
      [gate]() -> vs::Outcome<int> {
        gate->Pass();
        return 1;
      },
      [&](const vs::Outcome<int>& answer) { word += Word(answer); }, 1s);
  loop.Pass(2s);
  EXPECT_EQ(word, "TIMEOUT");
  gate->Open();
  // The next one finds the thread free again.
  const vs::Token next =
      session->RunBlocking<int>([]() -> vs::Outcome<int> { return 2; },
                                [&](const vs::Outcome<int>& answer) { word += Word(answer); });
  while (word == "TIMEOUT") loop.Await();
  EXPECT_EQ(word, "TIMEOUTok");
}

TEST_F(ARequest, ThatBlocksAndIsReleasedBeforeItsTurnIsNotMade) {
  const auto gate = std::make_shared<Gate>();
  const vs::Token first = session->RunBlocking<int>(
      [gate]() -> vs::Outcome<int> {
        gate->Pass();
        return 1;
      },
      nullptr);
  std::atomic<bool> made{false};
  vs::Token second = session->RunBlocking<int>(
      [&made]() -> vs::Outcome<int> {
        made = true;
        return 1;
      },
      nullptr);
  second.Release();
  std::string word;
  const vs::Token third =
      session->RunBlocking<int>([]() -> vs::Outcome<int> { return 1; },
                                [&](const vs::Outcome<int>& answer) { word = Word(answer); });
  gate->Open();
  while (word.empty()) loop.Await();
  EXPECT_FALSE(made);
}

TEST_F(ARequest, ThatBlocksAndIsLostInARestartIsMadeAgain) {
  std::string word;
  Gate sending;
  Gate lost;
  fake::Next("rpc_port_parcel_send", fake::Fail(fake::kIoError).Entering([&] {
    sending.Open();
    lost.Pass();
  }));
  const vs::Token token =
      session->AgentApiLevel([&](const vs::Outcome<int>& answer) { word = Word(answer); });
  sending.Pass();
  LoseInUpdate();
  lost.Open();
  loop.Await();
  EXPECT_EQ(word, "");
  EXPECT_EQ(session->state(), State::kRestarting);
  fake::OnSend([](const fake::Sent&) { fake::QueueReply({11}); });
  ReturnFromUpdate();
  loop.Pass(1s);
  while (word.empty()) loop.Await();
  EXPECT_EQ(word, "ok");
}

TEST_F(ARequest, WhoseCallableThrowsIsHandedToTheApplication) {
  vs::Options options;
  std::string caught;
  options.on_exception = [&caught] {
    try {
      throw;
    } catch (const std::runtime_error& error) {
      caught = error.what();
    }
  };
  Open(std::move(options));
  Connect();
  const vs::Token token =
      session->Models([](const vs::Outcome<vs::ModelList>&) { throw std::runtime_error("mine"); });
  Answer(0, {});
  EXPECT_EQ(caught, "mine");
}

TEST_F(ARequest, WhoseCallableThrowsEndsTheProcessOtherwise) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const vs::Token token =
      session->Models([](const vs::Outcome<vs::ModelList>&) { throw std::runtime_error("mine"); });
  EXPECT_DEATH(Answer(0, {}), "mine");
}

TEST_F(ARequest, InAForkedChildFailsThere) {
  const vs::Token token = Ask();
  EXPECT_EXIT(
      {
        const vs::Token child = Ask();
        loop.Turn();
        const bool failed = answers.size() == 1 && answers[0][0] == "SVCMGR_ERROR_NOT_CONNECTED";
        session.reset();
        _exit(failed ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
  Answer(0, {"a"});
  EXPECT_THAT(answers, ElementsAre(ElementsAre("a")));
}

TEST_F(ARequest, SubscriptionsHearUntilTheyAreReleased) {
  std::vector<vs::ModelStatus> first;
  std::vector<vs::ModelStatus> second;
  auto one = session->OnModelStatus([&](vs::ModelStatus status) { first.push_back(status); });
  auto two = session->OnModelStatus([&](vs::ModelStatus status) { second.push_back(status); });
  ASSERT_TRUE(one && two);
  fake::FireEvent(events::kModelStatus, fake::BundleBuilder().Str("START", ""));
  EXPECT_THAT(first, SizeIs(1));
  one->Release();
  fake::FireEvent(events::kModelStatus, fake::BundleBuilder().Str("COMPLETED", ""));
  EXPECT_THAT(first, ElementsAre(vs::ModelStatus::kStarted));
  EXPECT_THAT(second, ElementsAre(vs::ModelStatus::kStarted, vs::ModelStatus::kCompleted));
  two->Release();
  EXPECT_THAT(fake::Subscriptions(), testing::Not(testing::Contains(events::kModelStatus)));
}

TEST_F(ARequest, SubscriptionMayBeReleasedInItsOwnCallable) {
  int heard = 0;
  vs::Token token;
  token = session
              ->OnUpdateStatus([&](vs::UpdateStatus) {
                ++heard;
                token.Release();
              })
              .value();
  events::AnnounceStart();
  events::AnnounceComplete();
  EXPECT_EQ(heard, 1);
}

}  // namespace
