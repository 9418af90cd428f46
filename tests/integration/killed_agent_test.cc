// SPDX-License-Identifier: Apache-2.0
// What a client is told of an agent that is killed in its own update.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "scripted_run.h"

namespace {

using testing::AnyOf;
using testing::ElementsAre;
using testing::ElementsAreArray;

const Lines kSteps = {R"({"event": "Start"})",   R"({"event": "Update"})",
                      R"({"install": "2.4.0"})", R"({"restart": true})",
                      R"({"event": "Launch"})",  R"({"event": "Complete"})"};
constexpr std::size_t kUpdate = 1;
constexpr std::size_t kLaunch = 4;
constexpr std::size_t kComplete = 5;
constexpr std::size_t kEnd = 6;

constexpr char kKill[] = R"({"kill": true})";
constexpr char kStay[] = R"({"wait": 600000})";

/** An update with other steps before that of this position, and what a new agent does then. */
std::string UpdateWith(const std::string& others, std::size_t position,
                       const std::string& recovery) {
  std::string steps;
  for (std::size_t i = 0; i < position; ++i) steps += kSteps[i] + ", ";
  steps += others;
  for (std::size_t i = position; i < kSteps.size(); ++i) steps += ", " + kSteps[i];
  return R"("update": {"steps": [)" + steps + R"(], "recovery": [)" + recovery + "]}";
}

/** An agent that comes back however it has ended, with such an update. */
std::string ScenarioWith(const std::string& step, std::size_t position,
                         const std::string& recovery) {
  return R"({"agent": {"restart": "always"}, )" + UpdateWith(step, position, recovery) + "}";
}

constexpr char kSaysThatItRuns[] = R"({"event": "Launch"})";

const Lines kAsk = {"follow-updates", "follow-models",         "subscribed",
                    "connect",        "until=connection: 0 0", "request-update"};
const Lines kAsked = {"connect: 0", "connection: 0 0", "request-update: 0"};

/** Goes on when the agent stays before this step and the client has heard all that it said. */
Lines ReachedStep(std::size_t position) {
  return {"run=until grep -q '\"next\":" + std::to_string(position) +
              ",.*\"replaced\":false' journal; do sleep 0.01; done",
          "run=\"$SVCMGR_SIM\" send model-start", "until=model status: 0 17"};
}
const Lines kReached = {"model status: 0 17"};

const Lines kKillIt = {"run=until kill -KILL $(cat agent.pid) 2>/dev/null; do sleep 0.01; done"};

// The event of models comes after what the failure of the update makes the client say.
const Lines kFail = {"updating",
                     "level",
                     "run=\"$SVCMGR_SIM\" send update-fail=7 model-failed",
                     "until=model status: 0 24",
                     "updating",
                     "level"};

Lines Failed(const std::string& updating, const Lines& statuses) {
  return Lines{"updating: 0 " + updating, "level: 0 11"} + statuses +
         Lines{"model status: 0 24", "updating: 0 no", "level: 0 11"};
}

const Lines kStarted = {"update status: 0"};
const Lines kFailedWith7 = {"update status: 4"};
const Lines kLost = {"connection: 0 1"};
const Lines kReturned = {"connection: 0 0"};

class AClient : public testing::TestWithParam<std::size_t> {};

class AClientOfAnAgentThatDiesInItsUpdate : public AClient {};
INSTANTIATE_TEST_SUITE_P(BeforeStep, AClientOfAnAgentThatDiesInItsUpdate,
                         testing::Range<std::size_t>(0, kComplete));

TEST_P(AClientOfAnAgentThatDiesInItsUpdate, IsConnectedAgainAndHearsOfNoLossThatWasAnnounced) {
  const ScriptedWorld world(ScenarioWith(kKill, GetParam(), kSaysThatItRuns));
  const bool started = GetParam() > 0;
  const bool announced = GetParam() > kUpdate;
  EXPECT_THAT(world.Run(1, kAsk + Lines{"away", "back"} + kFail),
              ElementsAreArray(kAsked + (started ? kStarted : Lines()) +
                               (announced ? Lines() : kLost + kReturned) +
                               Failed(started ? "yes" : "no", kFailedWith7)));
}

class AClientOfAnAgentThatIsKilledInItsUpdate : public AClient {};
INSTANTIATE_TEST_SUITE_P(BeforeStep, AClientOfAnAgentThatIsKilledInItsUpdate,
                         testing::Range<std::size_t>(0, kLaunch + 1));

TEST_P(AClientOfAnAgentThatIsKilledInItsUpdate, IsConnectedAgainAndHearsOfNoLossThatWasAnnounced) {
  const std::size_t position = GetParam();
  const ScriptedWorld world(ScenarioWith(kStay, position, kSaysThatItRuns));
  const bool started = position > 0;
  const bool announced = position > kUpdate;
  EXPECT_THAT(world.Run(1, kAsk + ReachedStep(position) + kKillIt + Lines{"away", "back"} + kFail),
              ElementsAreArray(kAsked + (started ? kStarted : Lines()) + kReached +
                               (announced ? Lines() : kLost + kReturned) +
                               Failed(started ? "yes" : "no", kFailedWith7)));
}

const Lines kAskAndReconnect = kAsk + Lines{"away", "back"} + ReachedStep(kComplete);
const Lines kReconnected = kAsked + kStarted + kReached;

TEST(AClientOfAnAgentThatIsKilledAfterItsRelaunch, HearsOfTheLossButOfTheReturnOnlyByItsAnswers) {
  const ScriptedWorld world(ScenarioWith(kStay, kComplete, kSaysThatItRuns));
  EXPECT_THAT(world.Run(1, kAskAndReconnect + kKillIt + Lines{"away", "back"} + kFail),
              ElementsAreArray(kReconnected + kLost + Failed("yes", kFailedWith7)));
}

TEST(AClientOfAnAgentThatIsKilledAfterItsUpdate, HearsOfLossAndReturnAndOfNoFurtherEnd) {
  const ScriptedWorld world(ScenarioWith(kStay, kComplete, kSaysThatItRuns));
  const Lines complete = {"run=\"$SVCMGR_SIM\" send update-complete", "until=update status: 1"};
  EXPECT_THAT(world.Run(1, kAskAndReconnect + complete + kKillIt + Lines{"away", "back"} + kFail),
              ElementsAreArray(kReconnected + Lines{"update status: 1"} + kLost + kReturned +
                               Failed("no", {})));
}

class AClientOfAnAgentThatReturnsInSilence : public AClient {};
INSTANTIATE_TEST_SUITE_P(KilledBeforeStep, AClientOfAnAgentThatReturnsInSilence,
                         testing::Range<std::size_t>(0, kLaunch + 1));

TEST_P(AClientOfAnAgentThatReturnsInSilence, StaysAwayUntilItSaysThatItRuns) {
  const std::size_t position = GetParam();
  const ScriptedWorld world(ScenarioWith(kStay, position, ""));
  const bool announced = position > kUpdate;
  const Lines alive = {"run=\"$SVCMGR_SIM\" send model-completed", "until=model status: 0 20"};
  const Lines attempts = {"level", "connect", "level", "disconnect", "level"};
  const Lines failures = {"level: -107 0", "connect: 0", "level: -107 0", "disconnect: 0",
                          "level: -107 0"};
  EXPECT_THAT(
      world.Run(1, kAsk + ReachedStep(position) + kKillIt + Lines{"away"} + alive + attempts +
                       Lines{"run=\"$SVCMGR_SIM\" send agent-launch", "back"} + kFail),
      ElementsAreArray(kAsked + (position > 0 ? kStarted : Lines()) + kReached +
                       (announced ? Lines() : kLost) + Lines{"model status: 0 20"} + failures +
                       (announced ? Lines() : kReturned) +
                       Failed(position > 0 ? "yes" : "no", kFailedWith7)));
}

class AClientOfAnAgentThatDiesBeforeItServesAgain : public AClient {};
INSTANTIATE_TEST_SUITE_P(BeforeStep, AClientOfAnAgentThatDiesBeforeItServesAgain,
                         testing::Values(kComplete, kEnd));

TEST_P(AClientOfAnAgentThatDiesBeforeItServesAgain, StaysAwayAndHearsNothingOfAReturn) {
  const bool completed = GetParam() > kComplete;
  const ScriptedWorld world(
      "{" + UpdateWith(R"({"modelStatus": "FAILED"}, {"kill": true})", GetParam(), "") + "}");
  const Lines gone = {"run=while kill -0 $(cat agent.pid) 2>/dev/null; do sleep 0.01; done"};
  const Lines said =
      world.Run(1, kAsk + Lines{"until=model status: 0 24"} + gone + Lines{"updating", "level"});
  EXPECT_THAT(Beginning("update status", said),
              ElementsAreArray(kStarted + (completed ? Lines{"update status: 1"} : Lines())));
  // The attempt that meets the agent's end may also fail at once, which is told to nobody.
  EXPECT_THAT(Beginning("connection", said),
              AnyOf(ElementsAre("connection: 0 0"), ElementsAreArray(kReturned + kLost)));
  EXPECT_THAT(NotBeginning("connection", NotBeginning("update status", said)),
              ElementsAreArray({"connect: 0", "request-update: 0", "model status: 0 24",
                                "updating: -107 no", "level: -107 0"}));
}

}  // namespace
