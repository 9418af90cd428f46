// SPDX-License-Identifier: Apache-2.0
#include "support.h"

using testing::ElementsAre;

using AProxy = PortTest;

TEST_F(AProxy, ReportsThatItIsConnectedOnceBothStreamsStand) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Client client;
  ASSERT_EQ(client.Connect(), 0);
  EXPECT_THAT(client.events, ElementsAre());
  ASSERT_TRUE(RunUntil([&] { return !client.events.empty(); }));
  EXPECT_THAT(client.events, ElementsAre("connected"));
  EXPECT_THAT(server.events, ElementsAre("connected org.example.self"));
  EXPECT_NE(client.main(), client.callback());
  EXPECT_EQ(checked_server, kOwnAppId);
  EXPECT_EQ(checked_client, kOwnAppId);
}
