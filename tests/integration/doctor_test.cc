// SPDX-License-Identifier: Apache-2.0
//
// Does svcmgrctl's doctor find what is wrong with a world, and say what to do?
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "sim_process.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

struct World {
  const char* name;
  const char* scenario;
  /** What is broken before, by a shell. */
  const char* before;
  const char* timeout;
  int status;
  /** The first part with a problem, a piece of what is found, and of what is to be done. */
  const char* part;
  const char* finding;
  const char* remedy;
};

void PrintTo(const World& world, std::ostream* out) { *out << world.name; }

constexpr char kNoPackages[] = "mkdir p; export VELMORA_PACKAGE_DIR=$PWD/p;";
constexpr char kOtherPackages[] = "\"$1\" send remove;";
constexpr char kNoBus[] = "export DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent;";
constexpr char kStoppedBus[] = "kill -STOP $(cat \"$VELMORA_RUNTIME_DIR/../bus.pid\");";
constexpr char kDeadBus[] = "\"$1\" send kill-bus;";
constexpr char kStoppedAgent[] = "kill -STOP $(cat \"$VELMORA_RUNTIME_DIR/../agent.pid\");";
constexpr char kNoFolder[] = "export VELMORA_RUNTIME_DIR=/nonexistent/run;";
constexpr char kOpenFolder[] = "chmod 755 \"$VELMORA_RUNTIME_DIR\";";
constexpr char kKilledAgent[] = "\"$1\" send kill;";

const World kWorlds[] = {
    {"NoPackages", "demo", kNoPackages, "60", 5, "packages", "no package", "VELMORA_PACKAGE_DIR"},
    {"PackagesWithoutTheAgent", "demo", kOtherPackages, "60", 5, "agent", "not installed",
     "Install the package com.velmora.svcmgr"},
    {"AnOldAgent", "old-agent", "", "60", 5, "agent", "too old for models", "svcmgrctl update"},
    {"AnAgentWithoutCategories", "no-category", "", "60", 5, "agent", "too old for categories",
     "svcmgrctl update"},
    {"NoBus", "demo", kNoBus, "60", 1, "bus", "there is no session bus",
     "DBUS_SESSION_BUS_ADDRESS"},
    {"ADeadBus", "demo", kDeadBus, "60", 1, "bus", "there is no session bus", "started anew"},
    {"AStoppedBus", "demo", kStoppedBus, "1.5", 1, "bus", "does not answer", "stopped"},
    {"NoAgentThatRuns", "agent-not-running", "", "60", 6, "port", "it has no port in",
     "Start the agent"},
    {"AnAgentThatWasKilled", "demo", kKilledAgent, "60", 6, "port", "nobody listens at its port",
     "Start the agent"},
    {"NoFolderOfPorts", "demo", kNoFolder, "60", 6, "port", "there is no folder of ports",
     "VELMORA_RUNTIME_DIR"},
    {"AFolderOfPortsThatIsOpenToOthers", "demo", kOpenFolder, "60", 3, "port",
     "is not this user's alone", "0700"},
    {"NoPermission", "permission-denied", "", "60", 3, "permission", "may not connect",
     "privilege"},
    {"ARefusal", "refused", "", "60", 3, "permission", "refused", "started anew"},
    {"AStoppedAgent", "demo", kStoppedAgent, "1", 7, "connection", "did not answer",
     "started anew"},
    {"AnAgentThatNeverAnswers", "never-answers", "", "1", 7, "level", "did not answer",
     "restart it"},
    {"ALevelOfNone", "level-0", "", "60", 1, "level", "its level is 0", "Ask again"},
    {"AFeatureThatIsOff", "kyr-disabled", "", "60", 9, "level", "KYR feature", "ask again later"},
    {"AnAgentThatCrashes", "crashes", "", "60", 6, "models", "lost", "see whether it crashes"},
};

/** Runs the doctor in a world, after these commands of a shell; $0 is svcmgrctl, $1 is svcmgr-sim. */
Finished RunDoctor(const std::string& scenario, const std::string& before,
                   const std::string& arguments) {
  return RunSim(
      {"run", scenario, "--", "sh", "-c",
       "cd \"$(dirname \"$SVCMGR_SIM_CONTROL\")\" && { " + before + " \"$0\" " + arguments + "; }",
       SVCMGRCTL, SVCMGR_SIM});
}

class TheDoctor : public testing::TestWithParam<World> {};
INSTANTIATE_TEST_SUITE_P(Finds, TheDoctor, testing::ValuesIn(kWorlds),
                         [](const auto& world) { return std::string(world.param.name); });

TEST_P(TheDoctor, AndSaysWhatToDo) {
  const World& world = GetParam();
  const Finished run = RunDoctor(world.scenario, world.before,
                                 std::string("--json --timeout ") + world.timeout + " doctor");
  EXPECT_EQ(run.status, world.status) << run.output << run.errors;
  ASSERT_TRUE(json::accept(run.output)) << run.output << run.errors;
  const json health = json::parse(run.output);
  EXPECT_FALSE(health["well"]);
  EXPECT_EQ(health["parts"].size(), 10U);
  for (const json& part : health["parts"]) {
    if (part["state"] != "problem") continue;
    EXPECT_EQ(part["part"], world.part);
    EXPECT_THAT(part["finding"].get<std::string>(), HasSubstr(world.finding));
    EXPECT_THAT(part["remedy"].get<std::string>(), HasSubstr(world.remedy));
    EXPECT_EQ(part["exit"], world.status);
    break;
  }
  EXPECT_EQ(json::parse(run.errors)["error"]["exit"], world.status);
}

TEST(TheDoctor, FindsNothingWhereAllIsWell) {
  const Finished table = RunDoctor("demo", "", "doctor");
  EXPECT_EQ(table.status, 0) << table.output << table.errors;
  EXPECT_EQ(table.errors, "");
  for (const char* line :
       {"Agent        ok  version 2.3.182\n", "Session bus  ok  answers\n", "Port         ok  ",
        "Permission   ok  ", "Connection   ok  stands\n", "API level    ok  11\n",
        "Models       ok  4 are usable\n", "Update       ok  none is reported\n"})
    EXPECT_THAT(table.output, HasSubstr(line));
  EXPECT_THAT(table.output, Not(HasSubstr("What to do")));
  const Finished run = RunDoctor("demo", "", "--json doctor");
  const json health = json::parse(run.output);
  EXPECT_TRUE(health["well"]);
  for (const json& part : health["parts"]) {
    EXPECT_EQ(part["state"], "ok") << part;
    EXPECT_EQ(part["remedy"], nullptr) << part;
    EXPECT_EQ(part["exit"], 0) << part;
  }
}

TEST(TheDoctor, HearsOfAnUpdateThatBegins) {
  const Finished run = RunSim(
      {"run", "demo", "--", "sh", "-c",
       R"(("$0" doctor --listen 60) & while kill -0 $!; do "$1" send update-start; done 2>/dev/null; wait $!)",
       SVCMGRCTL, SVCMGR_SIM});
  EXPECT_EQ(run.status, 1) << run.output << run.errors;
  EXPECT_THAT(run.output, HasSubstr("an update of the agents is under way"));
  EXPECT_THAT(run.output, HasSubstr("Update: Wait until it has ended"));
}

TEST(TheDoctor, SaysThatAnOldAgentIsAllThatIsWrongWithIt) {
  const Finished run = RunDoctor("no-category", "", "doctor");
  EXPECT_THAT(run.output, HasSubstr("What to do\n  Agent: Have the agent updated"));
  EXPECT_THAT(run.errors, Not(IsEmpty()));
}

}  // namespace
