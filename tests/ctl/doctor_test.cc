// SPDX-License-Identifier: Apache-2.0
//
// What the doctor says of states into which no world can be brought at will.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "process.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;

struct Trouble {
  const char* script;
  const char* part;
  const char* state;
  const char* finding;
  const char* remedy;
};

const Trouble kTroubles[] = {
    {R"({"packages": {"result": -5}})", "packages", "problem", "cannot be read", "who may read"},
    {R"({"packages": {"version": null}})", "agent", "problem",
     "version of the agent cannot be read", "again"},
    {R"({"packages": {"agent": -5}})", "agent", "problem", "version of the agent cannot be read",
     "again"},
    {R"({"packages": {"version": "\u001b[2J"}})", "agent", "problem", "too old", "updated"},
    {R"({"connect": {"events": []}})", "connection", "problem", "did not answer", "started anew"},
    {R"({"connect": {"events": [[0, 1]]}})", "connection", "problem", "lost", "started anew"},
    {R"({"connect": {"events": [[-13, 2]]}})", "permission", "problem", "refused", "started anew"},
    {R"({"level": {"never": true}})", "level", "problem", "did not answer", "restart it"},
    {R"({"level": {"never": true}})", "models", "unknown", "not asked", ""},
    {R"({"level": {"value": 7}})", "level", "ok", "7, older than the library's", ""},
    {R"({"models": {"error": -38}})", "models", "problem", "could not be carried out",
     "The log says more"},
    {R"({"updating": true})", "update", "problem", "under way", "Wait until"},
    {R"({"subscribed": {"update": [{"update": 0}]}})", "update", "problem", "under way",
     "Wait until"},
    {"{}", "update", "ok", "none is reported", ""},
};

Ending RunDoctor(const std::string& script, std::vector<std::string> arguments) {
  Start start;
  start.arguments = std::move(arguments);
  start.environment = {{"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus"}};
  return RunWith(start, script);
}

TEST(TheDoctor, FindsWhatIsWrongAndSaysWhatToDo) {
  for (const Trouble& row : kTroubles) {
    const Ending ending = RunDoctor(row.script, {"doctor", "--json", "--timeout", "0.5"});
    EXPECT_NE(ending.status, 0) << "there is no bus";
    const json health = json::parse(ending.output);
    for (const json& part : health["parts"]) {
      if (part["part"] != row.part) continue;
      EXPECT_EQ(part["state"], row.state) << row.script;
      EXPECT_THAT(part["finding"].get<std::string>(), HasSubstr(row.finding)) << row.script;
      EXPECT_THAT(part["remedy"].is_null() ? "" : part["remedy"].get<std::string>(),
                  HasSubstr(row.remedy))
          << row.script;
    }
  }
}

TEST(TheDoctor, EndsWithTheFirstProblem) {
  const Ending ending = RunDoctor(R"({"level": {"result": -1073741826}})", {"doctor"});
  EXPECT_EQ(ending.status, 1);
  EXPECT_THAT(ending.errors, HasSubstr("there is no session bus"));
  EXPECT_THAT(ending.output, HasSubstr("API level    problem  the KYR feature is disabled\n"));
  EXPECT_THAT(ending.output, HasSubstr("\nWhat to do\n  Session bus: Start a session bus"));
}

TEST(TheDoctor, IsEndedByASignal) {
  Start start;
  start.arguments = {"doctor", "--timeout", "0"};
  start.signal_when_waiting = 2;
  EXPECT_EQ(RunWith(start, R"({"connect": {"events": []}})").status, 130);
}

TEST(TheDoctor, WrapsWhatToDoWhereThereIsATerminal) {
  if (!HasTerminals()) GTEST_SKIP() << "there are no pseudo terminals here";
  Start start;
  start.terminal = true;
  start.columns = 40;
  start.arguments = {"doctor", "--color=never"};
  const std::string script = R"({"packages": {"agent": -18026383}})";
  const std::string shown = RunWith(start, script).output;
  const std::size_t begin = shown.find("What to do\r\n");
  ASSERT_NE(begin, std::string::npos) << shown;
  std::istringstream lines(shown.substr(begin, shown.find("svcmgrctl: error") - begin));
  for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 40u) << line;
  EXPECT_THAT(shown, HasSubstr("\r\n  Session bus:"));
}

}  // namespace
