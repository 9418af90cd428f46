// SPDX-License-Identifier: Apache-2.0
// The end of the process: what is held is left as it is, and late calls are harmless.

#include <unistd.h>

#include <cstdlib>

#include "client.h"
#include "event_support.h"

namespace {

using client::Connection;
using client::Models;

constexpr int kAsItShouldBe = 42;

/** Judges a child process whose library has lost its own statics; set before its exit. */
bool (*judge)() = nullptr;

/** An application that outlives the statics. */
struct Application {
  Connection connection;
  Models models;
  events::Statuses statuses;
  events::ModelStatuses model_statuses;
};

Application& TheApplication() {
  static auto* const forever = new Application;
  return *forever;
}

void DoNothing() {}

void Connect() {
  if (TheApplication().connection.Connect() == 0) fake::Proxy().FireConnected();
}

void ConnectAndRequest() {
  Connect();
  TheApplication().models.Request();
}

void ConnectAndSubscribe() {
  Connect();
  TheApplication().statuses.Set();
  TheApplication().model_statuses.Set();
}

bool LeftAsItWas() {
  return fake::CountCalls("rpc_port_proxy_destroy") == 0 &&
         fake::CountCalls(events::kRemove) == 0 && fake::Proxy().Alive();
}

bool ConnectionAnswersAndEnds() {
  int level = 0;
  fake::QueueReply({11});
  if (velmora_svcmgr_get_agent_api_level(&level) != 0 || level != 11) return false;
  if (velmora_svcmgr_connect(Connection::Callback, nullptr) != -106) return false;
  if (velmora_svcmgr_disconnect() != 0) return false;
  return velmora_svcmgr_get_agent_api_level(&level) == -107 && !fake::Proxy().Alive();
}

bool PortEventsAreReported() {
  fake::Proxy().FireDisconnected();
  fake::Proxy().FireRejected();
  fake::Proxy().FireReceived();
  return TheApplication().connection.notices.size() == 3;
}

bool FirstCallIsAnswered() {
  int level = 0;
  return velmora_svcmgr_get_agent_api_level(&level) == -107 && velmora_svcmgr_disconnect() == 0;
}

bool NothingIsSubscribed() {
  return velmora_svcmgr_unset_update_status_cb() == 0 &&
         velmora_svcmgr_ai_deregister_status_cb() == 0 && velmora_svcmgr_disconnect() == 0 &&
         fake::CountCalls(events::kRemove) == 0;
}

bool SubscriptionsAreMadeAfresh() {
  fake::ClearRecord();
  return TheApplication().statuses.Set() == 0 && TheApplication().model_statuses.Set() == 0 &&
         velmora_svcmgr_unset_update_status_cb() == 0 &&
         velmora_svcmgr_ai_deregister_status_cb() == 0 && fake::CountCalls(events::kAdd) == 2 &&
         fake::CountCalls(events::kRemove) == 2;
}

bool AgentEventsAreHarmless() {
  events::AnnounceStart();
  events::Announce(events::kModelStatus, {"START"});
  events::AnnounceUpdate();
  fake::Proxy().FireDisconnected();
  events::AnnounceLaunch();
  return fake::ProxyCount() == 2 && fake::CountCalls(events::kRemove) == 0;
}

struct Exit {
  const char* name;
  void (*before)();
  bool (*holds)();
};

void PrintTo(const Exit& row, std::ostream* out) { *out << row.name; }

// Handlers run in reverse order, so one that is registered before the library's first use runs
// after all destructors of the library's statics.
[[noreturn]] void ExitAfter(const Exit& row) {
  fake::Reset();
  judge = row.holds;
  std::atexit([] { _exit(judge() && fake::Faults().empty() ? kAsItShouldBe : 1); });
  row.before();
  std::exit(0);
}

class AnExit : public testing::TestWithParam<Exit> {};

TEST_P(AnExit, IsAsItShouldBe) {
  EXPECT_EXIT(ExitAfter(GetParam()), testing::ExitedWithCode(kAsItShouldBe), "");
}

INSTANTIATE_TEST_SUITE_P(
    That, AnExit,
    testing::Values(
        Exit{"LeavesAConnectionAsItIs", Connect, LeftAsItWas},
        Exit{"LeavesAPendingRequestAsItIs", ConnectAndRequest, LeftAsItWas},
        Exit{"LeavesTheSubscriptionsToThePlatform", ConnectAndSubscribe, LeftAsItWas},
        Exit{"LeavesTheConnectionUsable", Connect, ConnectionAnswersAndEnds},
        Exit{"LeavesPortEventsHarmless", Connect, PortEventsAreReported},
        Exit{"LetsTheFirstCallComeLate", DoNothing, FirstCallIsAnswered},
        Exit{"LeavesNothingSubscribedForLateCalls", ConnectAndSubscribe, NothingIsSubscribed},
        Exit{"LetsLateCallsSubscribeAfresh", ConnectAndSubscribe, SubscriptionsAreMadeAfresh},
        Exit{"LetsSubscribersBeBuiltLate", DoNothing, SubscriptionsAreMadeAfresh},
        Exit{"LeavesLateAgentEventsHarmless", ConnectAndSubscribe, AgentEventsAreHarmless}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
