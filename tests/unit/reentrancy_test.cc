// SPDX-License-Identifier: Apache-2.0
// What an application may do inside its callbacks, and a platform inside its calls.

#include <SvcMgrAppProxyHandler.h>
#include <agent_update_state.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "client.h"
#include "event_support.h"
#include "model_support.h"

namespace {

using client::Answer;
using client::Connection;
using client::EmptyList;
using client::kConnected;
using client::kDisconnected;
using client::kRejected;
using client::Models;
using testing::ElementsAre;
using testing::IsEmpty;

/* Every action inside every callback. */

/** The world of one test: a connection that stands and a request whose answer is awaited. */
struct World {
  Connection connection;
  Connection second;  // for connections made inside a callback
  Models models;      // awaits delegate 1, sequence number 0
  Models more;        // for requests made inside a callback
};

struct Action {
  const char* name;
  std::function<void(World&)> run;
};

struct Event {
  const char* name;
  std::function<void(World&, std::function<void()>)> fire;  // fires, and acts inside the callback
};

void PrintTo(const Action& action, std::ostream* out) { *out << action.name; }
void PrintTo(const Event& event, std::ostream* out) { *out << event.name; }

void Disconnect(World&) { EXPECT_EQ(velmora_svcmgr_disconnect(), 0); }

void Replace(World& world) {
  Disconnect(world);
  EXPECT_EQ(world.second.Connect(), 0);
}

void ReplaceAndComplete(World& world) {
  Replace(world);
  fake::Proxy().FireConnected();
}

const std::vector<Action> kActions = {
    {"Disconnects", Disconnect},
    {"ConnectsAgain", Replace},
    {"ConnectsAgainAndIsConnected", ReplaceAndComplete},
    {"ConnectsOver",
     [](World& world) { EXPECT_THAT(world.second.Connect(), testing::AnyOf(0, -106)); }},
    {"SendsMore", [](World& world) { world.more.Request(); }},
    {"AsksAndWaits",
     [](World&) {
       int level = 0;
       fake::QueueReply({11});
       velmora_svcmgr_get_agent_api_level(&level);
     }},
    {"IsDropped", [](World&) { fake::Proxy().FireDisconnected(); }},
    {"IsRejected", [](World&) { fake::Proxy().FireRejected(); }},
    {"ReceivesAnotherMessage", [](World&) { fake::DeliverDelegateMessage(1, 0, EmptyList(0)); }},
};

const std::vector<Event> kEvents = {
    {"Connected",
     [](World& world, std::function<void()> act) {
       world.connection.inside = std::move(act);
       fake::Proxy().FireConnected();  // once more, as a platform might
     }},
    {"Disconnected",
     [](World& world, std::function<void()> act) {
       world.connection.inside = std::move(act);
       fake::Proxy().FireDisconnected();
     }},
    {"Rejected",
     [](World& world, std::function<void()> act) {
       world.connection.inside = std::move(act);
       fake::Proxy().FireRejected();
     }},
    {"Answered",
     [](World& world, std::function<void()> act) {
       world.models.inside = std::move(act);
       fake::DeliverDelegateMessage(1, 0, EmptyList(0));
     }},
    {"InsideASend",
     [](World& world, std::function<void()> act) {
       fake::Next("rpc_port_parcel_send", fake::Hook(std::move(act)));
       world.more.Request();
     }},
    {"InsideASendThatFails",
     [](World& world, std::function<void()> act) {
       fake::Next("rpc_port_parcel_send", fake::FailAfterWork(-5).Leaving(std::move(act)));
       world.more.Request();
     }},
    {"InsideASendThatIsAnswered",
     [](World&, std::function<void()> act) {
       fake::Next("rpc_port_parcel_send", fake::Hook(std::move(act)));
       fake::QueueReply({7});
       int level = 0;
       velmora_svcmgr_get_agent_api_level(&level);
     }},
    {"InsideAReceive",
     [](World&, std::function<void()> act) {
       fake::QueueReply({7});
       fake::Next("rpc_port_parcel_create_from_port", fake::Hook(std::move(act)));
       int level = 0;
       velmora_svcmgr_get_agent_api_level(&level);
     }},
    {"WhileARequestIsBuilt",
     [](World& world, std::function<void()> act) {
       fake::Next("rpc_port_parcel_write_string", fake::Hook(std::move(act)));
       world.more.Request();
     }},
    {"WhileAQueryIsBuilt",
     [](World&, std::function<void()> act) {
       fake::Next("rpc_port_parcel_write_int32", fake::Hook(std::move(act)));
       fake::QueueReply({7});
       int level = 0;
       velmora_svcmgr_get_agent_api_level(&level);
     }},
    {"WhileTheIdentityIsRead",
     [](World& world, std::function<void()> act) {
       fake::Next("app_get_version", fake::Hook(std::move(act)));
       world.more.Request();
     }},
    {"InsideTheAvailabilityCheck",
     [](World&, std::function<void()> act) {
       fake::Next("package_info_create", fake::Hook(std::move(act)));
       fake::QueueReply({7});
       int level = 0;
       velmora_svcmgr_get_agent_api_level(&level);
     }},
    {"WhileAMessageIsRead",
     [](World&, std::function<void()> act) {
       fake::Next("rpc_port_parcel_read_array_count", fake::Hook(std::move(act)));
       fake::DeliverDelegateMessage(1, 0, EmptyList(0));
     }},
    {"WhileAMessageIsReceived",
     [](World&, std::function<void()> act) {
       fake::Next("rpc_port_parcel_create_from_port", fake::Hook(std::move(act)));
       fake::DeliverDelegateMessage(1, 0, EmptyList(0));
     }},
    {"WhileTheCallbackPortIsFetched",
     [](World&, std::function<void()> act) {
       fake::Next("rpc_port_proxy_get_port", fake::Hook(std::move(act)));
       fake::Proxy().FireConnected();
     }},
    {"WhileTheProxyIsDestroyed",
     [](World&, std::function<void()> act) {
       fake::Next("rpc_port_proxy_destroy", fake::Succeed().Entering(std::move(act)));
       velmora_svcmgr_disconnect();
     }},
    {"InsideAConnect",
     [](World& world, std::function<void()> act) {
       EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
       fake::Next("rpc_port_proxy_connect", fake::Succeed().Entering([&world, act] {
         world.connection.inside = act;
         fake::Proxy().FireConnected();
       }));
       world.connection.Connect();
     }},
    {"InsideAConnectThatFails",
     [](World& world, std::function<void()> act) {
       EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
       fake::Next("rpc_port_proxy_connect", fake::Fail(-5).Entering([&world, act] {
         world.connection.inside = act;
         fake::Proxy().FireConnected();
       }));
       world.connection.Connect();
     }},
};

class AnAction : public client::ConnectedTest,
                 public testing::WithParamInterface<std::tuple<Event, Action>> {};

// Whatever is done wherever: nothing crashes, leaks or is used after its end, which the fake and the
// sanitizers watch, and a fresh connection works afterwards.
TEST_P(AnAction, IsSurvivedInsideAnyCallback) {
  World world;
  if (velmora_svcmgr_disconnect() != 0 || world.connection.Connect() != 0) FAIL();
  fake::Proxy().FireConnected();
  ASSERT_EQ(world.models.Request(), 0);
  fake::AllowHeldConnection();

  const auto& [event, action] = GetParam();
  bool acted = false;
  event.fire(world, [&, run = action.run] {
    acted = true;
    run(world);
  });
  EXPECT_TRUE(acted);

  world.connection.inside = nullptr;
  if (fake::LiveObjects(fake::Kind::kProxy) == 0) {
    velmora_svcmgr_disconnect();  // the flag may have stayed set
    ASSERT_EQ(world.connection.Connect(), 0);
  }
  fake::Proxy().FireConnected();
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 1);
  fake::ForgetMessages();
  fake::QueueReply({11});
  int level = 0;
  EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), 0);
  EXPECT_EQ(level, 11);
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 0);
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
}

INSTANTIATE_TEST_SUITE_P(Each, AnAction,
                         testing::Combine(testing::ValuesIn(kEvents), testing::ValuesIn(kActions)),
                         [](const auto& row) {
                           return std::string(std::get<0>(row.param).name) +
                                  std::get<1>(row.param).name;
                         });

/* What is done inside the platform's calls for events. */

class ASubscription : public fake::PlatformTest {
 protected:
  static void Inside(const char* function, std::function<void()> act) {
    fake::Next(function, fake::Succeed().Entering(std::move(act)));
  }
};

TEST_F(ASubscription, OfAConnectionThatIsEndedInsideItEndsToo) {
  Connection connection;
  ASSERT_EQ(connection.Connect(), 0);
  Inside(events::kAdd, [] { EXPECT_EQ(velmora_svcmgr_disconnect(), 0); });
  fake::Proxy().FireConnected();
  EXPECT_THAT(connection.notices, IsEmpty());
  EXPECT_THAT(fake::Subscriptions(), IsEmpty());
}

TEST_F(ASubscription, OfAConnectionThatIsReplacedInsideItIsThatOfTheOther) {
  Connection first;
  Connection second;
  ASSERT_EQ(first.Connect(), 0);
  Inside(events::kAdd, [&] {
    EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
    EXPECT_EQ(second.Connect(), 0);
    fake::Proxy().FireConnected();
  });
  fake::Proxy().FireConnected();
  EXPECT_THAT(first.notices, IsEmpty());
  EXPECT_THAT(second.notices, ElementsAre(kConnected));
  EXPECT_THAT(fake::Subscriptions(), ElementsAre(events::kAgentStatus));
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
}

TEST_F(ASubscription, StaysWithAConnectionThatIsMadeInsideTheEndOfTheOneBefore) {
  Connection first;
  Connection second;
  ASSERT_EQ(first.Connect(), 0);
  fake::Proxy().FireConnected();
  Inside("rpc_port_proxy_destroy", [&] {
    EXPECT_EQ(second.Connect(), 0);
    fake::Proxy().FireConnected();
  });
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
  EXPECT_THAT(second.notices, ElementsAre(kConnected));
  EXPECT_THAT(fake::Subscriptions(), ElementsAre(events::kAgentStatus));
  EXPECT_EQ(events::AnnounceUpdate(), 1);
  fake::Proxy().FireDisconnected();
  EXPECT_THAT(second.notices, ElementsAre(kConnected));
  EXPECT_EQ(events::AnnounceLaunch(), 1);
  fake::Proxy().FireConnected();
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
}

TEST_F(ASubscription, ToUpdateStatusesIsMadeOnceThoughSetInsideItself) {
  events::Statuses first;
  events::Statuses second;
  Inside(events::kAdd, [&] { EXPECT_EQ(second.Set(), 0); });
  EXPECT_EQ(first.Set(), 0);
  EXPECT_THAT(fake::Subscriptions(), ElementsAre(events::kUpdateStatus));
  EXPECT_EQ(events::AnnounceStart(), 1);
  EXPECT_THAT(first.received, IsEmpty());
  EXPECT_THAT(second.received, ElementsAre(SVCMGR_UPDATE_STATUS_STARTED));
  EXPECT_EQ(velmora_svcmgr_unset_update_status_cb(), 0);
  EXPECT_THAT(fake::Subscriptions(), IsEmpty());
}

TEST_F(ASubscription, ToUpdateStatusesThatIsUnsetInsideItselfEnds) {
  events::Statuses statuses;
  Inside(events::kAdd, [] { EXPECT_EQ(velmora_svcmgr_unset_update_status_cb(), 0); });
  EXPECT_EQ(statuses.Set(), 0);
  EXPECT_THAT(fake::Subscriptions(), IsEmpty());
}

TEST_F(ASubscription, ToUpdateStatusesMayBeMadeInsideItsOwnEnd) {
  events::Statuses first;
  events::Statuses second;
  EXPECT_EQ(first.Set(), 0);
  Inside(events::kRemove, [&] { EXPECT_EQ(second.Set(), 0); });
  EXPECT_EQ(velmora_svcmgr_unset_update_status_cb(), 0);
  EXPECT_THAT(fake::Subscriptions(), ElementsAre(events::kUpdateStatus));
  EXPECT_EQ(events::AnnounceStart(), 1);
  EXPECT_THAT(second.received, ElementsAre(SVCMGR_UPDATE_STATUS_STARTED));
  EXPECT_EQ(velmora_svcmgr_unset_update_status_cb(), 0);
}

TEST_F(ASubscription, ToModelStatusesIsMadeOnceThoughSetInsideItself) {
  events::ModelStatuses first;
  events::ModelStatuses second;
  Inside(events::kAdd, [&] { EXPECT_EQ(second.Set(), 0); });
  EXPECT_EQ(first.Set(), 0);
  EXPECT_EQ(events::Announce(events::kModelStatus, {"START"}), 1);
  EXPECT_THAT(first.received, IsEmpty());
  EXPECT_THAT(second.received, ElementsAre(events::ModelNotice{0, SVCMGR_AI_STATUS_STARTED}));
  EXPECT_EQ(velmora_svcmgr_ai_deregister_status_cb(), 0);
  EXPECT_THAT(fake::Subscriptions(), IsEmpty());
}

TEST_F(ASubscription, ToModelStatusesThatIsEndedInsideItselfEnds) {
  events::ModelStatuses statuses;
  Inside(events::kAdd, [] { EXPECT_EQ(velmora_svcmgr_ai_deregister_status_cb(), 0); });
  EXPECT_EQ(statuses.Set(), 0);
  EXPECT_THAT(fake::Subscriptions(), IsEmpty());
}

/** Who subscribes, and how an application takes that back. */
struct Taking {
  const char* file;
  const char* function;
  std::function<void()> subscribe;
  std::function<int()> take_back;
};

TEST_F(ASubscription, ThatCannotBeEndedInsideItselfIsRecordedAsNotEnded) {
  Connection connection;
  events::Statuses statuses;
  events::ModelStatuses model_statuses;
  ASSERT_EQ(connection.Connect(), 0);
  const Taking kinds[] = {
      {"AgentStatusEventHandler.cc", "KeepConnection", [] { fake::Proxy().FireConnected(); },
       velmora_svcmgr_disconnect},
      {"UpdateStatusEventHandler.cc", "SetEventCallback", [&] { EXPECT_EQ(statuses.Set(), 0); },
       velmora_svcmgr_unset_update_status_cb},
      {"ModelUpdateEventHandler.cc", "SetEventCallback",
       [&] { EXPECT_EQ(model_statuses.Set(), 0); }, velmora_svcmgr_ai_deregister_status_cb},
  };
  for (const Taking& kind : kinds) {
    Inside(events::kAdd, [&] { EXPECT_EQ(kind.take_back(), 0); });
    fake::Next(events::kRemove, fake::Fail(-5));
    fake::ClearRecord();
    kind.subscribe();
    std::vector<fake::LogRecord> errors = fake::Logs();
    errors.erase(std::remove_if(errors.begin(), errors.end(),
                                [](const auto& record) { return record.priority != DLOG_ERROR; }),
                 errors.end());
    EXPECT_THAT(errors,
                ElementsAre(fake::IsError("VorlaEventHandler.h", "DeregisterEvent", "err: [-5]"),
                            fake::IsError(kind.file, kind.function, "Failed to deregister event")));
  }
  fake::AllowHeld(fake::Kind::kEventHandler, 3);
}

/* What is observed. */

class ACallback : public client::ConnectedTest {
 protected:
  Models models;
};

TEST_F(ACallback, ThatDisconnectsIsTheLastOfItsConnection) {
  Models others;
  ASSERT_EQ(models.Request(), 0);
  ASSERT_EQ(others.Request(), 0);
  models.inside = [] { EXPECT_EQ(velmora_svcmgr_disconnect(), 0); };
  fake::DeliverDelegateMessage(1, 0, EmptyList(0));
  EXPECT_THAT(models.answers, ElementsAre(Answer{0, 0}));
  EXPECT_THAT(others.answers, IsEmpty());
  EXPECT_THAT(connection.notices, IsEmpty());
  EXPECT_FALSE(fake::Proxy().Alive());
}

TEST_F(ACallback, ThatDisconnectsDestroysTheProxyAtOnce) {
  ASSERT_EQ(models.Request(), 0);
  bool alive = true;
  models.inside = [&] {
    EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
    alive = fake::Proxy().Alive();
  };
  fake::DeliverDelegateMessage(1, 0, EmptyList(0));
  EXPECT_FALSE(alive);
}

TEST_F(ACallback, ThatConnectsAgainGetsTheNewConnectionsNotices) {
  Connection second;
  ASSERT_EQ(models.Request(), 0);
  models.inside = [&] {
    EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
    EXPECT_EQ(second.Connect(), 0);
    fake::Proxy().FireConnected();
  };
  fake::DeliverDelegateMessage(1, 0, EmptyList(0));
  EXPECT_THAT(second.notices, ElementsAre(kConnected));
  EXPECT_EQ(fake::ProxyCount(), 2);
  fake::Proxy().FireDisconnected();
  EXPECT_THAT(second.notices, ElementsAre(kConnected, kDisconnected));
}

TEST_F(ACallback, ThatSendsMoreGetsItsAnswer) {
  Models more;
  ASSERT_EQ(models.Request(), 0);
  models.inside = [&] { EXPECT_EQ(more.Request(), 0); };
  fake::DeliverDelegateMessage(1, 0, EmptyList(0));
  fake::DeliverDelegateMessage(1, 1, EmptyList(9));
  EXPECT_THAT(more.answers, ElementsAre(Answer{-13, 0}));
}

TEST_F(ACallback, MaySendAThousandRequests) {
  std::vector<std::unique_ptr<Models>> more;
  ASSERT_EQ(models.Request(), 0);
  models.inside = [&] {
    for (int i = 0; i < 1000; ++i) {
      more.push_back(std::make_unique<Models>());
      EXPECT_EQ(more.back()->Request(), 0);
    }
  };
  fake::DeliverDelegateMessage(1, 0, EmptyList(0));
  fake::DeliverDelegateMessage(1, 1000, EmptyList(0));
  EXPECT_THAT(more.back()->answers, ElementsAre(Answer{0, 0}));
}

TEST_F(ACallback, MayAskAndWait) {
  int level = 0;
  ASSERT_EQ(models.Request(), 0);
  models.inside = [&] {
    fake::QueueReply({11});
    EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), 0);
  };
  fake::DeliverDelegateMessage(1, 0, EmptyList(0));
  EXPECT_EQ(level, 11);
}

TEST_F(ACallback, MayRunInsideAnother) {
  Models others;
  ASSERT_EQ(models.Request(), 0);
  ASSERT_EQ(others.Request(), 0);
  models.inside = [] { fake::DeliverDelegateMessage(1, 1, EmptyList(0)); };
  fake::DeliverDelegateMessage(1, 0, EmptyList(0));
  EXPECT_THAT(models.answers, ElementsAre(Answer{0, 0}));
  EXPECT_THAT(others.answers, ElementsAre(Answer{0, 0}));
}

TEST_F(ACallback, MayRunInsideItself) {
  ASSERT_EQ(models.Request(), 0);
  models.inside = [] { fake::DeliverDelegateMessage(1, 0, EmptyList(8)); };
  fake::DeliverDelegateMessage(1, 0, EmptyList(0));
  EXPECT_THAT(models.answers, ElementsAre(Answer{0, 0}, Answer{client::kKyrDisabled, 0}));
}

TEST_F(ACallback, IsNotCalledAfterALossInsideAnother) {
  Models others;
  ASSERT_EQ(models.Request(), 0);
  ASSERT_EQ(others.Request(), 0);
  models.inside = [] { fake::Proxy().FireDisconnected(); };
  fake::DeliverDelegateMessage(1, 0, EmptyList(0));
  fake::DeliverDelegateMessage(1, 1, EmptyList(0));
  EXPECT_THAT(others.answers, IsEmpty());
  EXPECT_THAT(connection.notices, ElementsAre(kDisconnected));
}

TEST_F(ACallback, OfALossMayFindTheConnectionUnusable) {
  int code = 0;
  connection.inside = [&] {
    int level = 0;
    code = velmora_svcmgr_get_agent_api_level(&level);
  };
  fake::Proxy().FireDisconnected();
  EXPECT_EQ(code, -107);
}

TEST_F(ACallback, OfTheConnectionMayBeReplacedInsideItself) {
  Connection second;
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
  EXPECT_EQ(connection.Connect(), 0);
  connection.inside = [&] { fake::Proxy().FireDisconnected(); };
  fake::Proxy().FireConnected();
  EXPECT_THAT(connection.notices, ElementsAre(kConnected, kDisconnected));
  EXPECT_EQ(second.Connect(), 0);  // dropped: replaces the callback, starts nothing
  fake::Proxy().FireRejected();
  EXPECT_THAT(second.notices, ElementsAre(kRejected));
}

TEST_F(ACallback, MayDisconnectInsideTheSendOfItsOwnRequest) {
  fake::Next("rpc_port_parcel_send", fake::Hook([] { EXPECT_EQ(velmora_svcmgr_disconnect(), 0); }));
  models.Request();
  EXPECT_FALSE(fake::Proxy().Alive());
  EXPECT_THAT(models.answers, IsEmpty());
}

TEST_F(ACallback, ThatDisconnectsInsideAWaitEndsTheWait) {
  fake::QueueStray(5);
  fake::Next("rpc_port_parcel_create_from_port",
             fake::Hook([] { EXPECT_EQ(velmora_svcmgr_disconnect(), 0); }));
  int level = 5;
  EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), client::kInvalidApiLevel);
  EXPECT_EQ(level, 5);
}

/* Sequence numbers of the client layer. */

TEST_F(ACallback, IsFoundByASequenceNumberThatCountsOnAcrossConnections) {
  Models second;
  ASSERT_EQ(models.Request(), 0);
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
  EXPECT_EQ(connection.Connect(), 0);
  fake::Proxy().FireConnected();
  ASSERT_EQ(second.Request(), 0);
  EXPECT_EQ(fake::SentParcels().at(0).items.at(2), fake::Item(0));
  EXPECT_EQ(fake::SentParcels().at(1).items.at(2), fake::Item(1));
  fake::DeliverDelegateMessage(1, 0, EmptyList(0));
  fake::DeliverDelegateMessage(1, 1, EmptyList(0));
  EXPECT_THAT(models.answers, IsEmpty());
  EXPECT_THAT(second.answers, ElementsAre(Answer{0, 0}));
}

TEST_F(ACallback, UsesItsSequenceNumberUpWhenTheSendFails) {
  fake::Next("rpc_port_parcel_send", fake::Fail(-5));
  EXPECT_EQ(models.Request(), -38);
  EXPECT_EQ(models.Request(), 0);
  EXPECT_EQ(fake::SentParcels().at(0).items.at(2), fake::Item(1));
}

TEST_F(ACallback, TakesNoSequenceNumberWhenTheIdentityIsUnknown) {
  fake::Next("app_get_id", fake::Fail(-5));
  EXPECT_EQ(models.Request(), -38);
  fake::Next("app_get_version", fake::Fail(-5));
  EXPECT_EQ(models.Request(), -38);
  EXPECT_EQ(models.Request(), 0);
  EXPECT_EQ(fake::SentParcels().at(0).items.at(2), fake::Item(0));
}

/* Every exported function inside every kind of callback. */

/** Receives progress; passed as user data. */
struct Progress {
  int calls = 0;
  std::function<void()> inside;  // runs inside the next callback, once

  static void Callback(int, velmora_svcmgr_ai_progress_h progress, void* user_data) {
    auto* const self = static_cast<Progress*>(user_data);
    ++self->calls;
    EXPECT_EQ(velmora_svcmgr_ai_progress_destroy(progress), 0);
    std::function<void()> action;
    action.swap(self->inside);
    if (action) action();
  }
};

/** A connection, a request of each kind whose answer is awaited, and one handle of each kind. */
class Stage {
 public:
  Stage() {
    EXPECT_EQ(connection.Connect(), 0);
    fake::Proxy().FireConnected();
    EXPECT_EQ(statuses.Set(), 0);
    EXPECT_EQ(model_statuses.Set(), 0);
    info = models::NewInfo({"id", "1", "title", "description"});
    list = models::NewList();
    EXPECT_EQ(velmora_svcmgr_agent_list_create(&agents), 0);
    EXPECT_EQ(velmora_svcmgr_ai_progress_create(&progress), 0);

    EXPECT_EQ(usable.Request(), 0);
    usable_seq = LastSeq();
    EXPECT_EQ(velmora_svcmgr_ai_request_model_version_list(info, Models::Callback, &versions), 0);
    versions_seq = LastSeq();
    EXPECT_EQ(velmora_svcmgr_ai_request_to_update(list, Progress::Callback, &updates), 0);
    updates_seq = LastSeq();
    connection.notices.clear();
  }

  ~Stage() {
    connection.inside = nullptr;
    SvcMgrAppProxyHandler::GetInstance().Disconnect();
    EXPECT_EQ(velmora_svcmgr_unset_update_status_cb(), 0);
    EXPECT_EQ(velmora_svcmgr_ai_deregister_status_cb(), 0);
    EXPECT_EQ(velmora_svcmgr_ai_model_info_destroy(info), 0);
    EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(list), 0);
    EXPECT_EQ(velmora_svcmgr_agent_list_destroy(agents), 0);
    EXPECT_EQ(velmora_svcmgr_ai_progress_destroy(progress), 0);
    svcmgr::agent_update_state.End();
    fake::ForgetMessages();
  }

  Stage(const Stage&) = delete;
  Stage& operator=(const Stage&) = delete;

  /** How many callbacks of the first connection have run. */
  std::size_t Callbacks() const {
    return connection.notices.size() + usable.answers.size() + versions.answers.size() +
           static_cast<std::size_t>(updates.calls);
  }

  Connection connection;
  Connection second;
  Models usable;
  Models versions;
  Models more;
  Progress updates;
  Progress more_updates;
  events::Statuses statuses;
  events::ModelStatuses model_statuses;
  int usable_seq = 0;
  int versions_seq = 0;
  int updates_seq = 0;
  velmora_svcmgr_ai_model_info_h info = nullptr;
  velmora_svcmgr_ai_model_list_h list = nullptr;
  velmora_svcmgr_agent_list_h agents = nullptr;
  velmora_svcmgr_ai_progress_h progress = nullptr;

 private:
  static int LastSeq() { return fake::SentParcels().back().items.at(2).number; }
};

struct Occasion {
  const char* name;
  bool lost;  // whether the callback finds the connection lost
  void (*fire)(Stage&, std::function<void()> act);
};

constexpr Occasion kOccasions[] = {
    {"connected", false,
     [](Stage& stage, std::function<void()> act) {
       stage.connection.inside = std::move(act);
       fake::Proxy().FireConnected();  // once more, as a platform might
     }},
    {"disconnected", true,
     [](Stage& stage, std::function<void()> act) {
       stage.connection.inside = std::move(act);
       fake::Proxy().FireDisconnected();
     }},
    {"rejected", true,
     [](Stage& stage, std::function<void()> act) {
       stage.connection.inside = std::move(act);
       fake::Proxy().FireRejected();
     }},
    {"model list", false,
     [](Stage& stage, std::function<void()> act) {
       stage.usable.inside = std::move(act);
       fake::DeliverDelegateMessage(1, stage.usable_seq, EmptyList(0));
     }},
    {"version list", false,
     [](Stage& stage, std::function<void()> act) {
       stage.versions.inside = std::move(act);
       fake::DeliverDelegateMessage(3, stage.versions_seq, EmptyList(0));
     }},
    {"progress", false,
     [](Stage& stage, std::function<void()> act) {
       stage.updates.inside = std::move(act);
       fake::DeliverDelegateMessage(4, stage.updates_seq, {0, 1, 0, 1, 50});
     }},
    {"update status", false,
     [](Stage& stage, std::function<void()> act) {
       stage.statuses.inside = std::move(act);
       events::AnnounceStart();
     }},
    {"model status", false,
     [](Stage& stage, std::function<void()> act) {
       stage.model_statuses.inside = std::move(act);
       events::Announce(events::kModelStatus, {"START"});
     }},
};

struct Function {
  const char* name;  // without its prefix
  int result;        // on a connection that stands
  int lost_result;   // on one that is lost
  int (*call)(Stage&);
};

void PrintTo(const Function& function, std::ostream* out) { *out << function.name; }

constexpr int kOutOfIndex = -1073741830;

int Release(int result, char* text) {
  std::free(text);
  return result;
}

template <int (*get)(velmora_svcmgr_ai_model_info_h, char**)>
int GetText(Stage& stage) {
  char* text = nullptr;
  const int result = get(stage.info, &text);
  return Release(result, text);
}

template <int (*set)(velmora_svcmgr_ai_model_info_h, const char*)>
int SetText(Stage&) {
  velmora_svcmgr_ai_model_info_h info = nullptr;
  EXPECT_EQ(velmora_svcmgr_ai_model_info_create(&info), 0);
  const int result = set(info, "text");
  EXPECT_EQ(velmora_svcmgr_ai_model_info_destroy(info), 0);
  return result;
}

template <int (*get)(velmora_svcmgr_ai_progress_h, int*)>
int GetNumber(Stage& stage) {
  int number = 0;
  return get(stage.progress, &number);
}

template <int (*set)(velmora_svcmgr_ai_progress_h, int)>
int SetNumber(Stage& stage) {
  return set(stage.progress, 1);
}

template <typename Handle, int (*create)(Handle*), int (*destroy)(Handle)>
int Create(Stage&) {
  Handle handle = nullptr;
  const int result = create(&handle);
  EXPECT_EQ(destroy(handle), 0);
  return result;
}

template <typename Handle, int (*create)(Handle*), int (*destroy)(Handle)>
int Destroy(Stage&) {
  Handle handle = nullptr;
  EXPECT_EQ(create(&handle), 0);
  return destroy(handle);
}

#define HANDLE_FUNCTIONS(kind)                                                                   \
  {#kind "_create", 0, 0,                                                                        \
   Create<velmora_svcmgr_##kind##_h, velmora_svcmgr_##kind##_create,                             \
          velmora_svcmgr_##kind##_destroy>},                                                     \
  {                                                                                              \
#kind "_destroy", 0, 0, Destroy < velmora_svcmgr_##kind##_h, velmora_svcmgr_##kind##_create, \
        velmora_svcmgr_##kind##_destroy>                                                         \
  }
#define TEXT_FUNCTIONS(field)                                                               \
  {"ai_model_info_get_" #field, 0, 0, GetText<velmora_svcmgr_ai_model_info_get_##field>}, { \
    "ai_model_info_set_" #field, 0, 0, SetText<velmora_svcmgr_ai_model_info_set_##field>    \
  }
#define NUMBER_FUNCTIONS(field)                                                           \
  {"ai_progress_get_" #field, 0, 0, GetNumber<velmora_svcmgr_ai_progress_get_##field>}, { \
    "ai_progress_set_" #field, 0, 0, SetNumber<velmora_svcmgr_ai_progress_set_##field>    \
  }

// A request for models is sent on a lost connection too, over the port that it had.
constexpr Function kFunctions[] = {
    {"connect", -106, 0, [](Stage& stage) { return stage.second.Connect(); }},
    {"disconnect", 0, 0, [](Stage&) { return velmora_svcmgr_disconnect(); }},
    {"get_license_fulltext", 0, -107,
     [](Stage&) {
       fake::QueueReply({"licence"});
       char* text = nullptr;
       const int result = velmora_svcmgr_get_license_fulltext(&text);
       return Release(result, text);
     }},
    {"get_agent_api_level", 0, -107,
     [](Stage&) {
       fake::QueueReply({11});
       int level = 0;
       return velmora_svcmgr_get_agent_api_level(&level);
     }},
    {"get_client_api_level", client::kNotSupported, client::kNotSupported,
     [](Stage&) {
       int level = 0;
       return velmora_svcmgr_get_client_api_level(&level);
     }},
    {"request_update", 0, -107,
     [](Stage&) {
       fake::QueueReply({0});
       return velmora_svcmgr_request_update();
     }},
    {"request_update_with_list", 0, -107,
     [](Stage& stage) {
       fake::QueueReply({0});
       return velmora_svcmgr_request_update_with_list(stage.agents);
     }},
    {"is_being_updated", 0, -107,
     [](Stage&) {
       bool updating = false;
       return velmora_svcmgr_is_being_updated(&updating);
     }},
    {"set_update_status_cb", 0, 0, [](Stage& stage) { return stage.statuses.Set(); }},
    {"unset_update_status_cb", 0, 0,
     [](Stage&) { return velmora_svcmgr_unset_update_status_cb(); }},
    HANDLE_FUNCTIONS(agent_list),
    {"agent_list_add", 0, 0,
     [](Stage& stage) {
       const fake::NewTracking tracking;
       return velmora_svcmgr_agent_list_add(stage.agents, "agent");
     }},
    {"agent_list_get", kOutOfIndex, kOutOfIndex,
     [](Stage& stage) {
       char* agent = nullptr;
       return velmora_svcmgr_agent_list_get(stage.agents, 0, &agent);
     }},
    {"agent_list_get_size", 0, 0,
     [](Stage& stage) {
       int size = 0;
       return velmora_svcmgr_agent_list_get_size(stage.agents, &size);
     }},
    HANDLE_FUNCTIONS(ai_model_info),
    TEXT_FUNCTIONS(id),
    TEXT_FUNCTIONS(version),
    TEXT_FUNCTIONS(title),
    TEXT_FUNCTIONS(description),
    HANDLE_FUNCTIONS(ai_model_list),
    {"ai_model_list_add", 0, 0,
     [](Stage& stage) {
       const fake::NewTracking tracking;
       return velmora_svcmgr_ai_model_list_add(stage.list, stage.info);
     }},
    {"ai_model_list_get", kOutOfIndex, kOutOfIndex,
     [](Stage& stage) {
       velmora_svcmgr_ai_model_info_h info = nullptr;
       return velmora_svcmgr_ai_model_list_get(stage.list, 0, &info);
     }},
    {"ai_model_list_get_size", 0, 0,
     [](Stage& stage) {
       int size = 0;
       return velmora_svcmgr_ai_model_list_get_size(stage.list, &size);
     }},
    {"ai_request_usable_model_list", 0, 0, [](Stage& stage) { return stage.more.Request(); }},
    {"ai_request_usable_model_list_with_description", 0, 0,
     [](Stage& stage) {
       return velmora_svcmgr_ai_request_usable_model_list_with_description(Models::Callback,
                                                                           &stage.more);
     }},
    // No package declares the category.
    {"ai_request_usable_model_list_with_category", -22, -22,
     [](Stage& stage) {
       return velmora_svcmgr_ai_request_usable_model_list_with_category(Models::Callback, "none",
                                                                        &stage.more);
     }},
    {"ai_request_model_version_list", 0, 0,
     [](Stage& stage) {
       return velmora_svcmgr_ai_request_model_version_list(stage.info, Models::Callback,
                                                           &stage.more);
     }},
    {"ai_request_to_update", 0, 0,
     [](Stage& stage) {
       return velmora_svcmgr_ai_request_to_update(stage.list, Progress::Callback,
                                                  &stage.more_updates);
     }},
    {"ai_request_to_uninstall", 0, 0,
     [](Stage& stage) {
       return velmora_svcmgr_ai_request_to_uninstall(stage.list, Progress::Callback,
                                                     &stage.more_updates);
     }},
    HANDLE_FUNCTIONS(ai_progress),
    NUMBER_FUNCTIONS(percentage),
    NUMBER_FUNCTIONS(count),
    NUMBER_FUNCTIONS(index),
    NUMBER_FUNCTIONS(state),
    {"ai_register_status_cb", 0, 0, [](Stage& stage) { return stage.model_statuses.Set(); }},
    {"ai_deregister_status_cb", 0, 0,
     [](Stage&) { return velmora_svcmgr_ai_deregister_status_cb(); }},
};

#undef HANDLE_FUNCTIONS
#undef TEXT_FUNCTIONS
#undef NUMBER_FUNCTIONS

class AFunction : public fake::PlatformTest, public testing::WithParamInterface<Function> {
 protected:
  /** A fresh connection works. */
  static void ExpectUsable() {
    fake::ForgetMessages();
    SvcMgrAppProxyHandler::GetInstance().Disconnect();
    Connection fresh;
    EXPECT_EQ(fresh.Connect(), 0);
    fake::Proxy().FireConnected();
    EXPECT_THAT(fresh.notices, ElementsAre(kConnected));
    fake::QueueReply({11});
    int level = 0;
    EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), 0);
    EXPECT_EQ(level, 11);
    EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
  }
};

TEST_P(AFunction, ReturnsItsCodeInsideEachKindOfCallback) {
  std::size_t occasions = 0;
  for (const Occasion& occasion : kOccasions) {
    SCOPED_TRACE(occasion.name);
    Stage stage;
    bool called = false;
    std::size_t callbacks = 0;
    occasion.fire(stage, [&] {
      called = true;
      const int expected = occasion.lost ? GetParam().lost_result : GetParam().result;
      EXPECT_EQ(GetParam().call(stage), expected);
      callbacks = stage.Callbacks();
    });
    EXPECT_TRUE(called);
    // Above all after a disconnect.
    EXPECT_EQ(stage.Callbacks(), callbacks);
    ExpectUsable();
    EXPECT_EQ(stage.Callbacks(), callbacks);
    ++occasions;
  }
  // The storage of the lists that held something stays.
  const std::string name = GetParam().name;
  if (name == "agent_list_add" || name == "ai_model_list_add") {
    fake::ExpectKept(fake::SeesOperatorNew() ? occasions : 0);
  }
  // So does the application of each package that a look-up has examined.
  if (name == "ai_request_usable_model_list_with_category") {
    EXPECT_EQ(static_cast<std::size_t>(fake::LiveObjects(fake::Kind::kAppInfo)), occasions);
    fake::AllowHeld(fake::Kind::kAppInfo, fake::LiveObjects(fake::Kind::kAppInfo));
  }
}

INSTANTIATE_TEST_SUITE_P(Each, AFunction, testing::ValuesIn(kFunctions),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
