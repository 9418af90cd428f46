// SPDX-License-Identifier: Apache-2.0
//
// Events, printed as they come.
#include <gmock/gmock.h>

#include <csignal>
#include <nlohmann/json.hpp>

#include "process.h"
#include "support/lines.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::MatchesRegex;

// Steps that end with the program waiting, which is then interrupted.
Ending WatchUntilItWaits(const std::string& script, std::vector<std::string> arguments) {
  Start start;
  start.arguments = std::move(arguments);
  start.arguments.insert(start.arguments.begin(), {"watch", "--timeout", "60"});
  start.signal_when_waiting = SIGINT;
  return RunWith(start, script);
}

constexpr char kTime[] =
    "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}[+-]..:..";

constexpr char kUpdates[] =
    R"({"subscribed": {"update": [{"update": 0}, {"update": 5}, {"update": 42}, {"waiting": true}]}})";

TEST(Watch, PrintsEachEventWithItsTimeItsNumberAndItsName) {
  const Ending ending = WatchUntilItWaits(kUpdates, {"update"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.errors, "");
  const std::vector<std::string> lines = Lines(ending.output);
  ASSERT_EQ(lines.size(), 3u);
  const std::string expected[] = {
      "  update      0 SVCMGR_UPDATE_STATUS_STARTED: the update has begun",
      "  update      5 SVCMGR_UPDATE_STATUS_RESULT_10: " +
          std::string("the update has failed with the agent's result 10"),
      "  update      42 UNKNOWN: the library reports the unknown number 42"};
  for (std::size_t i = 0; i < lines.size(); ++i)
    EXPECT_THAT(lines[i], MatchesRegex(kTime + expected[i]));
}

TEST(Watch, PrintsJsonLinesOnRequest) {
  const Ending ending = WatchUntilItWaits(
      R"({"subscribed": {"model": [{"model": 17}, {"model": 20}, {"model": 24}, {"waiting": true}]}})",
      {"model", "--json"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.errors, "");
  std::vector<json> lines;
  for (const std::string& line : Lines(ending.output)) lines.push_back(json::parse(line));
  ASSERT_EQ(lines.size(), 3u);
  const std::pair<int, const char*> expected[] = {{17, "SVCMGR_AI_STATUS_STARTED"},
                                                  {20, "SVCMGR_AI_STATUS_COMPLETED"},
                                                  {24, "SVCMGR_AI_STATUS_FAILED"}};
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_THAT(lines[i].at("time").get<std::string>(), MatchesRegex(kTime));
    lines[i].erase("time");
    EXPECT_EQ(lines[i], json({{"event", "model"},
                              {"status", expected[i].first},
                              {"name", expected[i].second},
                              {"error", 0}}));
  }
}

TEST(Watch, OfTheConnectionGoesOnAfterALoss) {
  const Ending ending = WatchUntilItWaits(
      R"({"connect": {"events": [[0, 0], [0, 1], [0, 0]]},
          "subscribed": {"update": [{"waiting": true}]}})",
      {});
  EXPECT_EQ(ending.status, 0);
  const std::vector<std::string> lines = Lines(ending.output);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_THAT(lines[0], HasSubstr("  connection  0 SVCMGR_CONNECTION_STATE_CONNECTED: "));
  EXPECT_THAT(lines[1], HasSubstr("  connection  1 SVCMGR_CONNECTION_STATE_DISCONNECTED: "));
  EXPECT_THAT(lines[2], HasSubstr("  connection  0 SVCMGR_CONNECTION_STATE_CONNECTED: "));
}

TEST(Watch, PrintsARefusalAndEndsWithIt) {
  const Ending ending = RunScripted(R"({"connect": {"events": [[-13, 2]]}})", {"watch"});
  EXPECT_EQ(ending.status, 3);
  EXPECT_THAT(ending.output, HasSubstr("2 SVCMGR_CONNECTION_STATE_REJECTED"));
}

TEST(Watch, OfAllPrintsEventsOfAllKinds) {
  const Ending ending = WatchUntilItWaits(
      R"({"subscribed": {"update": [{"update": 0}],
                         "model": [{"model": 17}, {"pause": 100}, {"waiting": true}]}})",
      {});
  for (const char* name : {"SVCMGR_UPDATE_STATUS_STARTED", "SVCMGR_AI_STATUS_STARTED",
                           "SVCMGR_CONNECTION_STATE_CONNECTED"})
    EXPECT_THAT(ending.output, HasSubstr(name));
}

TEST(Watch, OfEventsNeedsNoConnection) {
  const std::string script =
      R"({"connect": {"result": -1}, "subscribed": {"update": [{"update": 1}, {"waiting": true}]}})";
  EXPECT_EQ(WatchUntilItWaits(script, {"update"}).status, 0);
  EXPECT_EQ(RunScripted(script, {"watch", "connection"}).status, 6);
}

TEST(Watch, HasNoTimeLimitOnceItWatches) {
  Start start;
  start.arguments = {"watch", "--timeout", "3"};
  start.signal_when_waiting = SIGINT;
  const Ending ending =
      RunWith(start, R"({"subscribed": {"update": [{"pause": 3500}, {"waiting": true}]}})");
  EXPECT_EQ(ending.status, 0);
}

TEST(Watch, EndsWithoutAFailureWhenNobodyReads) {
  Start start;
  start.arguments = {"watch", "update"};
  start.output_without_reader = true;
  const Ending ending = RunWith(start, R"({"subscribed": {"update": [{"update": 0}]}})");
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.errors, "");
}

TEST(Watch, PrintsAnEventBeforeTheNextOneComes) {
  for (const bool as_json : {false, true}) {
    Start start;
    start.arguments = {"watch", "update"};
    if (as_json) start.arguments.push_back("--json");
    start.interrupt_when_shown = "SVCMGR_UPDATE_STATUS_STARTED";
    EXPECT_EQ(RunWith(start, R"({"subscribed": {"update": [{"update": 0}]}})").status, 0);
  }
}

TEST(Watch, FailsWhenTheAgentIsMissing) {
  EXPECT_EQ(RunScripted(R"({"subscribed": {"result": -1073741822}})", {"watch", "model"}).status,
            5);
}

TEST(Watch, OfSomethingElseIsAWrongCommandLine) {
  const Ending ending = RunScripted("{}", {"watch", "weather"});
  EXPECT_EQ(ending.status, 2);
  EXPECT_THAT(ending.errors, HasSubstr("'weather' is none of update, model, connection"));
}

}  // namespace
