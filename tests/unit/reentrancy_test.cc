// SPDX-License-Identifier: Apache-2.0
// What an application may do inside its callbacks, and a platform inside its calls.

#include <SvcMgrAppProxyHandler.h>
#include <agent_update_state.h>

#include <cstddef>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "client.h"
#include "event_support.h"
#include "kept.h"
#include "rules.h"

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

/** The world of one test: a connection, and a request whose answer is awaited. */
struct World {
  Connection connection;
  Connection second;  // for connections made inside a callback
  Models models;      // awaits delegate 1, sequence number 0
  Models more;        // for requests made inside a callback
};

using Act = std::function<void()>;
template <typename Place>
using Fire = std::function<void(Place&, Act)>;  // fires, and acts inside the callback

struct Action {
  const char* name;
  std::function<void(World&)> run;
};

struct Event {
  const char* name;
  Fire<World> fire;
};

void PrintTo(const Action& action, std::ostream* out) { *out << action.name; }
void PrintTo(const Event& event, std::ostream* out) { *out << event.name; }

void Disconnect(World&) { EXPECT_EQ(velmora_svcmgr_disconnect(), 0); }

void Replace(World& world) {
  Disconnect(world);
  EXPECT_EQ(world.second.Connect(), 0);
}

void Accept() { fake::Proxy().FireConnected(); }
void Drop() { fake::Proxy().FireDisconnected(); }
void Reject() { fake::Proxy().FireRejected(); }

void ReplaceAndComplete(World& world) {
  Replace(world);
  Accept();
}

void SendMore(World& world) { world.more.Request(); }

void AskAndWait(World&) {
  int level = 0;
  fake::QueueReply({11});
  velmora_svcmgr_get_agent_api_level(&level);
}

void AnswerRequest(World&) { fake::DeliverDelegateMessage(1, 0, EmptyList(0)); }

const std::vector<Action> kActions = {
    {"Disconnects", Disconnect},
    {"ConnectsAgain", Replace},
    {"ConnectsAgainAndIsConnected", ReplaceAndComplete},
    {"ConnectsOver",
     [](World& world) { EXPECT_THAT(world.second.Connect(), testing::AnyOf(0, -106)); }},
    {"SendsMore", SendMore},
    {"AsksAndWaits", AskAndWait},
    {"IsDropped", [](World&) { Drop(); }},
    {"IsRejected", [](World&) { Reject(); }},
    {"ReceivesAnotherMessage", AnswerRequest},
};

/** Acts inside the callback of a connection, which is notified. */
template <typename Place>
Fire<Place> Notified(void (*notify)()) {
  return [=](Place& place, const Act& act) {
    place.connection.inside = act;
    notify();
  };
}

/** Acts inside a call of the platform, which `run` makes. */
Fire<World> Inside(const char* function, void (*run)(World&),
                   fake::Step (*step)(Act act) = fake::Hook) {
  return [=](World& world, Act act) {
    fake::Next(function, step(std::move(act)));
    run(world);
  };
}

/** Acts inside the callback of a connection that is made before the attempt has its result. */
Fire<World> InsideAConnect(const fake::Step& result) {
  return [=](World& world, const Act& act) {
    Disconnect(world);
    fake::Next("rpc_port_proxy_connect", fake::Step(result).Entering([&world, act] {
      world.connection.inside = act;
      Accept();
    }));
    world.connection.Connect();
  };
}

const std::vector<Event> kEvents = {
    {"Connected", Notified<World>(Accept)},  // once more, as a platform might
    {"Disconnected", Notified<World>(Drop)},
    {"Rejected", Notified<World>(Reject)},
    {"Answered",
     [](World& world, Act act) {
       world.models.inside = std::move(act);
       AnswerRequest(world);
     }},
    {"InsideASend", Inside("rpc_port_parcel_send", SendMore)},
    {"InsideASendThatFails",
     Inside("rpc_port_parcel_send", SendMore,
            [](Act act) { return fake::FailAfterWork(-5).Leaving(std::move(act)); })},
    {"InsideASendThatIsAnswered", Inside("rpc_port_parcel_send", AskAndWait)},
    {"InsideAReceive", Inside("rpc_port_parcel_create_from_port", AskAndWait)},
    {"WhileARequestIsBuilt", Inside("rpc_port_parcel_write_string", SendMore)},
    {"WhileAQueryIsBuilt", Inside("rpc_port_parcel_write_int32", AskAndWait)},
    {"WhileTheIdentityIsRead", Inside("app_get_version", SendMore)},
    {"InsideTheAvailabilityCheck", Inside("package_info_create", AskAndWait)},
    {"WhileAMessageIsRead", Inside("rpc_port_parcel_read_array_count", AnswerRequest)},
    {"WhileAMessageIsReceived", Inside("rpc_port_parcel_create_from_port", AnswerRequest)},
    {"WhileTheCallbackPortIsFetched", Inside("rpc_port_proxy_get_port", [](World&) { Accept(); })},
    {"WhileTheProxyIsDestroyed",
     Inside(
         "rpc_port_proxy_destroy", [](World&) { velmora_svcmgr_disconnect(); },
         [](Act act) { return fake::Succeed().Entering(std::move(act)); })},
    {"InsideAConnect", InsideAConnect(fake::Succeed())},
    {"InsideAConnectThatFails", InsideAConnect(fake::Fail(-5))},
};

class AnAction : public client::ConnectedTest,
                 public testing::WithParamInterface<std::tuple<Event, Action>> {};

// Whatever is done wherever, nothing crashes, leaks or is used after its end, which the fake and
// the sanitizers watch, and a fresh connection works afterwards.
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
    EXPECT_THAT(events::Errors(),
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
  models.inside = [] {
    EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
    EXPECT_FALSE(fake::Proxy().Alive());
  };
  fake::DeliverDelegateMessage(1, 0, EmptyList(0));
  EXPECT_THAT(models.answers, ElementsAre(Answer{0, 0}));
  EXPECT_THAT(others.answers, IsEmpty());
  EXPECT_THAT(connection.notices, IsEmpty());
  EXPECT_FALSE(fake::Proxy().Alive());
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

/* Every exported function inside every kind of callback. */

/** Counts progress; passed as user data. */
struct Progress {
  std::size_t calls = 0;
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

/** What functions are called with, a connection, and a request of each kind that is awaited. */
class Scene {
 public:
  Scene() {
    EXPECT_EQ(connection.Connect(), 0);
    fake::Proxy().FireConnected();
    EXPECT_EQ(statuses.Set(), 0);
    EXPECT_EQ(model_statuses.Set(), 0);
    EXPECT_EQ(usable.Request(), 0);
    usable_seq = LastSeq();
    EXPECT_EQ(velmora_svcmgr_ai_request_model_version_list(stage.info, Models::Callback, &versions),
              0);
    versions_seq = LastSeq();
    EXPECT_EQ(velmora_svcmgr_ai_request_to_update(stage.models, Progress::Callback, &updates), 0);
    updates_seq = LastSeq();
    connection.notices.clear();
  }

  ~Scene() {
    connection.inside = nullptr;
    SvcMgrAppProxyHandler::GetInstance().Disconnect();
    EXPECT_EQ(velmora_svcmgr_unset_update_status_cb(), 0);
    EXPECT_EQ(velmora_svcmgr_ai_deregister_status_cb(), 0);
    svcmgr::agent_update_state.End();
    fake::ForgetMessages();
  }

  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;

  /** How many callbacks of the first connection have run. */
  std::size_t Callbacks() const {
    return connection.notices.size() + usable.answers.size() + versions.answers.size() +
           updates.calls;
  }

  rules::Stage stage;
  Connection connection;
  Models usable;
  Models versions;
  Progress updates;
  events::Statuses statuses;
  events::ModelStatuses model_statuses;
  int usable_seq = 0;
  int versions_seq = 0;
  int updates_seq = 0;

 private:
  static int LastSeq() { return fake::SentParcels().back().items.at(2).number; }
};

struct Occasion {
  const char* name;
  bool lost;  // whether the callback finds the connection lost
  Fire<Scene> fire;
};

const Occasion kOccasions[] = {
    {"connected", false, Notified<Scene>(Accept)},
    {"disconnected", true, Notified<Scene>(Drop)},
    {"rejected", true, Notified<Scene>(Reject)},
    {"model list", false,
     [](Scene& scene, Act act) {
       scene.usable.inside = std::move(act);
       fake::DeliverDelegateMessage(1, scene.usable_seq, EmptyList(0));
     }},
    {"version list", false,
     [](Scene& scene, Act act) {
       scene.versions.inside = std::move(act);
       fake::DeliverDelegateMessage(3, scene.versions_seq, EmptyList(0));
     }},
    {"progress", false,
     [](Scene& scene, Act act) {
       scene.updates.inside = std::move(act);
       fake::DeliverDelegateMessage(4, scene.updates_seq, {0, 1, 0, 1, 50});
     }},
    {"update status", false,
     [](Scene& scene, Act act) {
       scene.statuses.inside = std::move(act);
       events::AnnounceStart();
     }},
    {"model status", false,
     [](Scene& scene, Act act) {
       scene.model_statuses.inside = std::move(act);
       events::Announce(events::kModelStatus, {"START"});
     }},
};

class AFunction : public fake::PlatformTest, public testing::WithParamInterface<rules::Function> {
 protected:
  static int Expected(bool lost) {
    if (GetParam().name == "velmora_svcmgr_connect") return lost ? 0 : -106;
    return lost && GetParam().wants == rules::Wants::kConnection ? -107 : 0;
  }

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
  for (const Occasion& occasion : kOccasions) {
    SCOPED_TRACE(occasion.name);
    Scene scene;
    bool called = false;
    std::size_t callbacks = 0;
    occasion.fire(scene, [&] {
      called = true;
      if (!GetParam().reply.empty()) fake::QueueReply(GetParam().reply);
      EXPECT_EQ(GetParam().Call(scene.stage), Expected(occasion.lost));
      callbacks = scene.Callbacks();
    });
    EXPECT_TRUE(called);
    // Above all after a disconnect.
    EXPECT_EQ(scene.Callbacks(), callbacks);
    ExpectUsable();
    EXPECT_EQ(scene.Callbacks(), callbacks);
  }
  fake::AllowHeld(fake::Kind::kAppInfo, static_cast<int>(std::size(kOccasions)));
  fake::ExpectKept(fake::Kept::kAppInfo, fake::kEachThatLives);
}

INSTANTIATE_TEST_SUITE_P(Each, AFunction, testing::ValuesIn(rules::Functions()),
                         rules::NameOfFunction());

}  // namespace
