// SPDX-License-Identifier: Apache-2.0
// The traps that the public header numbers, each as an application would fall into it. The suite
// carries the trap's number: a table leads from each trap to its tests by that.

#include <gmock/gmock.h>
#include <velmora_svcmgr.h>

#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "client.h"
#include "connection_support.h"
#include "event_support.h"
#include "fake_platform.h"
#include "kept.h"
#include "model_support.h"

namespace {

using client::kConnected;
using client::kDisconnected;
using client::kRejected;
using client::Models;
using client::Notice;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kConnectProxy[] = "rpc_port_proxy_connect";

class Trap : public fake::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    fake::AllowHeldConnection();
  }

  void Connect() {
    ASSERT_EQ(connection.Connect(), SVCMGR_ERROR_NONE);
    fake::Proxy().FireConnected();
    ASSERT_THAT(Heard(), ElementsAre(kConnected));
  }

  /** The agent replaces itself by a new version. */
  static void ReplaceAgent() {
    events::AnnounceUpdate();
    fake::Proxy().FireDisconnected();
    events::AnnounceLaunch();
    fake::Proxy().FireConnected();
  }

  /** What the connection callback has been told since the last look. */
  std::vector<Notice> Heard() { return std::exchange(connection.notices, {}); }

  static int AskLevel() {
    int level = 0;
    return velmora_svcmgr_get_agent_api_level(&level);
  }

  static bool IsBeingUpdated() {
    bool updating = false;
    EXPECT_EQ(velmora_svcmgr_is_being_updated(&updating), SVCMGR_ERROR_NONE);
    return updating;
  }

  /** Whether connecting, or ending and connecting, starts anything. */
  bool CanStartAgain() {
    const int before = fake::ProxyCount();
    EXPECT_EQ(connection.Connect(), SVCMGR_ERROR_NONE);
    EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
    EXPECT_EQ(connection.Connect(), SVCMGR_ERROR_NONE);
    return fake::ProxyCount() > before;
  }

  client::Connection connection;
  client::Connection other;
};

/* Connecting. */

using Trap1 = Trap;

TEST_F(Trap1, ALossIsEndedByTheAgentsAnnouncementAlone) {
  Connect();
  fake::Proxy().FireDisconnected();
  EXPECT_THAT(Heard(), ElementsAre(kDisconnected));
  EXPECT_FALSE(CanStartAgain());
  EXPECT_GT(events::AnnounceLaunch(), 0);
  fake::Proxy().FireConnected();
  EXPECT_THAT(Heard(), ElementsAre(kConnected));
}

TEST_F(Trap1, ARefusalOfTheFirstAttemptIsEndedByNothing) {
  ASSERT_EQ(connection.Connect(), SVCMGR_ERROR_NONE);
  fake::Proxy().FireRejected();
  EXPECT_THAT(Heard(), ElementsAre(kRejected));
  EXPECT_EQ(events::AnnounceLaunch(), 0) << "nobody listens";
  EXPECT_FALSE(CanStartAgain());
}

TEST_F(Trap1, ALossBeforeTheAgentHadAcceptedIsEndedByNothing) {
  ASSERT_EQ(connection.Connect(), SVCMGR_ERROR_NONE);
  fake::Proxy().FireDisconnected();
  EXPECT_EQ(events::AnnounceLaunch(), 0) << "nobody listens";
  EXPECT_FALSE(CanStartAgain());
}

using Trap2 = Trap;

TEST_F(Trap2, DisconnectingDoesNotEndAnAttempt) {
  ASSERT_EQ(connection.Connect(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
  fake::Proxy().FireConnected();
  EXPECT_THAT(Heard(), ElementsAre(kConnected));
}

TEST_F(Trap2, DisconnectingDoesNotKeepTheLibraryFromReconnecting) {
  Connect();
  events::AnnounceUpdate();
  fake::Proxy().FireDisconnected();
  EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
  events::AnnounceLaunch();
  fake::Proxy().FireConnected();
  EXPECT_EQ(connection.Connect(), SVCMGR_ERROR_ALREADY_CONNECTED);
}

using Trap3 = Trap;

TEST_F(Trap3, ConnectingReplacesTheCallbackWhileAnAttemptIsUnderWay) {
  ASSERT_EQ(connection.Connect(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(other.Connect(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(fake::ProxyCount(), 1);
  fake::Proxy().FireConnected();
  EXPECT_THAT(Heard(), IsEmpty());
  EXPECT_THAT(other.notices, ElementsAre(kConnected));
}

TEST_F(Trap3, ConnectingReplacesTheCallbackAfterALoss) {
  Connect();
  fake::Proxy().FireDisconnected();
  EXPECT_EQ(other.Connect(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(fake::ProxyCount(), 1);
  events::AnnounceLaunch();
  fake::Proxy().FireConnected();
  EXPECT_THAT(Heard(), ElementsAre(kDisconnected));
  EXPECT_THAT(other.notices, ElementsAre(kConnected));
}

TEST_F(Trap3, ConnectingReplacesTheCallbackWhenItFails) {
  Connect();
  EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
  fake::Next(kConnectProxy,
             fake::Fail(fake::kIoError).Entering([] { fake::Proxy().FireRejected(); }));
  EXPECT_EQ(other.Connect(), SVCMGR_ERROR_CONNECTION_FAILED);
  EXPECT_THAT(Heard(), IsEmpty());
  EXPECT_THAT(other.notices, ElementsAre(kRejected));
}

TEST_F(Trap3, TheCallbackStaysWhereItIsRefused) {
  Connect();
  EXPECT_EQ(other.Connect(), SVCMGR_ERROR_ALREADY_CONNECTED);
  EXPECT_EQ(velmora_svcmgr_connect(nullptr, &other), SVCMGR_ERROR_INVALID_PARAMETER);
  fake::RemoveAgent();
  EXPECT_EQ(other.Connect(), SVCMGR_ERROR_NOT_SUPPORTED);
  fake::Proxy().FireDisconnected();
  EXPECT_THAT(Heard(), ElementsAre(kDisconnected));
  EXPECT_THAT(other.notices, IsEmpty());
}

using Trap4 = Trap;

TEST_F(Trap4, AnotherFailureToConnectIsNotReportedAndHasNoWayOut) {
  fake::Next(kConnectProxy, fake::Fail(-111));
  EXPECT_EQ(connection.Connect(), SVCMGR_ERROR_NONE);
  EXPECT_FALSE(CanStartAgain());
  EXPECT_EQ(events::AnnounceLaunch(), 0);
  EXPECT_EQ(fake::CountCalls(kConnectProxy), 1U);
  EXPECT_THAT(Heard(), IsEmpty());
}

TEST_F(Trap4, AnotherFailureToReconnectIsNotReportedAndHasNoWayOut) {
  Connect();
  events::AnnounceUpdate();
  fake::Proxy().FireDisconnected();
  fake::Next(kConnectProxy, fake::Fail(-111));
  events::AnnounceLaunch();
  EXPECT_FALSE(CanStartAgain());
  events::AnnounceLaunch();
  EXPECT_EQ(fake::ProxyCount(), 2);
  EXPECT_THAT(Heard(), IsEmpty());
}

TEST_F(Trap4, AReconnectionThatFailedOtherwiseIsMadeGoodByConnecting) {
  Connect();
  events::AnnounceUpdate();
  fake::Proxy().FireDisconnected();
  fake::Next(kConnectProxy, fake::Fail(fake::kIoError));
  events::AnnounceLaunch();
  EXPECT_EQ(connection.Connect(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(fake::ProxyCount(), 3);
}

using Trap5 = Trap;

TEST_F(Trap5, AConnectionIsReportedThoughConnectingFails) {
  fake::Next(kConnectProxy,
             fake::Fail(fake::kIoError).Entering([] { fake::Proxy().FireConnected(); }));
  EXPECT_EQ(connection.Connect(), SVCMGR_ERROR_CONNECTION_FAILED);
  EXPECT_THAT(Heard(), ElementsAre(kConnected));
  EXPECT_EQ(AskLevel(), SVCMGR_ERROR_INVALID_API_LEVEL);
  EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
  Connect();
}

using Trap6 = Trap;

TEST_F(Trap6, WithoutTheSubscriptionAnUpdateOfTheAgentIsALossWithoutAWayOut) {
  fake::Next(events::kAdd, fake::Fail(fake::kPermissionDenied));
  Connect();
  EXPECT_EQ(events::AnnounceUpdate(), 0);
  fake::Proxy().FireDisconnected();
  EXPECT_THAT(Heard(), ElementsAre(kDisconnected));
  EXPECT_EQ(events::AnnounceLaunch(), 0);
  EXPECT_FALSE(CanStartAgain());
}

TEST_F(Trap6, TheNextConnectionThatStandsTriesAgain) {
  fake::Next(events::kAdd, fake::Fail(fake::kPermissionDenied));
  Connect();
  EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
  Connect();
  ReplaceAgent();
  EXPECT_THAT(Heard(), IsEmpty());
  EXPECT_EQ(fake::ProxyCount(), 3);
}

/* The agent replaces itself. */

using Trap7 = Trap;

TEST_F(Trap7, NeitherTheLossNorTheReturnIsReported) {
  Connect();
  ReplaceAgent();
  EXPECT_THAT(Heard(), IsEmpty());
}

TEST_F(Trap7, AReconnectionThatCannotBeStartedIsNotReported) {
  Connect();
  events::AnnounceUpdate();
  fake::Proxy().FireDisconnected();
  fake::Next(kConnectProxy, fake::Fail(fake::kIoError));
  events::AnnounceLaunch();
  EXPECT_THAT(Heard(), IsEmpty());
}

TEST_F(Trap7, AReconnectionThatTheAgentRefusesIsReported) {
  Connect();
  events::AnnounceUpdate();
  fake::Proxy().FireDisconnected();
  events::AnnounceLaunch();
  fake::Proxy().FireRejected();
  EXPECT_THAT(Heard(), ElementsAre(kRejected));
}

TEST_F(Trap7, WhatNeedsAConnectionHasNoneBetweenLossAndReturn) {
  Connect();
  events::AnnounceUpdate();
  fake::Proxy().FireDisconnected();
  EXPECT_EQ(AskLevel(), SVCMGR_ERROR_NOT_CONNECTED);
  EXPECT_EQ(velmora_svcmgr_request_update(), SVCMGR_ERROR_NOT_CONNECTED);
}

using Trap8 = Trap;

TEST_F(Trap8, TheLossIsReportedIfAnUpdateWasAskedFor) {
  Connect();
  events::AnnounceUpdate();
  fake::QueueReply({0});
  EXPECT_EQ(velmora_svcmgr_request_update(), SVCMGR_ERROR_NONE);
  fake::Proxy().FireDisconnected();
  EXPECT_THAT(Heard(), ElementsAre(kDisconnected));
}

TEST_F(Trap8, TheLossIsReportedIfABeginOrAnEndIsHeardByOneThatListens) {
  const std::function<void()> announcements[] = {[] { events::AnnounceStart(); },
                                                 [] { events::AnnounceComplete(); },
                                                 [] { events::AnnounceFailure(1); }};
  for (const auto& announce : announcements) {
    for (const bool listens : {false, true}) {
      events::Statuses statuses;
      if (listens) {
        EXPECT_EQ(statuses.Set(), SVCMGR_ERROR_NONE);
      }
      Connect();
      events::AnnounceUpdate();
      announce();
      fake::Proxy().FireDisconnected();
      if (listens) {
        EXPECT_THAT(Heard(), ElementsAre(kDisconnected));
      } else {
        EXPECT_THAT(Heard(), IsEmpty());
      }
      events::AnnounceLaunch();
      fake::Proxy().FireConnected();
      EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
      EXPECT_EQ(events::Statuses::Unset(), SVCMGR_ERROR_NONE);
      events::Enter(0);
      Heard();
    }
  }
}

using Trap9 = Trap;

TEST_F(Trap9, AnAnnouncementHidesTheLossOfALaterConnection) {
  Connect();
  events::AnnounceUpdate();
  EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
  Connect();
  fake::Proxy().FireDisconnected();
  EXPECT_THAT(Heard(), IsEmpty());
}

using Trap10 = Trap;

TEST_F(Trap10, NoConnectionIsReportedUntilTheEndOfTheUpdateIsHeard) {
  events::Statuses statuses;
  ASSERT_EQ(statuses.Set(), SVCMGR_ERROR_NONE);
  fake::AllowHeld(fake::Kind::kEventHandler, 2);
  Connect();
  ReplaceAgent();
  EXPECT_TRUE(IsBeingUpdated());
  for (const bool is_over : {false, true}) {
    if (is_over) events::AnnounceComplete();
    EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
    EXPECT_EQ(connection.Connect(), SVCMGR_ERROR_NONE);
    fake::Proxy().FireConnected();
    EXPECT_EQ(Heard().empty(), !is_over);
    EXPECT_EQ(IsBeingUpdated(), !is_over);
  }
}

TEST_F(Trap10, ItIsHeardOfOnlyByAProcessThatListens) {
  Connect();
  ReplaceAgent();
  events::AnnounceComplete();
  EXPECT_TRUE(IsBeingUpdated());
}

TEST_F(Trap10, AnotherUpdateEndsTheSilence) {
  Connect();
  ReplaceAgent();
  fake::QueueReply({0});
  EXPECT_EQ(velmora_svcmgr_request_update(), SVCMGR_ERROR_NONE);
  EXPECT_FALSE(IsBeingUpdated());
  EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
  Connect();
}

using Trap11 = Trap;

TEST_F(Trap11, ARequestDeniesTheUpdateThatIsUnderWay) {
  events::Statuses statuses;
  ASSERT_EQ(statuses.Set(), SVCMGR_ERROR_NONE);
  fake::AllowHeld(fake::Kind::kEventHandler, 2);
  Connect();
  for (const auto& announce :
       {+[] { return events::AnnounceStart(); }, +[] { return events::AnnounceUpdate(); }}) {
    announce();
    EXPECT_TRUE(IsBeingUpdated());
    fake::QueueReply({0});
    EXPECT_EQ(velmora_svcmgr_request_update(), SVCMGR_ERROR_NONE);
    EXPECT_FALSE(IsBeingUpdated());
    announce();
    EXPECT_TRUE(IsBeingUpdated());
  }
}

/* Requests. */

using Trap12 = Trap;

TEST_F(Trap12, AModelRequestAfterALossMayBeTakenAndIsNeverAnswered) {
  Connect();
  fake::Proxy().FireDisconnected();
  Models models;
  EXPECT_EQ(models.Request(), SVCMGR_ERROR_NONE);
  EXPECT_THAT(models.answers, IsEmpty());
}

TEST_F(Trap12, AModelRequestFailsWhileConnectingAndIsNotConnectedWithoutAnyConnection) {
  Models models;
  EXPECT_EQ(models.Request(), SVCMGR_ERROR_NOT_CONNECTED) << "none was started";
  fake::Next(kConnectProxy, fake::Fail(fake::kIoError));
  EXPECT_EQ(connection.Connect(), SVCMGR_ERROR_CONNECTION_FAILED);
  EXPECT_EQ(models.Request(), SVCMGR_ERROR_NOT_CONNECTED) << "the attempt failed";
  ASSERT_EQ(connection.Connect(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(models.Request(), SVCMGR_ERROR_INVALID_OPERATION) << "connecting";
  fake::Proxy().FireConnected();
  EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(models.Request(), SVCMGR_ERROR_NOT_CONNECTED) << "it was ended";
}

using Trap13 = Trap;

TEST_F(Trap13, AnAnswerMayComeAgainUntilTheConnectionEnds) {
  Connect();
  Models models;
  ASSERT_EQ(models.Request(), SVCMGR_ERROR_NONE);
  for (int i = 0; i < 2; ++i) {
    fake::Proxy().QueueCallbackMessage(fake::Items{1, 1, 0, false} + client::EmptyList(0));
    fake::Proxy().FireReceived();
  }
  EXPECT_EQ(models.answers.size(), 2U);
  fake::Proxy().FireDisconnected();
  fake::Proxy().QueueCallbackMessage(fake::Items{1, 1, 0, false} + client::EmptyList(0));
  fake::Proxy().FireReceived();
  EXPECT_EQ(models.answers.size(), 2U);
}

using Trap14 = Trap;

TEST_F(Trap14, ResultsTwoAndTenAreSuccesses) {
  Connect();
  Models models;
  for (const int result : {2, 10}) {
    models.answers.clear();
    ASSERT_EQ(models.Request(), SVCMGR_ERROR_NONE);
    fake::Proxy().QueueCallbackMessage(fake::Items{1, 1, result == 2 ? 0 : 1, false} +
                                       client::EmptyList(result));
    fake::Proxy().FireReceived();
    EXPECT_THAT(models.answers, ElementsAre(client::Answer{SVCMGR_ERROR_NONE, 0}));
  }
}

using Trap15 = Trap;

TEST_F(Trap15, TheLicenceIsASuccessWithoutAText) {
  Connect();
  char untouched[] = "untouched";
  char* text = untouched;
  fake::QueueReply({""});
  EXPECT_EQ(velmora_svcmgr_get_license_fulltext(&text), SVCMGR_ERROR_NONE);
  EXPECT_EQ(text, untouched);
  fake::Next("rpc_port_parcel_send", fake::Fail(fake::kIoError));
  EXPECT_EQ(velmora_svcmgr_get_license_fulltext(&text), SVCMGR_ERROR_NONE);
  EXPECT_EQ(text, untouched);
}

TEST_F(Trap15, TheLicenceIsNullWhereMemoryIsExhausted) {
  Connect();
  char untouched[] = "untouched";
  char* text = untouched;
  fake::QueueReply({"A licence"});
  const fake::FailingAllocation failing(fake::Allocator::kStrdup);
  EXPECT_EQ(velmora_svcmgr_get_license_fulltext(&text), SVCMGR_ERROR_NONE);
  EXPECT_EQ(text, nullptr);
}

using Trap16 = Trap;

TEST_F(Trap16, EveryFailureOfAnUpdateRequestIsNotConnected) {
  Connect();
  for (const int answer : {1, -38, -28, 5}) {
    fake::QueueReply({answer});
    EXPECT_EQ(velmora_svcmgr_request_update(), SVCMGR_ERROR_NOT_CONNECTED) << answer;
  }
  fake::Next("rpc_port_parcel_send", fake::Fail(fake::kIoError));
  EXPECT_EQ(velmora_svcmgr_request_update(), SVCMGR_ERROR_NOT_CONNECTED);
  for (const int answer : {SVCMGR_ERROR_PERMISSION_DENIED, SVCMGR_ERROR_KYR_DISABLED}) {
    fake::QueueReply({answer});
    EXPECT_EQ(velmora_svcmgr_request_update(), answer);
  }
}

using Trap17 = Trap;

TEST_F(Trap17, ARequestWithAListDoesNotLookAtTheAnswer) {
  Connect();
  velmora_svcmgr_agent_list_h list = nullptr;
  ASSERT_EQ(velmora_svcmgr_agent_list_create(&list), SVCMGR_ERROR_NONE);
  for (const int answer : std::initializer_list<int>{SVCMGR_ERROR_PERMISSION_DENIED,
                                                     SVCMGR_ERROR_KYR_DISABLED, -38, 5}) {
    fake::QueueReply({answer});
    EXPECT_EQ(velmora_svcmgr_request_update_with_list(list), SVCMGR_ERROR_NONE) << answer;
  }
  EXPECT_EQ(velmora_svcmgr_agent_list_destroy(list), SVCMGR_ERROR_NONE);
}

using Trap18 = Trap;

TEST_F(Trap18, AnUpdateRequestedInsideTheNoticeOfAnEndIsForgotten) {
  fake::AllowHeld(fake::Kind::kEventHandler, 2);
  Connect();
  for (const bool starts : {false, true}) {
    events::Statuses statuses;
    ASSERT_EQ(statuses.Set(), SVCMGR_ERROR_NONE);
    fake::QueueReply({0});
    ASSERT_EQ(velmora_svcmgr_request_update(), SVCMGR_ERROR_NONE);
    statuses.inside = [] {
      fake::QueueReply({0});
      EXPECT_EQ(velmora_svcmgr_request_update(), SVCMGR_ERROR_NONE);
    };
    events::AnnounceComplete();
    ASSERT_EQ(statuses.received.size(), 1U);
    if (starts) events::AnnounceStart();
    // That no application of ours was updated counts only while an update is awaited.
    fake::FireEvent(events::kUpdateStatus, fake::BundleBuilder().Int("org.example.app", 0));
    EXPECT_EQ(statuses.received.size(), starts ? 3U : 1U);
    EXPECT_EQ(events::Statuses::Unset(), SVCMGR_ERROR_NONE);
  }
}

using Trap19 = Trap;

TEST_F(Trap19, TheSearchForACategoryEndsAtAPackageThatCannotBeRead) {
  const std::string vendor = VENDOR_PACKAGE_PREFIX;
  const fake::Package camera = {vendor + "camera", "4.5.6", {{"ai-agent-category", "vision"}}};
  fake::Package headless = {vendor + "headless", "1", {}};
  headless.has_application = false;
  const auto ask = [] {
    return velmora_svcmgr_ai_request_usable_model_list_with_category(
        [](int, velmora_svcmgr_ai_model_list_h, void*) {}, "vision", nullptr);
  };
  fake::AllowHeld(fake::Kind::kAppInfo, 10);
  fake::ExpectKept(fake::Kept::kAppInfo, fake::kEachThatLives);
  Connect();
  fake::SetPackages({{fake::kAgentId, "2.3.0", {}}, camera});
  EXPECT_EQ(ask(), SVCMGR_ERROR_NONE);
  fake::SetPackages({{fake::kAgentId, "2.3.0", {}}, headless, camera});
  EXPECT_EQ(ask(), SVCMGR_ERROR_INVALID_PARAMETER);
  fake::SetPackages({{"org.example.first", "1", {}}, camera, {fake::kAgentId, "2.3.0", {}}});
  for (const std::string reading : {"package_info_get_package", "package_info_get_version"}) {
    // The check of the agent's level reads a version before the search does.
    const int before = reading == "package_info_get_version" ? 1 : 0;
    fake::AtCall(reading, before + 1, fake::Fail(fake::kIoError));
    EXPECT_EQ(ask(), SVCMGR_ERROR_INVALID_PARAMETER) << reading;
  }
}

using Trap20DeathTest = Trap;

TEST_F(Trap20DeathTest, WithoutAPathOfItsResourcesAnApplicationIsAborted) {
  fake::SetApplication({});
  fake::Application application;
  application.resource_path.reset();
  fake::SetApplication(application);
  int level = 0;
  EXPECT_EXIT(velmora_svcmgr_get_client_api_level(&level), ::testing::KilledBySignal(SIGABRT),
              "res_path");
}

TEST_F(Trap20DeathTest, WithoutMemoryForThePathAnApplicationIsAborted) {
  fake::Application application;
  application.resource_path = "/no/such/res/";
  fake::SetApplication(application);
  const auto ask = [] {
    int level = 0;
    const fake::FailingAllocation failing(fake::Allocator::kStrndup);
    velmora_svcmgr_get_client_api_level(&level);
  };
  EXPECT_EXIT(ask(), ::testing::KilledBySignal(SIGABRT), "root_path");
}

/* Subscriptions. */

using Trap21 = Trap;

TEST_F(Trap21, ARefusedSubscriptionIsASuccessAndIsTriedAgain) {
  events::Statuses statuses;
  events::ModelStatuses model_statuses;
  for (const auto& set : {std::function<int()>([&] { return statuses.Set(); }),
                          std::function<int()>([&] { return model_statuses.Set(); })}) {
    fake::ClearRecord();
    fake::Next(events::kAdd, fake::Fail(fake::kPermissionDenied));
    EXPECT_EQ(set(), SVCMGR_ERROR_NONE);
    EXPECT_EQ(set(), SVCMGR_ERROR_NONE);
    EXPECT_EQ(fake::CountCalls(events::kAdd), 2U);
  }
  events::AnnounceStart();
  EXPECT_EQ(statuses.received.size(), 1U);
  EXPECT_EQ(events::Statuses::Unset(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(events::ModelStatuses::Unset(), SVCMGR_ERROR_NONE);
}

using Trap22 = Trap;

TEST_F(Trap22, ARefusedEndOfASubscriptionIsAnEndAllTheSame) {
  fake::AllowHeld(fake::Kind::kEventHandler, 2);
  events::Statuses statuses;
  ASSERT_EQ(statuses.Set(), SVCMGR_ERROR_NONE);
  fake::Next(events::kRemove, fake::Fail(fake::kIoError));
  EXPECT_EQ(events::Statuses::Unset(), SVCMGR_ERROR_NONE);
  events::AnnounceStart();
  EXPECT_THAT(statuses.received, IsEmpty());
  events::ModelStatuses model_statuses;
  ASSERT_EQ(model_statuses.Set(), SVCMGR_ERROR_NONE);
  fake::Next(events::kRemove, fake::Fail(fake::kIoError));
  EXPECT_EQ(events::ModelStatuses::Unset(), SVCMGR_ERROR_INVALID_OPERATION);
  events::Announce(events::kModelStatus, {"START"});
  EXPECT_THAT(model_statuses.received, IsEmpty());
  EXPECT_EQ(events::ModelStatuses::Unset(), SVCMGR_ERROR_NONE) << "nothing is left to end";
}

/* Handles and memory. A negative index, trap 23, has no outcome that could be tested. */

using Trap24 = Trap;

TEST_F(Trap24, DestroyingAListMayStopMidwayAndBeRepeated) {
  fake::ExpectKept(fake::Kept::kStorage, 1);
  if (fake::SeesOperatorNew()) fake::ExpectKept(1);
  Connect();
  const models::List list = models::NewList();
  for (const char* id : {"first", "second", "third"}) {
    models::Add(list, {id, "1", "title", "description"});
  }
  // The list's own look at the agent's package, the first model's, and then the second's.
  fake::AtCall("package_info_create", 3, fake::Fail(fake::kNoSuchPackage));
  EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(list), SVCMGR_ERROR_NOT_SUPPORTED);
  EXPECT_EQ(models::Size(list), 3);
  EXPECT_EQ(models::At(list, 1).id, "second");
  velmora_svcmgr_ai_model_info_h first = nullptr;
  EXPECT_EQ(velmora_svcmgr_ai_model_list_get(list, 0, &first), SVCMGR_ERROR_INVALID_OPERATION);
  EXPECT_EQ(velmora_svcmgr_ai_request_to_uninstall(
                list, [](int, velmora_svcmgr_ai_progress_h, void*) {}, nullptr),
            SVCMGR_ERROR_INVALID_OPERATION);
  EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(list), SVCMGR_ERROR_NONE);
}

using Trap25 = Trap;

TEST_F(Trap25, TheArrayOfAListThatEverHeldAnythingStays) {
  fake::ExpectKept(fake::Kept::kStorage, 2);
  if (fake::SeesOperatorNew()) fake::ExpectKept(2);
  const fake::NewTracking tracking;
  const models::List list = models::NewList();
  models::Add(list, {"id", "1", "title", "description"});
  EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(list), SVCMGR_ERROR_NONE);
  EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(models::NewList()), SVCMGR_ERROR_NONE);
  velmora_svcmgr_agent_list_h agents = nullptr;
  ASSERT_EQ(velmora_svcmgr_agent_list_create(&agents), SVCMGR_ERROR_NONE);
  EXPECT_EQ(velmora_svcmgr_agent_list_add(agents, "agent"), SVCMGR_ERROR_NONE);
  EXPECT_EQ(velmora_svcmgr_agent_list_destroy(agents), SVCMGR_ERROR_NONE);
}

TEST_F(Trap25, TheFormerTextOfAModelStays) {
  fake::ExpectKept(fake::Kept::kFormerText, 1);
  fake::ExpectKeptText("title");
  const models::Info info = models::NewInfo({"id", "1", "title", "description"});
  EXPECT_EQ(velmora_svcmgr_ai_model_info_set_title(info, "another"), SVCMGR_ERROR_NONE);
  EXPECT_EQ(velmora_svcmgr_ai_model_info_destroy(info), SVCMGR_ERROR_NONE);
}

TEST_F(Trap25, ACopyOfEachModelOfAnAnswerStays) {
  fake::ExpectKept(fake::Kept::kRecord, 2);
  fake::ExpectKept(2 * 5);  // each with its four texts
  fake::ExpectKept(fake::Kept::kStorage, 1);
  Connect();
  Models models;
  ASSERT_EQ(models.Request(), SVCMGR_ERROR_NONE);
  fake::Items answer = {1, 1, 0, false, 0, fake::Count(2)};
  for (const char* id : {"first", "second"}) {
    answer = answer + fake::Items{id, "1", "title", "description"};
  }
  fake::Proxy().QueueCallbackMessage(answer + fake::Items{2});
  fake::Proxy().FireReceived();
  EXPECT_THAT(models.answers, ElementsAre(client::Answer{SVCMGR_ERROR_NONE, 2}));
}

TEST_F(Trap25, ARecordOfEachApplicationThatASearchLooksAtStays) {
  const std::string vendor = VENDOR_PACKAGE_PREFIX;
  constexpr int kVendors = 3;  // the agent's own is one of them
  fake::AllowHeld(fake::Kind::kAppInfo, kVendors);
  fake::ExpectKept(fake::Kept::kAppInfo, kVendors);
  Connect();
  fake::SetPackages(
      {{vendor + "a", "1", {}}, {vendor + "b", "1", {}}, {fake::kAgentId, "2.3.0", {}}});
  EXPECT_EQ(velmora_svcmgr_ai_request_usable_model_list_with_category(
                [](int, velmora_svcmgr_ai_model_list_h, void*) {}, "vision", nullptr),
            SVCMGR_ERROR_INVALID_PARAMETER);
}

}  // namespace
