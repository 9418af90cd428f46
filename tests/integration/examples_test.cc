// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <map>
#include <string>
#include <vector>

#include "sim_process.h"
#include "temp_folder.h"

namespace {

using testing::HasSubstr;
using testing::Not;

/** The same program in C, and in C++ with the ending -cc, says codes by number or by name. */
class Program : public testing::TestWithParam<const char*> {
 protected:
  std::string name() const {
    const std::string suite = testing::UnitTest::GetInstance()->current_test_suite()->name();
    return kNames.at(suite.substr(suite.find('/') + 1)) + GetParam();
  }
  std::string path() const { return EXAMPLES "/" + name(); }

  Finished Run(const std::string& scenario, const std::vector<std::string>& arguments = {}) const {
    std::vector<std::string> all = {"run", scenario, "--", path()};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return RunSim(all);
  }

  /** Runs a script with the program as $0 and svcmgr-sim as $1; $out is a file for its output. */
  Finished RunScript(const std::string& scenario, const std::string& script) const {
    const std::string preamble =
        "out=$(mktemp); trap 'rm -f \"$out\"' EXIT\n"
        "printed() { until grep -q \"$1\" \"$out\"; do kill -0 $! || exit 98; sleep 0.05; done; "
        "}\n";
    return RunSim({"run", scenario, "--", "sh", "-c", preamble + script, path(), SVCMGR_SIM});
  }

  bool IsCxx() const { return *GetParam() != '\0'; }
  /** How the program reports an error. */
  std::string Says(int code, const std::string& error_name) const {
    return name() + ": " + (IsCxx() ? error_name : "error " + std::to_string(code) + "\n");
  }

 private:
  static inline const std::map<std::string, std::string> kNames = {
      {"ListModels", "list-models"},     {"FollowUpdate", "follow-update"},
      {"ProgressBar", "progress-bar"},   {"SurviveRestart", "survive-restart"},
      {"StatusEvents", "status-events"}, {"WorkerThread", "worker-thread"},
      {"EpollLoop", "epoll-loop"}};
};

std::string LanguageOf(const testing::TestParamInfo<const char*>& info) {
  return *info.param == '\0' ? "C" : "Cxx";
}

class FollowUpdate : public Program {};
INSTANTIATE_TEST_SUITE_P(In, FollowUpdate, testing::Values("", "-cc"), LanguageOf);

class ProgressBar : public Program {};
INSTANTIATE_TEST_SUITE_P(In, ProgressBar, testing::Values("", "-cc"), LanguageOf);

class SurviveRestart : public Program {};
INSTANTIATE_TEST_SUITE_P(In, SurviveRestart, testing::Values("", "-cc"), LanguageOf);

class WorkerThread : public Program {};
INSTANTIATE_TEST_SUITE_P(In, WorkerThread, testing::Values("", "-cc"), LanguageOf);

class EpollLoop : public Program {};
INSTANTIATE_TEST_SUITE_P(In, EpollLoop, testing::Values("", "-cc"), LanguageOf);

class StatusEvents : public Program {};
INSTANTIATE_TEST_SUITE_P(In, StatusEvents, testing::Values(""), LanguageOf);

std::string ScenarioOf(const TempFolder& folder, const std::string& content) {
  return folder.Write("scenario.json", content);
}

TEST_P(FollowUpdate, FollowsAnUpdateThroughTheRestartOfTheAgentWithoutALossOfTheConnection) {
  const Finished run = Run("update-self");
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output, "the update has begun\nthe update has ended well\n");
  EXPECT_EQ(run.errors, "");
}

TEST_P(FollowUpdate, FailsWithTheStatusOfAnUpdateThatFails) {
  const Finished run = Run("update-fails");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr("the update has failed with the status 3\n"));
}

TEST_P(FollowUpdate, GivesUpWhenNothingIsHeard) {
  const Finished run = Run("update-silent", {"1"});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr(IsCxx() ? "TIMEOUT" : "nothing was heard for 1 s\n"));
}

TEST_P(FollowUpdate, SaysWhyItIsNotConnected) {
  EXPECT_THAT(Run("refused").errors, HasSubstr(Says(-13, "SVCMGR_ERROR_PERMISSION_DENIED")));
  EXPECT_THAT(Run("agent-missing").errors,
              HasSubstr(Says(-1073741822, "SVCMGR_ERROR_NOT_SUPPORTED")));
  EXPECT_THAT(Run("kyr-disabled").errors,
              HasSubstr(Says(-1073741826, "SVCMGR_ERROR_KYR_DISABLED")));
}

TEST_P(ProgressBar, PrintsEachTenthOfTheWholeUntilTheWorkIsDone) {
  const Finished run = Run("demo", {"vision.segment@2.1.0", "speech.wake-word"});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, testing::EndsWith("90 %\n100 %\n"));
  EXPECT_THAT(run.output, HasSubstr("40 %\n50 %\n60 %\n"));
  EXPECT_EQ(run.errors, "");
}

TEST_P(ProgressBar, FailsWhereTheWorkDoes) {
  EXPECT_EQ(Run("models-fail", {"vision.segment"}).status, 1);
  EXPECT_THAT(Run("models-no-space", {"vision.segment"}).errors,
              HasSubstr(Says(-28, "SVCMGR_ERROR_NO_SPACE")));
  EXPECT_THAT(Run("old-agent", {"vision.segment"}).errors,
              HasSubstr(Says(-1073741827, "SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION")));
  EXPECT_EQ(Run("demo").status, 2);
}

TEST_P(ProgressBar, IsFullWhereTheEventsAloneTellOfTheEnd) {
  const TempFolder folder;
  const std::string scenario =
      ScenarioOf(folder, R"({"models": [{"id": "a", "versions": ["1"], "available": ["2"]}],
                             "methods": {"RequestToUpdate": {"report": "no-last", "parts": 4, "pace": 200}}})");
  const Finished run = Run(scenario, {"a"});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, testing::EndsWith("\n100 %\n"));
}

TEST_P(ProgressBar, NeverGoesBackwards) {
  const TempFolder folder;
  const std::string scenario = ScenarioOf(folder, R"({"methods": {"RequestToUpdate": {"progress": [
      {"state": 1, "index": 1, "count": 2, "percentage": 60},
      {"state": 1, "index": 1, "count": 2, "percentage": 20},
      {"state": 1, "index": 2, "count": 2, "percentage": 100},
      {"state": 1, "index": 1, "count": 2, "percentage": 90},
      {"state": 2, "index": 2, "count": 2, "percentage": 100}]}}})");
  const Finished run = Run(scenario, {"a", "b"});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output, "30 %\n99 %\n100 %\n");
}

TEST_P(ProgressBar, SaysSoWhenTheAgentIsKilledInTheMiddle) {
  const Finished run = RunScript("models-stall", R"(
      "$0" vision.segment >"$out" &
      printed '40 %'
      "$1" send kill; wait $!)");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr(Says(-107, "CONNECTION_LOST")));
}

TEST_P(ProgressBar, GoesOnThroughTheAgentsDeathWhereItIsToldTo) {
  const Finished run = Run("dies-and-recovers", {"--again", "vision.segment"});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output, "10 %\n20 %\n30 %\n40 %\n50 %\n60 %\n70 %\n80 %\n90 %\n100 %\n");
  EXPECT_EQ(Run("dies-and-recovers", {"vision.segment"}).status, 1);
  EXPECT_EQ(Run("demo", {"--again"}).status, 2);
}

TEST_P(SurviveRestart, AsksAnAgentThatHasReplacedItself) {
  const Finished run = RunScript("demo", R"(
      "$0" >>"$out" & program=$!
      printed '4 models'
      "$1" send self-update=2.9.9; echo "--" >>"$out"
      until sed '1,/--/d' "$out" | grep -q '4 models'; do kill -0 $program || exit 97; sleep 0.05; done
      kill -TERM $program; wait $program; status=$?
      cat "$out"; exit $status)");
  EXPECT_EQ(run.status, 0) << run.output << run.errors;
  EXPECT_THAT(run.output, Not(HasSubstr(IsCxx() ? "Lost" : "lost")));
}

TEST_P(SurviveRestart, AsksAgainWhenAnAgentThatDiedIsLaunchedAgain) {
  const TempFolder folder;
  const std::string scenario =
      ScenarioOf(folder, R"({"agent": {"restart": "always"}, "generate": 7})");
  const Finished run = RunScript(scenario, R"(
      "$0" >>"$out" & program=$!
      printed '7 models'
      "$1" send kill
      printed ost
      until sed '1,/ost/d' "$out" | grep -q '7 models'; do kill -0 $program || exit 97; sleep 0.05; done
      kill -TERM $program; wait $program; status=$?
      uniq "$out"; exit $status)");
  EXPECT_EQ(run.status, 0) << run.output << run.errors;
  EXPECT_EQ(run.output, IsCxx() ? "Connected\n7 models\nLost\nConnected\n7 models\n"
                                : "connected\n7 models\nlost\nconnected\n7 models\n");
}

TEST_P(SurviveRestart, EndsWhereOnlyANewProcessHelps) {
  const Finished refused = Run("refused");
  EXPECT_EQ(refused.status, 75);
  EXPECT_EQ(refused.output, IsCxx() ? "Rejected\n" : "refused\n");
  EXPECT_EQ(Run("agent-missing").status, 1);
  EXPECT_EQ(Run("permission-denied").status, 1);
}

// A bus that is slow to take a subscription loses what is sent before: the first event of each kind is
// sent until it is heard.
TEST_P(StatusEvents, PrintsWhatHappensToAgentsAndModels) {
  const Finished run = RunScript("demo", R"(
      "$0" 10000 >"$out" & program=$!
      until grep -q 'agents has begun' "$out"; do "$1" send update-start || exit; done
      until grep -q 'models has begun' "$out"; do "$1" send model-start || exit; done
      "$1" send update-fail=3 model-completed model-failed
      printed 'models has failed'
      kill $program; wait $program
      uniq "$out")");
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output,
            "listening\n"
            "an update of the agents has begun (0)\n"
            "work on models has begun (17)\n"
            "an update of the agents has failed (3)\n"
            "work on models has ended well (20)\n"
            "work on models has failed (24)\n");
}

TEST_P(StatusEvents, EndsAfterSoManyEvents) {
  const Finished run = RunScript("demo", R"(
      "$0" 2 >"$out" & program=$!
      while kill -0 $program 2>/dev/null; do "$1" send update-start; done
      wait $program; status=$?
      sort "$out" | uniq; exit $status)");
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output, "an update of the agents has begun (0)\nlistening\n");
}

TEST_P(WorkerThread, PrintsTheLicence) {
  const Finished run = Run("demo");
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, HasSubstr("Velmora Service Agent 2.3\n"));
  EXPECT_EQ(run.errors, "");
}

TEST_P(WorkerThread, GivesUpOnAnAgentThatDoesNotAnswer) {
  const Finished run = Run("never-answers");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr("did not answer in time"));
}

TEST_P(WorkerThread, TellsAMissingTextFromAFailure) {
  EXPECT_THAT(Run("empty").errors, HasSubstr(IsCxx() ? "NO_LICENSE" : "no licence text"));
  EXPECT_THAT(Run("kyr-disabled").errors,
              HasSubstr(Says(-1073741826, "SVCMGR_ERROR_KYR_DISABLED")));
}

TEST_P(EpollLoop, ListsTheModels) {
  const Finished run = Run("demo");
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output, "vision.segment\nvision.upscale\nspeech.wake-word\ntext.summary.small\n");
  EXPECT_EQ(run.errors, "");
}

TEST_P(EpollLoop, ServesTheDescriptorsOfTheApplicationToo) {
  const Finished run = Run("never-answers");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr(IsCxx() ? "TIMEOUT" : "error 2\n"));
}

}  // namespace
