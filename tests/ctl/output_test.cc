// SPDX-License-Identifier: Apache-2.0
//
// What each command prints, byte for byte, for people and for programs.
#include <gmock/gmock.h>

#include "process.h"

namespace {

using testing::HasSubstr;

constexpr char kModels[] = R"([
  {"id": "vision", "version": "1.2.0", "title": "Vision", "description": ""},
  {"id": "speech-zh", "version": "0.9", "title": "中文语音", "description": ""},
  {"id": "x", "title": "Modèle"}
])";

std::string Script(const std::string& name, const std::string& answer) {
  return "{\"" + name + "\": " + answer + "}";
}

std::string ModelsAs(const std::string& name) {
  return Script(name, std::string("{\"models\": ") + kModels + "}");
}

void ExpectDone(const Ending& ending, const std::string& output) {
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.output, output);
  EXPECT_EQ(ending.errors, "");
}

TEST(Status, IsATableOfWhatWasFound) {
  ExpectDone(RunScripted(ModelsAs("models"), {"status"}),
             "Connection       connected\n"
             "Agent version    2.3.182\n"
             "Agent API level  11\n"
             "KYR              enabled\n"
             "Usable models    3\n"
             "Library          2.3.182, API level 11\n");
}

TEST(Status, IsAJsonObject) {
  ExpectDone(RunScripted(ModelsAs("models"), {"status", "--json"}),
             R"({
  "connected": true,
  "agent_version": "2.3.182",
  "agent_api_level": 11,
  "kyr_disabled": false,
  "usable_models": 3,
  "library_version": "2.3.182",
  "library_api_level": 11,
  "problems": []
}
)");
}

TEST(Status, ShowsWhatFailedBesideWhatDidNotAndEndsWithTheFirstFailure) {
  const std::string script =
      R"({"level": {"result": -1073741826}, "models": {"result": -1073741827}})";
  const Ending table = RunScripted(script, {"status"});
  EXPECT_EQ(table.status, 9);
  EXPECT_EQ(table.output,
            "Connection       connected\n"
            "Agent version    2.3.182\n"
            "Agent API level  the KYR feature is disabled\n"
            "KYR              disabled\n"
            "Usable models    the installed agent is too old for this\n"
            "Library          2.3.182, API level 11\n");
  EXPECT_EQ(table.errors,
            "svcmgrctl: error: the KYR feature is disabled; have the feature switched on, then try "
            "again (SVCMGR_ERROR_KYR_DISABLED)\n");

  const Ending in_json = RunScripted(script, {"--json", "status"});
  EXPECT_EQ(in_json.status, 9);
  EXPECT_EQ(in_json.output, R"({
  "connected": true,
  "agent_version": "2.3.182",
  "agent_api_level": null,
  "kyr_disabled": true,
  "usable_models": null,
  "library_version": "2.3.182",
  "library_api_level": 11,
  "problems": [
    {
      "part": "agent_api_level",
      "code": -1073741826,
      "name": "SVCMGR_ERROR_KYR_DISABLED",
      "message": "the KYR feature is disabled",
      "exit": 9,
      "remedy": "have the feature switched on, then try again"
    },
    {
      "part": "usable_models",
      "code": -1073741827,
      "name": "SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION",
      "message": "the installed agent is too old for this",
      "exit": 5,
      "remedy": "have the agent updated with 'svcmgrctl update'"
    }
  ]
}
)");
  EXPECT_EQ(in_json.errors, R"({"error":{"code":-1073741826,"name":"SVCMGR_ERROR_KYR_DISABLED",)"
                            R"("message":"the KYR feature is disabled","exit":9,)"
                            R"("remedy":"have the feature switched on, then try again"}})"
                            "\n");
}

TEST(Status, WithoutAConnectionAsksNothingMore) {
  const Ending ending =
      RunScripted(R"({"connect": {"result": -1}, "level": {"never": true}})", {"status"});
  EXPECT_EQ(ending.status, 6);
  EXPECT_EQ(ending.output,
            "Connection       the agent is not running\n"
            "Agent version    2.3.182\n"
            "Agent API level  not known\n"
            "KYR              not known\n"
            "Usable models    not known\n"
            "Library          2.3.182, API level 11\n");
}

TEST(Status, ShowsAConnectionThatWasLostOnTheWay) {
  const Ending ending = RunScripted(R"({"models": {"never": true, "drop": true}})", {"status"});
  EXPECT_EQ(ending.status, 6);
  EXPECT_EQ(ending.output,
            "Connection       lost\n"
            "Agent version    2.3.182\n"
            "Agent API level  11\n"
            "KYR              enabled\n"
            "Usable models    the connection to the agent was lost\n"
            "Library          2.3.182, API level 11\n");
}

TEST(Status, ShowsWhatItHasWhenTheAgentStopsAnswering) {
  const Ending ending =
      RunScripted(R"({"level": {"never": true}})", {"status", "--timeout", "0.05"});
  EXPECT_EQ(ending.status, 7);
  EXPECT_EQ(ending.output,
            "Connection       connected\n"
            "Agent version    2.3.182\n"
            "Agent API level  the agent did not answer within 0.05 s\n"
            "KYR              not known\n"
            "Usable models    not known\n"
            "Library          2.3.182, API level 11\n");
}

TEST(ApiLevel, IsTheNumberAsTheAgentTellsIt) {
  ExpectDone(RunScripted(R"({"level": {"value": 11}})", {"api-level"}), "11\n");
  ExpectDone(RunScripted(R"({"level": {"value": -2}})", {"api-level"}), "-2\n");
  ExpectDone(RunScripted(R"({"level": {"value": 0}})", {"api-level", "--json"}),
             "{\n  \"api_level\": 0\n}\n");
}

TEST(License, IsTheTextWithItsLayoutAndOneLineFeedAtTheEnd) {
  const std::string script = R"({"license": {"text": "First line\n\tsecond © line"}})";
  ExpectDone(RunScripted(script, {"license"}), "First line\n\tsecond © line\n");
  ExpectDone(RunScripted(R"({"license": {"text": "Ends itself\n"}})", {"license"}),
             "Ends itself\n");
  ExpectDone(RunScripted(script, {"license", "--json"}),
             "{\n  \"license\": \"First line\\n\\tsecond \\u00a9 line\"\n}\n");
}

TEST(License, ThatTheAgentDoesNotHaveIsAFailure) {
  const Ending ending = RunScripted("{}", {"license"});
  EXPECT_EQ(ending.status, 1);
  EXPECT_EQ(ending.output, "");
  EXPECT_EQ(ending.errors,
            "svcmgrctl: error: the agent has no licence text, or could not be asked; try again; an "
            "agent that "
            "answers so again has none\n");
}

TEST(TheListOfModels, IsAlignedByTheCellsOfItsTexts) {
  ExpectDone(RunScripted(ModelsAs("models"), {"models", "list"}),
             "ID         VERSION  TITLE\n"
             "vision     1.2.0    Vision\n"
             "speech-zh  0.9      中文语音\n"
             "x          -        Modèle\n");
}

TEST(TheListOfModels, IsAJsonObjectWithNullForATextThatIsAbsent) {
  ExpectDone(RunScripted(ModelsAs("models"), {"models", "list", "--json"}),
             R"({
  "models": [
    {
      "id": "vision",
      "version": "1.2.0",
      "title": "Vision",
      "description": ""
    },
    {
      "id": "speech-zh",
      "version": "0.9",
      "title": "\u4e2d\u6587\u8bed\u97f3",
      "description": ""
    },
    {
      "id": "x",
      "version": null,
      "title": "Mod\u00e8le",
      "description": null
    }
  ]
}
)");
}

TEST(TheListOfModels, HasDescriptionsOnRequest) {
  const std::string script = Script("described", R"({"models": [
      {"id": "语音", "version": "1", "title": "语", "description": "Hears\nyou"},
      {"id": "vision", "version": "10", "title": "Vision", "description": ""}]})");
  ExpectDone(RunScripted(script, {"models", "list", "--descriptions"}),
             "ID      VERSION  TITLE   DESCRIPTION\n"
             "语音    1        语      Hears\\nyou\n"
             "vision  10       Vision  -\n");
  EXPECT_THAT(RunScripted(script, {"models", "list", "--descriptions", "--json"}).output,
              HasSubstr(R"("description": "Hears\nyou")"));
}

TEST(TheListOfModels, IsThatOfACategoryOnRequest) {
  const std::string script =
      Script("category", R"({"name": "camera", "models": [{"id": "c", "version": "3"}]})");
  ExpectDone(RunScripted(script, {"models", "list", "--category", "camera"}),
             "ID  VERSION  TITLE\n"
             "c   3        -\n");
  EXPECT_EQ(RunScripted(script, {"models", "list", "--category=camera", "--json"}).status, 0);
}

TEST(TheListOfModels, OfACategoryThatNobodyDeclaresIsNotFound) {
  const Ending ending = RunScripted(Script("category", R"({"name": "camera"})"),
                                    {"models", "list", "--category", "kitchen"});
  EXPECT_EQ(ending.status, 4);
  EXPECT_EQ(ending.errors,
            "svcmgrctl: error: no application declares the category 'kitchen'; install the "
            "application that does "
            "(SVCMGR_ERROR_INVALID_PARAMETER)\n");
}

TEST(TheListOfModels, WhenEmptyIsNoDataAndARemarkForPeople) {
  const Ending people = RunScripted("{}", {"models", "list"});
  EXPECT_EQ(people.status, 0);
  EXPECT_EQ(people.output, "");
  EXPECT_EQ(people.errors, "svcmgrctl: there are no usable models\n");
  ExpectDone(RunScripted("{}", {"models", "list", "--json"}), "{\n  \"models\": []\n}\n");
}

constexpr char kVersions[] = R"({
  "described": {"models": [{"id": "vision", "version": "2", "title": "Vision", "description": "Sees"},
                           {"id": "visor"}]},
  "versions": {"models": [{"id": "vision", "version": "2", "title": "Vision", "description": ""},
                          {"id": "vision", "version": "1.10", "title": "Vision", "description": ""}]}
})";

TEST(TheVersionsOfAModel, AreATable) {
  ExpectDone(RunScripted(kVersions, {"models", "versions", "vision"}),
             "VERSION  REMARK             ID      TITLE\n"
             "2        installed, newest  vision  Vision\n"
             "1.10     -                  vision  Vision\n");
}

TEST(TheVersionsOfAModel, AreAJsonObject) {
  ExpectDone(RunScripted(kVersions, {"models", "versions", "vision", "--json"}),
             R"({
  "id": "vision",
  "versions": [
    {
      "id": "vision",
      "version": "2",
      "title": "Vision",
      "description": "",
      "installed": true,
      "newest": true
    },
    {
      "id": "vision",
      "version": "1.10",
      "title": "Vision",
      "description": "",
      "installed": false,
      "newest": false
    }
  ]
}
)");
}

TEST(TheVersionsOfAModel, AreAskedForWithAllFourTextsOfTheModel) {
  const std::string echo = R"({"versions": {"echo": true}, "described": {"models": [)";
  EXPECT_THAT(
      RunScripted(echo + R"({"id": "a", "version": "2", "title": "T", "description": "D"}]}})",
                  {"models", "versions", "a", "--json"})
          .output,
      HasSubstr("\"id\": \"a\",\n      \"version\": \"2\",\n      \"title\": \"T\",\n"
                "      \"description\": \"D\",\n"));
  EXPECT_THAT(RunScripted(echo + R"({"id": "a"}]}})", {"models", "versions", "a", "--json"}).output,
              HasSubstr("\"id\": \"a\",\n      \"version\": \"\",\n      \"title\": \"\",\n"
                        "      \"description\": \"\",\n"));
}

TEST(TheVersionsOfAModel, ThatThereIsNotAreNotFoundAndSimilarNamesSuggested) {
  const std::string usable = R"({"described": {"models": [{"id": "vision"}, {"id": "visor"}]}})";
  const Ending ending = RunScripted(usable, {"models", "versions", "vison"});
  EXPECT_EQ(ending.status, 4);
  EXPECT_EQ(ending.output, "");
  EXPECT_EQ(ending.errors,
            "svcmgrctl: error: there is no usable model 'vison'; did you mean 'vision' or "
            "'visor'\n");
  EXPECT_EQ(RunScripted(usable, {"models", "versions", "far away", "--json"}).errors,
            R"({"error":{"code":null,"name":"NOT_FOUND",)"
            R"("message":"there is no usable model 'far away'","exit":4,)"
            R"("remedy":"'svcmgrctl models list' shows those that there are"}})"
            "\n");
}

TEST(TheVersionsOfAModel, ThatIsNotInstalledAreThoseThatCanBe) {
  ExpectDone(RunScripted(R"({"versions": {"models": [{"id": "new", "version": "0.9"}]}})",
                         {"models", "versions", "new"}),
             "VERSION  REMARK  ID   TITLE\n"
             "0.9      newest  new  -\n");
}

TEST(TheVersionsOfAModel, AreMarkedWhereTheyAreInstalledOrNewest) {
  const auto versions = [](const std::string& installed) {
    return RunScripted(R"({"described": {"models": [{"id": "b", "version": "2.0"},
                                                    {"id": "a", "version": ")" +
                           installed + R"("}]},
                           "versions": {"models": [{"id": "a", "version": "1.9"},
                                                   {"id": "a", "version": "2.0-rc1"},
                                                   {"id": "a", "version": "1.10"},
                                                   {"id": "a", "version": "2.0"}]}})",
                       {"models", "versions", "a"});
  };
  ExpectDone(versions("1.9"),
             "VERSION  REMARK     ID  TITLE\n"
             "1.9      installed  a   -\n"
             "2.0-rc1  -          a   -\n"
             "1.10     -          a   -\n"
             "2.0      newest     a   -\n");
  EXPECT_THAT(versions("2.0").output, HasSubstr("2.0      installed, newest  a   -\n"));
}

TEST(TheVersionsOfAModel, WhenThereAreNoneAreNoData) {
  const Ending ending =
      RunScripted(R"({"described": {"models": [{"id": "a"}]}})", {"models", "versions", "a"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.output, "");
  EXPECT_EQ(ending.errors, "svcmgrctl: there are no versions of 'a'\n");
}

TEST(AnAnswer, CountsOnceHoweverOftenItComes) {
  ExpectDone(RunScripted(
                 R"({"described": {"models": [{"id": "a"}], "times": 3, "again": -38},
                     "versions": {"models": [{"id": "a", "version": "1"}], "times": 2, "again": -38}})",
                 {"models", "versions", "a"}),
             "VERSION  REMARK  ID  TITLE\n1        newest  a   -\n");
}

TEST(AConnection, MayStandBeforeConnectReturns) {
  ExpectDone(RunScripted(R"({"connect": {"inside": true}})", {"api-level"}), "11\n");
}

/** What a terminal of 20 columns shows of a list of models. */
std::string ShownOnATerminal(std::vector<std::string> arguments) {
  Start start;
  start.arguments = std::move(arguments);
  start.terminal = true;
  start.columns = 20;
  start.environment = {{"NO_COLOR", "1"}};
  return RunWith(
             start,
             R"({"models": {"models": [{"id": "a", "version": "1", "title": "A long title"}]}})")
      .output;
}

TEST(TheListOfModels, FitsATerminalUnlessItIsWantedWhole) {
  if (!HasTerminals()) GTEST_SKIP() << "there are no pseudo terminals here";
  EXPECT_EQ(ShownOnATerminal({"models", "list"}),
            "ID  VERSION  TITLE\r\na   1        A long\u2026\r\n");
  EXPECT_EQ(ShownOnATerminal({"models", "list", "--no-trunc"}),
            "ID  VERSION  TITLE\r\na   1        A long title\r\n");
}

}  // namespace
