// SPDX-License-Identifier: Apache-2.0
// What a world's trace shows of clients and their agent, and what can be expected of it.
#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "own_worlds.h"
#include "sim_process.h"
#include "temp_folder.h"

namespace {

using nlohmann::json;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::StartsWith;
using testing::UnorderedElementsAre;

/** Runs of shell scripts in traced worlds. */
class AWorld : public OwnWorlds {
 protected:
  Finished Run(const std::string& scenario, const std::string& script,
               const std::vector<std::string>& options = {}) const {
    std::vector<std::string> arguments = {"run", scenario, "--trace", trace_, "--time-scale", "0"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    arguments.insert(arguments.end(), {"--", "sh", "-c", script});
    return RunSim(arguments);
  }

  /** The records of the trace, without their times and the fields that differ from run to run. */
  std::vector<json> Records() const {
    std::vector<json> records;
    std::ifstream stream(trace_);
    for (std::string line; std::getline(stream, line);) {
      json record = json::parse(line, nullptr, false);
      EXPECT_TRUE(record.is_object()) << line;
      EXPECT_TRUE(record.contains("time") && record.contains("monotonic")) << line;
      for (const char* name : {"time", "monotonic", "pid"}) record.erase(name);
      records.push_back(std::move(record));
    }
    return records;
  }

  /** The records of one kind. */
  std::vector<json> Records(const std::string& what) const {
    std::vector<json> records = Records();
    records.erase(std::remove_if(records.begin(), records.end(),
                                 [&](const json& record) { return record["what"] != what; }),
                  records.end());
    return records;
  }

  const TempFolder files_;
  const std::string trace_ = files_.path() + "/trace.jsonl";
};

using ATracedWorld = AWorld;
using AnExpectingCommand = AWorld;

TEST_F(ATracedWorld, TellsARequestWithItsArgumentsAndEachOfItsAnswers) {
  const Finished run = Run("demo", "\"$CTL\" models update speech.wake-word@3.2.0 >/dev/null");
  const auto requests = Records("request");
  // The first one asks for the models that are installed.
  ASSERT_EQ(requests.size(), 2u) << run.errors;
  EXPECT_EQ(requests[0]["method"], "GetUsableModelList");
  const json delegate = {{"id", 4}, {"seq", 1}, {"once", false}};
  const json model = {
      {"id", "speech.wake-word"}, {"version", "3.2.0"}, {"title", ""}, {"description", ""}};
  EXPECT_EQ(requests[1],
            json({{"what", "request"},
                  {"client", 1},
                  {"app", "com.example.client"},
                  {"method", "RequestToUpdate"},
                  {"arguments",
                   {{"delegate", delegate}, {"models", json::array({model})}, {"count", 1}}}}));
  const auto answers = Records("answer");
  ASSERT_FALSE(answers.empty());
  EXPECT_EQ(answers.back(), json({{"what", "answer"},
                                  {"client", 1},
                                  {"app", "com.example.client"},
                                  {"method", "RequestToUpdate"},
                                  {"delegate", delegate},
                                  {"result", 0},
                                  {"state", 2},
                                  {"index", 1},
                                  {"count", 1},
                                  {"percentage", 100}}));
}

TEST_F(ATracedWorld, TellsRepliesAndWholeLists) {
  Run("demo", "\"$CTL\" license; \"$CTL\" api-level; \"$CTL\" models list --descriptions");
  const auto replies = Records("reply");
  ASSERT_EQ(replies.size(), 2u);
  EXPECT_EQ(replies[0]["method"], "get_license");
  EXPECT_THAT(replies[0]["text"].get<std::string>(), HasSubstr("Velmora"));
  EXPECT_EQ(replies[1]["result"], 11);
  const auto lists = Records("answer");
  ASSERT_EQ(lists.size(), 1u);
  EXPECT_EQ(lists[0]["method"], "GetUsableModelListWithDesc");
  EXPECT_EQ(lists[0]["count"], lists[0]["models"].size());
  EXPECT_FALSE(lists[0]["models"][0]["description"].get<std::string>().empty());
}

TEST_F(ATracedWorld, NumbersClientsThroughTheAgentsRestarts) {
  Run("empty", "\"$CTL\" license; \"$SIM\" send restart; \"$CTL\" license; \"$CTL\" license");
  std::vector<json> kinds;
  std::vector<json> gone;  // a busy agent may see the next one come first
  for (const json& record : Records()) {
    const std::string what = record["what"];
    if (what == "connect") kinds.push_back({what, record["client"]});
    if (what == "disconnect") gone.push_back(record["client"]);
    if (what == "end" && record["process"] == "agent") kinds.push_back({what, record["status"]});
  }
  EXPECT_THAT(kinds, ElementsAre(json({"connect", 1}), json({"end", 75}), json({"connect", 2}),
                                 json({"connect", 3}), json({"end", 0})));
  EXPECT_THAT(gone, UnorderedElementsAre(1, 2, 3));
}

TEST_F(ATracedWorld, TellsEventsStepsAndProcesses) {
  Run("update-self", "\"$CTL\" update >/dev/null");
  EXPECT_THAT(
      Records(),
      IsSupersetOf(
          {json({{"what", "start"}, {"process", "agent"}, {"app", AGENT_PACKAGE_ID}}),
           json({{"what", "start"},
                 {"process", "command"},
                 {"command", {"sh", "-c", "\"$CTL\" update >/dev/null"}}}),
           json({{"what", "event"},
                 {"event", "update_status"},
                 {"data", {{"Start", json::array({AGENT_PACKAGE_ID})}}}}),
           json({{"what", "event"}, {"event", "agent_status"}, {"data", {{"Update", "true"}}}}),
           json({{"what", "step"}, {"step", "install"}}),
           json({{"what", "step"}, {"step", "restart"}}),
           json({{"what", "end"}, {"process", "agent"}, {"status", 75}}),
           json({{"what", "event"}, {"event", "agent_status"}, {"data", {{"Launch", "true"}}}}),
           json({{"what", "end"}, {"process", "command"}, {"status", 0}})}));
}

TEST_F(ATracedWorld, KeepsWhatHappenedBeforeAnAgentWasKilled) {
  const std::string scenario = files_.Write(
      "dies.json", R"({"bus": false, "methods": {"get_license": {"fault": "crash"}}})");
  EXPECT_NE(Run(scenario, "\"$CTL\" license").status, 0);
  const auto records = Records();
  const auto request = std::find_if(records.begin(), records.end(),
                                    [](const json& record) { return record["what"] == "request"; });
  ASSERT_NE(request, records.end());
  EXPECT_THAT((std::vector<json>{request + 1, request + 3}),
              ElementsAre(json({{"what", "fault"},
                                {"client", 1},
                                {"app", "com.example.client"},
                                {"fault", "crash"}}),
                          json({{"what", "end"}, {"process", "agent"}, {"signal", 9}})));
}

TEST_F(ATracedWorld, TellsMessagesThatMeanNothingByTheirBytes) {
  const std::string scenario = files_.Write("spoilt.json", R"({"bus": false, "methods": {
      "get_license": {"fault": "cut", "cutAt": 6},
      "get_agent_api_level": {"fault": "truncated", "cutAt": 2},
      "GetUsableModelList": {"stray": 2}}})");
  Run(scenario, "\"$CTL\" license; \"$CTL\" api-level; \"$CTL\" models list");
  const auto messages = Records("message");
  ASSERT_EQ(messages.size(), 3u);
  EXPECT_EQ(messages[0]["port"], "main");
  EXPECT_EQ(messages[0]["size"], 6);
  EXPECT_THAT(messages[0]["bytes"].get<std::string>(), StartsWith("00000000"));
  EXPECT_EQ(messages[1]["port"], "callback");
  const auto raw = Records("raw");
  ASSERT_EQ(raw.size(), 1u);
  EXPECT_EQ(raw[0]["bytes"], "080000000000");
  EXPECT_THAT(
      Records("disconnect"),
      Contains(testing::ResultOf([](const json& record) { return record["by"]; }, "agent")));
}

TEST_F(ATracedWorld, TellsAMessageThatComesInPiecesOnceAndWhole) {
  const std::string scenario = files_.Write("drips.json", R"({"bus": false, "methods": {
      "get_agent_api_level": {"drip": {"bytes": 3}}}})");
  EXPECT_EQ(Run(scenario, "\"$CTL\" api-level").output, "11\n");
  ASSERT_EQ(Records("reply").size(), 1u);
  EXPECT_EQ(Records("reply")[0]["result"], 11);
  EXPECT_THAT(Records("raw"), testing::IsEmpty());
}

TEST_F(ATracedWorld, TellsWhomTheAgentCutsOff) {
  Run("empty",
      "\"$CTL\" watch connection >/dev/null & \"$SIM\" expect --timeout 60 'client connected' && "
      "\"$SIM\" send drop api-level=3 && \"$SIM\" expect 'step drop' 'client disconnected' "
      "'step api-level'; kill $!");
  EXPECT_THAT(
      Records("disconnect"),
      Contains(testing::ResultOf([](const json& record) { return record["by"]; }, "agent")));
  EXPECT_EQ(Records("step").back()["level"], 3);
}

TEST_F(ATracedWorld, TellsWhoIsRefused) {
  Run("refused", "\"$CTL\" license");
  EXPECT_THAT(Records("refuse"),
              Contains(json({{"what", "refuse"}, {"app", "com.example.client"}})));
  EXPECT_THAT(Records("connect"), testing::IsEmpty());
}

TEST_F(ATracedWorld, SpeaksToStandardErrorInWords) {
  const Finished run = Run("empty", "\"$CTL\" api-level", {"--trace", "-"});
  EXPECT_EQ(run.output, "11\n");
  EXPECT_THAT(run.errors, HasSubstr("  client 1 connects: com.example.client\n"));
  EXPECT_THAT(run.errors, HasSubstr("  client 1 asks get_agent_api_level\n"));
  EXPECT_THAT(run.errors,
              HasSubstr("  client 1 gets the reply to get_agent_api_level: result 11\n"));
  EXPECT_FALSE(Records().empty()) << "a file has it as well";
}

TEST_F(ATracedWorld, CapturesMessagesOfAllItsAgents) {
  const std::string capture = files_.path() + "/c.pcapng";
  Run("empty", "\"$CTL\" license; \"$SIM\" send restart; \"$CTL\" license", {"--capture", capture});
  std::ifstream stream(capture, std::ios::binary);
  const std::string content((std::istreambuf_iterator<char>(stream)), {});
  const std::string text = Records("reply").at(0)["text"];
  const auto first = content.find(text);
  ASSERT_NE(first, std::string::npos);
  EXPECT_NE(content.find(text, first + 1), std::string::npos);
}

TEST_F(ATracedWorld, ReplacesAnOldTrace) {
  files_.Write("trace.jsonl", "old\n");
  Run("empty", "true");
  EXPECT_FALSE(Records().empty());
}

TEST_F(ATracedWorld, IsNotMadeWhereTheTraceCannotBeWritten) {
  const Finished run = RunSim({"run", "empty", "--trace", "/nowhere/t", "--", "echo", "ran"});
  EXPECT_EQ(run.status, 125);
  EXPECT_EQ(run.output, "");
  EXPECT_THAT(run.errors, HasSubstr("cannot write \"/nowhere/t\": No such file"));
  EXPECT_EQ(RunSim({"run", "empty", "--capture", "/nowhere/c", "--", "true"}).status, 125);
}

TEST_F(AnExpectingCommand, EndsWhenTheTraceShowsWhatIsExpected) {
  const Finished run =
      RunSim({"run", "demo", "--time-scale", "0", "--", "sh", "-c",
              "\"$SIM\" expect --timeout 60 'RequestToUpdate of speech.wake-word asked by "
              "com.example.client' 'event START' 'RequestToUpdate at 40 percent' 'event COMPLETED' "
              "'client disconnected' 'no client connected' & waiting=$!; "
              "\"$CTL\" models update speech.wake-word >/dev/null; wait $waiting; echo $?"});
  EXPECT_EQ(run.output, "0\n") << run.errors;
}

TEST_F(AnExpectingCommand, CountsTheClientsThatAreConnected) {
  const Finished run =
      RunSim({"run", "empty", "--", "sh", "-c",
              "for i in 1 2 3; do \"$CTL\" watch connection >/dev/null & all=\"$all $!\"; done; "
              "\"$SIM\" expect --timeout 60 '3 clients connected'; echo $?; kill $all; "
              "\"$SIM\" expect --timeout 60 'no client connected'; echo $?"});
  EXPECT_EQ(run.output, "0\n0\n") << run.errors;
}

TEST_F(AnExpectingCommand, SeesAcrossTheAgentsRestart) {
  const Finished run = RunSim({"run", "empty", "--", "sh", "-c",
                               "\"$SIM\" send restart; \"$SIM\" expect --timeout 60 'step restart' "
                               "'agent ended' 'agent started'; echo $?"});
  EXPECT_EQ(run.output, "0\n") << run.errors;
}

TEST_F(AnExpectingCommand, FailsWithWhatWasSeenInstead) {
  const Finished run = RunSim({"run", "empty", "--", "sh", "-c",
                               "\"$CTL\" models update vision.segment >/dev/null 2>&1; \"$SIM\" "
                               "expect --timeout 0.1 'RequestToUpdate of speech.wake-word asked'"});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, StartsWith("svcmgr-sim: not seen within 0.1 s: RequestToUpdate of "
                                     "speech.wake-word asked\nSeen instead:\n  | "));
  EXPECT_THAT(run.errors, HasSubstr("client 1 asks RequestToUpdate: models vision.segment\n"));
}

TEST_F(AnExpectingCommand, FailsAtOnceOfWhatWasNotToBe) {
  const Finished run = RunSim(
      {"run", "empty", "--", "sh", "-c",
       "\"$CTL\" license >/dev/null; \"$SIM\" expect --timeout 3600 'no get_license asked'"});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr("this was not to be: no get_license asked\n"));
}

TEST_F(AnExpectingCommand, SaysHowManyClientsThereAreInstead) {
  const Finished run =
      RunSim({"run", "empty", "--", SVCMGR_SIM, "expect", "--timeout", "0", "2 clients connected"});
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.errors, HasSubstr("2 clients connected; there are 0\n"));
}

TEST_F(AnExpectingCommand, IsToldOfAWorldWithoutATrace) {
  const Finished run = RunSim({"run", "demo", "--no-trace", "--", "sh", "-c",
                               "\"$CTL\" license >/dev/null && ! ls \"$SVCMGR_SIM_TRACE\" &&"
                               " \"$SIM\" expect 'client connected'"});
  EXPECT_EQ(run.status, 2);
  EXPECT_THAT(run.errors, HasSubstr("this world keeps no trace: it runs with --no-trace\n"));
}

TEST_F(AnExpectingCommand, RefusesWhatItDoesNotUnderstand) {
  for (const std::string& condition : {std::string("all is well"), std::string("{")}) {
    const Finished run = RunSim({"run", "empty", "--", SVCMGR_SIM, "expect", condition});
    EXPECT_EQ(run.status, 2) << condition;
    EXPECT_THAT(run.errors, AnyOf(HasSubstr("is no condition; each is one argument"),
                                  HasSubstr("this is no JSON object: {")))
        << condition;
  }
  const Finished outside = RunSim({"expect", "client connected"});
  EXPECT_EQ(outside.status, 2);
  EXPECT_THAT(outside.errors, HasSubstr("this is no world"));
  EXPECT_EQ(RunSim({"run", "empty", "--", SVCMGR_SIM, "expect"}).status, 2);
  for (const char* timeout : {"-1", "nan", "soon", "1e9"}) {
    EXPECT_EQ(RunSim({"expect", "--timeout", timeout, "client connected"}).status, 2) << timeout;
  }
}

}  // namespace
