// SPDX-License-Identifier: Apache-2.0
// A session in a forked child.
#include <unistd.h>

#include <atomic>
#include <thread>

#include "../support/forked_child.h"
#include "face_support.h"

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SVCMGR_TEST_THREAD_SANITIZED
#endif
#endif

namespace {

#ifdef SVCMGR_TEST_THREAD_SANITIZED
constexpr bool kThreadSanitized = true;
#else
constexpr bool kThreadSanitized = false;
#endif

using face::ASession;
using testing::IsEmpty;
namespace vs = velmora::svcmgr;
using namespace std::chrono_literals;

TEST_F(ASession, InAChildCallsNothingOfItsParents) {
  Connect();
  const vs::Token token = Ask(1s);
  EXPECT_TRUE(HoldsInAChild([this] {
    loop.Pass(2s);
    EXPECT_THAT(answers, IsEmpty()) << "a time limit of the parent's request";
  }));
}

TEST_F(ASession, InAChildDoesNotConnect) {
  EXPECT_TRUE(HoldsInAChild([this] {
    loop.Turn();
    EXPECT_THAT(fake::CallNames("rpc_port_proxy_connect"), IsEmpty());
  }));
}

TEST_F(ASession, InAChildLeavesTheSubscriptionsOfTheChildsOwn) {
  Connect();
  auto hearing = session->OnUpdateStatus(nullptr);
  ASSERT_TRUE(hearing.has_value());
  EXPECT_TRUE(HoldsInAChild([&] {
    vs::Session own(loop);
    int heard = 0;
    const auto mine = own.OnUpdateStatus([&](vs::UpdateStatus) { ++heard; });
    hearing->Release();
    events::AnnounceStart();
    // Once more where the platform lets the child inherit what the parent has subscribed to.
    EXPECT_GE(heard, 1);
  }));
}

TEST_F(ASession, InAChildHasAThreadOfItsOwn) {
  if (kThreadSanitized) GTEST_SKIP() << "ThreadSanitizer lets no child have threads";
  Connect();
  std::atomic<bool> inside{false};
  std::atomic<bool> left{false};
  bool over = false;
  const vs::Token blocked = session->RunBlocking<int>(
      [&]() -> vs::Outcome<int> {
        inside = true;
        while (!left) std::this_thread::sleep_for(1ms);
        return 1;
      },
      [&](const vs::Outcome<int>&) { over = true; });
  while (!inside) std::this_thread::sleep_for(1ms);
  EXPECT_TRUE(HoldsInAChild([&] {
    vs::Session own(loop);
    std::atomic<bool> ran{false};
    const vs::Token token = own.RunBlocking<int>(
        [&]() -> vs::Outcome<int> {
          ran = true;
          return 1;
        },
        nullptr);
    for (int i = 0; i < 5000 && !ran; ++i) std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(ran);
  }));
  left = true;
  while (!over) loop.Await();
}

}  // namespace
