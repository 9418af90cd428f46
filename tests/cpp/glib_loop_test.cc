// SPDX-License-Identifier: Apache-2.0
// The main loop of GLib, as sessions use it.
#include <velmora_svcmgr_glib.hpp>

#include "face_support.h"

namespace {

using face::Ids;
using testing::ElementsAre;
namespace vs = velmora::svcmgr;
using namespace std::chrono_literals;

/** What a platform does that lets what is ready go before the news that the agent is gone. */
void FireDisconnectedStandingBack() {
  const auto fire = [](gpointer) -> gboolean {
    fake::Proxy().FireDisconnected();
    return G_SOURCE_REMOVE;
  };
  const auto stand_back = [](gpointer later) -> gboolean {
    g_idle_add_full(G_PRIORITY_DEFAULT + 1, reinterpret_cast<GSourceFunc>(later), nullptr, nullptr);
    return G_SOURCE_REMOVE;
  };
  g_idle_add_full(G_PRIORITY_DEFAULT, stand_back, reinterpret_cast<gpointer>(+fire), nullptr);
}

gint64 MillisecondsUntil(vs::Loop::TimerId timer) {
  GSource* const source = g_main_context_find_source_by_id(nullptr, static_cast<guint>(timer));
  if (source == nullptr) return 0;
  return (g_source_get_ready_time(source) - g_get_monotonic_time()) / 1000;
}

class AGlibLoop : public fake::PlatformTest {
 protected:
  void SetUp() override {
    g_main_context_default();  // its descriptor stays for the life of the process
    PlatformTest::SetUp();
    fake::AllowHeldConnection();
  }

  static void Turn() {
    while (g_main_context_iteration(nullptr, FALSE) == TRUE) {
    }
  }

  vs::GlibLoop loop;
};

TEST_F(AGlibLoop, KeepsTimersOfMoreThan49Days) {
  const auto years = std::chrono::hours(24 * 365 * 10);
  const auto timer = loop.StartTimer(years, [] { FAIL(); });
  EXPECT_GT(MillisecondsUntil(timer), vs::Milliseconds(years).count() - 60'000);
  const auto longest = loop.StartTimer(vs::Milliseconds::max(), [] { FAIL(); });
  EXPECT_GT(MillisecondsUntil(longest), vs::Milliseconds(years).count());
  Turn();
  loop.CancelTimer(timer);
  loop.CancelTimer(longest);
}

TEST_F(AGlibLoop, RunsATimerWhenItsTimeHasComeAndNotBefore) {
  std::vector<int> order;
  const auto note = [&order](int which) { return [&order, which] { order.push_back(which); }; };
  // Two that are both due run in the order in which they were started, which is no promise.
  loop.StartTimer(1h, note(3));
  loop.StartTimer(0ms, note(1));
  while (order.empty()) g_main_context_iteration(nullptr, TRUE);
  loop.StartTimer(1ms, note(2));
  while (order.size() < 2) g_main_context_iteration(nullptr, TRUE);
  EXPECT_THAT(order, ElementsAre(1, 2));
}

TEST_F(AGlibLoop, NoticesALossThatStandsBackBeforeARequestIsBlamed) {
  std::vector<std::string> answer;
  vs::Session session(loop);
  Turn();
  fake::Proxy().FireConnected();
  Turn();
  fake::Next("rpc_port_parcel_send", fake::Fail(fake::kIoError));
  FireDisconnectedStandingBack();
  const vs::Token query =
      session.Models([&answer](const vs::Outcome<vs::ModelList>& models) { answer = Ids(models); });
  Turn();
  EXPECT_THAT(answer, ElementsAre("CONNECTION_LOST"));
}

}  // namespace
