// SPDX-License-Identifier: Apache-2.0
// What a client is told, and asks, while another process of the same user means no good.
#include <gmock/gmock.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <string>

#include "scripted_run.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

constexpr char kNeighbourScenario[] = R"({
  "models": [{"id": "one", "versions": ["1"]}],
  "packages": [{"id": "com.velmora.text", "metadata": {"ai-agent-category": "text"}}]
})";

class AHostileNeighbour : public testing::Test {
 protected:
  AHostileNeighbour() {
    setenv("NEIGHBOUR", NEIGHBOUR, 1);
    setenv("LIBRARY", LIBRARY, 1);
  }
};

/** A deed to its end. */
Lines Does(const std::string& deed) { return {"run=\"$NEIGHBOUR\" " + deed}; }

/** A deed that goes on until the world ends, once it has said so. */
Lines Begins(const std::string& deed, const std::string& says) {
  return {"run={ \"$NEIGHBOUR\" " + deed + " > deed 2>&1 & }; until grep -q '" + says +
          "' deed; do [ -e trace.jsonl ] || exit 1; sleep 0.01; done"};
}

const Lines kClientConnects = {"untouched", "follow-updates", "follow-models", "connect",
                               "until=connection: 0 0"};
const Lines kClientConnected = {"untouched: signals yes, surroundings yes", "connect: 0",
                                "connection: 0 0"};
const Lines kClientAsks = {"level", "models", "until=models 1: 0 one@1", "updating", "untouched"};
const Lines kClientAnswered = {"level: 0 11", "ask for models 1: 0", "models 1: 0 one@1",
                               "updating: 0 no", "untouched: signals yes, surroundings yes"};
// The agent's own event comes behind whatever was sent before.
const Lines kClientListens = {"run=\"$SVCMGR_SIM\" send model-failed", "until=model status: 0 24"};
const Lines kClientHeard = {"model status: 0 24"};

TEST_F(AHostileNeighbour, HasNoEventDeliveredInTheAgentsName) {
  const ScriptedWorld world(kNeighbourScenario);
  EXPECT_THAT(world.Run(1, kClientConnects + Does("forge") + kClientListens + kClientAsks),
              ElementsAreArray(kClientConnected + kClientHeard + kClientAnswered));
}

TEST_F(AHostileNeighbour, IsTakenForTheAgentWhereItOwnsTheNameOfOneThatIsGone) {
  const ScriptedWorld world(kNeighbourScenario);
  const Lines gone = {"run=\"$SVCMGR_SIM\" send kill", "until=connection: 0 1"};
  EXPECT_THAT(world.Run(1, kClientConnects + gone + Does("impersonate") +
                               Lines{"until=model status: 0 20"}),
              ElementsAreArray(kClientConnected + Lines{"connection: 0 1", "update status: 0",
                                                        "update status: 1", "model status: 0 17",
                                                        "model status: 0 20"}));
}

TEST_F(AHostileNeighbour, KeepsNobodyFromTheAgentByAThousandConnections) {
  // The agent, like most programs, may open far fewer files.
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  if (limit.rlim_max < 2100) GTEST_SKIP() << "the neighbour may not open so many connections";
  limit.rlim_cur = 400;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  const ScriptedWorld world(kNeighbourScenario);
  EXPECT_THAT(world.Run(1, Begins("connections 1000", "ready") + kClientConnects + kClientAsks +
                               kClientListens),
              ElementsAreArray(kClientConnected + kClientAnswered + kClientHeard));
}

TEST_F(AHostileNeighbour, LeavesNoDescriptorWithTheAgent) {
  const ScriptedWorld world(kNeighbourScenario);
  EXPECT_THAT(world.Run(1, kClientConnects + Does("descriptors") + kClientAsks),
              ElementsAreArray(kClientConnected + Lines{"kept 0"} + kClientAnswered));
}

TEST_F(AHostileNeighbour, KeepsNobodyFromTheAgentByRequestsWhoseAnswersItNeverReads) {
  const ScriptedWorld world(kNeighbourScenario);
  EXPECT_THAT(
      world.Run(1, kClientConnects + Begins("flood 2000", "sent") + kClientAsks + kClientListens),
      ElementsAreArray(kClientConnected + kClientAnswered + kClientHeard));
}

TEST_F(AHostileNeighbour, ThatListensInTheAgentsPlaceKeepsNoCallWaiting) {
  const ScriptedWorld world(R"({"agent": {"running": false}})");
  const Lines words = {"untouched", "connect", "level", "models", "disconnect", "untouched"};
  EXPECT_THAT(world.Run(1, Begins("squat", "ready") + words),
              ElementsAre("untouched: signals yes, surroundings yes", "connect: 0", "level: -107 0",
                          "ask for models 1: -38", "disconnect: 0",
                          "untouched: signals yes, surroundings yes"));
}

TEST_F(AHostileNeighbour, HidesNeitherPackagesNorMarkersBehindWhatItPlants) {
  const ScriptedWorld world(kNeighbourScenario);
  const Lines mark = {"run=cp \"$LIBRARY\" app/libmarked.so"};
  EXPECT_THAT(
      world.Run(
          1, Does("plant") + mark + kClientConnects +
                 Lines{"client-level", "category=text", "until=category 1: 0 one@1", "untouched"}),
      ElementsAreArray(kClientConnected + Lines{"client level: 0 11", "ask for category 1: 0",
                                                "category 1: 0 one@1",
                                                "untouched: signals yes, surroundings yes"}));
}

TEST_F(AHostileNeighbour, ThatIsTheAgentItselfFloodsAClientWithMessagesOfWhichNoneIsTaken) {
  const ScriptedWorld world(R"({
    "models": [{"id": "one", "versions": ["1"]}],
    "methods": {"GetUsableModelList": {"stray": 1000}, "get_agent_api_level": {"stray": 1000}}
  })");
  EXPECT_THAT(world.Run(1, kClientConnects + kClientAsks + kClientListens),
              ElementsAreArray(kClientConnected + kClientAnswered + kClientHeard));
}

}  // namespace
