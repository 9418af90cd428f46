// SPDX-License-Identifier: Apache-2.0
//
// Output in a form that the user chooses: by the fields to print, or by a template.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <set>

#include "json_lines.h"
#include "process.h"

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

using Arguments = std::vector<std::string>;

constexpr char kTwoModels[] = R"({"models": {"models": [
    {"id": "a", "version": "1.0", "title": "A model"}, {"id": "long.b", "version": ""}]}})";

std::string Printed(const Arguments& arguments, const std::string& script = kTwoModels) {
  const Ending ending = RunScripted(script, arguments);
  EXPECT_EQ(ending.status, 0) << ending.errors;
  EXPECT_EQ(ending.errors, "");
  return ending.output;
}

TEST(Fields, AreTheColumnsOfATableInTheirOrder) {
  EXPECT_EQ(Printed({"models", "list", "--fields", "version,id"}),
            "VERSION  ID\n"
            "1.0      a\n"
            "-        long.b\n");
  EXPECT_EQ(Printed({"models", "list", "--fields=id"}), "ID\na\nlong.b\n");
  EXPECT_EQ(Printed({"--fields", "title, id", "models", "list"}),
            "TITLE    ID\n"
            "A model  a\n"
            "-        long.b\n");
}

TEST(Fields, OfAnEmptyListAreNoTable) {
  EXPECT_EQ(RunScripted("{}", {"models", "list", "--fields", "id"}).output, "");
}

TEST(ATemplate, IsALineForEachRecord) {
  EXPECT_EQ(Printed({"models", "list", "--format", "{id} is at {version}!"}),
            "a is at 1.0!\nlong.b is at !\n");
  EXPECT_EQ(Printed({"models", "list", "--format", "{{{id}}} {{}}"}), "{a} {}\n{long.b} {}\n");
  EXPECT_EQ(Printed({"models", "list", "--format", "{id}\\t{version}\\\\"}),
            "a\t1.0\\\nlong.b\t\\\n");
}

TEST(ATemplate, ThatEndsARecordItselfIsNotEndedAgain) {
  EXPECT_EQ(Printed({"models", "list", "--format", "{id}\\n"}), "a\nlong.b\n");
  EXPECT_EQ(Printed({"models", "list", "--format", "{id}\\0"}), std::string("a\0long.b\0", 9));
}

TEST(AFormat, ThatIsAListOfFieldsSeparatesThemByTabs) {
  EXPECT_EQ(Printed({"models", "list", "--format", "version,id"}), "1.0\ta\n\tlong.b\n");
  EXPECT_EQ(Printed({"models", "list", "--format", "id"}), "a\nlong.b\n");
}

TEST(AFormat, ThatIsJsonIsThatOption) {
  EXPECT_EQ(Printed({"models", "list", "--format", "json"}), Printed({"models", "list", "--json"}));
  for (const Arguments& wrong :
       {Arguments{"models", "--format=json"}, {"models", "--format", "json"}})
    EXPECT_EQ(json::parse(RunScripted("{}", wrong).errors)["error"]["exit"], 2);
}

TEST(ATemplate, PrintsNumbersAndTruthAsJsonDoesAndNothingForNull) {
  EXPECT_EQ(
      Printed({"status", "--format",
               "{connected} {agent_version} {agent_api_level} {kyr_disabled} {usable_models}"}),
      "true 2.3.182 11 false 2\n");
  EXPECT_EQ(RunScripted(R"({"connect": {"result": -1}})",
                        {"status", "--format", "{connected}|{agent_api_level}|"})
                .output,
            "false||\n");
  EXPECT_EQ(Printed({"api-level", "--format", "level {api_level}"}), "level 11\n");
  EXPECT_EQ(Printed({"updating", "--format", "{updating}"}), "false\n");
  EXPECT_EQ(Printed({"explain", "no_space", "--format", "{number} {name} {is}"}),
            "-28 SVCMGR_ERROR_NO_SPACE an error code\n");
}

TEST(ATemplate, KeepsTextsOfTheAgentFromTheTerminal) {
  const std::string script =
      R"({"license": {"text": "a\u001b[31m\nb\u202e"}, "models": {"models": [{"id": "\u001b]0;x\u0007"}]}})";
  for (const char* option : {"--format={license}", "--format=license", "--fields=license"})
    EXPECT_THAT(Printed({"license", option}, script),
                AllOf(HasSubstr("a\\x1B[31m\\nb\\u202E"), Not(HasSubstr("\x1b"))));
  EXPECT_EQ(Printed({"models", "list", "--format", "{id}"}, script), "\\x1B]0;x\\x07\n");
}

TEST(ATemplate, IsALineForEachEventOfWorkThatHasOneOfItsFields) {
  const std::string script = R"({"work": {"then": [{"progress": [0, 1, 1, 1, 40]},
                                                   {"progress": [0, 2, 1, 1, 100]}]}})";
  EXPECT_EQ(Printed({"models", "update", "a", "--format", "{id} {model_percent}"}, script),
            "a 40\na 100\n");
  EXPECT_EQ(Printed({"models", "update", "a", "-q", "--fields", "event,succeeded"}, script),
            "requested\t\nprogress\t\nprogress\t\nend\ttrue\n");
  EXPECT_EQ(Printed({"models", "update", "a", "--format", "{models}"}, script),
            "[{\"id\":\"a\",\"version\":\"\"}]\n");
}

TEST(ATemplate, OfWatchIsALineForEachEvent) {
  Start start;
  start.arguments = {"watch", "--format", "{event}: {name}"};
  start.interrupt_when_shown = "COMPLETED";
  const Ending ending =
      RunWith(start, R"({"subscribed": {"update": [{"update": 0}, {"update": 1}]}})");
  EXPECT_EQ(ending.status, 0);
  EXPECT_THAT(Lines(ending.output), testing::Contains("update: SVCMGR_UPDATE_STATUS_STARTED"));
}

TEST(ATemplate, HasNoBarsOnATerminal) {
  if (!HasTerminals()) GTEST_SKIP() << "there are no pseudo terminals here";
  Start start;
  start.terminal = true;
  start.arguments = {"models", "update", "a", "--format", "{model_percent}"};
  EXPECT_EQ(RunWith(start, R"({"work": {"then": [{"progress": [0, 2, 1, 1, 100]}]}})").output,
            "100\r\n");
}

TEST(ATemplate, OfADryRunHasTheFieldsOfItsTable) {
  EXPECT_EQ(Printed({"models", "uninstall", "a", "--dry-run", "--format", "{action} {id}"}),
            "uninstall a\n");
  EXPECT_EQ(Printed({"update", "x", "--dry-run", "--fields", "installed,agent"}),
            "INSTALLED  AGENT\n2.3.182    x\n");
  EXPECT_EQ(RunScripted("{}", {"models", "update", "a", "--format", "{action}"}).status, 2);
}

TEST(TheFieldOfADescription, IsAskedFor) {
  EXPECT_EQ(Printed({"models", "list", "--format", "{description}"},
                    R"({"described": {"models": [{"id": "a", "description": "b"}]}})"),
            "b\n");
}

struct Wrong {
  Arguments arguments;
  const char* message;
};

TEST(AnUnknownField, IsRefusedWithThoseThatThereAre) {
  const Wrong rows[] = {
      {{"models", "list", "--fields", "id,verison"},
       "--fields: there is no field 'verison'; did you mean 'version'; the fields are id, version, "
       "title, description; see 'svcmgrctl models list --help'"},
      {{"updating", "--format", "{frobnicate}"},
       "--format: there is no field 'frobnicate'; the fields are updating; see 'svcmgrctl updating "
       "--help'"},
      {{"updating", "--format", "{}"},
       "--format: there is no field ''; the fields are updating; see 'svcmgrctl updating --help'"},
      {{"updating", "--format", "yaml"},
       "--format: there is no field 'yaml'; the fields are updating; see 'svcmgrctl updating "
       "--help'"},
      {{"updating", "--fields", "updating,"},
       "--fields: there is no field ''; the fields are updating; see 'svcmgrctl updating --help'"},
  };
  for (const Wrong& row : rows) {
    const Ending ending = RunScripted("{}", row.arguments);
    EXPECT_EQ(ending.status, 2);
    EXPECT_EQ(ending.output, "");
    EXPECT_EQ(ending.errors, std::string("svcmgrctl: error: ") + row.message + "\n");
  }
}

TEST(ATemplate, ThatIsWrongIsRefused) {
  const Wrong rows[] = {
      {{"{updating"}, "'{updating' has no '}'; '{{' stands for a brace"},
      {{"updating}"}, "'}' has no '{' before it; '}}' stands for a brace"},
      {{"{updating}\\x"}, "there is no escape '\\x'; there are \\t, \\n, \\0 and \\\\"},
      {{"{updating}\\"}, "there is no escape '\\'; there are \\t, \\n, \\0 and \\\\"},
  };
  for (const Wrong& row : rows) {
    const Ending ending = RunScripted("{}", {"updating", "--format", row.arguments[0]});
    EXPECT_EQ(ending.status, 2);
    EXPECT_EQ(ending.errors, std::string("svcmgrctl: error: --format: ") + row.message +
                                 "; see 'svcmgrctl updating --help'\n");
  }
}

TEST(FormsOfOutput, ExcludeEachOther) {
  EXPECT_THAT(
      RunScripted("{}", {"updating", "--format", "{updating}", "--fields", "updating"}).errors,
      HasSubstr("--format and --fields exclude each other"));
  EXPECT_THAT(RunScripted("{}", {"updating", "--format", "{updating}", "--json"}).errors,
              HasSubstr("--json and --format exclude each other"));
  EXPECT_THAT(RunScripted("{}", {"updating", "--fields", "updating", "--json"}).errors,
              HasSubstr("--json and --fields exclude each other"));
}

// Each leaf of the tree of commands, as it may be run, and where its records are in its JSON.
struct Documented {
  Arguments command;
  const char* records;
  std::set<std::string> nested = {};
};

/** The fields that the help of a command names, behind a label. */
std::set<std::string> FieldsInHelp(const Arguments& command, const std::string& label) {
  Arguments arguments = command;
  arguments.emplace_back("--help");
  const std::string help = RunScripted("{}", arguments).output;
  std::set<std::string> fields;
  const std::size_t at = help.find(label);
  if (at == std::string::npos) return fields;
  std::string name;
  for (const char c : help.substr(at + label.size(), help.find("\n\n", at) - at - label.size())) {
    if (std::isalnum(static_cast<unsigned char>(c)) || c == '_') {
      name += c;
    } else if (!name.empty()) {
      fields.insert(std::exchange(name, {}));
    }
  }
  if (!name.empty()) fields.insert(name);
  return fields;
}

TEST(TheFieldsOfACommand, AreTheKeysOfItsJson) {
  const std::string script = R"({"models": {"models": [{"id": "a"}]}, "versions": {"echo": true},
                                 "described": {"models": [{"id": "a"}]},
                                 "license": {"text": "l"}})";
  const Documented rows[] = {
      {{"status"}, nullptr, {"problems"}},
      {{"api-level"}, nullptr},
      {{"license"}, nullptr},
      {{"client-level", "/tmp"}, nullptr, {"files"}},
      {{"updating"}, nullptr},
      {{"models", "list"}, "models"},
      {{"models", "versions", "a"}, "versions"},
      {{"explain"}, "explanations"},
      {{"doctor"}, "parts"},
  };
  for (const Documented& row : rows) {
    Arguments as_json = row.command;
    as_json.emplace_back("--json");
    json document = json::parse(RunScripted(script, as_json).output);
    if (row.records != nullptr) document = document[row.records][0];
    std::set<std::string> keys;
    for (const auto& [key, value] : document.items())
      if (row.nested.count(key) == 0) keys.insert(key);
    EXPECT_EQ(FieldsInHelp(row.command, "Fields: "), keys) << row.command[0];
  }
}

TEST(TheFieldsOfACommand, ThatFollowsSomethingAreTheKeysOfItsEvents) {
  const std::string work = R"({"work": {"then": [{"model": 17}, {"progress": [0, 1, 1, 1, 40]},
                                                 {"progress": [0, 2, 1, 1, 100]}]}})";
  const std::string update =
      R"({"update": {"then": [{"update": 0}, {"connection": [0, 1]}, {"update": 1}]}})";
  struct {
    Arguments command;
    std::string script;
    std::set<std::string> others;
  } const rows[] = {{{"models", "update", "a"}, work, {"silence"}},
                    {{"models", "uninstall", "a"}, work, {"silence"}},
                    {{"update"}, update, {}}};
  for (const auto& row : rows) {
    Arguments as_json = row.command;
    as_json.emplace_back("--json");
    std::set<std::string> keys = row.others;
    if (row.command[1 % row.command.size()] == "update" && row.command.size() > 1)
      keys.insert("version");
    for (const json& event : JsonLines(RunScripted(row.script, as_json).output))
      for (const auto& [key, value] : event.items()) keys.insert(key);
    EXPECT_EQ(FieldsInHelp(row.command, "Fields: "), keys) << row.command.back();
  }
}

TEST(TheMarkersOfAnApplication, AreRecordsWhereTheyAreShown) {
  EXPECT_EQ(FieldsInHelp({"client-level"}, "Fields with --verbose: "),
            (std::set<std::string>{"api_level", "version", "section", "file", "remark"}));
  EXPECT_EQ(RunScripted("{}", {"client-level", "/tmp", "--format", "{file}"}).status, 2);
  EXPECT_EQ(RunScripted("{}", {"client-level", "/tmp", "--format", "{folder}"}).output, "/tmp\n");
}

}  // namespace
