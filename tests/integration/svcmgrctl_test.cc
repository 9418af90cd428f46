// SPDX-License-Identifier: Apache-2.0
#include <glib.h>
#include <gmock/gmock.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "../unit/elf_builder.h"
#include "sim_process.h"
#include "temp_folder.h"
#include "velmora_svcmgr.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

struct Row {
  const char* name;
  const char* scenario;
  std::vector<std::string> arguments;
  int status;
  const char* output;  // a part of standard output; null if there must be none
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

Finished RunCtl(const std::string& scenario, const std::vector<std::string>& arguments) {
  std::vector<std::string> all = {"run", scenario, "--", SVCMGRCTL};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return RunSim(all);
}

const Row kRows[] = {
    {"Status", "demo", {"status"}, 0, "Agent API level  11"},
    {"ApiLevel", "demo", {"api-level"}, 0, "11\n"},
    {"License", "demo", {"license"}, 0, "Velmora Service Agent 2.3\n"},
    {"Models", "demo", {"models", "list"}, 0, "vision.segment"},
    {"Descriptions", "demo", {"models", "list", "--descriptions"}, 0, "Finds people"},
    {"Category", "demo", {"models", "list", "--category", "text"}, 0, "text.spelling"},
    {"Versions", "demo", {"models", "versions", "speech.wake-word"}, 0, "3.0.4"},
    {"UnknownModel", "demo", {"models", "versions", "no.such"}, 4, nullptr},
    {"UnknownCategory", "demo", {"models", "list", "--category", "none"}, 4, nullptr},
    {"NoModels", "empty", {"models", "list"}, 0, nullptr},
    {"NoLicence", "empty", {"license"}, 1, nullptr},
    {"AThousandModels", "large", {"models", "list"}, 0, "generated.model.001000"},
    {"AgentMissing", "agent-missing", {"models", "list"}, 5, nullptr},
    {"AgentTooOldForModels", "old-agent", {"models", "list"}, 5, nullptr},
    {"AgentTooOldForCategories",
     "no-category",
     {"models", "list", "--category", "text"},
     5,
     nullptr},
    {"AgentNotRunning", "agent-not-running", {"api-level"}, 6, nullptr},
    {"AgentDies", "crashes", {"models", "list"}, 6, nullptr},
    {"AgentDrops", "drops", {"models", "list"}, 6, nullptr},
    {"NotPermitted", "permission-denied", {"api-level"}, 3, nullptr},
    {"Refused", "refused", {"api-level"}, 3, nullptr},
    {"KyrDisabledForLevel", "kyr-disabled", {"api-level"}, 9, nullptr},
    {"KyrDisabledForLicence", "kyr-disabled", {"license"}, 9, nullptr},
    {"KyrDisabledForModels", "kyr-disabled", {"models", "list"}, 9, nullptr},
    {"NoAnswerToACallThatBlocks", "never-answers", {"--timeout", "0.2", "license"}, 7, nullptr},
    {"NoAnswerToARequest", "never-answers", {"--timeout", "0.2", "models", "list"}, 7, nullptr},
};

const Row kUpdates[] = {
    {"Crashes", "update-crashes", {"update"}, 1, "SVCMGR_UPDATE_STATUS_RESULT_7"},
    {"Fails", "update-fails", {"update"}, 1, "SVCMGR_UPDATE_STATUS_RESULT_3"},
    {"NeverReturns", "update-never-returns", {"--timeout", "2", "update"}, 7, "STATUS_STARTED"},
    {"Results", "update-results", {"update"}, 0, "SVCMGR_UPDATE_STATUS_COMPLETED"},
    {"Self", "update-self", {"update"}, 0, "SVCMGR_UPDATE_STATUS_COMPLETED"},
    {"SelfInTheMiddle", "demo", {"update"}, 0, "no loss of the connection was reported"},
    {"OfNamedAgents", "demo", {"update", "org.b", "org.a"}, 0, "to update org.b, org.a"},
    {"Silent", "update-silent", {"--timeout", "2", "update"}, 7, "was asked to update all agents"},
    {"OfAnOldAgent", "old-agent", {"update", "org.a"}, 5, ""},
    {"WithoutAnAgent", "agent-missing", {"update"}, 5, ""},
    {"KyrDisabled", "kyr-disabled", {"update"}, 9, ""},
    {"UpdatingNothing", "demo", {"updating"}, 0, "no\n"},
};

class AnUpdate : public testing::TestWithParam<Row> {};
INSTANTIATE_TEST_SUITE_P(That, AnUpdate, testing::ValuesIn(kUpdates),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(AnUpdate, EndsWithItsStatus) {
  const Finished run = RunCtl(GetParam().scenario, GetParam().arguments);
  EXPECT_EQ(run.status, GetParam().status) << run.output << run.errors;
  EXPECT_THAT(run.output, HasSubstr(GetParam().output));
  EXPECT_EQ(run.errors.empty(), run.status == 0) << run.errors;
}

TEST(AnUpdate, WhoseAgentGoesInPlaceOfAnAnswerHasNoConnection) {
  for (const char* fault : {"drop", "crash"}) {
    const TempFolder folder;
    const std::string scenario =
        folder.Write("scenario.json", std::string(R"({"methods": {"request_update": {"fault": ")") +
                                          fault + "\"}}}");
    const Finished run = RunCtl(scenario, {"--timeout", "0", "update"});
    EXPECT_EQ(run.status, 6) << fault << run.errors;
  }
}

TEST(AnUpdateOfTheAgentItself, EndsWithTheConnectionNeverLost) {
  const Finished run = RunCtl("update-self", {"--json", "update"});
  EXPECT_EQ(run.status, 0) << run.errors;
  const std::string last = run.output.substr(run.output.rfind('\n', run.output.size() - 2) + 1);
  EXPECT_EQ(json::parse(last)["connection_losses"], 0);
}

/** Runs a command with svcmgrctl as $0 beside an agent that takes this step until it has ended. */
Finished RunBeside(const std::string& step, const std::string& command) {
  const std::string script = "(" + command + ") & while kill -0 $!; do \"$1\" send " + step +
                             "; done 2>/dev/null; wait $!";
  return RunSim({"run", "demo", "--", "sh", "-c", script, SVCMGRCTL, SVCMGR_SIM});
}

TEST(Updating, IsToldOfAnUpdateThatBegins) {
  const Finished run = RunBeside("update-start", "\"$0\" updating --listen 60");
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output, "yes\n");
}

TEST(Watch, PrintsTheEventsOfTheAgent) {
  const Finished updates = RunBeside("update-start", "\"$0\" watch update | head -n 1");
  EXPECT_THAT(updates.output, HasSubstr("0 SVCMGR_UPDATE_STATUS_STARTED"));
  const Finished models = RunBeside("model-failed", "\"$0\" watch model | head -n 1");
  EXPECT_THAT(models.output, HasSubstr("24 SVCMGR_AI_STATUS_FAILED"));
}

const Row kModelWork[] = {
    {"Fails", "models-fail", {"models", "update", "vision.segment"}, 1, "update failed"},
    {"FailsToRemove", "models-fail", {"models", "uninstall", "vision.segment"}, 1, "failed"},
    {"HasNoSpace", "models-no-space", {"models", "update", "vision.segment"}, 8, "update failed"},
    {"Stalls",
     "models-stall",
     {"--timeout", "4", "models", "update", "vision.segment"},
     7,
     "stalled"},
    {"Works", "demo", {"models", "update", "vision.segment"}, 0, "1 model is updated"},
    {"WorksOnAVersion", "demo", {"models", "update", "vision.segment@1.0.0"}, 0, "is updated"},
    {"Removes",
     "demo",
     {"models", "uninstall", "vision.segment", "vision.upscale"},
     0,
     "2 models are uninstalled"},
    {"IsOnNoModel", "demo", {"models", "update", "vision.segmnt"}, 4, "update failed"},
    {"IsOnNoVersion", "demo", {"models", "update", "vision.segment@9"}, 4, "update failed"},
    {"RemovesNoModel", "demo", {"models", "uninstall", "no.such"}, 4, "failed"},
    {"IsOnAnOldAgent", "old-agent", {"models", "update", "a"}, 5, ""},
    {"HasNoAgent", "agent-missing", {"models", "uninstall", "a"}, 5, ""},
    {"IsDisabled", "kyr-disabled", {"models", "update", "a"}, 9, "update failed"},
};

class WorkOnModels : public testing::TestWithParam<Row> {};
INSTANTIATE_TEST_SUITE_P(That, WorkOnModels, testing::ValuesIn(kModelWork),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(WorkOnModels, EndsWithItsStatus) {
  const Finished run = RunCtl(GetParam().scenario, GetParam().arguments);
  EXPECT_EQ(run.status, GetParam().status) << run.output << run.errors;
  EXPECT_THAT(run.output, HasSubstr(GetParam().output));
  EXPECT_EQ(run.errors.empty(), run.status == 0) << run.errors;
}

TEST(WorkOnModels, ChangesWhatIsListed) {
  const Finished run = RunSim({"run", "demo", "--", "sh", "-c", R"(
      work() { "$ctl" models "$@" >/dev/null || exit; }
      list() { "$ctl" models list | grep '^vision.segment ' || echo gone; }
      ctl=$0
      list; work update vision.segment@2.1.0; list
      "$ctl" models versions vision.segment | grep -c vision.segment
      work uninstall vision.segment; list
      "$ctl" models versions vision.segment | grep -c vision.segment
      work update vision.segment@1.1.0; list)",
                               SVCMGRCTL});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output,
            "vision.segment      2.0.1    Picture segmentation\n"
            "vision.segment      2.1.0    Picture segmentation\n"
            "4\n"
            "gone\n"
            "4\n"
            "vision.segment      1.1.0    Picture segmentation\n");
}

TEST(WorkOnModels, IsOverByEventsWhereTheAgentSendsNoLastMessage) {
  const TempFolder folder;
  const std::string scenario = folder.Write("scenario.json", R"({
      "models": [{"id": "a", "versions": ["1"]}],
      "methods": {"RequestToUninstall": {"report": "no-last", "parts": 4, "pace": 200}}})");
  const Finished run = RunCtl(scenario, {"--json", "models", "uninstall", "a"});
  EXPECT_EQ(run.status, 0) << run.output << run.errors;
  EXPECT_THAT(run.output, HasSubstr(R"("decided_by":"event")"));
}

TEST(WorkOnModels, WhoseAgentIsKilledHasNoConnection) {
  const Finished run = RunSim({"run", "models-stall", "--", "sh", "-c", R"(
      out=$(dirname "$SVCMGR_SIM_CONTROL")/out
      "$0" --timeout 0 models update vision.segment >"$out" &
      until grep -q ' 50 %' "$out"; do sleep 0.1; done
      "$1" send kill; wait $!)",
                               SVCMGRCTL, SVCMGR_SIM});
  EXPECT_EQ(run.status, 6) << run.errors;
  EXPECT_THAT(run.errors, HasSubstr("how the update of vision.segment (1 of 1, 50 %) ends"));
}

/** A file with up to three markers that differ little: equal ones are what is difficult. */
elf::Bytes RandomFile(std::mt19937& random) {
  const auto number = [&](unsigned below) { return static_cast<unsigned>(random() % below); };
  elf::Builder builder(number(2) == 0 ? elf::Kind::k32 : elf::Kind::k64);
  for (unsigned sections = 1 + number(3); sections > 0; --sections) {
    elf::Marker marker;
    marker.api_level = number(5);
    marker.version_major = number(2) * 0xffff;
    marker.version_minor = number(2);
    marker.version_patch = number(2) * 0x8000;
    builder.Section(marker);
  }
  elf::Bytes file = builder.Build();
  file[6] = 1;  // the version of the format
  return file;
}

TEST(ClientLevel, IsExplainedByTheFileThatDecidesForTheLibrary) {
  std::mt19937 random(20240601);
  const TempFolder folder;
  for (int file = 0; file < 40; ++file) {
    const std::string place =
        "d" + std::to_string(random() % 3) + "/e" + std::to_string(random() % 2);
    std::filesystem::create_directories(folder.path() + "/" + place);
    folder.Write(place + "/" + std::to_string(file), RandomFile(random));
  }
  // One after the other is taken away from above, and the library must fall with each.
  int explained = 0;
  Finished run = RunCtl("demo", {"--json", "client-level", folder.path()});
  for (; run.status == 0; run = RunCtl("demo", {"--json", "client-level", folder.path()})) {
    const json level = json::parse(run.output);
    ASSERT_TRUE(level["decided_by"].is_string()) << run.output;
    std::filesystem::remove(folder.path() + "/" + level["decided_by"].get<std::string>());
    ++explained;
  }
  EXPECT_EQ(run.status, 4) << run.errors;
  EXPECT_GT(explained, 20) << "the others have level 0";
}

TEST(ClientLevel, IsFoundInWhatWasBuilt) {
  const Finished run =
      RunSim({"run", "demo", "--", "env", "-u", "VELMORA_APP_ROOT", SVCMGRCTL, "client-level", "-v",
              std::filesystem::path(SVCMGRCTL).parent_path().string()});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, testing::StartsWith(std::to_string(VELMORA_SVCMGR_API_LEVEL) + "\n\n"));
  EXPECT_THAT(run.output, HasSubstr("  .kyr     svcmgrctl"));
}

TEST(ClientLevel, OfASymbolicLinkIsNoneAsForAnApplicationWhoseFolderIsOne) {
  const TempFolder folder;
  const std::string built = std::filesystem::path(SVCMGRCTL).parent_path().string();
  const std::string link = folder.path() + "/link";
  std::filesystem::create_directory_symlink(built, link);
  EXPECT_EQ(RunCtl("demo", {"client-level", built}).status, 0);
  const Finished run = RunCtl("demo", {"client-level", link});
  EXPECT_EQ(run.status, 4);
  EXPECT_THAT(run.errors, HasSubstr("/link' is a symbolic link"));
}

TEST(ClientLevel, NeedsMarkersAndAnAgent) {
  const TempFolder folder;
  EXPECT_EQ(RunCtl("demo", {"client-level", folder.path()}).status, 4);
  EXPECT_EQ(RunCtl("agent-missing", {"client-level", folder.path()}).status, 5);
}

TEST(ClientLevel, OfAnApplicationThatShipsTheLibraryIsThatOfTheLibrary) {
  const TempFolder folder;
  const auto built = std::filesystem::path(SVCMGRCTL).parent_path().parent_path() / "lib";
  std::filesystem::create_directory(folder.path() + "/lib");
  std::filesystem::copy(built / "libvelmora-svcmgr.so.2", folder.path() + "/lib");
  const Finished run = RunCtl("demo", {"--verbose", "client-level", folder.path()});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, testing::ContainsRegex("  .kyr     lib/libvelmora-svcmgr.so.2 +decides"));
}

TEST(TheDemo, ShowsTheAgentsRestartAndWorkOnModelsAndAFailureAndWhatToDoNext) {
  // Which process the agent is, the demo itself does not look at.
  const Finished run = RunSim({"run", "demo", "--", "sh", "-c", R"sh(
      agent() { cat "$(dirname "$SVCMGR_SIM_CONTROL")/agent.pid"; }
      version() { sed -n 's/^Version *= *//p' "$VELMORA_PACKAGE_DIR"/com.velmora.svcmgr.package; }
      before="$(agent) $(version)"
      "$0" "$1" "$2" || exit
      [ "$(agent)" != "${before% *}" ] && echo "from version ${before#* } to $(version)")sh",
                               DEMO, SVCMGRCTL, SVCMGR_SIM});
  EXPECT_EQ(run.status, 0) << run.output << run.errors;
  EXPECT_EQ(run.errors, "");
  std::size_t place = 0;
  for (const char* part :
       {"Agent version    2.3.182\n", "$ svcmgrctl update\n", "SVCMGR_UPDATE_STATUS_COMPLETED",
        "no loss of the connection was reported\n", "$ cat heard\n",
        "SVCMGR_CONNECTION_STATE_CONNECTED: the connection stands\n\n", "Agent version    2.4.0\n",
        "Agent API level  11\n", "2 models are updated\n", "vision.segment      2.1.0 ",
        "speech.wake-word    3.2.0 ",
        "error: the connection to the agent was lost; how the update of vision.segment@1.1.0 (1 of "
        "1",
        "$ echo $?\n6\n", "svcmgr-sim list\n", "/docs/guide/first-application.md\n",
        "from version 2.3.182 to 2.4.0\n"}) {
    const std::size_t found = run.output.find(part, place);
    ASSERT_NE(found, std::string::npos) << part << "is not behind what precedes it:\n"
                                        << run.output;
    place = found;
  }
}

class ACommand : public testing::TestWithParam<Row> {};
INSTANTIATE_TEST_SUITE_P(With, ACommand, testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(ACommand, EndsWithItsStatusAndItsData) {
  const Finished run = RunCtl(GetParam().scenario, GetParam().arguments);
  EXPECT_EQ(run.status, GetParam().status) << run.errors;
  if (GetParam().output == nullptr) {
    EXPECT_THAT(run.errors, Not(IsEmpty()));
    EXPECT_EQ(run.output, "");
  } else {
    EXPECT_THAT(run.output, HasSubstr(GetParam().output));
    EXPECT_THAT(run.errors, IsEmpty());
  }
}

TEST_P(ACommand, SaysTheSameInJson) {
  std::vector<std::string> arguments = GetParam().arguments;
  arguments.insert(arguments.begin(), "--json");
  const Finished run = RunCtl(GetParam().scenario, arguments);
  EXPECT_EQ(run.status, GetParam().status);
  if (run.status == 0) {
    EXPECT_TRUE(json::parse(run.output).is_object());
    EXPECT_THAT(run.errors, IsEmpty());
  } else {
    EXPECT_EQ(json::parse(run.errors)["error"]["exit"], run.status);
  }
}

TEST(AWrongCommandLine, IsRefused) { EXPECT_EQ(RunCtl("demo", {"models"}).status, 2); }

TEST(Status, ShowsWhatItKnowsWithoutAnAgent) {
  const Finished run = RunCtl("agent-missing", {"status"});
  EXPECT_EQ(run.status, 5);
  EXPECT_THAT(run.output, HasSubstr("the agent is not installed"));
  EXPECT_THAT(run.errors, HasSubstr("SVCMGR_ERROR_NOT_SUPPORTED"));
}

/** What of a text steers a terminal or reorders its lines, by its numbers; empty if nothing does. */
std::string Steering(const std::string& text) {
  std::string found;
  for (const char* p = text.c_str(); p != text.c_str() + text.size();) {
    const gunichar c =
        g_utf8_get_char_validated(p, static_cast<gssize>(text.c_str() + text.size() - p));
    const bool valid = c <= 0x10FFFF;
    const bool control = (c < 0x20 && c != '\n') || (c >= 0x7F && c <= 0x9F);
    const bool reorders = c == 0x061C || c == 0x200E || c == 0x200F ||
                          (c >= 0x2028 && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
    if (!valid || control || reorders)
      found += " " + std::to_string(valid ? c : static_cast<unsigned char>(*p));
    p = valid ? g_utf8_next_char(p) : p + 1;
  }
  return found;
}

TEST(HostileTexts, DoNotReachTheTerminal) {
  const Finished run = RunCtl("hostile-texts", {"models", "list", "--descriptions"});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(Steering(run.output), "");
  EXPECT_THAT(run.output, HasSubstr("\\x1B"));
}

TEST(StandardError, OfAFailureInJsonIsOneDocumentWhateverTheLogLevelOfTheEnvironment) {
  const Finished run = RunSim({"run", "agent-not-running", "--", "env", "VELMORA_LOG_LEVEL=verbose",
                               SVCMGRCTL, "--json", "api-level"});
  EXPECT_EQ(run.status, 6);
  EXPECT_EQ(json::parse(run.errors)["error"]["exit"], 6) << run.errors;
}

}  // namespace
