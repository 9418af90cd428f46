// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "process.h"

namespace {

Ending RunExample(const char* program, const std::string& script) {
  Start start;
  start.program = program;
  return RunWith(start, script);
}

constexpr const char* kPrograms[] = {LIST_MODELS_C, LIST_MODELS_CC};

TEST(TheExampleInC, ListsTheIdsOfTheModels) {
  const Ending ending = RunExample(
      LIST_MODELS_C, R"({"models": {"models": [{"id": "a"}, {"title": "no id"}, {"id": "b"}]}})");
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.output, "a\nb\n");
  EXPECT_EQ(ending.errors, "");
}

TEST(TheExampleInCxx, ListsVersionsAndDescriptionsToo) {
  const Ending ending = RunExample(
      LIST_MODELS_CC,
      R"({"described": {"models": [{"id": "a", "version": "1", "description": "Sees"}, {"id": "b"}]}})");
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.output, "a 1: Sees\nb (not set): (not set)\n");
  EXPECT_EQ(ending.errors, "");
}

TEST(AnExample, ListsTheModelsAlsoWhenTheConnectionStandsBeforeConnectReturns) {
  for (const char* program : kPrograms)
    EXPECT_EQ(RunExample(program, R"({"connect": {"inside": true}})").status, 0) << program;
}

TEST(AnExample, FailsWithTheCodeOfWhatWentWrong) {
  const struct {
    const char* script;
    int code;
  } rows[] = {
      {R"({"connect": {"result": -1}})", -1},
      {R"({"connect": {"events": [[-13, 2]]}})", -13},
      {R"({"connect": {"events": [[0, 1]]}})", -107},
      {R"({"models": {"result": -38}, "described": {"result": -38}})", -38},
      {R"({"models": {"error": -28}, "described": {"error": -28}})", -28},
      {R"({"models": {"error": -38, "null": true}, "described": {"error": -38, "null": true}})",
       -38},
      {R"({"models": {"never": true, "drop": true}, "described": {"never": true, "drop": true}})",
       -107},
  };
  for (const char* program : kPrograms)
    for (const auto& row : rows) {
      const Ending ending = RunExample(program, row.script);
      EXPECT_EQ(ending.status, 1) << program << row.script;
      const std::string end = ": error " + std::to_string(row.code) + "\n";
      ASSERT_GE(ending.errors.size(), end.size()) << program << row.script;
      EXPECT_EQ(ending.errors.substr(ending.errors.size() - end.size()), end) << program;
    }
}

}  // namespace
