// SPDX-License-Identifier: Apache-2.0
// A client of the C++ face in a world of its own.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "sim_process.h"
#include "temp_folder.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

std::string RunFace(const std::string& scenario, std::vector<std::string> words) {
  std::vector<std::string> arguments = {"run", scenario, "--", FACE_CLIENT};
  arguments.insert(arguments.end(), words.begin(), words.end());
  const Finished run = RunSim(arguments);
  EXPECT_EQ(run.status, 0) << run.errors;
  return run.output;
}

/** Models whose listing takes a while, and an agent that replaces itself when it is asked. */
constexpr char kSlowList[] = R"({
  "models": [{"id": "a", "title": "A", "versions": ["1.0"]}],
  "methods": {"GetUsableModelList": {"delay": 2000}},
  "update": {"steps": [{"event": "Start"}, {"selfUpdate": {}}, {"event": "Complete"}]}
})";

const std::string kSim = SVCMGR_SIM;

TEST(TheFace, ListsTheModels) {
  EXPECT_THAT(RunFace("demo", {"list"}),
              MatchesRegex("state: Connected\nend: 4 models vision.segment@2.0.1 .*\n"));
}

TEST(TheFace, ListsAThousandModels) {
  EXPECT_THAT(RunFace("large", {"list"}), HasSubstr("end: 1000 models"));
}

TEST(TheFace, AsksOnAThreadOfItsOwn) {
  EXPECT_EQ(RunFace("demo", {"level"}), "state: Connected\nend: level 11\n");
}

TEST(TheFace, FollowsAnUpdateToItsEnd) {
  EXPECT_EQ(RunFace("demo", {"update", "vision.segment"}),
            "state: Connected\ntotal: 100\nend: done\n");
}

TEST(TheFace, SendsAgainWhatTheAgentsRestartSwallows) {
  const TempFolder folder;
  EXPECT_THAT(
      RunFace(folder.Write("slow.json", kSlowList), {"restart", kSim + " send self-update"}),
      MatchesRegex("state: Connected\n(state: Restarting\nstate: Connected\n)?"
                   "end: 1 models a@1.0\n"));
}

TEST(TheFace, SendsAgainWhatAnUpdateOfItsOwnSwallows) {
  const TempFolder folder;
  EXPECT_THAT(RunFace(folder.Write("slow.json", kSlowList), {"update-self"}),
              testing::AllOf(HasSubstr("taken: ok\n"), HasSubstr("end: 1 models a@1.0\n")));
}

TEST(TheFace, LosesWorkWhenTheAgentIsKilled) {
  EXPECT_THAT(RunFace("models-stall", {"kill", "vision.segment", kSim + " send kill"}),
              MatchesRegex("state: Connected\n.*total: [2-5]0\nend: CONNECTION_LOST\n"));
}

TEST(TheFace, TimesOutWhenWorkStalls) {
  EXPECT_THAT(RunFace("models-stall", {"update", "vision.segment", "3000"}),
              MatchesRegex("(state: Connected\n)?total: [0-5]?0\nend: TIMEOUT\n"));
}

TEST(TheFace, TimesOutWhenTheAgentNeverAnswers) {
  EXPECT_THAT(RunFace("never-answers", {"list", "1000"}),
              MatchesRegex("(state: Connected\n)?end: TIMEOUT\n"));
}

TEST(TheFace, SaysThatTheAgentDoesNotRun) {
  EXPECT_EQ(RunFace("agent-not-running", {"list"}),
            "state: Failed\nend: SVCMGR_ERROR_CONNECTION_FAILED\n");
}

TEST(TheFace, SaysThatTheAgentRefuses) {
  EXPECT_EQ(RunFace("refused", {"list"}), "state: Rejected\nend: SVCMGR_ERROR_PERMISSION_DENIED\n");
}

TEST(TheFace, LosesWhatTheAgentDiesOf) {
  EXPECT_THAT(RunFace("crashes", {"list"}), HasSubstr("end: CONNECTION_LOST\n"));
  EXPECT_THAT(RunFace("drops", {"list"}), HasSubstr("end: CONNECTION_LOST\n"));
}

}  // namespace
