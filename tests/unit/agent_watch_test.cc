// SPDX-License-Identifier: Apache-2.0
// The watch that keeps a connection across the agent's own update.

#include <AgentStatusEventHandler.h>
#include <UpdateObserver.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "client.h"
#include "event_support.h"

namespace {

using client::Connection;
using client::kConnected;
using client::kDisconnected;
using client::kHandlerFile;
using events::AnnounceLaunch;
using events::AnnounceUpdate;
using events::kAdd;
using events::kAgentStatus;
using events::kRemove;
using fake::IsError;
using fake::IsInfo;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kWatchFile[] = "AgentStatusEventHandler.cc";
constexpr char kEventFile[] = "VorlaEventHandler.h";

AgentStatusEventHandler& Watch() { return AgentStatusEventHandler::GetInstance(); }

int AskWhetherUpdating() {
  bool updating = false;
  const int code = velmora_svcmgr_is_being_updated(&updating);
  return code != 0 ? code : static_cast<int>(updating);
}

/* Wanting a connection and wanting none. */

class TheWatch : public fake::PlatformTest {
 protected:
  Connection connection;
};

TEST_F(TheWatch, WantsNoConnectionAtFirst) { EXPECT_FALSE(Watch().IsConnectionKept()); }

TEST_F(TheWatch, SubscribesWhenAConnectionIsKept) {
  Watch().KeepConnection();
  EXPECT_TRUE(Watch().IsConnectionKept());
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsInfo(kWatchFile, "KeepConnection", "Keep the CONNECTION")));
  ASSERT_EQ(fake::Calls().size(), 1U);
  EXPECT_EQ(fake::Calls()[0].Text(),
            "event_add_event_handler(\"event." AGENT_PACKAGE_ID ".agent_status\", null)");
  fake::AllowHeld(fake::Kind::kEventHandler, 1);
}

TEST_F(TheWatch, UnsubscribesWhenNobodyCaresForTheConnection) {
  Watch().KeepConnection();
  fake::ClearRecord();
  Watch().DontCareConnection();
  EXPECT_FALSE(Watch().IsConnectionKept());
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsInfo(kWatchFile, "DontCareConnection", "Don't care about CONNECTION")));
  EXPECT_THAT(fake::CallNames(), ElementsAre(kRemove));
}

/* Refusals. */

const std::vector<fake::Step> kRefusals = {fake::Fail(-13), fake::FailWithGarbage(-5),
                                           fake::FailWithNull(-12), fake::FailAfterWork(-22)};

class ARefusal : public TheWatch, public testing::WithParamInterface<std::size_t> {
 protected:
  static const fake::Step& Refusal() { return kRefusals[GetParam()]; }
};

TEST_P(ARefusal, OfTheSubscriptionIsLoggedAndTheConnectionStaysWanted) {
  fake::Next(kAdd, Refusal());
  Watch().KeepConnection();
  EXPECT_TRUE(Watch().IsConnectionKept());
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsInfo(kWatchFile, "KeepConnection", "Keep the CONNECTION"),
                          IsError(kEventFile, "RegisterEvent",
                                  events::RefusalOf(Refusal().result, kAgentStatus)),
                          IsError(kWatchFile, "KeepConnection", "Failed to register event")));
  Watch().DontCareConnection();
  EXPECT_EQ(fake::CountCalls(kRemove), 0U);
  Watch().KeepConnection();  // tries again
  EXPECT_EQ(fake::CountCalls(kAdd), 2U);
  fake::AllowHeld(fake::Kind::kEventHandler, 2);  // what the platform made despite its refusal
}

TEST_P(ARefusal, OfTheSubscriptionShowsAnUpdateOfTheAgentAsAPlainLoss) {
  fake::Next(kAdd, Refusal());
  ASSERT_EQ(connection.Connect(), 0);
  fake::Proxy().FireConnected();
  EXPECT_THAT(connection.notices, ElementsAre(kConnected));
  fake::Proxy().FireDisconnected();
  EXPECT_THAT(connection.notices, ElementsAre(kConnected, kDisconnected));
  EXPECT_EQ(fake::ProxyCount(), 1);
  fake::AllowHeldConnection();
}

TEST_P(ARefusal, OfTheRemovalIsLoggedAndForgotten) {
  Watch().KeepConnection();
  fake::ClearRecord();
  fake::Next(kRemove, Refusal());
  Watch().DontCareConnection();
  EXPECT_FALSE(Watch().IsConnectionKept());
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsInfo(kWatchFile, "DontCareConnection", "Don't care about CONNECTION"),
                          IsError(kEventFile, "DeregisterEvent",
                                  "err: [" + std::to_string(Refusal().result) + "]"),
                          IsError(kWatchFile, "DontCareConnection", "Failed to deregister event")));
  fake::ClearRecord();
  Watch().DontCareConnection();
  EXPECT_THAT(fake::CallNames(), IsEmpty());
  Watch().KeepConnection();
  EXPECT_EQ(fake::CountCalls(kAdd), 1U);
  fake::AllowHeld(fake::Kind::kEventHandler, 2);
}

INSTANTIATE_TEST_SUITE_P(InEachShape, ARefusal, testing::Range<std::size_t>(0, kRefusals.size()));

TEST_F(TheWatch, SurvivesAPlatformThatThrows) {
  fake::Next(kAdd, fake::Throw(std::runtime_error("refused")));
  Watch().KeepConnection();
  EXPECT_TRUE(Watch().IsConnectionKept());
  EXPECT_THAT(fake::Logs().back(),
              IsError(kWatchFile, "KeepConnection", "Failed to register event"));
  Watch().KeepConnection();
  fake::Next(kRemove, fake::Throw(std::runtime_error("refused")));
  Watch().DontCareConnection();
  EXPECT_THAT(fake::Logs().back(),
              IsError(kWatchFile, "DontCareConnection", "Failed to deregister event"));
  fake::ClearRecord();
  Watch().DontCareConnection();
  EXPECT_THAT(fake::CallNames(), IsEmpty());
  fake::AllowHeld(fake::Kind::kEventHandler, 1);
}

TEST_F(TheWatch, ThatCannotBeBuiltMakesTheAttemptFailAndIsBuiltByTheNext) {
  if (!fake::SeesOperatorNew()) GTEST_SKIP() << "operator new cannot be made to fail here";
  {
    const fake::FailingAllocation failing(fake::Allocator::kNew);
    EXPECT_EQ(connection.Connect(), -38);
    ASSERT_TRUE(failing.Happened());
  }
  EXPECT_EQ(connection.Connect(), 0);
  fake::Proxy().FireConnected();
  EXPECT_THAT(connection.notices, ElementsAre(kConnected));
  EXPECT_THAT(fake::Subscriptions(), ElementsAre(kAgentStatus));
  fake::AllowHeldConnection();
}

// Whoever was promised a connection hears of it, however little memory there is.
TEST_F(TheWatch, AllocatesNothingWhenTheConnectionStandsOrEnds) {
  if (!fake::SeesOperatorNew()) GTEST_SKIP() << "operator new cannot be made to fail here";
  ASSERT_EQ(connection.Connect(), 0);
  connection.notices.reserve(1);
  {
    const fake::FailingAllocation failing(fake::Allocator::kAny, 1,
                                          fake::FailingAllocation::Then::kFailAll);
    fake::Proxy().FireConnected();
    EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
    EXPECT_FALSE(failing.Happened());
  }
  EXPECT_THAT(connection.notices, ElementsAre(kConnected));
}

/* When the connection is watched. */

TEST_F(TheWatch, IsSubscribedBeforeTheApplicationHearsOfTheConnection) {
  ASSERT_EQ(connection.Connect(), 0);
  connection.inside = [] { EXPECT_THAT(fake::Subscriptions(), ElementsAre(kAgentStatus)); };
  fake::Proxy().FireConnected();
  EXPECT_EQ(connection.notices.size(), 1U);
  fake::AllowHeldConnection();
}

/* The events. */

class AnAgentEvent : public client::ConnectedTest {
 protected:
  /** As ConnectedTest leaves it, but lost. */
  void Lose() {
    fake::Proxy().FireDisconnected();
    connection.notices.clear();
    fake::ClearRecord();
  }

  static void ExpectNoReconnection() {
    EXPECT_EQ(fake::ProxyCount(), 1);
    EXPECT_TRUE(fake::Proxy().Alive());
    EXPECT_THAT(fake::CallNames("rpc_port_"), IsEmpty());
  }
};

TEST_F(AnAgentEvent, WithBothKeysIsAnUpdateOnly) {
  Lose();
  EXPECT_EQ(events::Announce(kAgentStatus, {"Launch", "Update"}), 1);
  EXPECT_EQ(events::State(), 2);
  ExpectNoReconnection();
}

TEST_F(AnAgentEvent, WithNeitherKeyDoesNothing) {
  Lose();
  EXPECT_EQ(events::Announce(kAgentStatus, {"update", "LAUNCH", "Launched", ""}), 1);
  EXPECT_THAT(fake::Logs(), IsEmpty());
  EXPECT_EQ(events::State(), 0);
  ExpectNoReconnection();
}

TEST_F(AnAgentEvent, WithKeysOfAnotherTypeDoesNothing) {
  Lose();
  fake::FireEvent(kAgentStatus,
                  fake::BundleBuilder().Int("Update", 1).StrArray("Launch", {"Launch"}));
  EXPECT_THAT(fake::Logs(), IsEmpty());
  ExpectNoReconnection();
}

TEST_F(AnAgentEvent, IsJudgedByTheKeyAndNotByItsText) {
  EXPECT_EQ(fake::FireEvent(kAgentStatus, fake::BundleBuilder().Str("Update", "Launch")), 1);
  EXPECT_EQ(events::State(), 2);
}

class AForeignName : public AnAgentEvent, public testing::WithParamInterface<const char*> {};

TEST_P(AForeignName, IsIgnored) {
  Lose();
  for (const char* key : {"Update", "Launch"}) {
    fake::BundleBuilder data;
    data.Str(key, "");
    fake::FireEventAt(kAgentStatus, GetParam(), data.get());
  }
  EXPECT_EQ(events::State(), 0);
  EXPECT_THAT(fake::Trace(), IsEmpty());
  ExpectNoReconnection();
}

INSTANTIATE_TEST_SUITE_P(Each, AForeignName,
                         testing::Values(nullptr, "", "event." AGENT_PACKAGE_ID,
                                         "event." AGENT_PACKAGE_ID ".agent_statu",
                                         "event." AGENT_PACKAGE_ID ".agent_status2",
                                         "event." AGENT_PACKAGE_ID ".AGENT_STATUS",
                                         "event." AGENT_PACKAGE_ID ".update_status"));

TEST_F(TheWatch, IsNotThereForALossBeforeTheAgentHasAccepted) {
  ASSERT_EQ(connection.Connect(), 0);
  fake::Proxy().FireDisconnected();
  EXPECT_THAT(connection.notices, ElementsAre(kDisconnected));
  EXPECT_EQ(AnnounceLaunch(), 0);
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
  EXPECT_EQ(connection.Connect(), 0);
  EXPECT_EQ(fake::ProxyCount(), 1);
  fake::AllowHeld(fake::Kind::kProxy, 1);
}

TEST_F(AnAgentEvent, WithoutDataAnnouncesNothing) {
  Lose();
  fake::FireEventAt(kAgentStatus, kAgentStatus, nullptr);
  EXPECT_EQ(fake::ProxyCount(), 1);
}

TEST_F(AnAgentEvent, LaunchThatIsUnderWayWhileTheApplicationDisconnectsDoesNothing) {
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
  fake::ClearRecord();
  fake::BundleBuilder data;
  data.Str("Launch", "");
  AgentEventCallback(kAgentStatus, data.get(), nullptr);
  EXPECT_THAT(fake::Logs(), IsEmpty());
  EXPECT_EQ(fake::ProxyCount(), 1);
}

TEST_F(AnAgentEvent, LaunchWhileReconnectingIsIgnored) {
  Lose();
  AnnounceLaunch();
  EXPECT_EQ(AnnounceLaunch(), 0);
  fake::ClearRecord();
  fake::BundleBuilder data;
  data.Str("Launch", "");
  AgentEventCallback(kAgentStatus, data.get(), nullptr);  // one that was under way already
  EXPECT_THAT(fake::Logs(), IsEmpty());
  EXPECT_EQ(fake::ProxyCount(), 2);
  EXPECT_TRUE(fake::Proxy(2).Alive());
}

TEST_F(AnAgentEvent, LaunchUsesTheCallbackThatIsStoredLast) {
  Lose();
  Connection second;
  EXPECT_EQ(second.Connect(), 0);  // starts nothing, but replaces the callback
  AnnounceLaunch();
  fake::Proxy().FireConnected();
  EXPECT_THAT(connection.notices, IsEmpty());
  EXPECT_THAT(second.notices, ElementsAre(kConnected));
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
}

class AFailedReconnection : public AnAgentEvent, public testing::WithParamInterface<int> {};

TEST_P(AFailedReconnection, IsNotReportedAndLeavesTheContextIdle) {
  AnnounceUpdate();
  Lose();
  fake::Next("rpc_port_proxy_connect", fake::Fail(GetParam()));
  AnnounceLaunch();
  EXPECT_THAT(connection.notices, IsEmpty());
  EXPECT_THAT(fake::Subscriptions(), IsEmpty());
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 0);
  EXPECT_EQ(AskWhetherUpdating(), -107);
  EXPECT_EQ(events::State(), 4);
  EXPECT_EQ(connection.Connect(), 0);
  EXPECT_EQ(fake::ProxyCount(), 3);
}

INSTANTIATE_TEST_SUITE_P(ByCode, AFailedReconnection, testing::Values(-5, -13, -22),
                         [](const auto& row) { return "Code" + std::to_string(-row.param); });

TEST_F(AnAgentEvent, LaunchSurvivesAReconnectionThatCompletesInsideTheAttempt) {
  AnnounceUpdate();
  Lose();
  fake::Next("rpc_port_proxy_connect",
             fake::Succeed().Entering([] { fake::Proxy().FireConnected(); }));
  AnnounceLaunch();
  EXPECT_THAT(connection.notices, IsEmpty());
  EXPECT_TRUE(Watch().IsConnectionKept());
  EXPECT_THAT(fake::Subscriptions(), ElementsAre(kAgentStatus));
  EXPECT_EQ(AskWhetherUpdating(), 1);
}

TEST_F(AnAgentEvent, LaunchSurvivesADisconnectInsideTheReconnection) {
  Lose();
  connection.inside = [] { EXPECT_EQ(velmora_svcmgr_disconnect(), 0); };
  fake::Next("rpc_port_proxy_connect",
             fake::Succeed().Entering([] { fake::Proxy().FireConnected(); }));
  AnnounceLaunch();
  EXPECT_THAT(connection.notices, ElementsAre(kConnected));
  EXPECT_THAT(fake::Subscriptions(), IsEmpty());
  EXPECT_FALSE(Watch().IsConnectionKept());
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 0);
}

TEST_F(AnAgentEvent, LaunchSurvivesAFailingBuildOfTheNewProxy) {
  Lose();
  fake::Next("rpc_port_proxy_create", fake::Throw(std::runtime_error("no proxy")));
  AnnounceLaunch();
  EXPECT_THAT(fake::Logs().back(),
              IsError(kHandlerFile, "Connect", "Unexpected Exception occurred!!!"));
  EXPECT_EQ(connection.Connect(), 0);
  EXPECT_EQ(fake::ProxyCount(), 2);
}

TEST_F(AnAgentEvent, LetsNothingEscape) {
  fake::Next("bundle_get_str", fake::Throw(std::runtime_error("no bundle")));
  AnnounceUpdate();
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsError("UpdateObserver.cc", "AgentEventCallback", "Unknown Exception")));
  EXPECT_EQ(events::State(), 0);
}

TEST_F(AnAgentEvent, LetsNothingEscapeFromAReconnection) {
  Lose();
  fake::Next("rpc_port_proxy_destroy",
             fake::FailAfterWork(0).Leaving([] { throw std::runtime_error("no end"); }));
  AnnounceLaunch();
  EXPECT_THAT(fake::Logs().back(),
              IsError("UpdateObserver.cc", "AgentEventCallback", "Unknown Exception"));
}

/* The agent's own update. */

TEST_F(AnAgentEvent, SequenceMayRunManyTimesWithoutTheApplicationNoticing) {
  for (int i = 0; i < 200; ++i) {
    AnnounceUpdate();
    fake::Proxy().FireDisconnected();
    AnnounceLaunch();
    fake::Proxy().FireConnected();
  }
  EXPECT_THAT(connection.notices, IsEmpty());
  EXPECT_EQ(fake::ProxyCount(), 201);
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 1);
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kEventHandler), 1);
}

TEST_F(AnAgentEvent, SequenceHidesLaterConnectionsTooUntilTheUpdateEnds) {
  AnnounceUpdate();
  fake::Proxy().FireDisconnected();
  AnnounceLaunch();
  fake::Proxy().FireConnected();
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
  EXPECT_EQ(connection.Connect(), 0);
  fake::Proxy().FireConnected();
  EXPECT_THAT(connection.notices, IsEmpty());
  EXPECT_EQ(AskWhetherUpdating(), 1);
}

TEST_F(AnAgentEvent, SequenceIsHeardOfWhenItsEndIsHeardFirst) {
  events::Statuses statuses;
  EXPECT_EQ(statuses.Set(), 0);
  fake::AllowHeld(fake::Kind::kEventHandler, 2);
  AnnounceUpdate();
  fake::Proxy().FireDisconnected();
  AnnounceLaunch();
  events::AnnounceFailure(1);
  fake::Proxy().FireConnected();
  EXPECT_THAT(connection.notices, ElementsAre(kConnected));
}

}  // namespace
