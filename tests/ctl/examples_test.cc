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
  EXPECT_EQ(ending.output, "a 1: Sees\nb : \n");
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
    // What the C++ program makes of it.
    const char* name;
  } rows[] = {
      {R"({"connect": {"result": -1}})", -1, "SVCMGR_ERROR_CONNECTION_FAILED"},
      {R"({"connect": {"events": [[-13, 2]]}})", -13, "SVCMGR_ERROR_PERMISSION_DENIED"},
      {R"({"connect": {"events": [[0, 1]]}})", -107, "CONNECTION_LOST"},
      {R"({"models": {"result": -38}, "described": {"result": -38}})", -38,
       "SVCMGR_ERROR_INVALID_OPERATION"},
      {R"({"models": {"error": -28}, "described": {"error": -28}})", -28, "SVCMGR_ERROR_NO_SPACE"},
      {R"({"models": {"error": -38, "null": true}, "described": {"error": -38, "null": true}})",
       -38, "SVCMGR_ERROR_INVALID_OPERATION"},
      {R"({"models": {"never": true, "drop": true}, "described": {"never": true, "drop": true}})",
       -107, "CONNECTION_LOST"},
  };
  for (const auto& row : rows) {
    const Ending in_c = RunExample(LIST_MODELS_C, row.script);
    EXPECT_EQ(in_c.status, 1) << row.script;
    EXPECT_EQ(in_c.errors, "list-models: error " + std::to_string(row.code) + "\n") << row.script;
    const Ending in_cxx = RunExample(LIST_MODELS_CC, row.script);
    EXPECT_EQ(in_cxx.status, 1) << row.script;
    EXPECT_EQ(in_cxx.errors.rfind(std::string("list-models-cc: ") + row.name + ": ", 0), 0U)
        << in_cxx.errors << row.script;
  }
}

}  // namespace
