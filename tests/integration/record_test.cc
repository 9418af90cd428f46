// SPDX-License-Identifier: Apache-2.0
// Scenarios that are made of what an agent answered.
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "own_worlds.h"
#include "sim_process.h"
#include "temp_folder.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

constexpr char kSession[] =
    "\"$CTL\" license; \"$CTL\" api-level; \"$CTL\" models list --descriptions; \"$CTL\" models "
    "list "
    "--category text; \"$CTL\" models versions speech.wake-word; \"$CTL\" models update "
    "speech.wake-word@3.2.0 vision.segment; \"$CTL\" models list; \"$CTL\" models uninstall "
    "no.such; "
    "\"$CTL\" update; \"$CTL\" api-level";

/** Sessions of a shell, recorded in one world and replayed in another. */
class ARecording : public OwnWorlds {
 protected:
  /** Runs a command in a world; its trace is in `trace_`. */
  Finished Run(const std::string& scenario, const std::vector<std::string>& command) const {
    std::vector<std::string> arguments = {"run",          scenario, "--trace", trace_,
                                          "--time-scale", "0",      "--"};
    arguments.insert(arguments.end(), command.begin(), command.end());
    return RunSim(arguments);
  }
  Finished Record(const std::string& scenario, const std::string& script) const {
    return Run(scenario, {SVCMGR_SIM, "record", file_, "--", "sh", "-c", script});
  }
  Finished Replay(const std::string& script) const { return Run(file_, {"sh", "-c", script}); }

  /** What the agent has said, without times: by replies and answers, and by events. */
  struct Said {
    std::vector<json> answers;
    std::vector<json> events;
  };
  Said InTrace() const {
    Said said;
    std::ifstream stream(trace_);
    bool begun = false;
    for (std::string line; std::getline(stream, line);) {
      json record = json::parse(line);
      for (const char* name : {"time", "monotonic", "client"}) record.erase(name);
      begun = begun || record["what"] == "request";
      if (record["what"] == "reply" || record["what"] == "answer") said.answers.push_back(record);
      if (record["what"] == "event" && begun) said.events.push_back(record);
    }
    return said;
  }

  json Scenario() const {
    std::ifstream stream(file_);
    return json::parse(stream, nullptr, false);
  }

  const TempFolder files_;
  const std::string trace_ = files_.path() + "/trace.jsonl";
  const std::string file_ = files_.path() + "/recorded.json";
};

TEST_F(ARecording, ReplaysTheSameAnswersAndEvents) {
  const Finished recorded = Record("demo", kSession);
  const Said first = InTrace();
  EXPECT_THAT(recorded.errors, Not(HasSubstr("not in the scenario")));
  EXPECT_GT(first.answers.size(), 20u);
  EXPECT_GT(first.events.size(), 6u);
  Replay(kSession);
  const Said second = InTrace();
  EXPECT_EQ(first.answers, second.answers);
  EXPECT_EQ(first.events, second.events);
}

TEST_F(ARecording, ReplaysTheAgentsOwnUpdate) {
  Record("update-self", "\"$CTL\" update; \"$CTL\" status");
  const Finished replayed = Replay("\"$CTL\" update; \"$CTL\" status");
  EXPECT_EQ(replayed.status, 0) << replayed.errors;
  std::ifstream stream(trace_);
  const std::string trace((std::istreambuf_iterator<char>(stream)), {});
  EXPECT_THAT(trace, HasSubstr(R"("process":"agent","pid":)"));
  EXPECT_THAT(trace, HasSubstr(R"("status":75)"));
  EXPECT_THAT(trace, HasSubstr(R"("step":"install","version":)"));
}

TEST_F(ARecording, KeepsWhatDiffersFromCallToCall) {
  const std::string scenario = files_.Write("s.json", R"({"methods": {
      "get_agent_api_level": {"result": [7, 9, -1]}}})");
  Record(scenario, "for i in 1 2 3; do \"$CTL\" api-level; done");
  const json calls = Scenario()["methods"]["get_agent_api_level"]["calls"];
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[0]["result"], 7);
  EXPECT_EQ(calls[1]["result"], 9);
  EXPECT_EQ(calls[2]["result"], -1);
}

TEST_F(ARecording, IsMadeForAnApplicationOfTheSameName) {
  const std::string scenario =
      files_.Write("s.json", R"({"client": {"id": "org.me", "version": "4"}})");
  Record(scenario, "\"$CTL\" models list");
  EXPECT_EQ(Scenario()["client"], json::parse(R"({"id": "org.me", "version": "4"})"));
}

TEST_F(ARecording, HasTheFaultsThatWereSeen) {
  const std::string scenario = files_.Write("s.json", R"({"methods": {
      "get_license": {"fault": "drop"}, "GetUsableModelList": {"fault": "never"}}})");
  Record(scenario, "\"$CTL\" license; \"$CTL\" --timeout 1 models list");
  EXPECT_EQ(Scenario()["methods"]["get_license"]["calls"][0]["fault"], "drop");
  EXPECT_EQ(Scenario()["methods"]["GetUsableModelList"]["calls"][0]["fault"], "never");
}

TEST_F(ARecording, KnowsWhoWasTurnedAwayAndWhetherAnAgentRan) {
  const Finished refused = Record("refused", "\"$CTL\" license");
  EXPECT_EQ(Scenario()["agent"]["refuse"], json::array({"com.example.client"})) << refused.errors;
  Record("agent-not-running", "\"$CTL\" license");
  EXPECT_EQ(Scenario()["agent"]["running"], false);
}

TEST_F(ARecording, SaysWhatAScenarioCannotSay) {
  const std::string scenario =
      files_.Write("s.json", R"({"methods": {"GetUsableModelList": {"stray": 2}}})");
  const Finished recorded = Record(scenario, "\"$CTL\" models list");
  EXPECT_THAT(recorded.errors, HasSubstr("not in the scenario: a message of the callback port that "
                                         "means nothing (2 times)\n"));
  EXPECT_EQ(Scenario()["methods"]["GetUsableModelList"]["calls"].size(), 1u);
}

TEST_F(ARecording, OfSeveralClientsAtOnceHasAllTheirCalls) {
  const Finished recorded = Record(
      "empty", "for i in 1 2 3 4 5; do \"$CTL\" api-level & \"$CTL\" models list & done; wait");
  EXPECT_EQ(recorded.status, 0) << recorded.errors;
  EXPECT_EQ(Scenario()["methods"]["get_agent_api_level"]["calls"].size(), 5u);
  EXPECT_EQ(Scenario()["methods"]["GetUsableModelList"]["calls"].size(), 5u);
}

TEST_F(ARecording, EndsWithTheCommandsStatus) {
  EXPECT_EQ(Record("empty", "exit 7").status, 7);
  EXPECT_EQ(Record("empty", "kill -TERM $$").status, 128 + 15);
  EXPECT_EQ(Run("empty", {SVCMGR_SIM, "record", file_, "--", "no-such-command"}).status, 127);
}

TEST_F(ARecording, RunsNothingWhereItCannotBeWritten) {
  const Finished recorded =
      Run("empty", {SVCMGR_SIM, "record", "/nowhere/r.json", "--", "echo", "ran"});
  EXPECT_EQ(recorded.status, 125);
  EXPECT_EQ(recorded.output, "");
  EXPECT_THAT(recorded.errors, HasSubstr("cannot write \"/nowhere/r.json\""));
}

TEST_F(ARecording, NeedsAnAgent) {
  const Finished recorded = Record("agent-missing", "echo ran");
  EXPECT_EQ(recorded.status, 125);
  EXPECT_EQ(recorded.output, "");
  EXPECT_THAT(recorded.errors, HasSubstr("there is no agent here: " AGENT_PACKAGE_ID));
  EXPECT_FALSE(std::filesystem::exists(file_));
  EXPECT_FALSE(std::filesystem::exists(file_ + ".new"));
}

TEST_F(ARecording, NeedsAFileAndACommand) {
  EXPECT_EQ(RunSim({"record"}).status, 2);
  const Finished without = RunSim({"record", "x.json"});
  EXPECT_EQ(without.status, 2);
  EXPECT_THAT(without.errors, HasSubstr("-- COMMAND is required"));
}

}  // namespace
