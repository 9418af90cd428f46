// SPDX-License-Identifier: Apache-2.0
//
// Updates and uninstallations of models that are followed.
#include <gmock/gmock.h>

#include <csignal>
#include <nlohmann/json.hpp>

#include "event_line.h"
#include "json_lines.h"
#include "process.h"
#include "screen.h"

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

std::string Work(const std::string& steps, const std::string& more = "") {
  return R"({"work": {"then": [)" + steps + "]}" + more + "}";
}

std::string Progress(int error, int state, int index, int count, int percentage) {
  return "{\"progress\": " + json({error, state, index, count, percentage}).dump() + "}";
}

std::string TwoModels() {
  return Progress(0, 1, 1, 2, 0) + "," + Progress(0, 1, 1, 2, 44) + "," + Progress(0, 1, 1, 2, 46) +
         "," + Progress(0, 1, 1, 2, 100) + "," + Progress(0, 1, 2, 2, 30) + "," +
         Progress(0, 2, 2, 2, 100);
}

TEST(WorkOnModels, IsFollowedInLinesWhereThereIsNoTerminal) {
  const Ending ending = RunScripted(Work(TwoModels()), {"models", "update", "a", "b@2"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.errors, "");
  EXPECT_THAT(Lines(ending.output),
              ElementsAre(Says("the agent was asked for the update of a, b@2"),
                          Says("a: 0 % (total 0 %)"), Says("a: 44 % (total 22 %)"),
                          Says("a: 99 % (total 49 %)"), Says("b@2: 30 % (total 65 %)"),
                          Says("b@2: 100 % (total 100 %)"), Says("2 models are updated")));
}

TEST(WorkOnModels, IsJsonLinesOnRequest) {
  const Ending ending = RunScripted(
      Work(R"({"model": 17},)" + Progress(0, 1, 1, 1, 40) + "," + Progress(0, 2, 1, 1, 100)),
      {"models", "uninstall", "a", "--json"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.errors, "");
  std::vector<json> lines = JsonLines(ending.output);
  for (json& line : lines) {
    EXPECT_TRUE(line.contains("time") && line.contains("elapsed"));
    line.erase("time");
    line.erase("elapsed");
  }
  EXPECT_THAT(
      lines,
      ElementsAre(
          json::parse(R"({"event": "requested", "work": "uninstallation",
                                  "models": [{"id": "a", "version": ""}]})"),
          json::parse(R"({"event": "model", "status": 17, "name": "SVCMGR_AI_STATUS_STARTED"})"),
          json::parse(R"({"event": "progress", "error": 0, "state": 1, "index": 1, "count": 1,
                                  "percentage": 40, "id": "a", "model_percent": 40,
                                  "total_percent": 40, "rate": null, "remaining": null})"),
          json::parse(R"({"event": "progress", "error": 0, "state": 2, "index": 1, "count": 1,
                                  "percentage": 100, "id": "a", "model_percent": 100,
                                  "total_percent": 100, "rate": null, "remaining": null})"),
          json::parse(R"({"event": "end", "succeeded": true, "error": 0,
                                  "decided_by": "progress"})")));
}

struct Wanted {
  std::vector<std::string> arguments;
  const char* models;
  bool uninstall;
};

TEST(WorkOnModels, IsAskedForWithIdsAndVersionsInTheirOrder) {
  const Wanted rows[] = {
      {{"update", "b", "a@1.0"}, R"([["b", ""], ["a", "1.0"]])", false},
      {{"update", "a@b@1"}, R"([["a@b", "1"]])", false},
      {{"update", "a@b@"}, R"([["a@b", ""]])", false},
      {{"uninstall", "a@b", "c"}, R"([["a@b", ""], ["c", ""]])", true},
  };
  for (const Wanted& row : rows) {
    const std::string script = R"({"work": {"models": )" + std::string(row.models) +
                               R"(, "uninstall": )" + (row.uninstall ? "true" : "false") +
                               R"(, "then": [{"progress": [0, 2, 0, 0, 0]}]}})";
    std::vector<std::string> arguments = row.arguments;
    arguments.insert(arguments.begin(), "models");
    EXPECT_EQ(RunScripted(script, arguments).status, 0) << row.models;
  }
}

TEST(WorkOnModels, NeedsTheNameOfAModel) {
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{"models", "update"},
                                                    {"models", "uninstall"},
                                                    {"models", "update", "@1"},
                                                    {"models", "update", ""}})
    EXPECT_EQ(RunScripted("{}", arguments).status, 2);
}

struct Failing {
  std::string script;
  int status;
  const char* message;
};

TEST(WorkOnModels, ThatFailsEndsWithTheStatusOfWhatTheAgentSays) {
  const Failing rows[] = {
      {Work(Progress(-28, 3, 1, 1, 50)), 8, "a: the device has no storage left"},
      {Work(Progress(-1073741826, 3, 0, 1, 0)), 9, "a: the KYR feature is disabled"},
      {Work(Progress(-13, 3, 0, 1, 0)), 3, "a: permission denied"},
      {Work(Progress(-1073741829, 1, 1, 1, 0)), 1, "a: the agent reports its result 6"},
      {Work(Progress(0, 3, 1, 1, 50)), 1,
       "a: the agent reports that the work has failed; try again; the agent says no more"},
      {Work(Progress(-38, 3, 1, 1, 50), R"(, "versions": {"models": [{"id": "a"}]})"), 1,
       "a: the operation could not be carried out"},
      {Work(Progress(-38, 3, 1, 1, 50), R"(, "versions": {"error": -13})"), 1,
       "a: the operation could not be carried out"},
      {Work(Progress(-38, 3, 1, 1, 50),
            R"(, "versions": {}, "models": {"models": [{"id": "aa"}]})"),
       4, "there is no usable model 'a'; did you mean 'aa'\n"},
      {R"({"work": {"result": -1073741827}})", 5, "the installed agent is too old for this"},
      {R"({"work": {"result": -38}})", 1, "the operation could not be carried out"},
      {R"({"work": {"drop": true, "result": -38}})", 6,
       "the connection to the agent was lost; try again"},
  };
  for (const Failing& row : rows) {
    const Ending people = RunScripted(row.script, {"models", "update", "a"});
    EXPECT_EQ(people.status, row.status) << row.script;
    EXPECT_THAT(people.errors, StartsWith(std::string("svcmgrctl: error: ") + row.message));
    const Ending programs = RunScripted(row.script, {"models", "update", "a", "--json"});
    EXPECT_EQ(programs.status, row.status) << row.script;
    EXPECT_EQ(json::parse(programs.errors)["error"]["exit"], row.status);
    EXPECT_NO_THROW(JsonLines(programs.output));
  }
}

TEST(WorkOnModels, OfAHostileNameThatIsNotFoundIsSafeInTheRemedyToo) {
  const Ending ending = RunScripted(
      Work(Progress(-38, 3, 1, 1, 0), R"(, "versions": {"models": [{"id": "a", "version": "1"}]})"),
      {"models", "update", "--force", "a\x1b[2J@2"});
  EXPECT_EQ(ending.status, 4);
  EXPECT_EQ(ending.errors,
            "svcmgrctl: error: there is no version '2' of 'a\\x1B[2J'; 'svcmgrctl models versions "
            "a\\x1B[2J' shows those that there are\n");
}

TEST(WorkOnModels, OfAVersionThatTheAgentDoesNotListIsNotFound) {
  const Ending ending = RunScripted(
      Work(Progress(-38, 3, 1, 1, 0), R"(, "versions": {"models": [{"id": "a", "version": "1"}]})"),
      {"models", "update", "a@2"});
  EXPECT_EQ(ending.status, 4);
  EXPECT_EQ(ending.errors,
            "svcmgrctl: error: there is no version '2' of 'a'; 'svcmgrctl models versions a' shows "
            "those that there are\n");
}

TEST(WorkOnModels, ThatRemovesWhatIsNotThereIsNotFound) {
  const std::string failed = Progress(-38, 3, 2, 2, 0);
  EXPECT_EQ(RunScripted(Work(failed, R"(, "models": {"models": [{"id": "a"}]})"),
                        {"models", "uninstall", "a", "b"})
                .errors,
            "svcmgrctl: error: there is no usable model 'b'; did you mean 'a'\n");
  EXPECT_EQ(RunScripted(Work(failed, R"(, "models": {"models": [{"id": "b"}]})"),
                        {"models", "uninstall", "a", "b"})
                .status,
            1);
}

TEST(WorkOnModels, WhoseRecordsCannotBeMadeGoesOn) {
  EXPECT_EQ(RunScripted(
                Work(R"({"progress": [0, 1, 1, 1, 5], "null": true},)" + Progress(0, 2, 1, 1, 100)),
                {"models", "update", "a"})
                .status,
            0);
}

TEST(WorkOnModels, IsOverWhenEventsSaySoAndNothingFollows) {
  const std::string script =
      Work(R"({"model": 17},)" + Progress(0, 1, 1, 1, 90) + R"(, {"model": 20})");
  const Ending ending = RunScripted(script, {"models", "update", "a", "--json"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(JsonLines(ending.output).back()["decided_by"], "event");
  EXPECT_EQ(RunScripted(Work(R"({"model": 17}, {"model": 24})"), {"models", "update", "a"}).status,
            1);
}

TEST(WorkOnModels, IsOverWhenEventsSaySoAndTheTimeLimitIsShort) {
  const std::string script = Work(R"({"model": 17}, {"model": 20})");
  EXPECT_EQ(RunScripted(script, {"models", "update", "a", "--timeout", "1"}).status, 0);
}

TEST(WorkOnModels, ThatNeverEndsIsEndedByTheTimeLimit) {
  const Ending ending = RunScripted(Work(Progress(0, 1, 1, 2, 40)),
                                    {"models", "update", "a", "b", "--timeout", "0.1"});
  EXPECT_EQ(ending.status, 7);
  EXPECT_EQ(
      ending.errors,
      "svcmgrctl: error: the agent said nothing for 0.1 s; how the update of a (1 of 2, 40 %) "
      "ends is not known; 'svcmgrctl watch' tells how it goes on\n");
}

TEST(WorkOnModels, WhoseAgentIsGoneIsNotFollowedAnyMore) {
  const Ending ending = RunScripted(Work(Progress(0, 1, 1, 1, 40) + R"(, {"connection": [0, 1]})"),
                                    {"models", "uninstall", "a", "--timeout", "0"});
  EXPECT_EQ(ending.status, 6);
  EXPECT_EQ(
      ending.errors,
      "svcmgrctl: error: the connection to the agent was lost; how the uninstallation of a (1 "
      "of 1, 40 %) ends is not known; 'svcmgrctl watch' tells how it goes on\n");
}

TEST(WorkOnModels, ThatIsInterruptedSaysWhatGoesOn) {
  for (const bool as_json : {false, true}) {
    Start start;
    start.arguments = {"models", "update", "a", "b@3", "--timeout", "0"};
    if (as_json) start.arguments.push_back("--json");
    start.signal_when_waiting = SIGINT;
    const Ending ending = RunWith(start, Work(Progress(0, 1, 2, 2, 40) + R"(, {"waiting": true})"));
    EXPECT_EQ(ending.status, 130);
    const std::string message =
        "interrupted; the agent goes on with the update of b@3 (2 of 2, 40 %)";
    if (as_json)
      EXPECT_EQ(json::parse(ending.errors)["error"]["message"], message);
    else
      EXPECT_EQ(ending.errors, "svcmgrctl: error: " + message + "\n");
  }
}

TEST(WorkOnModels, TellsOfAStallOnceInALine) {
  Start start;
  start.arguments = {"models", "update", "a", "--timeout", "0"};
  start.interrupt_when_shown = "stalled: nothing was heard for";
  EXPECT_EQ(RunWith(start, Work(Progress(0, 1, 1, 1, 40))).status, 130);
  start.arguments.push_back("--json");
  start.interrupt_when_shown = R"("event":"stalled")";
  const Ending ending = RunWith(start, Work(Progress(0, 1, 1, 1, 40)));
  EXPECT_EQ(ending.status, 130);
  EXPECT_GE(JsonLines(ending.output).back()["silence"].get<double>(), 3);
}

TEST(WorkOnModels, ShowsHostileNamesByTheirNumbers) {
  const std::string id = "\x1b[2J\xc2\x9b\xe2\x80\xae";
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"models", "update", id}, {"models", "update", id, "--json"}}) {
    const Ending ending = RunScripted(Work(Progress(-28, 3, 1, 1, 0)), arguments);
    EXPECT_EQ(ending.status, 8);
    for (const char byte : ending.output + ending.errors)
      EXPECT_TRUE(byte == '\n' || (byte >= ' ' && byte <= '~')) << int{byte};
  }
}

class WorkOnATerminal : public testing::Test {
 protected:
  void SetUp() override {
    if (!HasTerminals()) GTEST_SKIP() << "there are no pseudo terminals here";
  }
  static Start OnTerminal(std::vector<std::string> arguments) {
    Start start;
    start.arguments = std::move(arguments);
    start.terminal = true;
    start.columns = 70;
    start.rows = 20;
    return start;
  }
};

// Pauses that are longer than the time between two pictures.
std::string Paused(const std::vector<std::string>& messages) {
  std::string steps;
  for (const std::string& message : messages) steps += message + R"(, {"pause": 250}, )";
  return steps.substr(0, steps.size() - 2);
}

/** How many characters of UTF-8 a line has, each of which takes one cell here. */
std::size_t CellsOf(const std::string& line) {
  return static_cast<std::size_t>(
      std::count_if(line.begin(), line.end(), [](char byte) { return (byte & '\xc0') != '\x80'; }));
}

/** The percentages of one bar in all pictures. */
std::vector<int> Percentages(const Screen& screen, const std::string& name) {
  std::vector<int> percentages;
  for (const std::string& picture : screen.pictures())
    for (const std::string& line : Lines(picture))
      if (line.rfind(name + " ", 0) == 0 && line.find("] ") != std::string::npos)
        percentages.push_back(std::stoi(line.substr(line.find("] ") + 2)));
  return percentages;
}

TEST_F(WorkOnATerminal, HasABarForEachModelAndOneForTheWhole) {
  const std::string script = Work(Paused({Progress(0, 1, 1, 2, 50), Progress(0, 1, 2, 2, 20)}) +
                                  "," + Progress(0, 2, 2, 2, 100));
  const Screen screen(RunWith(OnTerminal({"models", "update", "one", "two"}), script).output);
  EXPECT_THAT(screen.unknown(), IsEmpty());
  EXPECT_THAT(screen.pictures(),
              testing::Contains(HasSubstr("\none    [#############--------------]  50 %\n"
                                          "two    [---------------------------]   0 %\n"
                                          "total  [######---------------------]  25 %")));
  ASSERT_EQ(screen.lines().size(), 5u) << screen.Text();
  EXPECT_THAT(screen.lines()[1], MatchesRegex("one    \\[#+\\] 100 %"));
  EXPECT_THAT(screen.lines()[2], MatchesRegex("two    \\[#+\\] 100 %"));
  EXPECT_THAT(screen.lines()[3], MatchesRegex("total  \\[#+\\] 100 %.*"));
  EXPECT_THAT(screen.lines()[4], Says("2 models are updated"));
}

TEST_F(WorkOnATerminal, HasBarsThatFitItHoweverWideItIs) {
  const std::string script =
      Work(Paused({Progress(0, 1, 1, 2, 50)}) + "," + Progress(0, 2, 2, 2, 100));
  for (const unsigned columns : {7u, 20u, 33u, 80u, 200u}) {
    Start start = OnTerminal({"models", "update", "a-model-with-a-name-that-is-long", "two"});
    start.columns = static_cast<unsigned short>(columns);
    const Screen screen(RunWith(start, script).output);
    EXPECT_THAT(screen.unknown(), IsEmpty()) << columns;
    std::size_t bars = 0;
    for (const std::string& picture : screen.pictures())
      for (const std::string& line : Lines(picture)) {
        if (line.find(" s  ") != std::string::npos) continue;
        EXPECT_LT(CellsOf(line), columns) << line;
        bars += line.find("#] ") != std::string::npos || line.find("-] ") != std::string::npos;
      }
    EXPECT_TRUE(bars >= 3 || columns < 20) << columns;
  }
}

TEST_F(WorkOnATerminal, HasBarsInColourWhereThereIsColour) {
  const std::string script =
      Work(Paused({Progress(0, 1, 1, 1, 50)}) + "," + Progress(0, 2, 1, 1, 100));
  Start start = OnTerminal({"models", "update", "one"});
  EXPECT_THAT(RunWith(start, script).output, HasSubstr("[\x1b[32m####"));
  start.environment = {{"NO_COLOR", "1"}};
  EXPECT_THAT(RunWith(start, script).output, AllOf(HasSubstr("[####"), Not(HasSubstr("[32m"))));
}

TEST_F(WorkOnATerminal, HasNoBarsWhereThereIsOneColumn) {
  Start start = OnTerminal({"models", "update", "one"});
  start.columns = 1;
  const Ending ending =
      RunWith(start, Work(Paused({Progress(0, 1, 1, 1, 50)}) + "," + Progress(0, 2, 1, 1, 100)));
  EXPECT_EQ(ending.status, 0);
  EXPECT_THAT(ending.output, Not(HasSubstr("\x1b")));
  const Screen screen(ending.output);
  ASSERT_EQ(screen.lines().size(), 2u) << screen.Text();
  EXPECT_THAT(screen.lines()[1], Says("1 model is updated"));
}

TEST_F(WorkOnATerminal, NeverGoesBackwardsAndIsNeverWholeBeforeTheEnd) {
  const std::string script =
      Work(Paused({Progress(0, 1, 1, 2, 100), Progress(0, 1, 1, 2, 10), Progress(0, 1, 2, 2, 60),
                   Progress(0, 1, 1, 2, 20), Progress(0, 1, 2, 2, 30), Progress(0, 1, 2, 2, 500)}) +
           "," + Progress(0, 3, 2, 2, 100));
  const Screen screen(RunWith(OnTerminal({"models", "update", "one", "two"}), script).output);
  for (const char* name : {"one", "two", "total"}) {
    const std::vector<int> percentages = Percentages(screen, name);
    ASSERT_THAT(percentages, Not(IsEmpty())) << name;
    EXPECT_TRUE(std::is_sorted(percentages.begin(), percentages.end())) << name;
    EXPECT_GT(percentages.back(), 0) << name;
  }
  EXPECT_EQ(Percentages(screen, "two").back(), 99);
  EXPECT_EQ(Percentages(screen, "total").back(), 99);
}

TEST_F(WorkOnATerminal, ShowsThePaceOnceItCanBeTold) {
  Start start = OnTerminal({"models", "update", "one", "--timeout", "0"});
  start.interrupt_when_shown = " %/s, ";
  const Ending ending = RunWith(
      start,
      Work(Paused({Progress(0, 1, 1, 1, 5), Progress(0, 1, 1, 1, 10), Progress(0, 1, 1, 1, 15)})));
  EXPECT_EQ(ending.status, 130);
  EXPECT_THAT(ending.output,
              testing::ContainsRegex("[0-9]+\\.[0-9] %/s, ([0-9]+ min )?[0-9]+ s left"));
}

TEST_F(WorkOnATerminal, ShowsAStall) {
  Start start = OnTerminal({"models", "update", "one", "--timeout", "0"});
  start.interrupt_when_shown = "stalled for 3 s";
  const Ending ending = RunWith(start, Work(Progress(0, 1, 1, 1, 5)));
  EXPECT_EQ(ending.status, 130);
  EXPECT_THAT(Screen(ending.output).Text(), HasSubstr("error:"));
}

TEST_F(WorkOnATerminal, LeavesTheLastPictureAboveTheMessageOfAFailure) {
  const Screen screen(RunWith(OnTerminal({"models", "update", "one"}),
                              Work(Progress(0, 1, 1, 1, 30) + "," + Progress(-28, 3, 1, 1, 40)))
                          .output);
  ASSERT_EQ(screen.lines().size(), 5u) << screen.Text();
  EXPECT_THAT(screen.lines()[1], AllOf(StartsWith("one "), HasSubstr(" 40 %")));
  EXPECT_THAT(screen.lines()[2], AllOf(StartsWith("total "), HasSubstr(" 40 %")));
  EXPECT_THAT(screen.lines()[3], Says("update failed"));
  EXPECT_THAT(screen.lines()[4], HasSubstr("one: the device has no storage left"));
}

TEST_F(WorkOnATerminal, ShowsNoHostileName) {
  const Screen screen(
      RunWith(OnTerminal({"models", "update", "\x1b[2J\xc2\x9b"}),
              Work(Paused({Progress(0, 1, 1, 1, 30)}) + "," + Progress(0, 2, 1, 1, 100)))
          .output);
  EXPECT_THAT(screen.unknown(), IsEmpty());
  EXPECT_THAT(screen.Text(), AllOf(HasSubstr("\\x1B[2J\\u009B  ["), Not(HasSubstr("\xc2"))));
}

}  // namespace
