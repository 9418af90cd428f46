// SPDX-License-Identifier: Apache-2.0
// Callables: when they may run, and what becomes of what they throw.
#include "face_support.h"

namespace {

using face::ASession;
using face::ReportOf;
using face::Word;
namespace vs = velmora::svcmgr;
using namespace std::chrono_literals;

class ACallable : public ASession {};

TEST_F(ACallable, ThatDecidesTheEndMayThrowAsAnyOther) {
  vs::Options options;
  options.on_exception = [] {};
  Open(std::move(options));
  Connect();
  vs::WorkOptions work_options;
  work_options.rule = [](const vs::WorkSight& sight) -> vs::Verdict {
    if (sight.report != nullptr) throw std::runtime_error("mine");
    return vs::Verdict::kGoesOn;
  };
  const vs::ModelWork work = session->Update({"a"}, nullptr, nullptr, std::move(work_options));
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        fake::DeliverDelegateMessage(face::kUpdate, 0, ReportOf(1, 1, 50));
        _exit(0);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(ACallable, DoesNotRunInsideItsSubscription) {
  Connect();
  bool returned = false;
  bool inside = false;
  fake::Next(events::kAdd, fake::Succeed().Leaving([] {
    fake::FireEvent(events::kModelStatus, fake::BundleBuilder().Str("START", ""));
  }));
  const auto hearing = session->OnModelStatus([&](vs::ModelStatus) { inside = !returned; });
  returned = true;
  loop.Turn();
  EXPECT_FALSE(inside);
}

TEST_F(ACallable, DoesNotRunInsideARequestOfALoopThatTakesNothing) {
  Connect();
  fake::Proxy().FireDisconnected();
  loop.Turn();
  loop.refuses = true;
  const vs::Token token = Ask();
  EXPECT_TRUE(answers.empty());
  loop.refuses = false;
}

TEST_F(ACallable, OfARefusedSessionHearsOfNothingElse) {
  Connect();
  const vs::Session second(loop);
  EXPECT_EQ(Word(second.IsBeingUpdated()), "SESSION_EXISTS");
}

}  // namespace
