// SPDX-License-Identifier: Apache-2.0
//
// Texts that the agent, or whoever wrote the command line, did not mean well.
#include <gmock/gmock.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "process.h"

namespace {

using testing::HasSubstr;

// Escape sequence, its one-byte forms in UTF-8 and raw, delete, override of direction, cut UTF-8.
constexpr char kHostile[] = R"({"hex": "1b5b324ac29b9b7fe280aee4b8"})";
constexpr char kShown[] = "\\x1B[2J\\u009B\\x9B\\x7F\\u202E\\xE4\\xB8";

bool IsPlainAscii(const std::string& text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); });
}

std::string Everywhere() {
  const std::string text = kHostile;
  const std::string models = R"({"models": [{"id": )" + text + R"(, "version": )" + text +
                             R"(, "title": )" + text + R"(, "description": )" + text + "}]}";
  return R"({"license": {"text": )" + text + R"(}, "models": )" + models + R"(, "described": )" +
         models + R"(, "category": )" + models + "}";
}

TEST(AHostileText, IsShownByItsNumbersInEveryCellOfATable) {
  const std::string shown = kShown;
  const Ending ending = RunScripted(Everywhere(), {"models", "list", "--descriptions"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_THAT(ending.output,
              HasSubstr("\n" + shown + "  " + shown + "  " + shown + "  " + shown + "\n"));
  EXPECT_TRUE(IsPlainAscii(ending.output));
}

TEST(AHostileText, IsShownByItsNumbersInTheLicence) {
  const Ending ending = RunScripted(Everywhere(), {"license"});
  EXPECT_EQ(ending.output, std::string(kShown) + "\n");
}

TEST(AHostileText, IsValidJsonWithoutAByteThatATerminalObeys) {
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"license", "--json"},
        {"models", "list", "--json"},
        {"models", "list", "--descriptions", "--json"},
        {"models", "list", "--category", "a", "--json"}}) {
    const Ending ending = RunScripted(Everywhere(), command);
    EXPECT_EQ(ending.status, 0);
    EXPECT_TRUE(nlohmann::json::accept(ending.output));
    EXPECT_TRUE(IsPlainAscii(ending.output));
    EXPECT_THAT(ending.output, HasSubstr(R"(\u001b[2J\u009b\ufffd\u007f\u202e\ufffd)"));
  }
}

TEST(AHostileText, ThatAModelIsCalledIsSafeInASuggestion) {
  const std::string script = R"({"described": {"models": [{"id": {"hex": "766973696f6e1b"}}]}})";
  const Ending ending = RunScripted(script, {"models", "versions", "vision"});
  EXPECT_EQ(ending.status, 4);
  EXPECT_THAT(ending.errors, HasSubstr("did you mean 'vision\\x1B'"));
}

TEST(AHostileText, OnTheCommandLineIsSafeInItsMessage) {
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"models", "versions", "\x1b[2J\x9b"},
        {"\x1b[2J\x9b"},
        {"--color", "\x1b[2J\x9b", "status"},
        {"status", "--timeout", "\x1b[2J\x9b"}}) {
    const Ending ending = RunScripted("{}", command);
    EXPECT_THAT(ending.errors, HasSubstr("'\\x1B[2J\\x9B'"));
    std::vector<std::string> as_json = {"--json"};
    as_json.insert(as_json.end(), command.begin(), command.end());
    const Ending in_json = RunScripted("{}", as_json);
    EXPECT_TRUE(nlohmann::json::accept(in_json.errors)) << in_json.errors;
    EXPECT_TRUE(IsPlainAscii(in_json.errors));
  }
}

TEST(ALongArgument, IsShortenedInItsMessageWhichKeepsItsEnd) {
  const std::string endless(120000, 'a');
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"models", "versions", endless},
        {endless},
        {"--color", endless, "status"},
        {"client-level", endless},
        {"status", "--timeout", endless}}) {
    const Ending ending = RunScripted("{}", command);
    EXPECT_LT(ending.errors.size(), 1000u);
    EXPECT_THAT(ending.errors, HasSubstr("aaa\u2026"));
    EXPECT_EQ(ending.errors.back(), '\n');
    if (ending.status == 2) {
      EXPECT_THAT(ending.errors, HasSubstr(" --help'\n"));
    }
    std::vector<std::string> as_json = {"--json"};
    as_json.insert(as_json.end(), command.begin(), command.end());
    const Ending in_json = RunScripted("{}", as_json);
    EXPECT_LT(in_json.errors.size(), 1000u);
    EXPECT_THAT(nlohmann::json::parse(in_json.errors)["error"]["message"].get<std::string>(),
                HasSubstr("aaa\u2026"));
  }
}

TEST(ALongArgument, IsShortenedInARemarkToo) {
  const std::string endless(100000, 'a');
  const Ending ending = RunScripted(R"({"described": {"models": [{"id": ")" + endless + R"("}]}})",
                                    {"models", "versions", endless});
  EXPECT_EQ(ending.status, 0);
  EXPECT_LT(ending.errors.size(), 1000u);
  EXPECT_THAT(ending.errors, HasSubstr("aaa\u2026"));
}

TEST(ALongList, IsPrintedWhole) {
  nlohmann::json models = nlohmann::json::array();
  // More than a pipe holds, less than an environment variable may.
  for (int i = 0; i < 2000; ++i)
    models.push_back({{"id", "model-" + std::to_string(i)}, {"version", "1"}});
  const std::string script = nlohmann::json({{"models", {{"models", models}}}}).dump();
  const Ending ending = RunScripted(script, {"models", "list", "--json"});
  EXPECT_EQ(nlohmann::json::parse(ending.output).at("models").size(), 2000u);
  EXPECT_GT(ending.output.size(), 65536u);
}

}  // namespace
