// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <vector>

#include "own_worlds.h"
#include "sim_process.h"
#include "support/lines.h"
#include "temp_folder.h"
#include "world/send.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr char kStart[] = "update_status Start=" AGENT_PACKAGE_ID;

/** A world in which somebody listens to the agent's events. */
class AnUpdate : public OwnWorlds {
 protected:
  /** Listens for `count` events beside a command ("request" asks for an update); all lines. */
  static std::vector<std::string> Hear(const std::string& scenario, int count,
                                       const std::string& command) {
    const Finished run = RunSim(
        {"run", scenario, "--time-scale", "0", "--", SIM_EVENTS, std::to_string(count), command});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.errors, "");
    return Lines(run.output);
  }

  /** The same for a scenario that is written here; delays are as they stand. */
  Finished Run(const std::string& document, int count, const std::string& command) const {
    const TempFolder folder;
    return RunSim({"run", folder.Write("scenario.json", document), "--", SIM_EVENTS,
                   std::to_string(count), "cd \"$VELMORA_RUNTIME_DIR/..\"; " + command});
  }
};

TEST_F(AnUpdate, TakesTheAgentThroughItsOwnRestart) {
  // The reply comes on another socket.
  auto lines = Hear("update-self", 4, "request");
  const auto reply = std::find(lines.begin(), lines.end(), "reply 0");
  ASSERT_NE(reply, lines.end());
  lines.erase(reply);
  EXPECT_THAT(lines, ElementsAre(kStart, "agent_status Update", "agent_status Launch",
                                 "update_status Complete"));
}

TEST_F(AnUpdate, LeavesANewProcessAndANewVersion) {
  const auto lines = Hear("demo", 4,
                          "cd \"$VELMORA_RUNTIME_DIR/..\" && cp agent.pid before && \"$SIM\" send "
                          "update && ! cmp -s before agent.pid && kill -0 $(cat agent.pid) && "
                          "while kill -0 $(cat before) 2>/dev/null; do sleep 0.05; done && "
                          "rm before && "
                          "grep Version packages/com.velmora.svcmgr.package");
  EXPECT_THAT(lines,
              testing::UnorderedElementsAre(kStart, "agent_status Update", "agent_status Launch",
                                            "update_status Complete", "Version=2.4.0", "status 0"));
}

TEST_F(AnUpdate, FailsWhereTheScenarioSaysSo) {
  EXPECT_THAT(Hear("update-fails", 2, "request"),
              testing::UnorderedElementsAre("reply 0", kStart, "update_status Fail=3"));
}

TEST_F(AnUpdate, EndsWithResultsOfSingleApplications) {
  EXPECT_THAT(
      Hear("update-results", 3, "request"),
      testing::UnorderedElementsAre("reply 0", std::string(kStart) + ",com.velmora.notes",
                                    "update_status com.example.client=0 com.velmora.notes=10",
                                    "update_status Complete"));
}

TEST_F(AnUpdate, IsSilentWhereTheScenarioSaysSo) {
  EXPECT_THAT(Hear("update-silent", 1, "\"$SIM\" send update model-start"),
              testing::UnorderedElementsAre("model_status START", "status 0"));
}

TEST_F(AnUpdate, IsTakenUpByANewProcessWhenTheAgentDies) {
  EXPECT_THAT(Hear("update-crashes", 4, "request"),
              testing::UnorderedElementsAre("reply 0", kStart, "agent_status Update",
                                            "agent_status Launch", "update_status Fail=7"));
}

TEST_F(AnUpdate, IsTheLastOfAnAgentThatDoesNotReturn) {
  const Finished run =
      RunSim({"run", "update-never-returns", "--", SIM_EVENTS, "2", "\"$SIM\" send update"});
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(Lines(run.output),
              testing::UnorderedElementsAre(kStart, "agent_status Update", "status 1"));
  EXPECT_EQ(run.errors, "svcmgr-sim: there is no agent that runs\n");
}

TEST_F(AnUpdate, WithoutStepsOfItsOwnStartsAndCompletes) {
  EXPECT_THAT(Hear("empty", 2, "request"),
              testing::UnorderedElementsAre("reply 0", kStart, "update_status Complete"));
}

TEST_F(AnUpdate, IsTakenUpAfterSigkillAtEachOfItsSteps) {
  const std::vector<std::string> steps = {R"({"event": "Start"})",   R"({"event": "Update"})",
                                          R"({"install": "2.4.0"})", R"({"restart": true})",
                                          R"({"event": "Launch"})",  R"({"event": "Complete"})"};
  const std::vector<std::string> said = {kStart, "agent_status Update", "",
                                         "",     "agent_status Launch", "update_status Complete"};
  for (std::size_t stop = 0; stop <= steps.size(); ++stop) {
    std::string list;
    std::vector<std::string> expected;
    for (std::size_t i = 0; i < stop; ++i) {
      list += steps[i] + ", ";
      if (!said[i].empty()) {
        expected.push_back(said[i]);
      }
    }
    expected.insert(expected.end(), {"agent_status Launch", "update_status Fail=2",
                                     "model_status COMPLETED", "status 0"});
    const int events = static_cast<int>(expected.size()) - 1;
    const Finished run =
        Run(R"({"agent": {"restart": "always"}, "update": {"steps": [)" + list +
                "{\"wait\": 600000}]}}",
            events,
            "\"$SIM\" send '{\"update\": true}' 2>/dev/null & until grep -q '\"next\":" +
                std::to_string(stop) +
                ",.*\"replaced\":false' journal; do :; done; until "
                "kill -KILL $(cat agent.pid) 2>/dev/null; do :; done; wait $!; test $? = 1 && "
                "until grep -q '\"entries\":\\[\\]' journal; do :; done; "
                "\"$SIM\" send model-completed");
    EXPECT_EQ(run.status, 0) << "killed before step " << stop;
    EXPECT_EQ(run.errors, "") << "killed before step " << stop;
    EXPECT_THAT(Lines(run.output), testing::UnorderedElementsAreArray(expected))
        << "killed before step " << stop;
  }
}

TEST_F(AnUpdate, FiftyTimesInARowLeavesNothingBehind) {
  // A process that has just been started holds more for a moment, and so does the one that starts it.
  const std::string command = R"(
    supervisor=$(awk '/^PPid/ {print $2}' /proc/$(cat agent.pid)/status)
    look() {
      ls /proc/$supervisor/fd | wc -l; ls /proc/$(cat agent.pid)/fd | wc -l
      grep -h ^PPid: /proc/[0-9]*/status 2>/dev/null | grep -c "[[:space:]]$supervisor\$"
      find . | sort
    }
    "$SIM" send self-update
    before= same=0
    while [ $same -lt 5 ]; do
      now=$(look)
      if [ "$now" = "$before" ]; then same=$((same + 1)); else before=$now same=0; fi
    done
    "$SIM" send '{"selfUpdate": {}, "times": 50}'
    for look in $(seq 1000); do
      after=$(look)
      if [ "$after" = "$before" ]; then exec grep Version packages/*.package; fi
    done
    echo "left behind: $after instead of $before" >&2; exit 1
  )";
  const Finished run = Run(R"({"agent": {"version": "1.0.0"}})", 102, command);
  EXPECT_EQ(run.errors, "");
  const auto lines = Lines(run.output);
  EXPECT_THAT(lines, testing::Contains("Version=1.0.51"));
  EXPECT_THAT(lines, testing::Contains("status 0"));
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "agent_status Update"), 51);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "agent_status Launch"), 51);
}

TEST_F(AnUpdate, IsFollowedByTheLaunchOfAnAgentThatWasKilledBetweenUpdates) {
  const Finished run = Run(R"({"agent": {"restart": "always"}})", 2,
                           "\"$SIM\" send kill; \"$SIM\" send model-failed");
  EXPECT_EQ(run.errors, "");
  EXPECT_THAT(Lines(run.output), testing::UnorderedElementsAre("agent_status Launch",
                                                               "model_status FAILED", "status 0"));
}

TEST_F(AnUpdate, CanContradictItself) {
  const Finished run = Run("{}", 1, R"("$SIM" send '{"broadcast": "update_status",
      "texts": {"Complete": ""}, "lists": {"Start": ["a", "b"]}, "numbers": {"Fail": -1}}')");
  EXPECT_THAT(Lines(run.output), testing::UnorderedElementsAre(
                                     "update_status Start=a,b Complete Fail=-1", "status 0"));
}

TEST_F(AnUpdate, IsNotHeardOfWithoutABus) {
  const Finished run = Run(R"({"bus": false})", 0, "test ! -e bus && \"$SIM\" send update");
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(Lines(run.output), ElementsAre("no bus", "no bus", "no bus", "status 0"));
}

TEST_F(AnUpdate, SurvivesABusThatIsKilled) {
  const Finished run = Run("{}", 0, "kill -KILL $(cat bus.pid); \"$SIM\" send update self-update");
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(Lines(run.output), ElementsAre("status 0"));
  EXPECT_THAT(Lines(run.errors), ElementsAre(testing::HasSubstr("The session bus is gone")));
}

/** Commands of a test in a world: `level` and `models` connect anew and print what comes of it. */
constexpr char kTools[] = R"(
  send() { "$SIM" send "$@" || echo "not sent: $*"; }
  level() { "$CTL" api-level 2>/dev/null; echo "status $?"; }
  as() { VELMORA_APP_ID=$1; export VELMORA_APP_ID; shift; "$@"; VELMORA_APP_ID=com.example.client; }
)";

TEST_F(AnUpdate, CanWithdrawPermissionsAndGiveThemBack) {
  const Finished run = Run("{}", 0, kTools + std::string(R"(
      level; send '{"clients": ["com.other", "x?"]}'; level; as com.other level
      send install=9 restart; level; send '{"clients": ["*"]}'; level)"));
  EXPECT_EQ(run.errors, "");
  EXPECT_THAT(Lines(run.output), ElementsAre("11", "status 0", "status 3", "11", "status 0",
                                             "status 3", "11", "status 0", "status 0"))
      << "a new version and a new process change nothing";
}

TEST_F(AnUpdate, CanRefuseClientsAndAdmitThemAgain) {
  const Finished run = Run("{}", 0, kTools + std::string(R"(
      send refuse; level; send restart; level; send '{"refuse": true, "admit": ["com.other"]}'
      level; as com.other level; send admit; level)"));
  EXPECT_EQ(run.errors, "");
  EXPECT_THAT(Lines(run.output), ElementsAre("status 3", "status 3", "status 3", "11", "status 0",
                                             "11", "status 0", "status 0"));
}

TEST_F(AnUpdate, CanRemoveAndInstallPackages) {
  const Finished run = Run(R"({"agent": {"clients": ["com.*"]},
                               "packages": [{"id": "com.velmora.a"}]})",
                           0, kTools + std::string(R"(
      send remove=com.velmora.a; ls packages; send remove; level; send '{"install": {}}'
      grep -h = packages/*; level; send remove
      send '{"install": {"version": "9.1", "clients": ["com.other"]}}'; grep -h = packages/*; level
      send '{"install": {"id": "com.velmora.b", "metadata": {"a": "b"}}}'
      cat packages/com.velmora.b.package | tr '\n' ' ')"));
  EXPECT_EQ(run.errors, "");
  EXPECT_THAT(
      Lines(run.output),
      ElementsAre(AGENT_PACKAGE_ID ".package", "status 5", "Version=2.3.182", "Clients=com.*;",
                  "11", "status 0", "Version=9.1", "Clients=com.other;", "status 3",
                  "[Package] Version=1.0.0  [Application com.velmora.b] a=b status 0"));
}

TEST_F(AnUpdate, CanChangeTheApiLevelForGood) {
  const Finished run = Run("{}", 0, kTools + std::string(R"(
      send api-level=12; level; send restart; level; send api-level=-3 restart; level)"));
  EXPECT_EQ(run.errors, "");
  EXPECT_THAT(Lines(run.output),
              ElementsAre("12", "status 0", "12", "status 0", "-3", "status 0", "status 0"));
}

TEST_F(AnUpdate, CanCloseThePortWithTheAgentStillOnTheBus) {
  const Finished run = Run("{}", 1, kTools + std::string(R"(
      send close; level; send close agent-launch; send restart; level)"));
  EXPECT_EQ(run.errors, "");
  EXPECT_THAT(Lines(run.output), testing::UnorderedElementsAre("status 6", "agent_status Launch",
                                                               "11", "status 0", "status 0"));
}

TEST_F(AnUpdate, CanCloseThePortInTheMiddleOfWorkOnModels) {
  const Finished run = Run(R"({"models": [{"id": "m", "versions": ["1"]}],
      "methods": {"RequestToUpdate": {"stepsAt": {"percentage": 40, "steps": [
          {"close": true}, {"wait": 20}, {"modelStatus": "FAILED"}, {"apiLevel": 3}]}}}})",
                           2, kTools + std::string(R"(
      "$CTL" models update --force m >/dev/null 2>&1; echo "status $?"; send wait=100 restart; level)"));
  EXPECT_EQ(run.errors, "");
  EXPECT_THAT(Lines(run.output),
              testing::UnorderedElementsAre("model_status START", "status 6", "model_status FAILED",
                                            "3", "status 0", "status 0"));
}

TEST_F(AnUpdate, CanEndTheBus) {
  const Finished run = Run("{}", 0, kTools + std::string(R"(
      pid=$(cat bus.pid); send kill-bus; while kill -0 $pid 2>/dev/null; do :; done
      send kill-bus agent-launch; level)"));
  EXPECT_THAT(Lines(run.output), ElementsAre("11", "status 0", "status 0"));
}

TEST_F(AnUpdate, FollowsAMethodThroughTheAgentsRestart) {
  const Finished run = Run(R"({"methods": {"get_agent_api_level": {
      "calls": [{"steps": [{"restart": true}, {"modelStatus": "START"}]}, {}]}}})",
                           1, kTools + std::string("level"));
  EXPECT_EQ(run.errors, "");
  EXPECT_THAT(Lines(run.output),
              testing::UnorderedElementsAre("11", "model_status START", "status 0", "status 0"));
}

TEST_F(AnUpdate, LeavesACountOfCallsToTheNextProcess) {
  const Finished run = Run(R"({"agent": {"restart": "always"}, "methods": {
      "get_agent_api_level": {"result": [1, 2, 3, 4], "calls": [{}, {"fault": "crash"}, {}]}}})",
                           1, kTools + std::string(R"(
      level; level; send wait=0; level; send restart; level)"));
  EXPECT_EQ(run.errors, "");
  // The agent may be back before the command looks whether the connection still stands.
  const auto crashed = testing::AnyOf("status 6", "status 1");
  EXPECT_THAT(Lines(run.output),
              testing::UnorderedElementsAre("1", "status 0", crashed, "agent_status Launch", "3",
                                            "status 0", "4", "status 0", "status 0"));
}

TEST_F(AnUpdate, CannotBePromptedWhereNoAgentRuns) {
  const Finished run = RunSim({"run", "agent-not-running", "--", SVCMGR_SIM, "send", "update"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.errors, "svcmgr-sim: there is no agent that runs\n");
}

TEST_F(AnUpdate, CannotBePromptedOutsideAWorld) {
  unsetenv("SVCMGR_SIM_CONTROL");
  const Finished run = RunSim({"send", "update"});
  EXPECT_EQ(run.status, 2);
  EXPECT_THAT(run.errors, HasSubstr("this is no world"));
}

struct Wording {
  std::vector<std::string> words;
  const char* document;
};

TEST(Words, StandForSteps) {
  const Wording wordings[] = {
      {{"update-start"}, R"([{"event":"Start"}])"},
      {{"update-start=a,b"}, R"([{"agents":["a","b"],"event":"Start"}])"},
      {{"update-complete", "wait=5"}, R"([{"event":"Complete"},{"wait":5}])"},
      {{"update-fail=-3"}, R"([{"code":-3,"event":"Fail"}])"},
      {{"update-result=a.b:1,c:0"}, R"([{"result":{"a.b":1,"c":0}}])"},
      {{"agent-update", "agent-launch"}, R"([{"event":"Update"},{"event":"Launch"}])"},
      {{"self-update"}, R"([{"selfUpdate":{}}])"},
      {{"self-update=2.4.0"}, R"([{"selfUpdate":{"version":"2.4.0"}}])"},
      {{"install=3", "restart", "kill"}, R"([{"install":"3"},{"restart":true},{"kill":true}])"},
      {{"refuse", "admit"}, R"([{"refuse":true},{"refuse":false}])"},
      {{"refuse=a,b*", "drop=a", "drop"},
       R"([{"refuse":["a","b*"]},{"drop":["a"]},{"drop":true}])"},
      {{"remove", "remove=a.b"}, R"([{"remove":true},{"remove":"a.b"}])"},
      {{"clients", "clients=a,b"}, R"([{"clients":[]},{"clients":["a","b"]}])"},
      {{"close", "kill-bus", "api-level=3"}, R"([{"close":true},{"killBus":true},{"apiLevel":3}])"},
      {{"model-start", "model-failed"}, R"([{"modelStatus":"START"},{"modelStatus":"FAILED"}])"},
      {{R"({"wait": 1})", R"( [{"kill": true}] )", "update"},
       R"([{"wait": 1},{"kill": true},{"update":true}])"},
      {{"[]"}, "[]"},
      {{"// first\n{\"wait\": 1} // last", "[/**/]"}, "[        \n{\"wait\": 1}        ]"},
  };
  for (const Wording& wording : wordings) {
    EXPECT_EQ(sim::StepsOfWords(wording.words), wording.document);
  }
}

TEST(Words, AreRefusedThatStandForNothing) {
  for (const char* word :
       {"", "sing", "kill=now", "wait", "wait=long", "wait=-1", "update-fail", "update-result=5",
        "install=a b", "{", "[1]", "{}", R"({"wait": 1, "kill": true})",
        R"({"event": "Start", "code": 1})", R"({"event": "Complete", "agents": []})",
        R"({"event": "Fail"})", R"({"texts": {}})", R"({"broadcast": "a.b"})",
        R"({"times": 0, "wait": 1})"}) {
    EXPECT_ANY_THROW(sim::StepsOfWords({word})) << word;
  }
}

}  // namespace
