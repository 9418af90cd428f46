// SPDX-License-Identifier: Apache-2.0
#include "scenario/scenario_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "scenario/scenario_files.h"
#include "scenario/text_rules.h"
#include "temp_folder.h"

namespace {

using sim::Fault;
using sim::Method;
using sim::Scenario;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;
using testing::StartsWith;

Scenario Read(const std::string& document, const std::string& folder = "") {
  return sim::ReadScenario(document, "file.json", folder);
}

/** What is said about a document; empty if nothing. */
std::string Complaint(const std::string& document, const std::string& folder = "") {
  try {
    Read(document, folder);
    return "";
  } catch (const sim::ScenarioError& error) {
    return error.what();
  }
}

/** So many that reading outlasts the time limit where its time grows with their square. */
constexpr int kMany = 400000;

/** So many elements or members of a pattern, with their number in the place of each '#'. */
std::string Numbered(const std::string& pattern, int count) {
  std::string list;
  for (int i = 0; i < count; ++i) {
    list += i == 0 ? "" : ",";
    for (const char c : pattern) {
      c == '#' ? list += std::to_string(i) : list += c;
    }
  }
  return list;
}

std::vector<std::string> LinesOf(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

TEST(ALargeScenario, IsReadInATimeThatGrowsWithItsSize) {
  const Scenario scenario =
      Read(R"({"agent": {"metadata": {)" + Numbered(R"("k#":"")", kMany) + "}}}");
  EXPECT_EQ(scenario.agent.package.metadata.size(), std::size_t{kMany});
}

TEST(ALargeScenario, HasAvailableVersionsThatAreComparedAllTheSame) {
  const auto lines = LinesOf(Complaint(R"({"models": [{"id": "m", "versions": [)" +
                                       Numbered(R"("#")", kMany / 2) + R"(], "available": [)" +
                                       Numbered(R"("a#")", kMany / 2) + R"(, "199999"]}]})"));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0],
            "file.json:1:13: /models/0: \"available\" names the installed version "
            "\"199999\"");
}

TEST(ALargeScenario, MayHaveALongKeyAboveManyValues) {
  const auto lines =
      LinesOf(Complaint(R"({"update": {"steps": [{"broadcast": "x", "lists": {")" +
                        std::string(8 * kMany, 'k') + R"(": [)" + Numbered("#", kMany) + "]}}]}}"));
  ASSERT_EQ(lines.size(), 101u);
  EXPECT_THAT(lines[0],
              testing::MatchesRegex("file.json:1:[0-9]+: /update/steps/0/lists/kk+.+kk+/0: "
                                    "must be a text, not a whole number"));
  EXPECT_LT(lines[0].size(), 1000u);
}

TEST(AComplaint, PointsAtItsOwnPlaceBehindOneAboutTheSameList) {
  EXPECT_EQ(Complaint(R"({"methods": {"request_update": {"result": [1, "x", "y"]}}})"),
            "file.json:1:47: /methods/request_update/result/1: must be a whole number, not a text\n"
            "file.json:1:52: /methods/request_update/result/2: must be a whole number, not a text");
}

TEST(ManyComplaints, AreAHundredAndTheNumberOfTheOthers) {
  const auto lines = LinesOf(Complaint("{" + Numbered(R"("k#":0)", kMany) + "}"));
  ASSERT_EQ(lines.size(), 101u);
  EXPECT_THAT(lines[0], StartsWith("file.json:1:2: /k0: unknown key \"k0\"; allowed here: "));
  EXPECT_THAT(lines[99], HasSubstr(": /k99: unknown key \"k99\"; allowed here: "));
  EXPECT_EQ(lines[100], "file.json: 399900 further problems");
}

TEST(ManyComplaints, OfADuplicateEachAreAHundredAndTheNumberOfTheOthers) {
  const auto lines = LinesOf(Complaint("{" + Numbered(R"("k":0)", kMany) + "}"));
  ASSERT_EQ(lines.size(), 101u);
  EXPECT_EQ(lines[0], "file.json:1:8: the key \"k\" stands here a second time");
  EXPECT_EQ(lines[100], "file.json: 399899 further problems");
}

TEST(ManyComplaints, AreTheFirstInTheFileInWhateverOrderItIsRead) {
  // The name of the repository is read after the models, but is written before them.
  const auto lines = LinesOf(Complaint(R"({"repository": 0, "models": [)" +
                                       Numbered(R"({"id": "m#", "versions": #})", 200) + "]}"));
  ASSERT_EQ(lines.size(), 101u);
  EXPECT_EQ(lines[0], "file.json:1:16: /repository: must be a text, not a whole number");
  EXPECT_THAT(lines[1], HasSubstr("/models/0/versions: "));
  EXPECT_THAT(lines[99], HasSubstr("/models/98/versions: "));
  EXPECT_EQ(lines[100], "file.json: 101 further problems");
}

TEST(ManyComplaints, ThatAreAHundredAndOneEndInTheSingular) {
  const auto lines = LinesOf(Complaint("{" + Numbered(R"("k#":0)", 101) + "}"));
  ASSERT_EQ(lines.size(), 101u);
  EXPECT_EQ(lines[100], "file.json: 1 further problem");
  EXPECT_EQ(LinesOf(Complaint("{" + Numbered(R"("k#":0)", 100) + "}")).size(), 100u);
}

TEST(AnEmptyScenario, HasAnAgentThatWorks) {
  const Scenario scenario = Read("{}");
  EXPECT_EQ(scenario.agent.package.id, AGENT_PACKAGE_ID);
  EXPECT_EQ(scenario.agent.package.version, "2.3.182");
  EXPECT_EQ(scenario.agent.api_level, 11);
  EXPECT_FALSE(scenario.agent.licence.empty());
  EXPECT_TRUE(scenario.agent.installed);
  EXPECT_TRUE(scenario.agent.running);
  EXPECT_THAT(scenario.agent.admission.refused, IsEmpty());
  EXPECT_FALSE(scenario.agent.kyr_disabled);
  EXPECT_EQ(scenario.agent.package.clients, std::nullopt);
  EXPECT_EQ(scenario.client.id, "com.example.client");
  EXPECT_EQ(scenario.client.version, "1.0.0");
  EXPECT_THAT(scenario.client.root, IsEmpty());
  EXPECT_THAT(scenario.packages, IsEmpty());
  EXPECT_THAT(scenario.models, IsEmpty());
  EXPECT_EQ(scenario.time_scale, 1);
}

TEST(AScenario, SaysEverythingAboutTheAgent) {
  const Scenario scenario = Read(R"({"agent": {
      "id": "com.example.agent", "version": "1.7", "apiLevel": -2, "licence": "free",
      "installed": false, "running": false, "refuse": true, "kyr": "disabled",
      "clients": ["com.*", "?"], "metadata": {"a-key": "a value"}}})");
  EXPECT_EQ(scenario.agent.package.id, "com.example.agent");
  EXPECT_EQ(scenario.agent.package.version, "1.7");
  EXPECT_EQ(scenario.agent.api_level, -2);
  EXPECT_EQ(scenario.agent.licence, "free");
  EXPECT_FALSE(scenario.agent.installed);
  EXPECT_FALSE(scenario.agent.running);
  EXPECT_THAT(scenario.agent.admission.refused, ElementsAre("*"));
  EXPECT_TRUE(scenario.agent.kyr_disabled);
  EXPECT_THAT(scenario.agent.package.clients, Optional(ElementsAre("com.*", "?")));
  EXPECT_THAT(scenario.agent.package.metadata, ElementsAre(testing::Pair("a-key", "a value")));
}

TEST(AScenario, MayHaveComments) {
  const Scenario scenario = Read(
      "// first\n{ /* \"description\": 1, */ \"description\": \"a // b /* c\", // \"\n"
      "  \"models\": [/**/], \"agent\": {\"licence\": \"\\\"//\"} /* * / **/ } // last");
  EXPECT_EQ(scenario.description, "a // b /* c");
  EXPECT_EQ(scenario.agent.licence, "\"//");
}

TEST(AScenario, MayNameItsSchemaAndAdviseTheApplication) {
  const Scenario scenario = Read(R"({"$schema": "../x.json", "advice": "Ask again later."})");
  EXPECT_EQ(scenario.advice, "Ask again later.");
}

TEST(AScenario, TakesWholeNumbersInAnyNotation) {
  const Scenario scenario =
      Read(R"({"agent": {"apiLevel": -2.0}, "space": 1e3, "timeScale": 1e-1, "generate": 0.3e1})");
  EXPECT_EQ(scenario.agent.api_level, -2);
  EXPECT_EQ(scenario.space, 1000);
  EXPECT_EQ(scenario.models.size(), 3u);
}

TEST(AScenario, FillsLongTexts) {
  const Scenario scenario = Read(R"({"agent": {"licence": {"fill": "aé", "bytes": 7}}, "models": [
      {"id": {"fill": "ab", "bytes": 5}, "title": {"fill": "x", "bytes": 2049},
       "description": {"fill": "x", "bytes": 0}, "versions": [{"fill": "1", "bytes": 2048}, "1"]}]})");
  EXPECT_EQ(scenario.agent.licence, "aéaéa");
  EXPECT_EQ(scenario.models[0].id, "ababa");
  EXPECT_EQ(scenario.models[0].title, std::string(2049, 'x'));
  EXPECT_EQ(scenario.models[0].description, "");
  EXPECT_THAT(scenario.models[0].versions, ElementsAre(std::string(2048, '1'), "1"));
}

TEST(AScenario, TakesALicenceAsLines) {
  EXPECT_EQ(Read(R"({"agent": {"licence": ["one", "", "", "four"]}})").agent.licence,
            "one\n\n\nfour\n");
}

TEST(AScenario, TakesAnEmptyLicence) {
  EXPECT_EQ(Read(R"({"agent": {"licence": ""}})").agent.licence, "");
}

TEST(AScenario, ReadsALicenceFileBesideIt) {
  const TempFolder folder;
  folder.Write("licence.txt", "from a file\n");
  const Scenario scenario = Read(R"({"agent": {"licenceFile": "licence.txt"}})", folder.path());
  EXPECT_EQ(scenario.agent.licence, "from a file\n");
}

TEST(AScenario, PutsTheClientsRootIntoItsFolder) {
  const Scenario scenario =
      Read(R"({"client": {"id": "a.b", "version": "2", "root": "x/../app"}})", "/some/where");
  EXPECT_EQ(scenario.client.id, "a.b");
  EXPECT_EQ(scenario.client.version, "2");
  EXPECT_EQ(scenario.client.root, "/some/where/app");
}

TEST(AScenario, HasPackages) {
  const Scenario scenario = Read(R"({"packages": [
      {"id": "com.velmora.notes", "version": "1.4.0", "clients": [],
       "metadata": {"ai-agent-category": "text"}},
      {"id": "other"}]})");
  ASSERT_EQ(scenario.packages.size(), 2u);
  EXPECT_EQ(scenario.packages[0].id, "com.velmora.notes");
  EXPECT_EQ(scenario.packages[0].version, "1.4.0");
  EXPECT_THAT(scenario.packages[0].clients, Optional(IsEmpty()));
  EXPECT_THAT(scenario.packages[0].metadata,
              ElementsAre(testing::Pair("ai-agent-category", "text")));
  EXPECT_EQ(scenario.packages[1].version, "1.0.0");
  EXPECT_EQ(scenario.packages[1].clients, std::nullopt);
}

TEST(AScenario, HasModels) {
  const Scenario scenario = Read(R"({"models": [
      {"id": "m", "title": "T", "description": "D", "versions": ["1", "2"], "apps": ["a.*"]},
      {"id": "n", "versions": ["1"]}]})");
  ASSERT_EQ(scenario.models.size(), 2u);
  EXPECT_EQ(scenario.models[0].id, "m");
  EXPECT_EQ(scenario.models[0].title, "T");
  EXPECT_EQ(scenario.models[0].description, "D");
  EXPECT_THAT(scenario.models[0].versions, ElementsAre("1", "2"));
  EXPECT_THAT(scenario.models[0].apps, Optional(ElementsAre("a.*")));
  EXPECT_EQ(scenario.models[1].apps, std::nullopt);
}

TEST(AScenario, GeneratesModelsBehindItsOwn) {
  const Scenario scenario =
      Read(R"({"generate": 1000, "models": [{"id": "m", "versions": ["1"]}]})");
  ASSERT_EQ(scenario.models.size(), 1001u);
  EXPECT_EQ(scenario.models[0].id, "m");
  EXPECT_EQ(scenario.models[1].id, "generated.model.000001");
  EXPECT_EQ(scenario.models[1000].id, "generated.model.001000");
  std::set<std::string> ids;
  for (const auto& model : scenario.models) {
    ids.insert(model.id);
  }
  EXPECT_EQ(ids.size(), 1001u);
}

TEST(AScenario, ScriptsItsMethods) {
  const Scenario scenario = Read(R"({"timeScale": 0.5, "methods": {
      "get_agent_api_level": {"result": 7, "delay": 250},
      "GetUsableModelList": {"result": [0, -1], "stray": 2, "repeat": 3, "count": 9,
                             "arrayCount": -4},
      "GetModelVersionList": {"fault": "cut", "cutAt": 5},
      "RequestToUpdate": {"progress": [
          {"state": 1, "index": 2, "count": 3, "percentage": 4, "result": 5, "delay": 6}, {}]}}})");
  EXPECT_EQ(scenario.time_scale, 0.5);
  EXPECT_THAT(scenario.Script(Method::kGetAgentApiLevel).results, ElementsAre(7));
  EXPECT_EQ(scenario.Script(Method::kGetAgentApiLevel).delay, 250);
  const auto& list = scenario.Script(Method::kGetUsableModelList);
  EXPECT_THAT(list.results, ElementsAre(0, -1));
  EXPECT_EQ(list.stray, 2);
  EXPECT_EQ(list.repeat, 3);
  EXPECT_THAT(list.count, Optional(9));
  EXPECT_THAT(list.array_count, Optional(-4));
  EXPECT_EQ(scenario.Script(Method::kGetModelVersionList).fault, Fault::kCut);
  EXPECT_THAT(scenario.Script(Method::kGetModelVersionList).cut_at, Optional(5));
  const auto& progress = scenario.Script(Method::kRequestToUpdate).progress;
  ASSERT_TRUE(progress.has_value());
  ASSERT_EQ(progress->size(), 2u);
  const sim::ProgressStep& step = progress->front();
  EXPECT_EQ(step.state, 1);
  EXPECT_EQ(step.index, 2);
  EXPECT_EQ(step.count, 3);
  EXPECT_EQ(step.percentage, 4);
  EXPECT_THAT(step.result, Optional(5));
  EXPECT_EQ(step.delay, 6);
  EXPECT_EQ(progress->back().result, std::nullopt);
  EXPECT_THAT(scenario.Script(Method::kGetLicense).results, IsEmpty());
}

struct Refusal {
  const char* name;
  const char* document;
  const char* said;  // the whole message, or where it ends in "...", its beginning
};

void PrintTo(const Refusal& refusal, std::ostream* out) { *out << refusal.name; }

class AWrongScenario : public testing::TestWithParam<Refusal> {};

TEST_P(AWrongScenario, IsRefusedWithItsPlace) {
  const std::string said = GetParam().said;
  const std::string complaint = Complaint(GetParam().document);
  const auto dots = said.rfind("...");
  if (dots == std::string::npos) {
    EXPECT_EQ(complaint, said);
  } else {
    EXPECT_THAT(complaint, StartsWith(said.substr(0, dots)));
  }
}

const Refusal kRefusals[] = {
    // No JSON.
    {"Empty", "", "file.json:1:1: the document ends where a value is expected"},
    {"Blank", " \n\n", "file.json:3:1: the document ends where a value is expected"},
    {"EmptyBehindAMark", "\xef\xbb\xbf",
     "file.json:1:4: the document ends where a value is expected"},
    {"NotJson", "{\n  \"agent\": nope}", "file.json:2:12: a value is expected here"},
    {"UnclosedComment", "{} /* none\n", "file.json:1:4: this comment is not closed"},
    {"UnclosedCommentBehindAKey", "{\"a\": /*", "file.json:1:7: this comment is not closed"},
    {"HalfAComment", "{\"a\": /1}", "file.json:1:7: a value is expected here"},
    {"FaultBehindAComment", "{ /* \"}\n */ \"bus\": 1 }",
     "file.json:2:12: /bus: must be true or false, not a whole number"},
    {"FaultBehindACommentAtTheEndOfALine", "{ // \"}\n  \"bus\": 1 }",
     "file.json:2:10: /bus: must be true or false, not a whole number"},
    {"MissingKey", "{1: 2}", "file.json:1:2: a key in quotes or \"}\" is expected here"},
    {"MissingColon", "{\"a\" 1}", "file.json:1:6: \":\" is expected here"},
    {"MissingValue", "{\"a\": ,}", "file.json:1:7: a value is expected here"},
    {"MissingValueAtTheEnd",
     "{\"a\":", "file.json:1:6: the document ends where a value is expected"},
    {"MissingComma", "{\"a\": 1\n \"b\": 2}", "file.json:2:2: \",\" or \"}\" is expected here"},
    {"MissingCommaInList", "[\"a\" \"b\"]", "file.json:1:6: \",\" or \"]\" is expected here"},
    {"CommaTooMany", "{\"a\": 1,}", "file.json:1:9: a key in quotes is expected here"},
    {"CommaTooManyInList", "[1,]", "file.json:1:4: a value is expected here"},
    {"OnlyAComma", "[,]", "file.json:1:2: a value or \"]\" is expected here"},
    {"WrongBracket", "{\"a\": [true}", "file.json:1:12: \",\" or \"]\" is expected here"},
    {"EndOfObject", "{\"a\": 1",
     "file.json:1:8: the document ends where \",\" or \"}\" is expected"},
    {"LeadingZero", "{\"a\": 01}", "file.json:1:8: \",\" or \"}\" is expected here"},
    {"BehindANumber", "[1-2]", "file.json:1:3: \",\" or \"]\" is expected here"},
    {"BehindANumberAndAComma", "[-12,]", "file.json:1:6: a value is expected here"},
    {"NotANumber", "[-]", "file.json:1:2: a value or \"]\" is expected here"},
    {"TwoDocuments", "{} {}", "file.json:1:4: the end of the document is expected here"},
    {"NotUtf8", "{\"a\": \"\xff\"}", "file.json:1:8: a text must be UTF-8"},
    {"EndsInsideACharacter", "{\"a\": \"\xc3", "file.json:1:8: a text must be UTF-8"},
    {"ControlCharacter", "{\"a\": \"b\tc\"}",
     "file.json:1:9: a control character in a text must be escaped"},
    {"UnclosedText", "{\"a\": \"b,\n \"c\": 2}",
     "file.json:1:7: the closing quote of this text is missing"},
    {"UnclosedTextAtTheEnd", "{\"a\": \"b",
     "file.json:1:7: the closing quote of this text is missing"},
    {"UnclosedKey", "{\"a", "file.json:1:2: the closing quote of this text is missing"},
    {"UnknownEscape", "{\"a\": \"\\x\"}", "file.json:1:9: unknown or incomplete escape in a text"},
    {"HalfASurrogate", "{\"a\": \"\\ud800-\"}",
     "file.json:1:14: unknown or incomplete escape in a text"},
    {"NulInText", "{\"description\": \"a\\u0000b\"}",
     "file.json:1:17: a text cannot hold the character U+0000"},
    {"TooDeep", "[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[", "file.json:1:33: nested too deeply"},
    {"NumberTooLarge", "{\"bus\": true, \"timeScale\": 1e400}",
     "file.json:1:28: the number is too large"},
    {"KeyTwice", "{\"timeScale\": 1,\n  \"timeScale\": 2}",
     "file.json:2:3: the key \"timeScale\" stands here a second time"},
    // Kinds.
    {"NoObject", " []", "file.json:1:2: must be an object, not a list"},
    {"AgentNoObject", "{\"agent\": 1}",
     "file.json:1:11: /agent: must be an object, not a whole "
     "number"},
    {"FlagNoFlag", "{\"agent\": {\"running\": \"yes\"}}",
     "file.json:1:23: /agent/running: must be true or false, not a text"},
    {"TextNoText", "{\"description\": null}",
     "file.json:1:17: /description: must be a text, not null"},
    {"IntegerNoInteger", "{\"agent\": {\"apiLevel\": 1.5}}",
     "file.json:1:24: /agent/apiLevel: must be a whole number, not a number"},
    {"ListNoList", "{\"models\": {}}", "file.json:1:12: /models: must be a list, not an object"},
    {"ElementNoObject", "{\"models\": [true]}",
     "file.json:1:13: /models/0: must be an object, not true or false"},
    {"ElementNoText", "{\"agent\": {\"clients\": [\"a\", 5]}}",
     "file.json:1:29: /agent/clients/1: must be a text, not a whole number"},
    {"NumberNoNumber", "{\"timeScale\": \"1\"}",
     "file.json:1:15: /timeScale: must be a number, not a text"},
    // Keys.
    {"UnknownKey", "{\n  \"agnet\": {}\n}",
     "file.json:2:3: /agnet: unknown key \"agnet\"; allowed here: $schema, description, advice, "
     "timeScale, bus, agent, client, packages, models, generate, repository, space, update, "
     "methods"},
    {"UnknownAgentKey", "{\"agent\": {\"name\": 1}}",
     "file.json:1:12: /agent/name: unknown key \"name\"; allowed here: id, version, clients, "
     "metadata, apiLevel, licence, licenceFile, installed, running, refuse, admit, kyr, restart"},
    {"UnknownMethod", "{\"methods\": {\"getLicense\": {}}}",
     "file.json:1:14: /methods/getLicense: unknown key \"getLicense\"; allowed here: "
     "get_agent_api_level, get_license, request_update, GetUsableModelList, "
     "GetUsableModelListWithDesc, GetModelVersionList, RequestToUpdate, RequestToUninstall, "
     "request_update_with_list"},
    {"KeyOfAnotherMethod", "{\"methods\": {\"request_update\": {\"repeat\": 2}}}",
     "file.json:1:33: /methods/request_update/repeat: unknown key \"repeat\"; allowed here: "
     "result, delay, fault, cutAt, stray, drip, steps, calls"},
    {"ResultOfALicence", "{\"methods\": {\"get_license\": {\"result\": 2}}}",
     "file.json:1:30: /methods/get_license/result: unknown key \"result\"; allowed here: delay, "
     "fault, cutAt, stray, drip, steps, text, calls"},
    {"ListedWithoutId",
     "{\"methods\": {\"GetModelVersionList\": {\"models\": [{\"title\": \"t\"}]}}}",
     "file.json:1:49: /methods/GetModelVersionList/models/0: the key \"id\" is missing"},
    {"ListedBySomethingElse", "{\"methods\": {\"RequestToUpdate\": {\"models\": []}}}",
     "file.json:1:34: /methods/RequestToUpdate/models: unknown key \"models\"; allowed here: ..."},
    {"OddKey", "{\"a/b~c\\u001b\": 1}",
     "file.json:1:2: /a~1b~0c\\x1B: unknown key \"a/b~c\\x1B\"; allowed here: ..."},
    {"ModelWithoutId", "{\"models\": [{\"versions\": [\"1\"]}]}",
     "file.json:1:13: /models/0: the key \"id\" is missing"},
    {"ModelWithoutVersions", "{\"models\": [{\"id\": \"m\"}]}",
     "file.json:1:13: /models/0: the key \"versions\" is missing"},
    {"PackageWithoutId", "{\"packages\": [{}]}",
     "file.json:1:15: /packages/0: the key \"id\" is missing"},
    // Ranges and words.
    {"LevelTooHigh", "{\"agent\": {\"apiLevel\": 2147483648}}",
     "file.json:1:24: /agent/apiLevel: must be from -2147483648 to 2147483647"},
    {"LevelTooHighInAnotherNotation", "{\"agent\": {\"apiLevel\": 1e12}}",
     "file.json:1:24: /agent/apiLevel: must be from -2147483648 to 2147483647"},
    {"LevelFarTooHigh", "{\"agent\": {\"apiLevel\": 18446744073709551615}}",
     "file.json:1:24: /agent/apiLevel: must be a whole number, not a number"},
    {"TimeScaleNegative", "{\"timeScale\": -0.5}",
     "file.json:1:15: /timeScale: must be from 0 to 1000"},
    {"GenerateNegative", "{\"generate\": -1}",
     "file.json:1:14: /generate: must be from 0 to "
     "100000"},
    {"DelayTooLong", "{\"methods\": {\"get_license\": {\"delay\": 600001}}}",
     "file.json:1:39: /methods/get_license/delay: must be from 0 to 600000"},
    {"RepeatNone", "{\"methods\": {\"RequestToUpdate\": {\"repeat\": 0}}}",
     "file.json:1:44: /methods/RequestToUpdate/repeat: must be from 1 to 10000"},
    {"UnknownFault", "{\"methods\": {\"get_license\": {\"fault\": \"sulk\"}}}",
     "file.json:1:39: /methods/get_license/fault: \"sulk\" is not one of: none, never, drop, "
     "drop-after, crash, cut, truncated, oversized, negative"},
    {"UnknownKyr", "{\"agent\": {\"kyr\": \"off\"}}",
     "file.json:1:19: /agent/kyr: \"off\" is not one of: enabled, disabled"},
    {"NoResult", "{\"methods\": {\"request_update\": {\"result\": []}}}",
     "file.json:1:43: /methods/request_update/result: must name at least one result"},
    {"ResultNoNumber", "{\"methods\": {\"request_update\": {\"result\": [1, \"2\"]}}}",
     "file.json:1:47: /methods/request_update/result/1: must be a whole number, not a text"},
    {"CutWithoutFault", "{\"methods\": {\"get_license\": {\"cutAt\": 2}}}",
     "file.json:1:29: /methods/get_license: \"cutAt\" needs the fault \"cut\" or \"truncated\""},
    {"ProgressNoList", "{\"methods\": {\"RequestToUpdate\": {\"progress\": {}}}}",
     "file.json:1:46: /methods/RequestToUpdate/progress: must be a list, not an object"},
    {"ProgressStepWrong",
     "{\"methods\": {\"RequestToUpdate\": {\"progress\": [{\"percent\": 1}]}}}",
     "file.json:1:48: /methods/RequestToUpdate/progress/0/percent: unknown key \"percent\"; "
     "allowed here: state, index, count, percentage, result, delay"},
    {"NoCalls", R"({"methods": {"get_license": {"calls": []}}})",
     "file.json:1:39: /methods/get_license/calls: must name 1 to 100 calls"},
    {"CallOfCalls", R"({"methods": {"get_license": {"calls": [{"calls": [{}]}]}}})",
     "file.json:1:41: /methods/get_license/calls/0/calls: unknown key \"calls\"; allowed here: "
     "delay, fault, cutAt, stray, drip, steps, text"},
    {"CallWithResults", R"({"methods": {"request_update": {"calls": [{"result": [1]}]}}})",
     "file.json:1:54: /methods/request_update/calls/0/result: must be a whole number, not a list"},
    {"CutOfACallWithoutFault", R"({"methods": {"get_license": {"calls": [{"cutAt": 1}]}}})",
     "file.json:1:40: /methods/get_license/calls/0: \"cutAt\" needs the fault \"cut\" or "
     "\"truncated\""},
    {"DripOfNothing", R"({"methods": {"get_license": {"drip": {"bytes": 0}}}})",
     "file.json:1:48: /methods/get_license/drip/bytes: must be from 1 to 2147483647"},
    {"PointWithoutSteps", R"({"methods": {"RequestToUpdate": {"stepsAt": {}}}})",
     "file.json:1:45: /methods/RequestToUpdate/stepsAt: the key \"steps\" is missing"},
    {"PointBeyondTheEnd", R"({"methods": {"RequestToUpdate": {"crashAt": {"percentage": 101}}}})",
     "file.json:1:60: /methods/RequestToUpdate/crashAt/percentage: must be from 0 to 100"},
    {"ResultOfAPointThatFailsNothing",
     R"({"methods": {"RequestToUpdate": {"dropAt": {"result": 1}}}})",
     "file.json:1:45: /methods/RequestToUpdate/dropAt/result: unknown key \"result\"; allowed "
     "here: "
     "model, percentage"},
    {"RefusesAWord", R"({"agent": {"refuse": "all"}})",
     "file.json:1:22: /agent/refuse: must be true or false or a list of texts, not a text"},
    {"RefusesAnOddPattern", R"({"agent": {"refuse": ["a;b"]}})",
     "file.json:1:23: /agent/refuse/0: \"a;b\" must be 1 to 200 of letters, digits, '.', '_', '-', "
     "'*', '?'"},
    {"AdmitsWithoutRefusing", R"({"update": {"steps": [{"drop": true, "admit": ["a"]}]}})",
     "file.json:1:47: /update/steps/0/admit: needs \"refuse\" beside it"},
    {"InstallsABrokenVersion", R"({"update": {"steps": [{"install": "2 3"}]}})",
     "file.json:1:35: /update/steps/0/install: \"2 3\" must be 1 to 200 of letters, digits, '.', "
     "'+', '~', '_', '-'"},
    {"InstallsANumber", R"({"update": {"steps": [{"install": 2}]}})",
     "file.json:1:35: /update/steps/0/install: must be a text, not a whole number"},
    {"InstallsAnUnknownKey", R"({"update": {"steps": [{"install": {"name": 2}}]}})",
     "file.json:1:36: /update/steps/0/install/name: unknown key \"name\"; allowed here: id, "
     "version, "
     "clients, metadata"},
    {"RemovesAPath", R"({"update": {"steps": [{"remove": "../x"}]}})",
     "file.json:1:34: /update/steps/0/remove: \"../x\" must be 1 to 200 of letters, digits, '.', "
     "'_', '-'"},
    // Texts.
    {"FillOfNothing", R"({"models": [{"id": "m", "versions": ["1"], "title": {"bytes": 3}}]})",
     "file.json:1:53: /models/0/title: the key \"fill\" is missing"},
    {"FillTooLong", R"({"models": [{"id": "m", "versions": [{"fill": "x", "bytes": 65537}]}]})",
     "file.json:1:61: /models/0/versions/0/bytes: must be from 0 to 65536"},
    {"FillLongerThanAName",
     R"({"models": [{"id": {"fill": "x", "bytes": 2049}, "versions": ["1"]}]})",
     "file.json:1:20: /models/0/id: must not be longer than 2048 bytes: no client can name it"},
    {"FillThatEndsInACharacter", R"({"agent": {"licence": {"fill": "aé", "bytes": 5}}})",
     "file.json:1:23: /agent/licence: would end inside a character"},
    {"EmptyId", "{\"agent\": {\"id\": \"\"}}",
     "file.json:1:18: /agent/id: \"\" must be 1 to 200 of letters, digits, '.', '_', '-'"},
    {"IdWithSlash", "{\"packages\": [{\"id\": \"../x\"}]}",
     "file.json:1:22: /packages/0/id: \"../x\" must be 1 to 200 of letters, digits, '.', '_', '-'"},
    {"IdWithDot", "{\"client\": {\"id\": \".x\"}}",
     "file.json:1:19: /client/id: \".x\" must begin with a letter, a digit or '_'"},
    {"VersionWithBlank", "{\"agent\": {\"version\": \"2 3\"}}",
     "file.json:1:23: /agent/version: \"2 3\" must be 1 to 200 of letters, digits, '.', '+', '~', "
     "'_', '-'"},
    {"PatternWithSemicolon", "{\"agent\": {\"clients\": [\"a;b\"]}}",
     "file.json:1:24: /agent/clients/0: \"a;b\" must be 1 to 200 of letters, digits, '.', '_', "
     "'-', '*', '?'"},
    {"MetadataKeyWithEquals", "{\"agent\": {\"metadata\": {\"a=b\": \"c\"}}}",
     "file.json:1:32: /agent/metadata/a=b: \"a=b\" must be 1 to 200 of letters, digits, '-'"},
    {"MetadataNoText", "{\"agent\": {\"metadata\": {\"a\": 1}}}",
     "file.json:1:30: /agent/metadata/a: must be a text, not a whole number"},
    {"EmptyModelId", "{\"models\": [{\"id\": \"\", \"versions\": [\"1\"]}]}",
     "file.json:1:20: /models/0/id: must not be empty"},
    {"NoVersions", "{\"models\": [{\"id\": \"m\", \"versions\": []}]}",
     "file.json:1:13: /models/0: \"versions\" must name at least one version"},
    {"LicenceNoText", "{\"agent\": {\"licence\": 5}}",
     "file.json:1:23: /agent/licence: must be a text or a list of lines, not a whole number"},
    // Twice.
    {"ModelTwice",
     "{\"models\": [{\"id\": \"m\", \"versions\": [\"1\"]},\n {\"id\": \"m\", \"versions\": "
     "[\"1\"]}]}",
     "file.json:2:2: /models/1: there is a model \"m\" already"},
    {"VersionTwice", "{\"models\": [{\"id\": \"m\", \"versions\": [\"1\", \"1\"]}]}",
     "file.json:1:43: /models/0/versions/1: \"1\" stands in this list already"},
    {"PackageTwice", "{\"packages\": [{\"id\": \"a\"}, {\"id\": \"a\"}]}",
     "file.json:1:28: /packages/1: there is a package \"a\" already"},
    {"PackageLikeAgent", "{\"packages\": [{\"id\": \"a\"}], \"agent\": {\"id\": \"a\"}}",
     "file.json:1:15: /packages/0: there is a package \"a\" already"},
    {"LicenceTwice", "{\"agent\": {\"licenceFile\": \"/x\", \"licence\": \"a\"}}",
     "file.json:1:27: /agent/licenceFile: the licence is given twice: \"licence\" stands here, "
     "too"},
    // Files.
    {"LicenceFileOfNoFolder", "{\"agent\": {\"licenceFile\": \"x\"}}",
     "file.json:1:27: /agent/licenceFile: a scenario that ships has no files beside it"},
    {"LicenceFileMissing", "{\"agent\": {\"licenceFile\": \"/nonexistent/x\"}}",
     "file.json:1:27: /agent/licenceFile: cannot read the file \"/nonexistent/x\": "
     "No such file or directory"},
    {"LicenceFileIsAFolder", "{\"agent\": {\"licenceFile\": \"/\"}}",
     "file.json:1:27: /agent/licenceFile: cannot read the file \"/\": it is a folder"},
    {"RootOfNoFolder", "{\"client\": {\"root\": \"x\"}}",
     "file.json:1:12: /client: \"root\" must be an absolute path in a scenario that ships"},
};

INSTANTIATE_TEST_SUITE_P(Each, AWrongScenario, testing::ValuesIn(kRefusals),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(AWrongScenarioWithTwoFaults, IsRefusedWithBothInTheirOrder) {
  EXPECT_EQ(Complaint("{\"unknown\": 1,\n \"agent\": {\"running\": 1}}"),
            "file.json:1:2: /unknown: unknown key \"unknown\"; allowed here: $schema, "
            "description, advice, timeScale, bus, agent, client, packages, models, generate, "
            "repository, space, "
            "update, methods\n"
            "file.json:2:23: /agent/running: must be true or false, not a whole number");
}

TEST(ALicenceFile, IsRefusedWhenItHoldsANul) {
  const TempFolder folder;
  const std::string file = folder.Write("binary", std::string("a\0b", 3));
  EXPECT_EQ(Complaint(R"({"agent": {"licenceFile": "binary"}})", folder.path()),
            "file.json:1:27: /agent/licenceFile: the file \"" + file + "\" is not a text");
}

TEST(AScenariosPlaces, AreRightAfterEveryKindOfValue) {
  EXPECT_EQ(
      Complaint("{\"agent\": {\"apiLevel\" : 12 ,\n\"running\":true\t,\n\n"
                "  \"licence\":\"\\u00e4\\\\\" , \"clients\":[ \"a\" ,\"b\"] , \"x\" : {}}}"),
      "file.json:4:50: /agent/x: unknown key \"x\"; allowed here: id, version, clients, "
      "metadata, apiLevel, licence, licenceFile, installed, running, refuse, admit, kyr, restart");
}

/** The words that a complaint lists after a text. */
std::vector<std::string> ListedBehind(const std::string& text, const std::string& complaint) {
  std::vector<std::string> words;
  const auto begin = complaint.find(text);
  EXPECT_NE(begin, std::string::npos) << complaint;
  std::istringstream list(complaint.substr(begin + text.size()));
  for (std::string word; list >> word;) {
    words.push_back(word.substr(0, word.find_first_of(",\n")));
    if (word.back() != ',') {
      break;
    }
  }
  return words;
}

std::string Content(const char* name) {
  std::ifstream file(name);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

/** A word as a manual page writes it. */
std::string InRoff(std::string word) {
  for (std::size_t at = 0; (at = word.find('-', at)) != std::string::npos; at += 2) {
    word.insert(at, "\\");
  }
  return word;
}

TEST(TheGuideToScenarios, AndItsManualPageNameEveryKeyAndWord) {
  const std::string guide = Content(SCENARIO_GUIDE);
  const std::string page = Content(SCENARIO_PAGE);
  std::vector<std::string> words;
  const auto add = [&](const std::string& text, const std::string& document) {
    for (const std::string& word : ListedBehind(text, Complaint(document))) {
      words.push_back(word);
    }
  };
  const std::string allowed = "allowed here: ";
  add(allowed, R"({"?": 1})");
  add(allowed, R"({"agent": {"?": 1}})");
  add(allowed, R"({"client": {"?": 1}})");
  add(allowed, R"({"packages": [{"id": "a", "?": 1}]})");
  add(allowed, R"({"models": [{"id": "a", "versions": ["1"], "?": 1}]})");
  add(allowed, R"({"methods": {"?": 1}})");
  add(allowed, R"({"methods": {"GetUsableModelList": {"?": 1}}})");
  add(allowed, R"({"methods": {"RequestToUpdate": {"?": 1}}})");
  add(allowed, R"({"methods": {"RequestToUpdate": {"progress": [{"?": 1}]}}})");
  add(allowed, R"({"methods": {"RequestToUpdate": {"failAt": {"?": 1}}}})");
  add(allowed, R"({"methods": {"RequestToUpdate": {"stepsAt": {"steps": [], "?": 1}}}})");
  add(allowed, R"({"methods": {"get_license": {"drip": {"?": 1}}}})");
  add(allowed, R"({"models": [{"id": {"fill": "a", "bytes": 1, "?": 1}, "versions": ["1"]}]})");
  add(allowed, R"({"update": {"?": 1}})");
  add(allowed, R"({"update": {"steps": [{"restart": true, "?": 1}]}})");
  add(allowed, R"({"update": {"steps": [{"install": {"?": 1}}]}})");
  add("is not one of: ", R"({"methods": {"RequestToUpdate": {"report": "?"}}})");
  add("is not one of: ", R"({"methods": {"get_license": {"fault": "?"}}})");
  EXPECT_GT(words.size(), 60u);
  for (const std::string& word : words) {
    EXPECT_NE(guide.find("`" + word + "`"), std::string::npos) << word;
    EXPECT_NE(page.find("\\fB" + InRoff(word) + "\\fR"), std::string::npos) << word;
  }
}

/** What is said about a list of models, each with so many letters as its text. */
std::string ComplaintAboutModels(int models, const std::string& key, std::size_t letters,
                                 const std::string& versions = "\"1\"") {
  std::string document = "{\"models\": [";
  for (int i = 0; i < models; ++i) {
    document += (i > 0 ? "," : "") + ("{\"id\": \"" + std::to_string(i)) + "\", \"versions\": [" +
                versions + "], \"" + key + "\": \"" + std::string(letters, 'x') + "\"}";
  }
  return Complaint(document + "]}");
}

TEST(AnAnswerThatNoMessageHolds, IsRefusedAsALicence) {
  // 16 MiB less the number, and the length and the end of the text.
  constexpr std::size_t kLongest = (std::size_t{16} << 20) - 9;
  const auto licence = [](std::size_t size) {
    return Complaint("{\"agent\": {\"licence\": \"" + std::string(size, 'x') + "\"}}");
  };
  EXPECT_EQ(licence(kLongest), "");
  EXPECT_EQ(licence(kLongest + 1),
            "file.json:1:23: /agent/licence: must not be longer than 16777207 bytes: a message "
            "holds 16 MiB");
  const TempFolder folder;
  folder.Write("right", std::string(kLongest, 'x'));
  folder.Write("wrong", std::string(kLongest + 1, 'x'));
  EXPECT_EQ(Complaint(R"({"agent": {"licenceFile": "right"}})", folder.path()), "");
  EXPECT_EQ(Complaint(R"({"agent": {"licenceFile": "wrong"}})", folder.path()),
            "file.json:1:27: /agent/licenceFile: must not be longer than 16777207 bytes: a message "
            "holds 16 MiB");
}

TEST(AnAnswerThatNoMessageHolds, IsRefusedAsAListOfModels) {
  EXPECT_EQ(ComplaintAboutModels(1000, "description", 9 * 1024), "");
  EXPECT_EQ(ComplaintAboutModels(2000, "description", 9 * 1024),
            "file.json:1:12: /models: the list of all models with their descriptions takes "
            "18480915 bytes: a message holds 16777216");
  EXPECT_THAT(ComplaintAboutModels(2000, "title", 9 * 1024),
              StartsWith("file.json:1:12: /models: the list of all models takes "));
}

TEST(AnAnswerThatNoMessageHolds, IsRefusedAsAListOfVersions) {
  const std::string few = R"("1","2")";
  EXPECT_EQ(ComplaintAboutModels(1, "title", 7 << 20, few), "");
  EXPECT_THAT(ComplaintAboutModels(1, "title", 7 << 20, few + R"(,"3")"),
              StartsWith("file.json:1:13: /models/0: the list of the model's versions takes "));
}

TEST(AModel, HasNamesThatAClientCanHold) {
  const std::string longest(2048, 'x');
  const auto model = [](const std::string& id, const std::string& version,
                        const std::string& available) {
    return Complaint(R"({"models": [{"id": ")" + id + R"(", "versions": [")" + version +
                     R"("], "available": [")" + available + "\"]}]}");
  };
  EXPECT_EQ(model(longest, longest, longest.substr(1)), "");
  const std::string reason = "must not be longer than 2048 bytes: no client can name it";
  EXPECT_EQ(model(longest + "x", "1", "2"), "file.json:1:20: /models/0/id: " + reason);
  EXPECT_EQ(model("m", longest + "x", "2"), "file.json:1:38: /models/0/versions/0: " + reason);
  EXPECT_THAT(model("m", "1", longest + "x"), testing::EndsWith("/available/0: " + reason));
}

TEST(FindScenario, FindsThoseThatShipByName) {
  const sim::ScenarioSource source = sim::FindScenario("demo");
  EXPECT_EQ(source.name, "demo");
  EXPECT_EQ(source.folder, "");
  EXPECT_THAT(source.document, HasSubstr("vision.segment"));
}

TEST(FindScenario, FindsFilesAndTheirFolder) {
  const TempFolder folder;
  const std::string file = folder.Write("mine.json", "{}");
  const sim::ScenarioSource source = sim::FindScenario(file);
  EXPECT_EQ(source.name, file);
  EXPECT_EQ(source.folder, folder.path());
  EXPECT_EQ(source.document, "{}");
}

TEST(FindScenario, NamesSimilarOnesWhereThereIsNoneOfTheName) {
  const std::string where =
      "\"svcmgr-sim list\" names those that ship; a file's name has a slash or ends in .json";
  const std::pair<const char*, std::string> rows[] = {
      {"demmo", "did you mean \"demo\"? " + where},
      {"model-fails", "did you mean \"models-fail\"? " + where},
      {"models-fall", "did you mean \"models-fail\", \"models-stall\"? " + where},
      {"nothing-like-any-of-them", where},
      {"", where},
  };
  for (const auto& [name, said] : rows) {
    try {
      sim::FindScenario(name);
      FAIL() << "found";
    } catch (const sim::ScenarioError& error) {
      EXPECT_EQ(error.what(), name + (": no scenario of this name ships; " + said));
    }
  }
}

TEST(FindScenario, SaysWhyAFileCannotBeRead) {
  const TempFolder folder;
  const std::string pipe = folder.path() + "/pipe.json";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const std::string own_folder = folder.path() + "/folder.json";
  std::filesystem::create_directory(own_folder);
  const std::pair<std::string, const char*> rows[] = {
      {"./demo", "No such file or directory"},
      {"demo.json", "No such file or directory"},
      {"/", "it is a folder"},
      {own_folder, "it is a folder"},
      {pipe, "it is no regular file"},
      {"/dev/null", "it is no regular file"},
      {"/dev/null/x.json", "Not a directory"},
      {"/nonexistent/x.json", "No such file or directory"},
  };
  for (const auto& [name, reason] : rows) {
    try {
      sim::FindScenario(name);
      FAIL() << "found " << name;
    } catch (const sim::ScenarioError& error) {
      EXPECT_EQ(error.what(), name + ": cannot read the file: " + reason);
    }
  }
}

TEST(TheScenariosThatShip, AreRightAndSayWhatTheyAre) {
  ASSERT_GE(sim::ShippedScenarios().size(), 50u);
  for (const sim::ShippedScenario& shipped : sim::ShippedScenarios()) {
    const Scenario scenario = sim::ReadScenario(shipped.document, shipped.name, "");
    EXPECT_THAT(scenario.description, testing::Not(IsEmpty())) << shipped.name;
    EXPECT_LT(scenario.description.size(), 80u) << shipped.name;
    EXPECT_THAT(scenario.advice, testing::EndsWith(".")) << shipped.name;
    EXPECT_LT(scenario.advice.size(), 110u) << shipped.name;
  }
}

TEST(TheDemo, ShowsSeveralModelsWithSeveralVersionsEach) {
  const Scenario demo = Read(sim::FindScenario("demo").document);
  EXPECT_EQ(demo.agent.package.version, "2.3.182");
  EXPECT_EQ(demo.agent.api_level, 11);
  EXPECT_THAT(demo.agent.licence, HasSubstr("\n"));
  EXPECT_GE(demo.models.size(), 4u);
  for (const sim::Model& model : demo.models) {
    EXPECT_GE(model.versions.size(), 2u) << model.id;
  }
}

TEST(AMethodsName, BelongsToItsNumber) {
  EXPECT_STREQ(sim::MethodName(2), "get_agent_api_level");
  EXPECT_STREQ(sim::MethodName(3), "get_license");
  EXPECT_STREQ(sim::MethodName(4), "request_update");
  EXPECT_STREQ(sim::MethodName(5), "GetUsableModelList");
  EXPECT_STREQ(sim::MethodName(6), "GetUsableModelListWithDesc");
  EXPECT_STREQ(sim::MethodName(7), "GetModelVersionList");
  EXPECT_STREQ(sim::MethodName(8), "RequestToUpdate");
  EXPECT_STREQ(sim::MethodName(9), "RequestToUninstall");
  EXPECT_STREQ(sim::MethodName(10), "request_update_with_list");
  for (const int number : {-1, 0, 1, 11, 2147483647, -2147483647 - 1}) {
    EXPECT_EQ(sim::MethodName(number), nullptr) << number;
  }
}

TEST(APattern, MatchesWithStarsAndQuestionMarks) {
  EXPECT_TRUE(sim::Matches("com.velmora.*", "com.velmora.notes"));
  EXPECT_TRUE(sim::Matches("*", ""));
  EXPECT_TRUE(sim::Matches("a?c", "abc"));
  EXPECT_FALSE(sim::Matches("com.velmora.*", "com.velmora"));
  EXPECT_FALSE(sim::Matches("a?c", "ac"));
  EXPECT_FALSE(sim::Matches("abc", "abcd"));
}

}  // namespace
