// SPDX-License-Identifier: Apache-2.0
// The end of the process: what is held is left as it is, and late calls are harmless.

#include <unistd.h>

#include <cstdlib>

#include "client.h"

namespace {

using client::Connection;
using client::Models;

constexpr int kAsItShouldBe = 42;

/** Set before the exit of a child process; run when the library's own statics are gone. */
bool (*judge)() = nullptr;

// Handlers run in reverse order, so one that is registered before the library's first use runs
// behind all destructors of the library's statics.
void RegisterJudge(bool (*function)()) {
  judge = function;
  std::atexit([] { _exit(judge() ? kAsItShouldBe : 1); });
}

Connection& ConnectForGood() {
  static auto* const connection = new Connection;  // outlives the statics
  if (connection->Connect() == 0) fake::Proxy().FireConnected();
  return *connection;
}

bool NothingWasReleased() {
  return fake::CountCalls("rpc_port_proxy_destroy") == 0 &&
         fake::CountCalls("event_remove_event_handler") == 0 && fake::Proxy().Alive() &&
         fake::Faults().empty();
}

[[noreturn]] void ExitConnected() {
  fake::Reset();
  RegisterJudge(NothingWasReleased);
  ConnectForGood();
  std::exit(0);
}

[[noreturn]] void ExitWithAPendingRequest() {
  fake::Reset();
  RegisterJudge(NothingWasReleased);
  ConnectForGood();
  static auto* const models = new Models;
  models->Request();
  std::exit(0);
}

bool LateCallsAnswer() {
  int level = 0;
  fake::QueueReply({11});
  if (velmora_svcmgr_get_agent_api_level(&level) != 0 || level != 11) return false;
  if (velmora_svcmgr_connect(Connection::Callback, nullptr) != -106) return false;
  if (velmora_svcmgr_disconnect() != 0) return false;
  if (velmora_svcmgr_get_agent_api_level(&level) != -107) return false;
  return !fake::Proxy().Alive() && fake::Faults().empty();
}

[[noreturn]] void ExitAndCallLate() {
  fake::Reset();
  RegisterJudge(LateCallsAnswer);
  ConnectForGood();
  std::exit(0);
}

bool LateEventsAreHarmless() {
  Connection& connection = ConnectForGood();
  fake::Proxy().FireDisconnected();
  fake::Proxy().FireRejected();
  fake::Proxy().FireReceived();
  return connection.notices.size() == 3 && fake::Faults().empty();
}

[[noreturn]] void ExitAndFireLate() {
  fake::Reset();
  RegisterJudge(LateEventsAreHarmless);
  ConnectForGood();
  std::exit(0);
}

[[noreturn]] void ExitWithAFirstCallLate() {
  fake::Reset();
  RegisterJudge([] {
    int level = 0;
    return velmora_svcmgr_get_agent_api_level(&level) == -107 && velmora_svcmgr_disconnect() == 0 &&
           fake::Faults().empty();
  });
  std::exit(0);
}

TEST(AnExit, LeavesAConnectionAsItIs) {
  EXPECT_EXIT(ExitConnected(), testing::ExitedWithCode(kAsItShouldBe), "");
}

TEST(AnExit, LeavesAPendingRequestAsItIs) {
  EXPECT_EXIT(ExitWithAPendingRequest(), testing::ExitedWithCode(kAsItShouldBe), "");
}

TEST(AnExit, LeavesTheFunctionsUsableBehindTheStatics) {
  EXPECT_EXIT(ExitAndCallLate(), testing::ExitedWithCode(kAsItShouldBe), "");
}

TEST(AnExit, LeavesEventsHarmlessBehindTheStatics) {
  EXPECT_EXIT(ExitAndFireLate(), testing::ExitedWithCode(kAsItShouldBe), "");
}

TEST(AnExit, LetsTheFirstCallComeLate) {
  EXPECT_EXIT(ExitWithAFirstCallLate(), testing::ExitedWithCode(kAsItShouldBe), "");
}

}  // namespace
