// SPDX-License-Identifier: Apache-2.0
// A lack of memory where requests other than queries are made, and a loop that takes nothing.
#include <new>

#include "face_support.h"

namespace {

using face::AnswerOf;
using face::ASession;
using face::kModels;
using face::Word;
using testing::SizeIs;
namespace vs = velmora::svcmgr;
using namespace std::chrono_literals;

class AScarcity : public ASession {
 protected:
  void SetUp() override {
    ASession::SetUp();
    Connect();
  }
};

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
    fake::DeliverDelegateMessage(kModels, 0, AnswerOf({"a"}));
    loop.refuses = false;
  });
  kept += 5;
  const vs::Token token = Ask();
  loop.Pass(1h);
  EXPECT_THAT(answers, SizeIs(1)) << "pending for ever otherwise: " << token.pending();
}

}  // namespace
