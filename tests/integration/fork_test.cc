// SPDX-License-Identifier: Apache-2.0
// Clients that fork.
#include <gmock/gmock.h>

#include "scripted_run.h"

namespace {

using testing::ElementsAre;

constexpr char kOneModel[] = R"({
  "repository": "repository",
  "models": [{"id": "text", "versions": ["1.0"]}]})";

TEST(AForkedClient, HasNothingOfItsParentsConnection) {
  const ScriptedWorld world(kOneModel);
  EXPECT_THAT(world.Run(1, {"connect", "until=connection: 0 0", "models",
                            "child=level,updating,models,disconnect", "level",
                            "until=models 1: 0 text@1.0", "models", "until=models 2: 0 text@1.0"}),
              ElementsAre("connect: 0", "connection: 0 0", "ask for models 1: 0",
                          "child level: -107 0", "child updating: -107 no",
                          "child ask for models 2: -107", "child disconnect: 0", "level: 0 11",
                          "models 1: 0 text@1.0", "ask for models 2: 0", "models 2: 0 text@1.0"));
}

TEST(AForkedClient, ConnectsAnewWhileItsParentAwaitsAnAnswer) {
  const ScriptedWorld world(kOneModel);
  EXPECT_THAT(
      world.Run(1, {"connect", "until=connection: 0 0", "models",
                    "child=connect,until=connection: 0 0,level,models,until=models 2: 0 text@1.0,"
                    "disconnect",
                    "until=models 1: 0 text@1.0", "level"}),
      ElementsAre("connect: 0", "connection: 0 0", "ask for models 1: 0", "child connect: 0",
                  "child connection: 0 0", "child level: 0 11", "child ask for models 2: 0",
                  "child models 2: 0 text@1.0", "child disconnect: 0", "models 1: 0 text@1.0",
                  "level: 0 11"));
}

TEST(AForkedClient, LeavesTheVerdictToItsParent) {
  const ScriptedWorld world(kOneModel);
  EXPECT_THAT(
      world.Run(1, {"connect", "child=disconnect,connect,until=connection: 0 0,level",
                    "until=connection: 0 0", "level"}),
      ElementsAre("connect: 0", "child disconnect: 0", "child connect: 0", "child connection: 0 0",
                  "child level: 0 11", "connection: 0 0", "level: 0 11"));
}

TEST(AForkedClient, LeavesEventsToItsParentAndHasItsOwn) {
  const ScriptedWorld world(kOneModel);
  EXPECT_THAT(world.Run(1, {"follow-updates", "connect", "until=connection: 0 0",
                            "child=follow-updates,connect,until=connection: 0 0,request-update,"
                            "until=update status: 1",
                            "until=update status: 1", "disconnect"}),
              testing::AllOf(testing::Contains("child update status: 1").Times(1),
                             testing::Contains("update status: 1").Times(1),
                             testing::Contains("disconnect: 0")));
}

}  // namespace
