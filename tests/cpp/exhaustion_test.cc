// SPDX-License-Identifier: Apache-2.0
// What becomes of a session when memory runs out, at each allocation once.
#include <new>
#include <set>

#include "face_support.h"

namespace {

using face::AConnectedSession;
using face::ASession;
using face::ReportOf;
using testing::SizeIs;
using velmora::svcmgr::State;
namespace vs = velmora::svcmgr;
using namespace std::chrono_literals;

class AShortage : public ASession {
 protected:
  void SetUp() override {
    if (!fake::SeesOperatorNew()) GTEST_SKIP() << "operator new is a sanitizer's here";
    ASession::SetUp();
    Connect();
  }
  void TearDown() override {
    if (fake::SeesOperatorNew()) ASession::TearDown();
  }

  // What the library keeps depends on where an allocation failed; unit tests account for it.
  void CountWhatIsKept() {
    session.reset();
    kept = fake::LiveBlocks().size();
  }
};

TEST_F(AShortage, WhileARequestIsMadeThrowsAndAsksNothing) {
  for (int n = 1;; ++n) {
    const std::size_t before = answers.size();
    vs::Token token;
    bool thrown = false;
    bool happened = false;
    {
      const fake::FailingAllocation failing(fake::Allocator::kNew, n);
      try {
        token = Ask();
      } catch (const std::bad_alloc&) {
        thrown = true;
      }
      happened = failing.Happened();
    }
    if (!happened) break;
    ASSERT_LT(n, 1000);
    loop.Turn();
    // Either nothing was asked, or the request ends with an error, or it goes on.
    if (thrown) {
      EXPECT_FALSE(token.pending());
      EXPECT_THAT(answers, SizeIs(before));
    } else {
      EXPECT_EQ(answers.size() == before, token.pending());
    }
  }
  CountWhatIsKept();
}

TEST_F(AShortage, InsideACallbackOfTheCInterfaceIsSurvived) {
  int reached = 0;
  for (int n = 1; n < 100; ++n) {
    vs::ModelWork work = session->Update({"a"}, nullptr, nullptr);
    const vs::Token token = session->Models(nullptr);
    const fake::Items report = ReportOf(1, 1, 50);
    const fake::Items answer = face::AnswerOf({"a"});
    fake::BundleBuilder event;
    event.Str("START", "");
    const std::string name = events::kModelStatus;
    {
      const fake::FailingAllocation failing(fake::Allocator::kNew, n);
      fake::DeliverDelegateMessage(face::kUpdate, 2 * (n - 1), report);
      fake::DeliverDelegateMessage(face::kModels, 2 * n - 1, answer);
      fake::FireEvent(name, event.get());
      reached += failing.Happened() ? 1 : 0;
    }
    loop.Turn();
  }
  EXPECT_GT(reached, 0);
  const vs::Token token = Ask();
  fake::DeliverDelegateMessage(face::kModels, 198, face::AnswerOf({"a"}));
  EXPECT_THAT(answers, testing::ElementsAre(testing::ElementsAre("a")));
  CountWhatIsKept();
}

TEST_F(AShortage, WhenABlockingCallIsBegunIsAnError) {
  std::set<std::string> words;
  for (int n = 1; n < 12; ++n) {
    session->Disconnect();
    loop.Turn();
    fake::ForgetScripts("rpc_port_proxy_connect");
    ASSERT_TRUE(session->Connect().has_value());
    int ended = 0;
    std::string word;
    word.reserve(64);
    const vs::Token token = session->AgentApiLevel([&](const vs::Outcome<int>& level) {
      ++ended;
      word = level ? "ok" : level.error().name();
    });
    fake::OnSend([](const fake::Sent&) { fake::QueueReply({11}); });
    session->OnState(nullptr);
    {
      const fake::FailingAllocation failing(fake::Allocator::kNew, n);
      fake::Proxy().FireConnected();
    }
    loop.Turn();
    while (ended == 0) loop.Await();
    words.insert(word);
    EXPECT_EQ(ended, 1) << n;
  }
  EXPECT_THAT(words, testing::Contains("ok"));
  EXPECT_THAT(words, testing::Contains("SVCMGR_ERROR_OUT_OF_MEMORY"));
  CountWhatIsKept();
}

TEST_F(AShortage, DuringALossStillEndsWhatIsLost) {
  for (int n = 1; n < 20; ++n) {
    // The callables themselves need no memory.
    int ended = 0;
    session->OnState(nullptr);
    const auto count = [&ended](const vs::Outcome<vs::ModelList>&) { ++ended; };
    const vs::Token first = session->Models(count);
    const vs::Token second = session->Models(count);
    {
      const fake::FailingAllocation failing(fake::Allocator::kNew, n);
      fake::Proxy().FireDisconnected();
    }
    loop.Turn();
    EXPECT_EQ(ended, 2) << n;
    ReturnFromUpdate();
    loop.Pass(1s);
    ASSERT_EQ(session->state(), State::kConnected) << n;
  }
  CountWhatIsKept();
}

class AScarcity : public AConnectedSession {};

TEST_F(AScarcity, WhileACallThatBlocksIsMadeDoesNotEndTheProcess) {
  if (!fake::SeesOperatorNew()) GTEST_SKIP() << "operator new is a sanitizer's here";
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        for (int n = 1; n < 40; ++n) {
          const fake::FailingAllocation failing(fake::Allocator::kNew, n);
          try {
            session->ClientApiLevel(nullptr).Release();
          } catch (const std::bad_alloc&) {
          }
          if (!failing.Happened()) break;
        }
        _exit(0);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(AScarcity, WhileWorkIsAskedForLeavesNoSubscription) {
  if (!fake::SeesOperatorNew()) GTEST_SKIP() << "operator new is a sanitizer's here";
  for (int n = 1; n < 1000; ++n) {
    const std::vector<vs::ModelName> models = {"a"};
    bool happened = false;
    {
      const fake::FailingAllocation failing(fake::Allocator::kNew, n);
      try {
        session->Update(models, nullptr, nullptr).Release();
      } catch (const std::bad_alloc&) {
      }
      happened = failing.Happened();
    }
    if (!happened) break;
    loop.Turn();
    ASSERT_THAT(fake::Subscriptions(), testing::Not(testing::Contains(events::kModelStatus)))
        << "allocation " << n;
  }
  session.reset();
  kept = fake::LiveBlocks().size();
}

TEST_F(AScarcity, OfTheLoopDoesNotSwallowAnAnswerThatComesInsideTheRequest) {
  fake::OnSend([this](const fake::Sent&) {
    fake::OnSend(nullptr);
    loop.refuses = true;
    fake::DeliverDelegateMessage(face::kModels, 0, face::AnswerOf({"a"}));
    loop.refuses = false;
  });
  kept += 5;
  const vs::Token token = Ask();
  loop.Pass(1h);
  EXPECT_THAT(answers, SizeIs(1)) << "pending for ever otherwise: " << token.pending();
}

}  // namespace
