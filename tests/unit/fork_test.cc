// SPDX-License-Identifier: Apache-2.0
// A forked child inherits no connection, no subscriptions and no update.

#include <sys/wait.h>
#include <unistd.h>

#include "client.h"
#include "event_support.h"
#include "support/forked_child.h"

namespace {

using client::Connection;
using client::kConnected;
using testing::ElementsAre;
using testing::IsEmpty;

/** HoldsInAChild with a clear record of the platform, which must find no fault. */
bool HoldsInAClearChild(const std::function<void()>& work) {
  return HoldsInAChild([&] {
    fake::ClearRecord();
    work();
    EXPECT_THAT(fake::Faults(), IsEmpty());
  });
}

void FireBoth() {
  fake::FireEvent(events::kUpdateStatus, fake::BundleBuilder().StrArray("Start", {"agent"}));
  events::Announce(events::kModelStatus, {"START"});
}

class AForkedChild : public client::ConnectedTest {
 protected:
  client::Models models;
};

TEST_F(AForkedChild, IsNotConnected) {
  ASSERT_EQ(models.Request(), 0);
  EXPECT_TRUE(HoldsInAClearChild([this] {
    int level = 5;
    char* text = nullptr;
    bool updating = false;
    EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), SVCMGR_ERROR_NOT_CONNECTED);
    EXPECT_EQ(velmora_svcmgr_get_license_fulltext(&text), SVCMGR_ERROR_NOT_CONNECTED);
    EXPECT_EQ(velmora_svcmgr_request_update(), SVCMGR_ERROR_NOT_CONNECTED);
    EXPECT_EQ(velmora_svcmgr_is_being_updated(&updating), SVCMGR_ERROR_NOT_CONNECTED);
    EXPECT_EQ(models.Request(), SVCMGR_ERROR_NOT_CONNECTED);
    EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
    EXPECT_EQ(level, 5);
    // The connection is the parent's, and so is the watch.
    for (const char* const call :
         {"rpc_port_parcel_send", "rpc_port_proxy_destroy", events::kAdd, events::kRemove}) {
      EXPECT_EQ(fake::CountCalls(call), 0U) << call;
    }
  }));
  fake::QueueReply({11});
  int level = 0;
  EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), 0);
  EXPECT_EQ(level, 11);
}

TEST_F(AForkedChild, ConnectsAnew) {
  EXPECT_TRUE(HoldsInAClearChild([this] {
    Connection own;
    EXPECT_EQ(own.Connect(), 0);
    EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 2);
    fake::Proxy().FireConnected();
    EXPECT_THAT(own.notices, ElementsAre(kConnected));
    EXPECT_EQ(fake::CountCalls(events::kAdd), 1U);
    fake::QueueReply({8});
    int level = 0;
    EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), 0);
    EXPECT_EQ(level, 8);
    EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
    EXPECT_EQ(fake::CountCalls("rpc_port_proxy_destroy"), 1U);
    EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 1);
    EXPECT_THAT(connection.notices, IsEmpty());
  }));
  EXPECT_EQ(connection.Connect(), SVCMGR_ERROR_ALREADY_CONNECTED);
}

TEST_F(AForkedChild, HearsOfItsOwnConnectionAlsoWhileItsParentsAgentReplacesItself) {
  events::Announce(events::kAgentStatus, {"Update"});
  fake::Proxy().FireDisconnected();
  events::Announce(events::kAgentStatus, {"Launch"});
  EXPECT_TRUE(HoldsInAClearChild([] {
    Connection own;
    EXPECT_EQ(own.Connect(), 0);
    fake::Proxy().FireConnected();
    EXPECT_THAT(own.notices, ElementsAre(kConnected));
    bool updating = true;
    EXPECT_EQ(velmora_svcmgr_is_being_updated(&updating), 0);
    EXPECT_FALSE(updating);
  }));
}

TEST_F(AForkedChild, SubscribesAnew) {
  events::Statuses of_updates;
  events::ModelStatuses of_models;
  ASSERT_EQ(of_updates.Set(), 0);
  ASSERT_EQ(of_models.Set(), 0);
  fake::AllowHeld(fake::Kind::kEventHandler, 3);
  EXPECT_TRUE(HoldsInAClearChild([&] {
    // Should the platform still deliver to what the child has inherited, nobody hears of it.
    FireBoth();
    EXPECT_THAT(of_updates.received, IsEmpty());
    EXPECT_THAT(of_models.received, IsEmpty());
    EXPECT_EQ(velmora_svcmgr_unset_update_status_cb(), 0);
    EXPECT_EQ(velmora_svcmgr_ai_deregister_status_cb(), 0);
    EXPECT_EQ(fake::CountCalls(events::kRemove), 0U);
    EXPECT_EQ(of_updates.Set(), 0);
    EXPECT_EQ(of_models.Set(), 0);
    EXPECT_EQ(fake::CountCalls(events::kAdd), 2U);
  }));
  FireBoth();
  EXPECT_EQ(of_updates.received.size(), 1U);
  EXPECT_EQ(of_models.received.size(), 1U);
}

TEST_F(AForkedChild, MayHaveOneOfItsOwn) {
  EXPECT_TRUE(HoldsInAClearChild([] {
    Connection own;
    EXPECT_EQ(own.Connect(), 0);
    fake::Proxy().FireConnected();
    EXPECT_TRUE(HoldsInAClearChild([] {
      int level = 0;
      EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), SVCMGR_ERROR_NOT_CONNECTED);
    }));
    EXPECT_EQ(own.Connect(), SVCMGR_ERROR_ALREADY_CONNECTED);
  }));
}

TEST_F(AForkedChild, KeepsHandlesOfModels) {
  velmora_svcmgr_ai_model_info_h info = nullptr;
  ASSERT_EQ(velmora_svcmgr_ai_model_info_create(&info), 0);
  ASSERT_EQ(velmora_svcmgr_ai_model_info_set_id(info, "id"), 0);
  EXPECT_TRUE(HoldsInAClearChild([info] {
    char* id = nullptr;
    EXPECT_EQ(velmora_svcmgr_ai_model_info_get_id(info, &id), 0);
    EXPECT_STREQ(id, "id");
    free(id);
    EXPECT_EQ(velmora_svcmgr_ai_model_info_destroy(info), 0);
  }));
  EXPECT_EQ(velmora_svcmgr_ai_model_info_destroy(info), 0);
}

TEST_F(AForkedChild, OfACallbackReturnsFromItUnharmed) {
  pid_t child = -1;
  connection.inside = [&] { child = fork(); };
  fake::Proxy().FireDisconnected();
  if (child == 0) {
    EXPECT_EQ(connection.Connect(), 0);
    EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 2);
    fake::Proxy().FireConnected();
    EXPECT_EQ(connection.notices.back(), kConnected);
    _exit(HasFailure() ? 1 : 0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
