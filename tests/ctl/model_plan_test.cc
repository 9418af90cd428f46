// SPDX-License-Identifier: Apache-2.0
//
// What is asked of the agent where something is newer, and what is not where nothing is.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "event_line.h"
#include "json_lines.h"
#include "process.h"

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

// Of "a" version 2 is installed; "b" is not installed.
constexpr char kInstalled[] = R"("models": {"models": [{"id": "a", "version": "2.0"}]})";

/** An agent that has these versions, and whose work, if it is asked for these models, succeeds at once. */
std::string Agent(const std::string& versions, const std::string& models) {
  json list = json::array();
  for (const json& each : json::parse(versions)) list.push_back({{"id", "a"}, {"version", each}});
  return R"({"versions": {"models": )" + list.dump() + "}, " + kInstalled +
         R"(, "work": {"models": )" + models + R"(, "then": [{"progress": [0, 2, 1, 1, 100]}]}})";
}

// An agent that ends the program if it is asked for work.
std::string IdleAgent(const std::string& versions) { return Agent(versions, "[]"); }

TEST(AnUpdateOfModels, IsNotAskedForWhereNothingIsNewer) {
  for (const char* model : {"a", "a@2.0"}) {
    const Ending ending = RunScripted(IdleAgent(R"(["1.0", "2.0"])"), {"models", "update", model});
    EXPECT_EQ(ending.status, 0);
    EXPECT_EQ(ending.errors, "");
    EXPECT_THAT(Lines(ending.output),
                ElementsAre(Says("a: 2.0 is installed already"), Says("nothing to do")));
  }
}

TEST(AnUpdateOfModels, ThatIsNotNeededIsJsonLinesToo) {
  const Ending ending =
      RunScripted(IdleAgent(R"(["1.0", "2.0"])"), {"models", "update", "a", "--json"});
  EXPECT_EQ(ending.status, 0);
  std::vector<json> lines = JsonLines(ending.output);
  for (json& line : lines) {
    EXPECT_EQ(line.erase("time") + line.erase("elapsed"), 2u);
  }
  EXPECT_THAT(lines,
              ElementsAre(json::parse(R"({"event": "skipped", "id": "a", "version": "2.0"})"),
                          json::parse(R"({"event": "end", "succeeded": true, "error": 0,
                                                 "decided_by": "versions"})")));
}

TEST(AnUpdateOfModels, IsAskedForAllTheSameWhereItIsForced) {
  const Ending ending =
      RunScripted(Agent(R"(["2.0"])", R"([["a", ""]])"), {"models", "update", "a", "--force"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_THAT(ending.output,
              AllOf(HasSubstr("asked for the update of a\n"), HasSubstr("1 model is updated\n")));
}

TEST(AnUpdateOfModels, LeavesOutThoseThatAreUpToDate) {
  const Ending ending =
      RunScripted(Agent(R"(["2.0"])", R"([["b", ""]])"), {"models", "update", "a", "b"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_THAT(Lines(ending.output),
              ElementsAre(Says("a: 2.0 is installed already"),
                          Says("the agent was asked for the update of b"),
                          Says("b: 100 % (total 100 %)"), Says("1 model is updated")));
}

TEST(AnUpdateOfModels, IsAskedForWhereTheAgentHasAnotherVersion) {
  struct {
    const char* versions;
    const char* wanted;
    const char* asked;
  } const rows[] = {
      {R"(["2.0", "10.0"])", "a", R"([["a", ""]])"},
      {R"(["1.0", "2.0"])", "a@1.0", R"([["a", "1.0"]])"},
      // What it has is not known: the agent decides.
      {R"([])", "a", R"([["a", ""]])"},
      {R"([""])", "a", R"([["a", ""]])"},
  };
  for (const auto& row : rows)
    EXPECT_THAT(
        RunScripted(Agent(row.versions, row.asked), {"models", "update", row.wanted}).output,
        HasSubstr("1 model is updated"))
        << row.versions;
}

TEST(AnUpdateOfModels, IsLeftToAnAgentThatDoesNotTellItsVersions) {
  for (const char* query : {R"("models": {"error": -38})", R"("models": {"result": -38})",
                            R"("models": {"models": [{"id": "a", "version": ""}]})",
                            R"("models": {"models": [{"id": "a"}]})"}) {
    const std::string script = std::string("{") + query +
                               R"(, "versions": {"models": [{"id": "a", "version": "1"}]},
                                  "work": {"then": [{"progress": [0, 2, 1, 1, 100]}]}})";
    EXPECT_EQ(RunScripted(script, {"models", "update", "a"}).status, 0) << query;
  }
  EXPECT_EQ(
      RunScripted(R"({"models": {"never": true}})", {"models", "update", "a", "--timeout", "0.1"})
          .status,
      7);
  EXPECT_EQ(
      RunScripted(R"({"models": {"drop": true, "result": -38}})", {"models", "update", "a"}).status,
      6);
}

TEST(ADryRun, OfAnUpdateSaysWhatWouldBeDone) {
  const std::string agent = IdleAgent(R"(["1.0", "2.0", "3.0"])");
  const Ending ending =
      RunScripted(agent, {"models", "update", "--dry-run", "a", "a@1.0", "a@2.0", "b@1.0", "b"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.errors, "");
  EXPECT_EQ(ending.output,
            "ACTION     ID  INSTALLED  VERSION\n"
            "update     a   2.0        3.0\n"
            "downgrade  a   2.0        1.0\n"
            "nothing    a   2.0        2.0\n"
            "install    b   -          1.0\n"
            "install    b   -          3.0\n");
}

TEST(ADryRun, ThatIsForcedSaysWhatWouldBeInstalledAgain) {
  const Ending ending = RunScripted(IdleAgent(R"(["1.0", "2.0"])"),
                                    {"models", "update", "--dry-run", "--force", "a", "--json"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(json::parse(ending.output), json::parse(R"({"work": "update", "models": [
      {"action": "reinstall", "id": "a", "installed": "2.0", "version": "2.0"}]})"));
}

TEST(ADryRun, WhereNothingIsNewerSaysSo) {
  const Ending ending =
      RunScripted(IdleAgent(R"(["1.0", "2.0"])"), {"models", "update", "--dry-run", "a"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.errors, "svcmgrctl: nothing to do\n");
  EXPECT_EQ(ending.output,
            "ACTION   ID  INSTALLED  VERSION\n"
            "nothing  a   2.0        2.0\n");
}

TEST(ADryRun, OfWhatIsNotThereIsNotFound) {
  const Ending version =
      RunScripted(IdleAgent(R"(["1.0", "2.0"])"), {"models", "update", "--dry-run", "a@7"});
  EXPECT_EQ(version.status, 4);
  EXPECT_EQ(version.output, "");
  EXPECT_THAT(version.errors, HasSubstr("there is no version '7' of 'a'"));
  const Ending model = RunScripted(IdleAgent("[]"), {"models", "update", "--dry-run", "aa"});
  EXPECT_EQ(model.status, 4);
  EXPECT_THAT(model.errors, HasSubstr("there is no usable model 'aa'; did you mean 'a'"));
  EXPECT_EQ(RunScripted(IdleAgent("[]"), {"models", "uninstall", "--dry-run", "b"}).status, 4);
}

TEST(ADryRun, OfAnUninstallationSaysWhatWouldBeRemoved) {
  const Ending ending = RunScripted(IdleAgent("[]"), {"models", "uninstall", "a", "--dry-run"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.output,
            "ACTION     ID  INSTALLED  VERSION\n"
            "uninstall  a   2.0        -\n");
}

TEST(ADryRun, FailsWhereTheAgentCannotBeAsked) {
  EXPECT_EQ(
      RunScripted(R"({"models": {"error": -13}})", {"models", "update", "a", "--dry-run"}).status,
      3);
}

TEST(ADryRun, OfAnUpdateOfAgentsSaysWhichWouldBeUpdated) {
  const std::string idle = R"({"update": {"result": -38, "agents": ["none"]}})";
  const Ending named = RunScripted(idle, {"update", "--dry-run", "org.a", "org.b"});
  EXPECT_EQ(named.status, 0);
  EXPECT_EQ(named.errors, "");
  EXPECT_EQ(named.output,
            "AGENT  INSTALLED\n"
            "org.a  2.3.182\n"
            "org.b  2.3.182\n");
  const Ending all = RunScripted(idle, {"update", "--dry-run", "--json"});
  EXPECT_EQ(all.status, 0);
  EXPECT_EQ(json::parse(all.output), json::parse(R"({"all": true, "agents": []})"));
  EXPECT_EQ(RunScripted(idle, {"update", "--dry-run"}).output,
            "all agents for which the agent has something newer\n");
  EXPECT_EQ(RunScripted(R"({"connect": {"result": -1}})", {"update", "--dry-run"}).status, 6);
}

}  // namespace
