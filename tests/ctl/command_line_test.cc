// SPDX-License-Identifier: Apache-2.0
//
// What may be typed, and what a wrong command line is told.
#include <gmock/gmock.h>

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>

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
    EXPECT_EQ(
        nlohmann::json::parse(ending.errors),
        nlohmann::json(
            {{"error",
              {{"code", nullptr}, {"name", "USAGE"}, {"message", row.message}, {"exit", 2}}}}));
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

TEST(AModelId, MayLookLikeAnOption) {
  const std::string script =
      R"({"described": {"models": [{"id": "--json"}]}, "versions": {"echo": true}})";
  const Ending ending = RunScripted(script, {"models", "versions", "--", "--json"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.output, "VERSION  ID      TITLE\n-        --json  -\n");
}

TEST(Help, IsDataAndHoldsTheTableOfExitCodes) {
  const Ending ending = RunScripted("{}", {"--help"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.errors, "");
  for (const char* part : {"Usage: svcmgrctl", "status", "api-level", "license", "models", "--json",
                           "--timeout", "--color", "Examples:", "Exit status:", "\n    0  done\n",
                           "\n    7  the agent did not answer in time\n", "\n  130  interrupted\n"})
    EXPECT_THAT(ending.output, HasSubstr(part));
}

TEST(TheManPage, HasTheSameExitCodesAsHelp) {
  std::ifstream file(SVCMGRCTL_MAN_PAGE);
  const std::string page((std::istreambuf_iterator<char>(file)), {});
  const std::string help = RunScripted("{}", {"--help"}).output;
  std::istringstream codes(help.substr(help.find("Exit status:\n") + 13));
  int code = 0;
  int count = 0;
  for (std::string meaning; codes >> code && std::getline(codes >> std::ws, meaning); ++count)
    EXPECT_THAT(page, HasSubstr("\n" + std::to_string(code) + "\t" + meaning));
  EXPECT_EQ(count, 12);
}

TEST(Help, OfACommandNamesTheWholeCommand) {
  const Ending ending = RunScripted("{}", {"models", "list", "--help"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_THAT(ending.output, HasSubstr("Usage: svcmgrctl models list"));
  EXPECT_THAT(ending.output, HasSubstr("--category NAME"));
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
