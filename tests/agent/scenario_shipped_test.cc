// SPDX-License-Identifier: Apache-2.0
// Does the command line fare with each scenario that ships as that scenario promises?

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <vector>

#include "scenario/scenario_files.h"
#include "sim_process.h"

namespace {

/** What happens to an application in a scenario. */
struct Outcome {
  const char* scenario;
  const char* command;  // of a shell: `ctl`, `as` and `each` run svcmgrctl and keep its exit status
  const char* statuses;             // those kept
  std::vector<std::string> output;  // parts of both outputs, one behind the other
  const char* absent = nullptr;     // no part of them
};

void PrintTo(const Outcome& outcome, std::ostream* out) { *out << outcome.scenario; }

constexpr char kTools[] = R"(
  ctl() { "$CTL" "$@"; statuses="$statuses $?"; }
  as() { VELMORA_APP_ID=$1; shift; ctl "$@"; VELMORA_APP_ID=com.example.client; }
  each() { for call in 1 2 3 4 5 6 7 8 9 10 11 12 13; do ctl "$@"; done; }
  # A process that is being killed accepts connections for a moment longer.
  until_gone() { until "$CTL" api-level 2>&1 | grep -q "not running"; do :; done; }
)";

/** A text that is filled up, in quotes. */
std::string Quoted(const std::string& fill, std::size_t bytes) {
  std::string text = "\"";
  while (text.size() <= bytes) text += fill;
  return text.substr(0, bytes + 1) + "\"";
}

const Outcome kOutcomes[] = {
    {"agent-missing", "ctl models list", "5", {"not installed"}},
    {"agent-not-running", "ctl models list", "6", {"not running"}},
    {"agent-reinstalled",
     "ctl update; ctl models list",
     "0 0",
     {"STATUS_COMPLETED", "no loss", "vision.segment"}},
    {"agent-removed",
     "ctl --timeout 4 update; ctl models list",
     "6 5",
     {"STATUS_STARTED", "was lost", "not installed"}},
    {"answers-twice",
     "ctl models list; ctl models versions vision.segment",
     "0 0",
     {"vision.segment", "vision.segment"}},
    {"broken-messages",
     "ctl models list; ctl license; ctl models list --descriptions; ctl models versions a",
     "0 1 1 1",
     {"vision.segment", "no licence", "INVALID_OPERATION", "INVALID_OPERATION"}},
    {"bus-goes",
     "ctl --timeout 4 update; ctl api-level",
     "7 0",
     {"STATUS_STARTED", "how the update ends is not known", "11"}},
    {"category-behind-no-application",
     "ctl models list --category vision",
     "4",
     {"no application declares"}},
    {"category-behind-unreadable",
     "ctl models list --category vision",
     "0",
     {"of.gallery"},
     "of.camera"},
    {"category-twice", "ctl models list --category vision", "0", {"of.camera"}, "of.gallery"},
    {"crashes", "ctl models list; until_gone; ctl models list", "6 6", {"was lost", "not running"}},
    {"crashes-once",
     "ctl models list; \"$SIM\" send wait=0; ctl models list",
     "6 0",
     {"was lost", "vision.segment"}},
    {"demo",
     "ctl models list; ctl update; ctl models update vision.segment; ctl models list",
     "0 0 0 0",
     {"2.0.1", "no loss of the connection", "1 model is updated", "2.1.0"}},
    {"dies-and-recovers",
     "ctl models update vision.segment; \"$SIM\" send wait=0; ctl models update vision.segment",
     "6 0",
     {"(1 of 1, 40 %)", "100 %", "1 model is updated"}},
    {"dies-at-40-percent",
     "ctl models update vision.segment; ctl models list",
     "6 6",
     {"total 40 %", "(1 of 1, 40 %) ends is not known", "not running"},
     "total 50 %"},
    {"downgraded-by-update",
     "ctl models list; ctl update; ctl models list",
     "0 0 5",
     {"vision.segment", "STATUS_COMPLETED", "too old"}},
    {"drops", "ctl models list; ctl models list", "6 6", {"was lost", "was lost"}},
    {"drops-after-answers", "ctl models list", "0", {"vision.segment"}},
    {"drops-at-40-percent",
     "ctl models update vision.segment; until \"$CTL\" models list | grep 2.0.0; do :; done",
     "6",
     {"(1 of 1, 40 %) ends is not known", "2.0.0"},
     "total 50 %"},
    {"empty", "ctl models list; ctl license", "0 1", {"no usable models", "no licence"}},
    {"events-only", "ctl models update vision.segment", "0", {"1 model is updated"}, "%"},
    {"fails-at-second-model",
     "ctl models update vision.segment speech.wake-word text.spelling; ctl models list",
     "1 0",
     {"speech.wake-word: 40 %", "speech.wake-word: the agent reports its result 3", "2.0.0"},
     "text.spelling: 0 %"},
    {"final-message-twice",
     "ctl models update vision.segment",
     "0",
     {"50 %", "1 model is updated"},
     "failed"},
    {"full-too-early",
     "ctl models update vision.segment",
     "8",
     {"99 %", "no storage left"},
     "100 %"},
    {"hostile-texts",
     "ctl models list; ctl license",
     "0 0",
     {"\\x1B[1mbold", "All is red"},
     "\x1b"},
    {"kyr-disabled",
     "ctl models list; ctl license; ctl api-level; ctl update",
     "9 9 9 9",
     {"KYR feature is disabled"}},
    {"large", "ctl models list", "0", {"generated.model.000001", "generated.model.001000"}},
    {"launch-twice", "ctl update", "0", {"STATUS_COMPLETED", "no loss"}},
    {"launch-without-return",
     "ctl --timeout 4 update; ctl api-level",
     "7 6",
     {"STATUS_STARTED", "how the update ends is not known", "not running"},
     "lost ("},
    {"level-0", "ctl api-level", "0", {"0"}},
    {"level-minus-1", "ctl api-level", "1", {"INVALID_API_LEVEL"}},
    {"level-rises",
     "ctl api-level; ctl update; ctl api-level",
     "0 0 0",
     {"8", "STATUS_COMPLETED", "11"}},
    {"list-breaks-off",
     "ctl models list; ctl models list --descriptions",
     "6 6",
     {"was lost", "was lost"},
     "generated.model"},
    {"list-in-drips", "ctl models list", "0", {"generated.model.000001", "generated.model.000100"}},
    {"long-licence", "ctl license", "0", {"All is allowed. All is allowed."}},
    {"lying-counts",
     "ctl models list; ctl models list --descriptions; ctl models versions vision.segment",
     "0 1 1",
     {"no usable models", "INVALID_OPERATION", "INVALID_OPERATION"}},
    {"models-fail",
     "ctl models update vision.segment; ctl models uninstall vision.segment",
     "1 1",
     {"50 %", "update failed", "50 %", "failed"},
     "60 %"},
    {"models-no-space",
     "ctl models update vision.segment speech.wake-word",
     "8",
     {"update failed", "no storage left"}},
    {"models-of-others",
     "ctl models list; ctl models versions vision.segment",
     "0 4",
     {"no usable models"}},
    {"models-stall",
     "ctl --timeout 4 models update vision.segment",
     "7",
     {"50 %", "stalled", "(1 of 1, 50 %) ends is not known"},
     "60 %"},
    {"never-answers",
     "ctl --timeout 1 models list; ctl --timeout 1 license",
     "7 7",
     {"did not answer", "did not answer"}},
    {"newer-agent",
     "ctl models list; ctl models list --category a; ctl api-level",
     "0 4 0",
     {"vision.segment", "99"}},
    {"no-bus",
     "ctl models update vision.segment; ctl --timeout 1 update",
     "0 7",
     {"1 model is updated", "asked to update all", "not known"}},
    {"no-category",
     "ctl models list; ctl models list --category text",
     "0 5",
     {"text.summary.small", "too old"}},
    {"no-events", "ctl models update vision.segment", "0", {"50 %", "1 model is updated"}},
    {"no-final-message", "ctl models update vision.segment", "0", {"75 %", "1 model is updated"}},
    {"nothing-to-do",
     "ctl update; ctl models update vision.segment; ctl models update --force vision.segment",
     "0 0 0",
     {"asked to update all", "STATUS_COMPLETED", "nothing to do", "1 model is updated"},
     "STATUS_STARTED"},
    {"old-agent", "ctl api-level; ctl models list", "0 5", {"7", "too old"}},
    {"one-client-refused",
     "as com.example.second models list; ctl models list",
     "3 0",
     {"refused the connection", "vision.segment"}},
    {"only-the-final-message",
     "ctl models update vision.segment",
     "0",
     {"100 %", "1 model is updated"},
     "75 %"},
    {"oversized-messages",
     "ctl models list; ctl api-level; ctl license; ctl models list --descriptions",
     "6 1 1 6",
     {"was lost", "INVALID_API_LEVEL", "no licence", "was lost"}},
    {"permission-denied", "ctl models list", "3", {"may not connect"}},
    {"permission-lost-in-update",
     "ctl --timeout 4 update; ctl api-level",
     "7 3",
     {"STATUS_STARTED", "not known", "may not connect"},
     "lost ("},
    {"permission-withdrawn",
     "ctl models list; ctl models list",
     "0 3",
     {"vision.segment", "may not connect"}},
    {"progress-goes-backwards",
     "ctl models update vision.segment",
     "0",
     {"60 %", "70 %", "100 %", "1 model is updated"},
     "30 %"},
    {"refused", "ctl models list", "3", {"refused the connection"}},
    {"refused-after-update",
     "ctl --timeout 20 update; ctl api-level",
     "3 3",
     {"STATUS_STARTED", "STATE_REJECTED"}},
    {"result-codes",
     "for method in 'models list' 'models list --descriptions' 'models update vision.segment' "
     "'models uninstall vision.segment' api-level update; do each $method; done; ctl update a; "
     "for call in 2 3 4 5 6 7 8 9 10 11 12 13; do ctl --timeout 0.2 update a; done",
     "0 1 0 1 1 8 1 1 9 3 0 1 1 0 1 0 1 1 8 1 1 9 3 0 1 1 0 1 1 1 1 8 1 1 9 3 1 1 1 0 1 1 1 1 8 1 "
     "1 9 3 1 1 1 0 0 0 0 0 0 0 0 0 0 0 0 1 0 1 1 1 1 1 1 1 1 1 1 1 1 0 7 7 7 7 7 7 7 7 7 7 7 7",
     {"AGENT_CODE_3", "NO_SPACE", "AGENT_CODE_6", "KYR_DISABLED", "PERMISSION_DENIED"}},
    {"result-codes-of-versions",
     "each models versions vision.segment",
     "0 1 0 1 1 8 1 1 9 3 0 1 1",
     {"AGENT_CODE_3", "NO_SPACE", "AGENT_CODE_6", "KYR_DISABLED", "PERMISSION_DENIED"}},
    {"returns-without-launch",
     "ctl --timeout 4 update; ctl api-level",
     "7 0",
     {"STATUS_STARTED", "not known", "11"},
     "lost ("},
    {"skipped-models",
     "ctl models update vision.segment speech.wake-word text.spelling",
     "0",
     {"vision.segment: 50 %", "text.spelling: 50 %", "3 models are updated"},
     "speech.wake-word: "},
    {"slow", "ctl --timeout 1 models list", "7", {"did not answer"}},
    {"slow-at-first",
     "ctl --timeout 1 models list; ctl models list",
     "7 0",
     {"did not answer", "vision.segment"}},
    {"stray-messages",
     "ctl models list; ctl models update vision.segment",
     "0 0",
     {"vision.segment", "1 model is updated"}},
    {"swapped-messages",
     "ctl models update vision.segment",
     "0",
     {"37 %", "62 %", "1 model is updated"}},
    {"ten-thousand-models",
     "ctl models list",
     "0",
     {"generated.model.000001", "generated.model.010000"}},
    {"texts-of-2048-bytes",
     "ctl --json models list --descriptions",
     "0",
     {Quoted("model.", 2048), Quoted("A long title. ", 2048)}},
    {"texts-of-2049-bytes",
     "ctl --json models list --descriptions",
     "0",
     {Quoted("model.", 2048), Quoted("A long title. ", 2048)}},
    {"update-crashes", "ctl update", "1", {"STATUS_STARTED", "RESULT_7"}},
    {"update-ends-twice", "ctl update", "0", {"STATUS_COMPLETED"}, "RESULT_3"},
    {"update-fails", "ctl update", "1", {"STATUS_STARTED", "RESULT_3"}},
    {"update-never-returns",
     "ctl --timeout 4 update; ctl api-level",
     "7 6",
     {"STATUS_STARTED", "not known", "not running"}},
    {"update-results", "ctl update", "0", {"STATUS_STARTED", "STATUS_COMPLETED"}},
    {"update-self", "ctl update", "0", {"STATUS_STARTED", "STATUS_COMPLETED", "no loss"}},
    {"update-self-twice", "ctl update", "0", {"STATUS_STARTED", "STATUS_COMPLETED", "no loss"}},
    {"update-silent",
     "ctl --timeout 1 update",
     "7",
     {"asked to update all", "not known"},
     "STATUS_STARTED"},
    {"updates-itself-at-40-percent",
     "ctl --timeout 4 models update vision.segment; ctl models list",
     "6 0",
     {"total 40 %", "(1 of 1, 40 %) ends is not known", "1.0.0"},
     "total 50 %"},
    {"work-never-begins",
     "ctl --timeout 1 models update vision.segment",
     "7",
     {"asked for the update", "did not answer within 1 s"},
     "0 % (total"},
};

class AScenarioThatShips : public testing::TestWithParam<Outcome> {};

TEST_P(AScenarioThatShips, EndsForAnApplicationAsItPromises) {
  const Outcome& expected = GetParam();
  setenv("SIM", SVCMGR_SIM, 1);
  setenv("CTL", SVCMGRCTL, 1);
  const std::string script =
      std::string("exec 2>&1\n") + kTools + expected.command + "\necho \"exit statuses:$statuses\"";
  const Finished run = RunSim({"run", expected.scenario, "--", "sh", "-c", script});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output,
              testing::EndsWith("exit statuses: " + std::string(expected.statuses) + "\n"));
  std::size_t at = 0;
  for (const std::string& part : expected.output) {
    const std::size_t found = run.output.find(part, at);
    ASSERT_NE(found, std::string::npos) << part << "\n" << run.output;
    at = found + part.size();
  }
  const bool present =
      expected.absent != nullptr && run.output.find(expected.absent) != std::string::npos;
  EXPECT_FALSE(present) << expected.absent << "\n" << run.output;
}

INSTANTIATE_TEST_SUITE_P(Each, AScenarioThatShips, testing::ValuesIn(kOutcomes),
                         [](const auto& row) {
                           std::string name = row.param.scenario;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

TEST(TheScenariosThatShip, AreAllAmongThese) {
  std::vector<std::string> tried;
  for (const Outcome& outcome : kOutcomes) tried.emplace_back(outcome.scenario);
  std::vector<std::string> shipped;
  for (const sim::ShippedScenario& each : sim::ShippedScenarios()) shipped.emplace_back(each.name);
  EXPECT_EQ(tried, shipped);
}

}  // namespace
