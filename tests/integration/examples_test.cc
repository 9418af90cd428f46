// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "sim_process.h"
#include "temp_folder.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;

std::string Example(const std::string& name) { return EXAMPLES "/" + name; }

Finished RunExample(const std::string& scenario, const std::string& name,
                    const std::vector<std::string>& arguments = {}) {
  std::vector<std::string> all = {"run", scenario, "--", Example(name)};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return RunSim(all);
}

/** Runs a script with an example as $0 and svcmgr-sim as $1; $out is a file for its output. */
Finished RunScript(const std::string& scenario, const std::string& name,
                   const std::string& script) {
  const std::string preamble =
      "out=$(mktemp); trap 'rm -f \"$out\"' EXIT\n"
      "printed() { until grep -q \"$1\" \"$out\"; do kill -0 $! || exit 98; sleep 0.05; done; }\n";
  return RunSim({"run", scenario, "--", "sh", "-c", preamble + script, Example(name), SVCMGR_SIM});
}

std::string ScenarioOf(const TempFolder& folder, const std::string& content) {
  return folder.Write("scenario.json", content);
}

TEST(FollowUpdate, FollowsAnUpdateThroughTheRestartOfTheAgentWithoutALossOfTheConnection) {
  const Finished run = RunExample("update-self", "follow-update");
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output, "the update has begun\nthe update has ended well\n");
  EXPECT_EQ(run.errors, "");
}

TEST(FollowUpdate, FailsWithTheStatusOfAnUpdateThatFails) {
  const Finished run = RunExample("update-fails", "follow-update");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr("the update has failed with the status 3\n"));
}

TEST(FollowUpdate, GivesUpWhenNothingIsHeard) {
  const Finished run = RunExample("update-silent", "follow-update", {"1"});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr("nothing was heard for 1 s\n"));
}

TEST(FollowUpdate, SaysWhyItIsNotConnected) {
  EXPECT_THAT(RunExample("refused", "follow-update").errors,
              AllOf(HasSubstr("refused the connection\n"), HasSubstr("error -13\n")));
  EXPECT_THAT(RunExample("agent-missing", "follow-update").errors, HasSubstr("error -1073741822"));
  EXPECT_THAT(RunExample("kyr-disabled", "follow-update").errors, HasSubstr("error -1073741826"));
}

TEST(ProgressBar, PrintsEachTenthOfTheWholeUntilTheWorkIsDone) {
  const Finished run =
      RunExample("demo", "progress-bar", {"vision.segment@2.1.0", "speech.wake-word"});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, testing::EndsWith("90 %\n100 %\n"));
  EXPECT_THAT(run.output, HasSubstr("40 %\n50 %\n60 %\n"));
  EXPECT_EQ(run.errors, "");
}

TEST(ProgressBar, FailsWhereTheWorkDoes) {
  EXPECT_EQ(RunExample("models-fail", "progress-bar", {"vision.segment"}).status, 1);
  EXPECT_THAT(RunExample("models-no-space", "progress-bar", {"vision.segment"}).errors,
              HasSubstr("error -28\n"));
  EXPECT_THAT(RunExample("old-agent", "progress-bar", {"vision.segment"}).errors,
              HasSubstr("error -1073741827\n"));
  EXPECT_EQ(RunExample("demo", "progress-bar").status, 2);
}

TEST(ProgressBar, IsFullWhereTheEventsAloneTellOfTheEnd) {
  const TempFolder folder;
  const std::string scenario =
      ScenarioOf(folder, R"({"models": [{"id": "a", "versions": ["1"], "available": ["2"]}],
                             "methods": {"RequestToUpdate": {"report": "no-last", "parts": 4}}})");
  const Finished run = RunExample(scenario, "progress-bar", {"a"});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, testing::EndsWith("\n100 %\n"));
}

TEST(ProgressBar, NeverGoesBackwards) {
  const TempFolder folder;
  const std::string scenario = ScenarioOf(folder, R"({"methods": {"RequestToUpdate": {"progress": [
      {"state": 1, "index": 1, "count": 2, "percentage": 60},
      {"state": 1, "index": 1, "count": 2, "percentage": 20},
      {"state": 1, "index": 2, "count": 2, "percentage": 100},
      {"state": 1, "index": 1, "count": 2, "percentage": 90},
      {"state": 2, "index": 2, "count": 2, "percentage": 100}]}}})");
  const Finished run = RunExample(scenario, "progress-bar", {"a", "b"});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output, "30 %\n99 %\n100 %\n");
}

TEST(ProgressBar, SaysSoWhenTheAgentIsKilledInTheMiddle) {
  const Finished run = RunScript("models-stall", "progress-bar", R"(
      "$0" vision.segment >"$out" &
      printed '40 %'
      "$1" send kill; wait $!)");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr("progress-bar: error -107\n"));
}

TEST(SurviveRestart, AsksAnAgentThatHasReplacedItself) {
  const Finished run = RunScript("demo", "survive-restart", R"(
      "$0" >>"$out" & program=$!
      printed '4 models'
      "$1" send self-update=2.9.9; echo "--" >>"$out"
      until sed '1,/--/d' "$out" | grep -q '4 models'; do kill -0 $program || exit 97; sleep 0.05; done
      kill -TERM $program; wait $program; status=$?
      cat "$out"; exit $status)");
  EXPECT_EQ(run.status, 0) << run.output << run.errors;
  EXPECT_EQ(run.output.find("lost"), std::string::npos) << run.output;
}

TEST(SurviveRestart, AsksAgainWhenAnAgentThatDiedIsLaunchedAgain) {
  const TempFolder folder;
  const std::string scenario =
      ScenarioOf(folder, R"({"agent": {"restart": "always"}, "generate": 7})");
  const Finished run = RunScript(scenario, "survive-restart", R"(
      "$0" >>"$out" & program=$!
      printed '7 models'
      "$1" send kill
      printed lost
      until sed '1,/lost/d' "$out" | grep -q '7 models'; do kill -0 $program || exit 97; sleep 0.05; done
      kill -TERM $program; wait $program; status=$?
      uniq "$out"; exit $status)");
  EXPECT_EQ(run.status, 0) << run.output << run.errors;
  EXPECT_EQ(run.output, "connected\n7 models\nlost\nconnected\n7 models\n");
}

TEST(SurviveRestart, EndsWhereOnlyANewProcessHelps) {
  const Finished refused = RunExample("refused", "survive-restart");
  EXPECT_EQ(refused.status, 75);
  EXPECT_EQ(refused.output, "refused\n");
  EXPECT_EQ(RunExample("agent-missing", "survive-restart").status, 1);
  EXPECT_EQ(RunExample("permission-denied", "survive-restart").status, 1);
}

TEST(StatusEvents, PrintsWhatHappensToAgentsAndModels) {
  const Finished run = RunScript("demo", "status-events", R"(
      "$0" 5 >"$out" &
      printed listening
      "$1" send update-start update-fail=3 model-start model-completed model-failed
      wait $!; status=$?
      cat "$out"; exit $status)");
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output,
            "listening\n"
            "an update of the agents has begun (0)\n"
            "an update of the agents has failed (3)\n"
            "work on models has begun (17)\n"
            "work on models has ended well (20)\n"
            "work on models has failed (24)\n");
}

TEST(WorkerThread, PrintsTheLicence) {
  const Finished run = RunExample("demo", "worker-thread");
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, HasSubstr("Velmora Service Agent 2.3\n"));
  EXPECT_EQ(run.errors, "");
}

TEST(WorkerThread, GivesUpOnAnAgentThatDoesNotAnswer) {
  const Finished run = RunExample("never-answers", "worker-thread");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr("did not answer in time\n"));
}

TEST(WorkerThread, TellsAMissingTextFromAFailure) {
  EXPECT_THAT(RunExample("empty", "worker-thread").errors, HasSubstr("no licence text"));
  EXPECT_THAT(RunExample("kyr-disabled", "worker-thread").errors, HasSubstr("error -1073741826\n"));
}

TEST(EpollLoop, ListsTheModels) {
  const Finished run = RunExample("demo", "epoll-loop");
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output, "vision.segment\nvision.upscale\nspeech.wake-word\ntext.summary.small\n");
  EXPECT_EQ(run.errors, "");
}

TEST(EpollLoop, ServesTheDescriptorsOfTheApplicationToo) {
  const Finished run = RunExample("never-answers", "epoll-loop");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr("error 2\n"));
}

}  // namespace
