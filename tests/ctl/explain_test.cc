// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "process.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;

TEST(Explain, TellsWhatACodeMeansWhoReturnsItAndWhatToDo) {
  constexpr char kText[] =
      "SVCMGR_ERROR_NOT_SUPPORTED, -1073741822 (0xC0000002), an error code\n"
      "  Meaning:     The agent's package is not installed. Found before any argument is looked "
      "at. "
      "For\n"
      "               velmora_svcmgr_get_client_api_level also: no marker was found.\n"
      "  Comes from:  every function\n"
      "  What to do:  Work without the agent, or have it installed. For the level: link the "
      "marker\n"
      "               (client-api-level.md).\n";
  for (const char* word :
       {"-1073741822", "0xC0000002", "SVCMGR_ERROR_NOT_SUPPORTED", "not_supported"}) {
    const Ending ending = RunScripted("{}", {"explain", word});
    EXPECT_EQ(ending.status, 0) << ending.errors;
    EXPECT_EQ(ending.output, kText);
  }
}

TEST(Explain, TellsOfEverythingThatHasANumber) {
  const Ending ending = RunScripted("{}", {"explain", "24"});
  EXPECT_EQ(ending.output,
            "SVCMGR_AI_STATUS_FAILED, 24, a status of work on models\n"
            "  Meaning:     work on models has failed\n"
            "  Comes from:  velmora_svcmgr_ai_status_cb\n"
            "  What to do:  The progress callback of the request says more.\n");
  const Ending all = RunScripted("{}", {"explain", "5"});
  for (const char* part :
       {"WORK_FAILED, 5, an error of the C++ face", "UPDATE_STATUS_RESULT_10, 5",
        "5, a result of the agent for a model request",
        "The library makes SVCMGR_ERROR_NO_SPACE of it", "5, an exit status of svcmgrctl"})
    EXPECT_THAT(all.output, HasSubstr(part));
}

TEST(Explain, IsAJsonDocument) {
  const Ending ending = RunScripted("{}", {"--json", "explain", "NO_SPACE"});
  EXPECT_EQ(ending.status, 0);
  const json found = json::parse(ending.output)["explanations"];
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0]["number"], -28);
  EXPECT_EQ(found[0]["name"], "SVCMGR_ERROR_NO_SPACE");
  EXPECT_EQ(found[0]["is"], "an error code");
  EXPECT_EQ(found[0]["meaning"], "The agent reports lack of storage.");
  EXPECT_THAT(found[0]["returned_by"].get<std::string>(),
              HasSubstr("velmora_svcmgr_ai_model_list_cb"));
  EXPECT_EQ(found[0]["remedy"], "Remove models or other data, then ask again.");
  EXPECT_EQ(
      json::parse(
          RunScripted("{}", {"explain", "usage", "--json"}).output)["explanations"][0]["number"],
      nullptr);
}

TEST(Explain, WithoutAWordListsAllNames) {
  const Ending ending = RunScripted("{}", {"explain"});
  EXPECT_EQ(ending.status, 0);
  EXPECT_THAT(ending.output, HasSubstr("-28"));
  for (const char* name : {"SVCMGR_ERROR_NO_SPACE", "SVCMGR_UPDATE_STATUS_RESULT_13", "TIMEOUT",
                           "WRITE_FAILED", "VELMORA_SVCMGR_API_LEVEL"})
    EXPECT_THAT(ending.output, HasSubstr(name));
}

TEST(Explain, OfWhatNobodyKnowsIsNotFoundAndSimilarNamesSuggested) {
  const Ending similar = RunScripted("{}", {"explain", "NO_SPAEC"});
  EXPECT_EQ(similar.status, 4);
  EXPECT_EQ(similar.errors,
            "svcmgrctl: error: there is no explanation of 'NO_SPAEC'; did you mean 'NO_SPACE'\n");
  for (const char* word : {"-4711", "", "0x", "\x1b[2J"}) {
    const Ending ending = RunScripted("{}", {"explain", word});
    EXPECT_EQ(ending.status, 4) << word;
    EXPECT_THAT(ending.errors, HasSubstr("; 'svcmgrctl explain' shows all names\n"));
  }
}

}  // namespace
