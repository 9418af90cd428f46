// SPDX-License-Identifier: Apache-2.0
//
// How the program ends when something goes wrong: its status, and one message on standard error.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "process.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

using Arguments = std::vector<std::string>;

const Arguments kCommands[] = {{"status"},
                               {"api-level"},
                               {"license"},
                               {"models", "list"},
                               {"models", "list", "--descriptions"},
                               {"models", "list", "--category", "camera"},
                               {"models", "versions", "vision"}};

struct FailedCall {
  const char* script;
  Arguments command;
  int status;
  const char* name;
};

const FailedCall kFailedCalls[] = {
    {R"({"license": {"result": -38}})", {"license"}, 1, "SVCMGR_ERROR_INVALID_OPERATION"},
    {R"({"level": {"result": -1073741825}})", {"api-level"}, 1, "SVCMGR_ERROR_INVALID_API_LEVEL"},
    {R"({"models": {"error": -1073741829}})", {"models", "list"}, 1, "SVCMGR_ERROR_AGENT_CODE_6"},
    {R"({"models": {"error": -1073741831}})", {"models", "list"}, 1, "SVCMGR_ERROR_AGENT_CODE_3"},
    {R"({"models": {"null": true}})", {"models", "list"}, 1, "SVCMGR_ERROR_OUT_OF_MEMORY"},
    {R"({"models": {"result": -99}})", {"models", "list"}, 1, "UNKNOWN"},
    {R"({"connect": {"result": -13}})", {"api-level"}, 3, "SVCMGR_ERROR_PERMISSION_DENIED"},
    {R"({"connect": {"events": [[-13, 2]]}})", {"api-level"}, 3, "SVCMGR_ERROR_PERMISSION_DENIED"},
    {R"({"models": {"error": -13}})", {"models", "list"}, 3, "SVCMGR_ERROR_PERMISSION_DENIED"},
    {R"({})", {"models", "versions", "a"}, 4, "NOT_FOUND"},
    {R"({"category": {"name": "a"}})",
     {"models", "list", "--category", "b"},
     4,
     "SVCMGR_ERROR_INVALID_PARAMETER"},
    {R"({"connect": {"result": -1073741822}})", {"license"}, 5, "SVCMGR_ERROR_NOT_SUPPORTED"},
    {R"({"models": {"result": -1073741827}})",
     {"models", "list"},
     5,
     "SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION"},
    {R"({"connect": {"result": -1}})", {"license"}, 6, "SVCMGR_ERROR_CONNECTION_FAILED"},
    {R"({"connect": {"result": -1, "inside": true}})",
     {"license"},
     6,
     "SVCMGR_ERROR_CONNECTION_FAILED"},
    {R"({"connect": {"events": [[0, 1]]}})", {"license"}, 6, "CONNECTION_LOST"},
    {R"({"models": {"result": -107}})", {"models", "list"}, 6, "SVCMGR_ERROR_NOT_CONNECTED"},
    {R"({"models": {"error": -28}})", {"models", "list"}, 8, "SVCMGR_ERROR_NO_SPACE"},
    {R"({"models": {"error": -1073741826}})", {"models", "list"}, 9, "SVCMGR_ERROR_KYR_DISABLED"},
    {R"({"license": {"result": -1073741826}})", {"license"}, 9, "SVCMGR_ERROR_KYR_DISABLED"},
    {R"({"level": {"result": -1073741826}})", {"api-level"}, 9, "SVCMGR_ERROR_KYR_DISABLED"},
};

Arguments With(Arguments arguments, const Arguments& more) {
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

TEST(AFailingCommand, EndsWithTheStatusOfItsFailureAndNoData) {
  for (const FailedCall& row : kFailedCalls) {
    const Ending ending = RunScripted(row.script, row.command);
    EXPECT_EQ(ending.status, row.status) << row.script;
    EXPECT_EQ(ending.output, "") << row.script;
    EXPECT_THAT(ending.errors, StartsWith("svcmgrctl: error: ")) << row.script;
  }
}

TEST(AFailingCommand, ReportsAJsonObjectOnStandardErrorIfAsked) {
  for (const FailedCall& row : kFailedCalls) {
    const Ending ending = RunScripted(row.script, With(row.command, {"--json"}));
    EXPECT_EQ(ending.status, row.status) << row.script;
    EXPECT_EQ(ending.output, "") << row.script;
    const auto error = nlohmann::json::parse(ending.errors).at("error");
    EXPECT_EQ(error.at("exit"), row.status) << row.script;
    EXPECT_EQ(error.at("name"), row.name) << row.script;
    EXPECT_TRUE(error.contains("code") && error.contains("message")) << row.script;
  }
}

// Every question of every command, never answered.
constexpr char kSilent[] = R"({
  "license": {"never": true}, "level": {"never": true}, "models": {"never": true},
  "described": {"never": true}, "category": {"never": true}})";

constexpr char kNeverConnected[] = R"({"connect": {"events": []}})";

constexpr char kVersionsSilent[] =
    R"({"described": {"models": [{"id": "vision"}]}, "versions": {"never": true}})";

TEST(ATimeLimit, EndsEveryCommandThatGetsNoAnswer) {
  for (const Arguments& command : kCommands)
    for (const char* script : {kSilent, kNeverConnected}) {
      const Ending ending = RunScripted(script, With(command, {"--timeout", "0.02"}));
      EXPECT_EQ(ending.status, 7) << command.back() << script;
      EXPECT_EQ(ending.errors,
                "svcmgrctl: error: the agent did not answer within 0.02 s; try again, or wait "
                "longer with --timeout\n");
    }
}

TEST(ATimeLimit, HoldsForTheSecondQuestionOfACommandToo) {
  const Ending ending =
      RunScripted(kVersionsSilent, {"models", "versions", "vision", "--timeout=0.02", "--json"});
  EXPECT_EQ(ending.status, 7);
  EXPECT_EQ(ending.errors, R"({"error":{"code":null,"name":"TIMEOUT",)"
                           R"("message":"the agent did not answer within 0.02 s","exit":7,)"
                           R"("remedy":"try again, or wait longer with --timeout"}})"
                           "\n");
}

TEST(ATimeLimit, OfZeroIsNone) {
  Start start;
  start.arguments = {"api-level", "--timeout", "0"};
  start.signal_when_waiting = SIGINT;
  EXPECT_EQ(RunWith(start, kSilent).status, 130);
}

TEST(ALostConnection, EndsEveryWaitAtOnce) {
  // With no time limit, only the loss can end these.
  constexpr char kDropped[] = R"({
    "license": {"never": true, "drop": true}, "level": {"never": true, "drop": true},
    "models": {"never": true, "drop": true}, "described": {"never": true, "drop": true},
    "category": {"never": true, "drop": true}})";
  for (const Arguments& command : kCommands) {
    const Ending ending = RunScripted(kDropped, With(command, {"--timeout", "0"}));
    EXPECT_EQ(ending.status, 6) << command.back();
    EXPECT_EQ(ending.errors,
              "svcmgrctl: error: the connection to the agent was lost; try again; 'svcmgrctl "
              "doctor' tells whether the agent is back\n");
  }
}

TEST(ALostConnection, IsTheReasonThatCountsWhenACallFailsBecauseOfIt) {
  const FailedCall rows[] = {
      {R"({"license": {"drop": true}})", {"license"}, 6, ""},
      {R"({"license": {"drop": true, "result": -38}})", {"license"}, 6, ""},
      {R"({"level": {"drop": true, "result": -1073741825}})", {"api-level"}, 6, ""},
      {R"({"models": {"drop": true, "result": -38}})", {"models", "list"}, 6, ""},
  };
  for (const FailedCall& row : rows) {
    const Ending ending = RunScripted(row.script, row.command);
    EXPECT_EQ(ending.status, row.status) << row.script;
    EXPECT_EQ(ending.errors,
              "svcmgrctl: error: the connection to the agent was lost; try again; 'svcmgrctl "
              "doctor' tells whether the agent is back\n");
  }
}

TEST(ASignal, EndsEveryWait) {
  for (const Arguments& command : kCommands)
    for (const char* script : {kSilent, kNeverConnected}) {
      Start start;
      start.arguments = With(command, {"--timeout", "0"});
      start.signal_when_waiting = SIGINT;
      const Ending ending = RunWith(start, script);
      EXPECT_EQ(ending.status, 130) << command.back();
      EXPECT_EQ(ending.output, "");
      EXPECT_EQ(ending.errors, "svcmgrctl: error: interrupted\n");
    }
}

TEST(ASignal, ToTerminateHasAStatusOfItsOwn) {
  Start start;
  start.arguments = {"models", "versions", "vision", "--json", "--timeout", "0"};
  start.signal_when_waiting = SIGTERM;
  const Ending ending = RunWith(start, kVersionsSilent);
  EXPECT_EQ(ending.status, 143);
  EXPECT_THAT(ending.errors, HasSubstr(R"("name":"TERMINATED")"));
}

TEST(AReaderThatIsGone, IsNoFailure) {
  Start start;
  start.arguments = {"api-level"};
  start.output_without_reader = true;
  const Ending ending = RunWith(start, "{}");
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.errors, "");
}

TEST(AFullDisk, FailsWithAMessage) {
  struct stat device = {};
  if (stat("/dev/full", &device) != 0 || device.st_rdev != makedev(1, 7))
    GTEST_SKIP() << "there is no /dev/full here";
  Start start;
  start.arguments = {"--help"};
  start.standard_output = open("/dev/full", O_WRONLY | O_CLOEXEC);
  const Ending ending = RunWith(start, "{}");
  close(start.standard_output);
  EXPECT_EQ(ending.status, 1);
  EXPECT_EQ(ending.errors,
            "svcmgrctl: error: cannot write to standard output: No space left on device; make "
            "room, or write elsewhere\n");
}

TEST(AFullDisk, EndsWhatIsFollowed) {
  struct stat device = {};
  if (stat("/dev/full", &device) != 0 || device.st_rdev != makedev(1, 7))
    GTEST_SKIP() << "there is no /dev/full here";
  for (const Arguments& command : {Arguments{"update"}, {"models", "update", "a"}, {"watch"}}) {
    Start start;
    start.arguments = command;
    start.standard_output = open("/dev/full", O_WRONLY | O_CLOEXEC);
    const Ending ending = RunWith(start, "{}");
    close(start.standard_output);
    EXPECT_EQ(ending.status, 1) << command[0];
    EXPECT_THAT(ending.errors, HasSubstr("cannot write to standard output")) << command[0];
  }
}

class AFileThatCannotGrow : public testing::Test {
 protected:
  void SetUp() override {
    const char* folder = std::getenv("TMPDIR");
    path_ = std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp") + "/ctl-XXXXXX";
    start_.standard_output = mkstemp(path_.data());
    ASSERT_GE(start_.standard_output, 0);
    start_.no_file_space = true;
  }
  void TearDown() override {
    close(start_.standard_output);
    unlink(path_.c_str());
  }

  std::string path_;
  Start start_;
};

TEST_F(AFileThatCannotGrow, FailsACommandThatSucceeded) {
  start_.arguments = {"models", "list", "--json"};
  const Ending ending = RunWith(start_, "{}");
  EXPECT_EQ(ending.status, 1);
  EXPECT_THAT(ending.errors, HasSubstr(R"("name":"WRITE_FAILED")"));
}

TEST_F(AFileThatCannotGrow, DoesNotHideAnEarlierFailure) {
  start_.arguments = {"status"};
  EXPECT_EQ(RunWith(start_, R"({"level": {"result": -1073741826}})").status, 9);
}

TEST(StandardOutput, WhenItIsClosedIsAFailureToWrite) {
  Start start;
  start.arguments = {"api-level"};
  start.no_descriptors = true;
  EXPECT_EQ(RunWith(start, "{}").status, 1);
}

}  // namespace
