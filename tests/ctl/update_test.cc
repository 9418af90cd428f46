// SPDX-License-Identifier: Apache-2.0
//
// An update of the agents that is followed, and what is known of others.
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

std::string Update(const std::string& steps, const std::string& more = "") {
  return R"({"update": {"then": [)" + steps + "]" + more + "}}";
}

constexpr char kDone[] = R"({"update": 0}, {"update": 1})";

TEST(AnUpdate, IsFollowedFromTheRequestToItsEnd) {
  const Ending ending = RunScripted(Update(kDone), {"update"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.errors, "");
  EXPECT_THAT(Lines(ending.output),
              ElementsAre(Says("the agent was asked to update all agents"),
                          Says("the update has begun (SVCMGR_UPDATE_STATUS_STARTED)"),
                          Says("the update has ended well (SVCMGR_UPDATE_STATUS_COMPLETED)"),
                          Says("no loss of the connection was reported")));
}

TEST(AnUpdate, IsJsonLinesOnRequest) {
  const Ending ending = RunScripted(Update(kDone), {"update", "--json"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.errors, "");
  std::vector<json> lines = JsonLines(ending.output);
  for (json& line : lines) {
    EXPECT_THAT(line.at("time").get<std::string>(),
                MatchesRegex("....-..-..T..:..:..\\....[+-]..:.."));
    EXPECT_GE(line.at("elapsed").get<double>(), 0);
    line.erase("time");
    line.erase("elapsed");
  }
  EXPECT_THAT(
      lines,
      ElementsAre(
          json::parse(R"({"event": "requested", "agents": []})"),
          json::parse(
              R"({"event": "update", "status": 0, "name": "SVCMGR_UPDATE_STATUS_STARTED"})"),
          json::parse(
              R"({"event": "update", "status": 1, "name": "SVCMGR_UPDATE_STATUS_COMPLETED"})"),
          json::parse(R"({"event": "end", "succeeded": true, "status": 1,
                          "name": "SVCMGR_UPDATE_STATUS_COMPLETED", "connection_losses": 0})")));
}

TEST(AnUpdate, OfNamedAgentsAsksForThoseInTheirOrder) {
  const std::string script = Update(kDone, R"(, "agents": ["org.b", "org.a"])");
  const Ending ending = RunScripted(script, {"update", "org.b", "org.a"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_THAT(ending.output, HasSubstr("was asked to update org.b, org.a\n"));
  EXPECT_EQ(
      JsonLines(RunScripted(script, {"--json", "update", "org.b", "org.a"}).output)[0]["agents"],
      json({"org.b", "org.a"}));
}

struct FailedUpdate {
  int status;
  const char* name;
};

TEST(AnUpdate, ThatFailsEndsWithOneAndTheNameOfItsStatus) {
  for (const FailedUpdate& row : {FailedUpdate{2, "SVCMGR_UPDATE_STATUS_RESULT_1"},
                                  {3, "SVCMGR_UPDATE_STATUS_RESULT_3"},
                                  {4, "SVCMGR_UPDATE_STATUS_RESULT_7"},
                                  {5, "SVCMGR_UPDATE_STATUS_RESULT_10"},
                                  {6, "SVCMGR_UPDATE_STATUS_FAILED"},
                                  {7, "SVCMGR_UPDATE_STATUS_RESULT_13"},
                                  {99, "UNKNOWN"}}) {
    const std::string script =
        Update(R"({"update": 0}, {"update": )" + std::to_string(row.status) + "}");
    const Ending people = RunScripted(script, {"update"});
    EXPECT_EQ(people.status, 1) << row.name;
    EXPECT_THAT(people.errors, AllOf(StartsWith("svcmgrctl: error: "), HasSubstr(row.name)));
    EXPECT_THAT(people.output, HasSubstr(row.name));
    const Ending programs = RunScripted(script, {"update", "--json"});
    EXPECT_EQ(programs.status, 1) << row.name;
    EXPECT_EQ(json::parse(programs.errors)["error"]["name"], row.name);
    EXPECT_EQ(JsonLines(programs.output).back()["succeeded"], false);
  }
}

TEST(AnUpdate, IsOverWithItsFirstFinalStatus) {
  EXPECT_EQ(RunScripted(Update(R"({"update": 1}, {"update": 6})"), {"update"}).status, 0);
  EXPECT_EQ(RunScripted(Update(R"({"update": 6}, {"update": 1})"), {"update"}).status, 1);
}

TEST(AnUpdate, DoesNotEndWithWhatWasSaidBeforeItWasAskedFor) {
  const Ending ending = RunScripted(
      R"({"subscribed": {"update": [{"update": 6}]}, "update": {"then": [{"update": 1}]}})",
      {"update"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_THAT(ending.output, Not(HasSubstr("SVCMGR_UPDATE_STATUS_FAILED")));
}

struct Refusal {
  int code;
  int status;
};

TEST(AnUpdate, ThatIsRefusedEndsWithTheStatusOfTheRefusal) {
  for (const Refusal& row : {Refusal{-13, 3},
                             {-1073741826, 9},
                             {-107, 1},
                             {-38, 1},
                             {-1073741822, 5},
                             {-1073741827, 5}}) {
    const Ending ending =
        RunScripted(R"({"update": {"result": )" + std::to_string(row.code) + "}}", {"update"});
    EXPECT_EQ(ending.status, row.status) << row.code;
    EXPECT_EQ(ending.output, "") << row.code;
  }
}

TEST(AnUpdate, ThatIsRefusedBecauseTheAgentIsGoneSaysSo) {
  const Ending ending = RunScripted(R"({"update": {"drop": true, "result": -107}})", {"update"});
  EXPECT_EQ(ending.status, 6);
  EXPECT_EQ(ending.errors,
            "svcmgrctl: error: the connection to the agent was lost; try again; 'svcmgrctl doctor' "
            "tells whether the agent is back\n");
}

TEST(AnUpdate, GoesOnThroughALossOfTheConnectionThatIsReported) {
  const std::string script =
      Update(R"({"update": 0}, {"connection": [0, 1]}, {"connection": [0, 0]}, {"update": 1})");
  const Ending ending = RunScripted(script, {"update"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_THAT(
      ending.output,
      AllOf(HasSubstr("connection to the agent was lost (SVCMGR_CONNECTION_STATE_DISCONNECTED)\n"),
            HasSubstr("the connection stands (SVCMGR_CONNECTION_STATE_CONNECTED)\n"),
            HasSubstr("the connection to the agent was lost on the way\n")));
  EXPECT_EQ(JsonLines(RunScripted(script, {"update", "--json"}).output).back()["connection_losses"],
            1);
}

TEST(AnUpdate, IsEndedByTheTimeLimitWhenTheAgentIsSilent) {
  const Ending ending = RunScripted(Update(R"({"update": 0})"), {"update", "--timeout", "0.1"});
  EXPECT_EQ(ending.status, 7);
  EXPECT_EQ(ending.errors,
            "svcmgrctl: error: the agent said nothing for 0.1 s; how the update ends "
            "is not known; 'svcmgrctl watch' tells how it goes on\n");
}

TEST(AnUpdate, IsNotEndedByTheTimeLimitAsLongAsTheAgentSpeaks) {
  // Together longer than the limit, and each far from it.
  std::string steps;
  for (int i = 0; i < 4; ++i) steps += R"({"pause": 1600}, {"update": 0}, )";
  EXPECT_EQ(RunScripted(Update(steps + R"({"update": 1})"), {"update", "--timeout", "6"}).status,
            0);
}

TEST(AnUpdate, WithoutAConnectionAndWithoutAnEndHasNoConnection) {
  const Ending ending = RunScripted(Update(R"({"update": 0}, {"connection": [0, 1]})"),
                                    {"update", "--timeout", "0.1", "--json"});
  EXPECT_EQ(ending.status, 6);
  EXPECT_EQ(json::parse(ending.errors)["error"]["name"], "CONNECTION_LOST");
}

TEST(AnUpdate, ThatIsInterruptedSaysThatItGoesOn) {
  Start start;
  start.arguments = {"update", "--timeout", "0"};
  start.interrupt_when_shown = "SVCMGR_UPDATE_STATUS_STARTED";
  const Ending ending = RunWith(start, Update(R"({"update": 0})"));
  EXPECT_EQ(ending.status, 130);
  EXPECT_THAT(ending.output, HasSubstr("SVCMGR_UPDATE_STATUS_STARTED"));
  EXPECT_EQ(ending.errors, "svcmgrctl: error: interrupted; the agent goes on with the update\n");
}

TEST(AnUpdate, ThatIsInterruptedWithoutAConnectionIsNotSaidToGoOn) {
  Start start;
  start.arguments = {"update", "--timeout", "0"};
  start.interrupt_when_shown = "SVCMGR_CONNECTION_STATE_DISCONNECTED";
  const Ending ending = RunWith(start, Update(R"({"update": 0}, {"connection": [0, 1]})"));
  EXPECT_EQ(ending.status, 130);
  EXPECT_EQ(ending.errors,
            "svcmgrctl: error: interrupted; how the update ends is not known; 'svcmgrctl watch' "
            "tells how it goes on\n");
}

TEST(AnUpdate, ThatWasNotTakenYetIsNotSaidToGoOn) {
  Start start;
  start.arguments = {"update", "--timeout", "0"};
  start.signal_when_waiting = SIGINT;
  const Ending ending = RunWith(start, R"({"update": {"never": true}})");
  EXPECT_EQ(ending.status, 130);
  EXPECT_EQ(ending.errors, "svcmgrctl: error: interrupted\n");
}

TEST(AnUpdate, GoesOnWhenNobodyReadsAboutIt) {
  Start start;
  start.arguments = {"update"};
  start.output_without_reader = true;
  EXPECT_EQ(RunWith(start, Update(R"({"update": 0}, {"update": 6})")).status, 1);
}

TEST(AnUpdate, ShowsHostileNamesByTheirNumbers) {
  const std::string script = Update(kDone, R"(, "agents": ["a\u001b[2J\u009b"])");
  for (const bool as_json : {false, true}) {
    std::vector<std::string> arguments = {"update", "a\x1b[2J\xc2\x9b"};
    if (as_json) arguments.push_back("--json");
    const Ending ending = RunScripted(script, arguments);
    EXPECT_EQ(ending.status, 0);
    EXPECT_THAT(ending.output, AllOf(Not(HasSubstr("\x1b")), Not(HasSubstr("\xc2"))));
  }
}

class AnUpdateOnATerminal : public testing::Test {
 protected:
  void SetUp() override {
    if (!HasTerminals()) GTEST_SKIP() << "there are no pseudo terminals here";
  }
  static Screen Show(const std::string& script, unsigned short columns = 0) {
    Start start;
    start.arguments = {"update"};
    start.terminal = true;
    start.columns = columns;
    return Screen(RunWith(start, script).output);
  }
};

TEST_F(AnUpdateOnATerminal, ShowsWhatIsHappeningAndHowLongSoFar) {
  const Screen screen =
      Show(Update(R"({"pause": 300}, {"update": 0}, {"pause": 300}, {"connection": [0, 1]},
                     {"pause": 300}, {"connection": [0, 0]}, {"update": 1})"));
  EXPECT_THAT(screen.unknown(), IsEmpty());
  std::string all;
  for (const std::string& picture : screen.pictures()) all += picture;
  EXPECT_THAT(all, HasSubstr("waiting for the update to begin"));
  EXPECT_THAT(all, HasSubstr("the update is under way"));
  EXPECT_THAT(all, HasSubstr("waiting for the agent to come back"));
  EXPECT_THAT(Lines(all), testing::Contains(MatchesRegex(" +0\\.[0-9] s  . the update is.*")));
}

TEST_F(AnUpdateOnATerminal, TellsThatTheAgentUpdatesItself) {
  const Screen screen =
      Show(Update(R"({"updating": true}, {"pause": 400}, {"update": 0}, {"update": 1})"));
  EXPECT_THAT(screen.pictures(), testing::Contains(HasSubstr("the agent updates itself")));
}

TEST_F(AnUpdateOnATerminal, LeavesTheSameLinesAsInAPipe) {
  const Screen screen = Show(Update(R"({"update": 0}, {"pause": 300}, {"update": 1})"));
  EXPECT_THAT(screen.lines(),
              ElementsAre(Says("the agent was asked to update all agents"),
                          Says("the update has begun (SVCMGR_UPDATE_STATUS_STARTED)"),
                          Says("the update has ended well (SVCMGR_UPDATE_STATUS_COMPLETED)"),
                          Says("no loss of the connection was reported")));
}

TEST_F(AnUpdateOnATerminal, DrawsNoLineThatWouldWrap) {
  const Screen screen = Show(Update(R"({"update": 0}, {"pause": 300}, {"update": 1})"), 20);
  bool drawn = false;
  for (const std::string& picture : screen.pictures())
    for (const std::string& line : Lines(picture))
      if (testing::Value(line, MatchesRegex(" +[0-9.]+ s  [-|/\\\\] .*"))) {
        EXPECT_EQ(line.size(), 19u) << line;
        drawn = true;
      }
  EXPECT_TRUE(drawn);
}

TEST_F(AnUpdateOnATerminal, IsPlainLinesWhereTheTerminalIsDumbOrUnknown) {
  Start start;
  start.arguments = {"update"};
  start.terminal = true;
  for (const auto& term : {std::optional<std::string>("dumb"), std::optional<std::string>(""),
                           std::optional<std::string>()}) {
    start.environment = {{"TERM", term}};
    const Ending ending = RunWith(start, Update(R"({"update": 0}, {"pause": 200}, {"update": 1})"));
    EXPECT_THAT(ending.output, Not(HasSubstr("\x1b"))) << term.value_or("none");
  }
}

TEST_F(AnUpdateOnATerminal, DrawsNothingWhereThereIsOneColumn) {
  Start start;
  start.arguments = {"update"};
  start.terminal = true;
  start.columns = 1;
  const Ending ending = RunWith(start, Update(R"({"update": 0}, {"pause": 300}, {"update": 1})"));
  EXPECT_EQ(ending.status, 0);
  EXPECT_THAT(ending.output, Not(HasSubstr("\x1b")));
  EXPECT_THAT(Lines(ending.output), Not(testing::Contains(testing::AnyOf("", "\r"))));
}

TEST(Updating, IsYesOrNo) {
  EXPECT_EQ(RunScripted("{}", {"updating"}).output, "no\n");
  EXPECT_EQ(RunScripted(R"({"updating": true})", {"updating"}).output, "yes\n");
  EXPECT_EQ(RunScripted(R"({"updating": true})", {"updating", "--json"}).output,
            "{\n  \"updating\": true\n}\n");
}

TEST(Updating, KnowsWhatHasArrivedByNow) {
  EXPECT_EQ(RunScripted(R"({"subscribed": {"update": [{"update": 0}]}})", {"updating"}).output,
            "yes\n");
}

TEST(Updating, ListensUntilAnUpdateIsHeardOf) {
  const std::string script = R"({"subscribed": {"update": [{"pause": 200}, {"update": 0}]}})";
  EXPECT_EQ(RunScripted(script, {"updating", "--listen", "3600"}).output, "yes\n");
}

TEST(Updating, ListensNoLongerThanToldEvenIfTheTimeLimitIsShorter) {
  EXPECT_EQ(RunScripted("{}", {"updating", "--listen", "2.5", "--timeout", "2"}).output, "no\n");
}

TEST(Updating, FailsWhenTheConnectionIsLost) {
  const std::string script =
      R"({"subscribed": {"update": [{"pause": 100}, {"connection": [0, 1]}]}})";
  EXPECT_EQ(RunScripted(script, {"updating", "--listen", "3600"}).status, 6);
}

TEST(Updating, RefusesATimeThatIsNone) {
  const Ending ending = RunScripted("{}", {"updating", "--listen", "soon"});
  EXPECT_EQ(ending.status, 2);
  EXPECT_THAT(ending.errors, HasSubstr("--listen"));
}

}  // namespace
