// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "sim_process.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

Finished RunProgram(const std::string& scenario, const std::string& program) {
  return RunSim({"run", scenario, "--", program});
}

class AnExample : public testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(Each, AnExample,
                         testing::Values(LIST_MODELS_C, LIST_MODELS_CC, README_PROGRAM));

TEST_P(AnExample, ListsTheModels) {
  const Finished run = RunProgram("demo", GetParam());
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, HasSubstr("vision.segment"));
  EXPECT_THAT(run.output, HasSubstr("speech.wake-word"));
  EXPECT_EQ(run.errors, "") << "the library's log has an error";
}

TEST_P(AnExample, SaysWhatTheAgentAnswersInsteadOfModels) {
  const Finished run = RunProgram("kyr-disabled", GetParam());
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.output, IsEmpty());
  EXPECT_THAT(run.errors, testing::ContainsRegex("-1073741826|SVCMGR_ERROR_KYR_DISABLED"));
}

TEST_P(AnExample, FailsWhereThereIsNoAgent) {
  const Finished run = RunProgram("agent-missing", GetParam());
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.output, IsEmpty());
}

TEST(AClient, AsksFromSeveralThreadsAndLeavesNoDescriptor) {
  const Finished run = RunSim({"run", "demo", "--", CYCLE_CLIENT, "20"});
  EXPECT_EQ(run.status, 0) << run.errors;
  // 3 threads ask 10 times, and the application may use 4 models.
  EXPECT_EQ(run.output, "cycles 20, models 2400, failures 0, refusals 0, descriptors +0\n");
}

TEST(EightClients, AreServedAtOnceEachInAWorldOfItsOwn) {
  std::vector<std::unique_ptr<SimProcess>> clients;
  for (int i = 0; i < 8; ++i) {
    clients.push_back(std::make_unique<SimProcess>(
        std::vector<std::string>{"run", "demo", "--", CYCLE_CLIENT, "3"}));
  }
  for (const auto& client : clients) {
    EXPECT_EQ(client->Line(), "cycles 3, models 360, failures 0, refusals 0, descriptors +0");
    EXPECT_EQ(client->Await(), 0);
  }
}

TEST(EightClients, AreServedAtOnceByOneAgent) {
  const std::string all = "for i in 1 2 3 4 5 6 7 8; do \"$0\" 3 & done; wait";
  const Finished run = RunSim({"run", "demo", "--", "sh", "-c", all, CYCLE_CLIENT});
  EXPECT_EQ(run.status, 0) << run.errors;
  std::string expected;
  for (int i = 0; i < 8; ++i) {
    expected += "cycles 3, models 360, failures 0, refusals 0, descriptors +0\n";
  }
  EXPECT_EQ(run.output, expected);
}

}  // namespace
