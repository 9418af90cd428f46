// SPDX-License-Identifier: Apache-2.0
// The client context beyond what the walks cover: failures, and what happens inside an attempt.

#include <SvcMgrAppProxyHandler.h>

#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "client.h"

namespace {

using client::Connection;
using client::kClientFile;
using client::kConnected;
using client::kDisconnected;
using client::kHandlerFile;
using client::kRejected;
using fake::IsError;
using fake::IsInfo;
using fake::IsProxyError;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kConnect[] = "velmora_svcmgr_connect";

class Connecting : public fake::PlatformTest {
 protected:
  Connection connection;
};

TEST_F(Connecting, AllowsNullUserData) {
  static void* received;
  received = this;
  EXPECT_EQ(velmora_svcmgr_connect([](int, int, void* data) { received = data; }, nullptr), 0);
  fake::Proxy().FireConnected();
  EXPECT_EQ(received, nullptr);
  fake::AllowHeldConnection();
}

/* Failures of an attempt. */

struct Failure {
  const char* name;
  const char* function;
  fake::Step step;
  const char* proxy_function;  // null if the proxy logs nothing
  const char* proxy_message;
  const char* message;
  int result;
};

void PrintTo(const Failure& row, std::ostream* out) { *out << row.name; }

class AFailedAttempt : public fake::PlatformTest, public testing::WithParamInterface<Failure> {
 protected:
  Connection connection;
};

TEST_P(AFailedAttempt, IsLoggedReturnedAndForgotten) {
  const Failure& row = GetParam();
  fake::Next(row.function, row.step);
  EXPECT_EQ(connection.Connect(), row.result);

  std::vector<testing::Matcher<fake::LogRecord>> records = {
      IsInfo(kHandlerFile, "Connect", "Connect")};
  if (row.proxy_function != nullptr) {
    records.emplace_back(IsProxyError(row.proxy_function, row.proxy_message));
  }
  records.emplace_back(IsError(kHandlerFile, "Connect", row.message));
  records.emplace_back(
      IsError(kClientFile, kConnect, "connection result = [" + std::to_string(row.result) + "]"));
  EXPECT_THAT(client::Logs(), testing::ElementsAreArray(records));
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 0);
  EXPECT_THAT(connection.notices, IsEmpty());
}

TEST_P(AFailedAttempt, LeavesTheContextIdle) {
  fake::Next(GetParam().function, GetParam().step);
  ASSERT_EQ(connection.Connect(), GetParam().result);
  fake::ClearRecord();
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
  EXPECT_THAT(client::Logs(), IsEmpty());
  EXPECT_EQ(connection.Connect(), 0);
  fake::Proxy().FireConnected();
  EXPECT_THAT(connection.notices, ElementsAre(kConnected));
  fake::AllowHeldConnection();
}

constexpr char kCreateProxy[] = "rpc_port_proxy_create";
constexpr char kConnectProxy[] = "rpc_port_proxy_connect";

INSTANTIATE_TEST_SUITE_P(
    Table, AFailedAttempt,
    testing::Values(
        Failure{"InvalidId", kConnectProxy, fake::Fail(-22), "Connect",
                "Failed to connect SvcMgrAppPort", "Invalid ID exception occurred!!!", -1},
        Failure{"InvalidIo", kConnectProxy, fake::Fail(-5), "Connect",
                "Failed to connect SvcMgrAppPort", "Invalid IO exception occurred!!!", -1},
        Failure{"PermissionDenied", kConnectProxy, fake::Fail(-13), "Connect",
                "Failed to connect SvcMgrAppPort", "Permission denied exception occurred!!!", -13},
        Failure{"ProxyNotCreated", kCreateProxy, fake::Fail(-12), "SvcMgrAppPort",
                "Failed to create proxy", "Invalid IO exception occurred!!!", -1},
        Failure{"ProxyNotCreatedForLackOfPrivilege", kCreateProxy, fake::Fail(-13), "SvcMgrAppPort",
                "Failed to create proxy", "Invalid IO exception occurred!!!", -1},
        Failure{"ProxyNotCreatedButGarbage", kCreateProxy, fake::FailWithGarbage(-5),
                "SvcMgrAppPort", "Failed to create proxy", "Invalid IO exception occurred!!!", -1},
        Failure{"CreatingThrows", kCreateProxy, fake::Throw(std::bad_alloc()), nullptr, nullptr,
                "Unexpected Exception occurred!!!", -38},
        Failure{"ConnectingThrows", kConnectProxy, fake::Throw(std::runtime_error("platform")),
                nullptr, nullptr, "Unexpected Exception occurred!!!", -38},
        Failure{"RegisteringThrows", "rpc_port_proxy_add_received_event_cb",
                fake::Throw(std::bad_alloc()), nullptr, nullptr, "Unexpected Exception occurred!!!",
                -38}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(Connecting, StoresTheCallbackBeforeAnythingElse) {
  fake::Next(kConnectProxy, fake::Fail(-5));
  EXPECT_EQ(connection.Connect(), -1);
  SvcMgrAppProxyHandler::GetInstance().Reconnect();
  fake::Proxy().FireConnected();
  EXPECT_THAT(connection.notices, ElementsAre(kConnected));
  fake::AllowHeldConnection();
}

class AnotherConnectFailure : public fake::PlatformTest, public testing::WithParamInterface<int> {
 protected:
  Connection connection;
};

TEST_P(AnotherConnectFailure, CountsAsStarted) {
  fake::Next(kConnectProxy, fake::Fail(GetParam()));
  EXPECT_EQ(connection.Connect(), 0);
  EXPECT_THAT(client::Logs(),
              ElementsAre(IsInfo(kHandlerFile, "Connect", "Connect"),
                          IsProxyError("Connect", "Failed to connect SvcMgrAppPort")));
  EXPECT_EQ(connection.Connect(), 0);
  EXPECT_EQ(fake::CountCalls(kConnectProxy), 1U);
  EXPECT_THAT(connection.notices, IsEmpty());
  fake::AllowHeldConnection();
}

INSTANTIATE_TEST_SUITE_P(Codes, AnotherConnectFailure,
                         testing::Values(-1, -2, -12, -38, -111, 1, 5, 13, 22));

class ARegistration : public fake::PlatformTest, public testing::WithParamInterface<const char*> {
 protected:
  Connection connection;
};

TEST_P(ARegistration, ThatFailsIsIgnored) {
  fake::Next(GetParam(), fake::Fail(-5));
  EXPECT_EQ(connection.Connect(), 0);
  EXPECT_EQ(fake::CountCalls(kConnectProxy), 1U);
  fake::AllowHeldConnection();
}

INSTANTIATE_TEST_SUITE_P(OfEachEvent, ARegistration,
                         testing::Values("rpc_port_proxy_add_connected_event_cb",
                                         "rpc_port_proxy_add_disconnected_event_cb",
                                         "rpc_port_proxy_add_rejected_event_cb",
                                         "rpc_port_proxy_add_received_event_cb"));

/* The connected event. */

TEST_F(Connecting, IsConnectedInsideTheCallback) {
  int again = 0;
  connection.inside = [&] { again = connection.Connect(); };
  ASSERT_EQ(connection.Connect(), 0);
  fake::Proxy().FireConnected();
  EXPECT_EQ(again, -106);
  fake::AllowHeldConnection();
}

/* Connected. */

class AConnection : public client::ConnectedTest {};

TEST_F(AConnection, EndsAlsoWhenThePlatformRefusesToDestroyTheProxy) {
  fake::Next("rpc_port_proxy_destroy", fake::FailAfterWork(-5));
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
  EXPECT_EQ(connection.Connect(), 0);
  EXPECT_EQ(fake::ProxyCount(), 2);
}

/* Reconnecting. */

TEST_F(AConnection, SaysSoWhenThereWasNoProxyToDestroy) {
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
  fake::ClearRecord();
  SvcMgrAppProxyHandler::GetInstance().Disconnect();
  EXPECT_THAT(client::Logs(),
              ElementsAre(IsInfo(kHandlerFile, "Disconnect", "Disconnect"),
                          IsInfo(kHandlerFile, "Disconnect", "proxy handle was destroyed")));
}

TEST_F(AConnection, KeepsItsCallbackWhenItEnds) {
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
  SvcMgrAppProxyHandler::GetInstance().Reconnect();
  fake::Proxy().FireConnected();
  EXPECT_THAT(connection.notices, ElementsAre(kConnected));
}

TEST_F(AConnection, IsIdleAfterAReconnectThatFails) {
  fake::Next(kConnectProxy, fake::Fail(-5));
  SvcMgrAppProxyHandler::GetInstance().Reconnect();
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 0);
  EXPECT_THAT(connection.notices, IsEmpty());
  EXPECT_EQ(connection.Connect(), 0);
  EXPECT_EQ(fake::ProxyCount(), 3);
}

/* The connected event inside the attempt. */

fake::Step ConnectedInside() {
  return fake::Succeed().Entering([] { fake::Proxy().FireConnected(); });
}

fake::Step ConnectedInsideThenFail(int code) {
  return fake::Fail(code).Entering([] { fake::Proxy().FireConnected(); });
}

TEST_F(Connecting, MayEndInsideTheAttempt) {
  fake::Next(kConnectProxy, ConnectedInside());
  EXPECT_EQ(connection.Connect(), 0);
  EXPECT_THAT(connection.notices, ElementsAre(kConnected));
  EXPECT_EQ(connection.Connect(), -106);
  fake::AllowHeldConnection();
}

class ConnectedWithoutAProxy : public fake::PlatformTest, public testing::WithParamInterface<int> {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    fake::Next(kConnectProxy, ConnectedInsideThenFail(GetParam()));
    EXPECT_EQ(connection.Connect(), GetParam() == -13 ? -13 : -1);
    EXPECT_THAT(connection.notices, ElementsAre(kConnected));
    EXPECT_FALSE(fake::Proxy().Alive());
    fake::ClearRecord();
    fake::AllowHeld(fake::Kind::kEventHandler, 1);
  }

  Connection connection;
};

INSTANTIATE_TEST_SUITE_P(AfterEachFailure, ConnectedWithoutAProxy, testing::Values(-5, -13, -22));

TEST_P(ConnectedWithoutAProxy, CountsAsConnected) { EXPECT_EQ(connection.Connect(), -106); }

TEST_P(ConnectedWithoutAProxy, BecomesIdleByDisconnecting) {
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
  EXPECT_THAT(client::Logs(),
              ElementsAre(IsInfo(kHandlerFile, "Disconnect", "Disconnect"),
                          IsInfo(kHandlerFile, "Disconnect", "proxy handle was destroyed")));
  EXPECT_EQ(connection.Connect(), 0);
  EXPECT_EQ(fake::ProxyCount(), 2);
  fake::AllowHeldConnection();
}

TEST_F(Connecting, MayBeEndedByTheCallbackInsideTheAttempt) {
  connection.inside = [] { EXPECT_EQ(velmora_svcmgr_disconnect(), 0); };
  fake::Next(kConnectProxy, ConnectedInside());
  EXPECT_EQ(connection.Connect(), 0);
  EXPECT_EQ(fake::CountCalls("rpc_port_proxy_destroy"), 1U);
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 0);
}

TEST_F(Connecting, MayBeEndedInsideAnAttemptThatFails) {
  connection.inside = [] { EXPECT_EQ(velmora_svcmgr_disconnect(), 0); };
  fake::Next(kConnectProxy, ConnectedInsideThenFail(-5));
  EXPECT_EQ(connection.Connect(), -1);
  EXPECT_EQ(fake::CountCalls("rpc_port_proxy_destroy"), 1U);
  EXPECT_EQ(connection.Connect(), 0);
  EXPECT_EQ(fake::ProxyCount(), 2);
  fake::AllowHeldConnection();
}

TEST_F(Connecting, KeepsTheConnectionMadeInsideAnAttemptThatFails) {
  Connection second;
  connection.inside = [&] {
    EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
    EXPECT_EQ(second.Connect(), 0);
  };
  fake::Next(kConnectProxy, ConnectedInsideThenFail(-5));
  EXPECT_EQ(connection.Connect(), -1);
  EXPECT_FALSE(fake::Proxy(1).Alive());
  EXPECT_TRUE(fake::Proxy(2).Alive());
  fake::Proxy(2).FireConnected();
  EXPECT_THAT(second.notices, ElementsAre(kConnected));
  fake::AllowHeldConnection();
}

TEST_F(Connecting, KeepsTheConnectionMadeInsideAnAttemptThatSucceeds) {
  Connection second;
  connection.inside = [&] {
    EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
    EXPECT_EQ(second.Connect(), 0);
  };
  fake::Next(kConnectProxy, ConnectedInside());
  EXPECT_EQ(connection.Connect(), 0);
  EXPECT_FALSE(fake::Proxy(1).Alive());
  fake::Proxy(2).FireConnected();
  EXPECT_THAT(second.notices, ElementsAre(kConnected));
  fake::AllowHeldConnection();
}

TEST_F(Connecting, MayBeLostInsideTheAttempt) {
  fake::Next(kConnectProxy, fake::Succeed().Entering([] {
    fake::Proxy().FireConnected();
    fake::Proxy().FireDisconnected();
  }));
  EXPECT_EQ(connection.Connect(), 0);
  EXPECT_THAT(connection.notices, ElementsAre(kConnected, kDisconnected));
  fake::AllowHeldConnection();
}

TEST_F(Connecting, MayBeRejectedInsideAnAttemptThatFails) {
  fake::Next(kConnectProxy, fake::Fail(-13).Entering([] { fake::Proxy().FireRejected(); }));
  EXPECT_EQ(connection.Connect(), -13);
  EXPECT_THAT(connection.notices, ElementsAre(kRejected));
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 0);
}

}  // namespace
