// SPDX-License-Identifier: Apache-2.0
#include "support.h"

using testing::ElementsAre;

using AConnection = PortTest;

TEST_F(AConnection, CarriesACallAndItsReplyToAnotherProcess) {
  Peer peer({"serve"});
  ASSERT_EQ(peer.Line(), "ready");
  Client client;
  ASSERT_TRUE(client.ConnectNow());
  EXPECT_EQ(Call(client.main(), "hello"), "hello");
}

TEST_F(AConnection, CarriesPushesInTheirOrder) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Client client;
  ASSERT_TRUE(client.ConnectNow());
  for (const char* text : {"one", "two", "three"}) EXPECT_EQ(server.Push(text), 0);
  ASSERT_TRUE(RunUntil([&] { return client.Saw("three"); }));
  EXPECT_THAT(client.events, ElementsAre("connected", "one", "two", "three"));
}
