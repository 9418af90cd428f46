// SPDX-License-Identifier: Apache-2.0
//
// What may be typed, and what a wrong command line is told.
#include <gmock/gmock.h>

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>

#include "process.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

struct Row {
  std::vector<std::string> arguments;
  const char* message;
};

const Row kWrong[] = {
    {{}, "a command is missing; see 'svcmgrctl --help'"},
    {{"models"}, "a command is missing; see 'svcmgrctl models --help'"},
    {{"frobnicate"}, "there is no command 'frobnicate'; see 'svcmgrctl --help'"},
    {{"models", "frobnicate"}, "there is no command 'frobnicate'; see 'svcmgrctl models --help'"},
    {{"statsu"}, "there is no command 'statsu'; did you mean 'status'; see 'svcmgrctl --help'"},
    {{"models", "upate"},
     "there is no command 'upate'; did you mean 'update'; see 'svcmgrctl models --help'"},
    {{"status", "--tiemout=3"},
     "there is no option '--tiemout=3'; did you mean '--timeout'; see 'svcmgrctl status --help'"},
    {{"models", "list", "--descripion"},
     "there is no option '--descripion'; did you mean '--descriptions'; see 'svcmgrctl models list "
     "--help'"},
    {{"help", "statsu"},
     "there is no command 'statsu'; did you mean 'status'; see 'svcmgrctl --help'"},
    {{"status", "more"}, "there is no use for 'more'; see 'svcmgrctl status --help'"},
    {{"status", "license"}, "there is no use for 'license'; see 'svcmgrctl status --help'"},
    {{"models", "versions", "a", "b"},
     "there is no use for 'b'; see 'svcmgrctl models versions --help'"},
    {{"models", "versions"}, "ID is required; see 'svcmgrctl models versions --help'"},
    {{"models", "list", "--descriptions", "--category", "a"},
     "--descriptions excludes --category; see 'svcmgrctl models list --help'"},
    {{"status", "--frobnicate"},
     "there is no option '--frobnicate'; see 'svcmgrctl status --help'"},
    {{"--color", "purple", "status"},
     "--color: 'purple' is none of auto, always, never; see 'svcmgrctl status --help'"},
    {{"--color", "purple"},
     "--color: 'purple' is none of auto, always, never; see 'svcmgrctl --help'"},
    {{"--timeout", "status"},
     "--timeout: 'status' is no number of seconds from 0 to 3456000; see 'svcmgrctl --help'"},
    {{"--timeout", "models", "list"},
     "--timeout: 'models' is no number of seconds from 0 to 3456000; see 'svcmgrctl --help'"},
    {{"--timeout", "1", "status", "--timeout=2"},
     "--timeout is given more than once; see 'svcmgrctl status --help'"},
    {{"models", "list", "--category=a", "--category=b"},
     "--category is given more than once; see 'svcmgrctl models list --help'"},
    {{"--json=x", "status"}, "--json takes no value; see 'svcmgrctl --help'"},
    {{"status", "--verbose=x"}, "--verbose takes no value; see 'svcmgrctl status --help'"},
    {{"models", "list", "--descriptions=x"},
     "--descriptions takes no value; see 'svcmgrctl models list --help'"},
    {{"--version=x"}, "--version takes no value; see 'svcmgrctl --help'"},
    {{"--help=x"}, "--help takes no value; see 'svcmgrctl --help'"},
    {{"-"}, "there is no command '-'; see 'svcmgrctl --help'"},
    {{"update", ""}, "AGENT: '' names no agent; see 'svcmgrctl update --help'"},
    {{"update", "a", ""}, "AGENT: '' names no agent; see 'svcmgrctl update --help'"},
    {{"models", "update", ""},
     "ID[@VERSION]: '' names no model; see 'svcmgrctl models update --help'"},
};

TEST(AWrongCommandLine, EndsWithTwoAndSaysWhatIsWrong) {
  for (const Row& row : kWrong) {
    const Ending ending = RunScripted("{}", row.arguments);
    EXPECT_EQ(ending.status, 2) << row.message;
    EXPECT_EQ(ending.output, "") << row.message;
    EXPECT_EQ(ending.errors, std::string("svcmgrctl: error: ") + row.message + "\n");
  }
}

TEST(AWrongCommandLine, IsReportedAsJsonWhereverTheOptionStands) {
  for (const Row& row : kWrong) {
    std::vector<std::string> arguments = row.arguments;
    arguments.push_back("--json");
    const Ending ending = RunScripted("{}", arguments);
    EXPECT_EQ(ending.status, 2) << row.message;
    EXPECT_EQ(nlohmann::json::parse(ending.errors), nlohmann::json({{"error",
                                                                     {{"code", nullptr},
                                                                      {"name", "USAGE"},
                                                                      {"message", row.message},
                                                                      {"exit", 2},
                                                                      {"remedy", nullptr}}}}));
  }
}

// Whatever followed would be the value, or no option any more.
const Row kWrongAtTheEnd[] = {
    {{"--timeout"}, "--timeout needs SECONDS; see 'svcmgrctl --help'"},
    {{"status", "--timeout="}, "--timeout needs SECONDS; see 'svcmgrctl status --help'"},
    {{"--color"}, "--color needs WHEN; see 'svcmgrctl --help'"},
    {{"updating", "--listen"}, "--listen needs SECONDS; see 'svcmgrctl updating --help'"},
    {{"models", "list", "--category"}, "--category needs NAME; see 'svcmgrctl models list --help'"},
    {{"--"}, "a command is missing; see 'svcmgrctl --help'"},
    {{"--", "status"}, "the command must stand before '--'; see 'svcmgrctl --help'"},
    {{"models", "--", "list"}, "the command must stand before '--'; see 'svcmgrctl models --help'"},
    {{"status", "--", "--more"}, "there is no use for '--more'; see 'svcmgrctl status --help'"},
    {{"status", "--more", "--", "--less"},
     "there is no option '--more'; see 'svcmgrctl status --help'"},
};

TEST(AWrongCommandLine, WhoseEndIsWrongEndsWithTwoAndSaysWhatIsWrong) {
  for (const Row& row : kWrongAtTheEnd) {
    const Ending ending = RunScripted("{}", row.arguments);
    EXPECT_EQ(ending.status, 2) << row.message;
    EXPECT_EQ(ending.output, "") << row.message;
    EXPECT_EQ(ending.errors, std::string("svcmgrctl: error: ") + row.message + "\n");
  }
}

TEST(ATimeLimit, IsANumberOfSecondsThatTheTimerCanHold) {
  for (const char* wrong : {"nan", "inf", "-1", "1e9", "soon", "", "1s", "3456001"}) {
    const Ending ending = RunScripted("{}", {"status", std::string("--timeout=") + wrong});
    EXPECT_EQ(ending.status, 2) << wrong;
    EXPECT_THAT(ending.errors, HasSubstr("--timeout")) << wrong;
  }
  for (const char* right : {"0", "60", "7.5", "1e3", "3456000"})
    EXPECT_EQ(RunScripted("{}", {"status", "--timeout", right}).status, 0) << right;
}

TEST(AnOptionForEveryCommand, MayStandBeforeAndAfterTheCommand) {
  const std::string expected = "{\n  \"models\": []\n}\n";
  EXPECT_EQ(RunScripted("{}", {"--json", "models", "list"}).output, expected);
  EXPECT_EQ(RunScripted("{}", {"models", "--json", "list"}).output, expected);
  EXPECT_EQ(RunScripted("{}", {"models", "list", "--json"}).output, expected);
}

Ending RunLogging(const char* level, std::vector<std::string> arguments) {
  Start start;
  start.arguments = std::move(arguments);
  if (level != nullptr) start.environment = {{"VELMORA_LOG_LEVEL", level}};
  return RunWith(start, R"({"connect": {"log": true, "result": -1}})");
}

TEST(TheLog, IsAtTheLevelOfTheEnvironmentUnlessAnOptionChoosesIt) {
  constexpr char kError[] =
      "svcmgrctl: error: the agent is not running; start it; without a device: "
      "svcmgr-sim run demo -- \u2026 (SVCMGR_ERROR_CONNECTION_FAILED)\n";
  const struct {
    const char* level;
    std::vector<std::string> arguments;
    std::string record;
  } rows[] = {
      {nullptr, {"status"}, ""},
      {"silent", {"status"}, ""},
      {"error", {"status"}, "a record at error\n"},
      {nullptr, {"status", "-v"}, "a record at info\n"},
      {"silent", {"--verbose", "status"}, "a record at info\n"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(RunLogging(row.level, row.arguments).errors, row.record + kError) << row.level;
}

TEST(TheLog, IsNotOnATerminalUnlessItIsAskedFor) {
  if (!HasTerminals()) GTEST_SKIP() << "there are no pseudo terminals here";
  Start start;
  start.terminal = true;
  const auto shown = [&](std::vector<std::string> arguments) {
    start.arguments = std::move(arguments);
    start.arguments.push_back("--color=never");
    return RunWith(start, R"({"connect": {"log": true, "result": -1}})").output;
  };
  constexpr char kError[] =
      "svcmgrctl: error: the agent is not running; start it; without a device: "
      "svcmgr-sim run demo -- \u2026 (SVCMGR_ERROR_CONNECTION_FAILED)\r\n";
  start.environment = {{"VELMORA_LOG_LEVEL", "verbose"}};
  EXPECT_EQ(shown({"api-level"}), kError);
  EXPECT_EQ(shown({"api-level", "-v"}), std::string("a record at info\r\n") + kError);
}

TEST(TheLog, InAFileIsAtTheLevelOfTheEnvironmentOnATerminalToo) {
  if (!HasTerminals()) GTEST_SKIP() << "there are no pseudo terminals here";
  Start start;
  start.terminal = true;
  start.arguments = {"api-level"};
  // The scripted library shows at once what the real one would write to the file.
  start.environment = {{"VELMORA_LOG_LEVEL", "verbose"}, {"VELMORA_LOG_FILE", "/a/file"}};
  EXPECT_THAT(RunWith(start, R"({"connect": {"log": true, "result": -1}})").output,
              HasSubstr("a record at verbose"));
}

TEST(TheLog, IsNeverBetweenJsonDocuments) {
  for (const char* level : {"error", "verbose", static_cast<const char*>(nullptr)}) {
    const Ending ending = RunLogging(level, {"--json", "api-level"});
    EXPECT_EQ(ending.status, 6);
    EXPECT_EQ(nlohmann::json::parse(ending.errors)["error"]["exit"], 6);
  }
}

TEST(TheLog, CannotBeAskedForTogetherWithJson) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"--json", "-v", "status"}, {"status", "--verbose", "--json"}}) {
    const Ending ending = RunLogging(nullptr, arguments);
    EXPECT_EQ(ending.status, 2);
    EXPECT_EQ(ending.output, "");
    EXPECT_EQ(nlohmann::json::parse(ending.errors)["error"]["message"],
              "--verbose and --json exclude each other: the log is not JSON; see "
              "'svcmgrctl status --help'");
  }
}

TEST(AModelId, MayLookLikeAnOption) {
  const std::string script =
      R"({"described": {"models": [{"id": "--json"}]}, "versions": {"echo": true}})";
  const Ending ending = RunScripted(script, {"models", "versions", "--", "--json"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.output, "VERSION  REMARK  ID      TITLE\n-        -       --json  -\n");
}

TEST(Help, IsDataAndHoldsTheTableOfExitCodes) {
  const Ending ending = RunScripted("{}", {"--help"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.errors, "");
  for (const char* part :
       {"Usage: svcmgrctl", "status", "api-level", "license", "models", "--json", "--timeout",
        "--color", "Examples:", "Exit status:", "\n    0  done\n",
        "\n    7  the agent did not answer in time\n", "\n  130  interrupted (SIGINT)\n"})
    EXPECT_THAT(ending.output, HasSubstr(part));
}

std::string ContentOf(const char* path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

/** The lines of a text, from the line `from` to the first that is `to`. */
std::vector<std::string> LinesBetween(const std::string& text, const std::string& from,
                                      const std::string& to) {
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line) && line != from) {
  }
  std::vector<std::string> found;
  while (std::getline(lines, line) && line != to) found.push_back(line);
  return found;
}

/** The lines that help has for the exit codes, written in another form. */
std::vector<std::string> ExitCodes(const std::string& before, const std::string& between,
                                   const std::string& after) {
  const std::string help = RunScripted("{}", {"--help"}).output;
  std::istringstream codes(help.substr(help.find("Exit status:\n") + 13));
  std::vector<std::string> lines;
  int code = 0;
  for (std::string meaning; codes >> code && std::getline(codes >> std::ws, meaning);)
    lines.push_back(before + std::to_string(code) + between + meaning + after);
  return lines;
}

TEST(TheManPage, HasTheExitCodesOfHelpAndNoOthers) {
  EXPECT_EQ(ExitCodes("", "\t", "").size(), 12u);
  EXPECT_EQ(LinesBetween(ContentOf(SVCMGRCTL_MAN_PAGE), "r l.", ".TE"), ExitCodes("", "\t", ""));
}

TEST(TheReadme, HasTheExitCodesOfHelpAndNoOthers) {
  std::vector<std::string> expected = ExitCodes("| ", " | ", " |");
  expected.insert(expected.begin(), "|---|---|");
  EXPECT_EQ(LinesBetween(ContentOf(SVCMGRCTL_README), "| code | meaning |", ""), expected);
}

TEST(Help, OfACommandNamesTheWholeCommand) {
  const Ending ending = RunScripted("{}", {"models", "list", "--help"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_THAT(ending.output, HasSubstr("Usage: svcmgrctl models list"));
  EXPECT_THAT(ending.output, HasSubstr("--category NAME"));
}

TEST(Help, OfACommandIsThatOfItsOption) {
  for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
           {}, {"status"}, {"models"}, {"models", "list"}, {"models", "update"}, {"help"}}) {
    std::vector<std::string> by_command = command;
    by_command.insert(by_command.begin(), "help");
    std::vector<std::string> by_option = command;
    by_option.emplace_back("--help");
    const Ending ending = RunScripted("{}", by_command);
    EXPECT_EQ(ending.status, 0);
    EXPECT_THAT(ending.output, HasSubstr("Usage: svcmgrctl"));
    EXPECT_EQ(ending.output, RunScripted("{}", by_option).output);
  }
}

TEST(Quiet, AndVerboseExcludeEachOther) {
  const Ending ending = RunScripted("{}", {"status", "-q", "-v"});
  EXPECT_EQ(ending.status, 2);
  EXPECT_THAT(ending.errors, HasSubstr("--verbose and --quiet exclude each other"));
}

TEST(Quiet, LeavesDataAndErrorsAlone) {
  EXPECT_EQ(RunScripted("{}", {"models", "list", "-q"}).errors, "");
  EXPECT_THAT(RunScripted("{}", {"models", "list"}).errors, HasSubstr("no usable models"));
  EXPECT_EQ(RunScripted("{}", {"api-level", "--quiet"}).output, "11\n");
  EXPECT_THAT(RunScripted("{}", {"license", "--quiet"}).errors, HasSubstr("no licence text"));
  const std::string work = R"({"work": {"then": [{"progress": [0, 2, 1, 1, 100]}]}})";
  const Ending quiet = RunScripted(work, {"-q", "models", "update", "a"});
  EXPECT_EQ(quiet.status, 0);
  EXPECT_EQ(quiet.output + quiet.errors, "");
  EXPECT_THAT(RunScripted(work, {"models", "update", "a"}).output, HasSubstr("1 model is updated"));
  EXPECT_THAT(RunScripted(work, {"models", "update", "a", "-q", "--json"}).output,
              HasSubstr("progress"));
}

TEST(Help, NeedsNoAgent) {
  const std::string script = R"({"connect": {"result": -1073741822}})";
  for (const char* command : {"status", "api-level", "license", "models"})
    EXPECT_THAT(RunScripted(script, {command, "-h"}).output, Not(IsEmpty())) << command;
}

TEST(TheVersion, IsThatOfTheLibrary) {
  const Ending ending = RunScripted("{}", {"--version"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.output, "svcmgrctl 2.3.182 (client API level 11)\n");
}

}  // namespace
