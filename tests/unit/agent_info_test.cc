// SPDX-License-Identifier: Apache-2.0
// The agent's licence text and its API level.

#include <climits>
#include <cstdlib>
#include <string>

#include "SvcmgrException.h"
#include "connection_support.h"
#include "fake_platform.h"
#include "model_support.h"

namespace {

using fake::IsInfo;
using models::NameOfRow;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kEntryFile[] = "velmora_svcmgr.cc";
constexpr char kLicense[] = "velmora_svcmgr_get_license_fulltext";
constexpr char kLevel[] = "velmora_svcmgr_get_agent_api_level";

char untouched_text[] = "untouched";
constexpr int kUntouchedLevel = -77;

struct AgentInfo : fake::PlatformTest {
  void TearDown() override {
    if (text != untouched_text) free(text);
    PlatformTest::TearDown();
  }

  void ExpectOutputsUntouched() const {
    EXPECT_EQ(text, untouched_text);
    EXPECT_STREQ(untouched_text, "untouched");
    EXPECT_EQ(level, kUntouchedLevel);
  }

  char* text = untouched_text;
  int level = kUntouchedLevel;
};

TEST_F(AgentInfo, LogsTheTextOfAClientExceptionAsAnArgument) {
  connection::Stand();
  fake::Next("rpc_port_parcel_send", fake::Throw(AppInfoException()));
  EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), SVCMGR_ERROR_INVALID_API_LEVEL);
  EXPECT_THAT(fake::Logs().front().format, ::testing::HasSubstr("> %s\033"));
}

// ---- The licence text ---------------------------------------------------------------------------

struct LicenceRow {
  std::string name;
  fake::Item answer;
};

void PrintTo(const LicenceRow& row, std::ostream* out) { *out << row.name; }

struct ALicenceText : AgentInfo, ::testing::WithParamInterface<LicenceRow> {};

INSTANTIATE_TEST_SUITE_P(
    Of, ALicenceText,
    ::testing::Values(LicenceRow{"OneByte", "x"}, LicenceRow{"ABlank", " "},
                      LicenceRow{"Conversions", "100%s of %n and %d"},
                      LicenceRow{"TwentyThousandBytes", std::string(20000, 'l')},
                      LicenceRow{"KyrAndMore", "SVCMGR_ERROR_KYR_DISABLED."},
                      LicenceRow{"KyrBehindABlank", " SVCMGR_ERROR_KYR_DISABLED"},
                      LicenceRow{"KyrCutShort", "SVCMGR_ERROR_KYR_DISABLE"},
                      LicenceRow{"KyrInLowerCase", "svcmgr_error_kyr_disabled"}),
    NameOfRow());

TEST_P(ALicenceText, IsHandedOutAsACopyForFree) {
  connection::Stand();
  fake::QueueReply({GetParam().answer});
  EXPECT_EQ(velmora_svcmgr_get_license_fulltext(&text), SVCMGR_ERROR_NONE);
  EXPECT_EQ(text, GetParam().answer.text);
  EXPECT_THAT(fake::Logs(), IsEmpty());
  EXPECT_THAT(fake::LiveBlocks(), SizeIs(1));
}

TEST_F(AgentInfo, HasNoLicenceTextWhenTheAnswerIsEmptyAndSucceeds) {
  connection::Stand();
  for (const fake::Item& answer : {fake::Item(""), fake::NullText()}) {
    fake::ClearRecord();
    fake::QueueReply({answer});
    EXPECT_EQ(velmora_svcmgr_get_license_fulltext(&text), SVCMGR_ERROR_NONE);
    EXPECT_THAT(fake::Logs(), ElementsAre(IsInfo(kEntryFile, kLicense, "can't get agent license")));
  }
  ExpectOutputsUntouched();
}

TEST_F(AgentInfo, HasNoLicenceTextWhenKyrIsDisabled) {
  connection::Stand();
  fake::QueueReply({"SVCMGR_ERROR_KYR_DISABLED"});
  EXPECT_EQ(velmora_svcmgr_get_license_fulltext(&text), SVCMGR_ERROR_KYR_DISABLED);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsInfo(kEntryFile, kLicense, "KYR is disabled")));
  EXPECT_THAT(fake::LiveBlocks(), IsEmpty());
  ExpectOutputsUntouched();
}

TEST_F(AgentInfo, HandsOutNullWhenTheLicenceTextCannotBeCopied) {
  connection::Stand();
  fake::QueueReply({"A licence"});
  const fake::FailingAllocation failing(fake::Allocator::kStrdup);
  EXPECT_EQ(velmora_svcmgr_get_license_fulltext(&text), SVCMGR_ERROR_NONE);
  EXPECT_TRUE(failing.Happened());
  EXPECT_EQ(text, nullptr);
  EXPECT_THAT(fake::Logs(), IsEmpty());
}

// ---- The API level ------------------------------------------------------------------------------

struct AnApiLevel : AgentInfo, ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Of, AnApiLevel,
                         ::testing::Values(0, 1, 8, 11, INT_MAX, -2, -38, -107, -1073741822,
                                           -1073741825, -1073741827, INT_MIN),
                         [](const auto& row) {
                           const auto digits = std::to_string(row.param);
                           return row.param < 0 ? "Minus" + digits.substr(1) : digits;
                         });

TEST_P(AnApiLevel, IsHandedOutAsItIs) {
  connection::Stand();
  fake::QueueReply({GetParam()});
  EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), SVCMGR_ERROR_NONE);
  EXPECT_EQ(level, GetParam());
  EXPECT_THAT(fake::Logs(), IsEmpty());
}

TEST_F(AgentInfo, HasNoApiLevelWhenTheAnswerIsMinusOne) {
  connection::Stand();
  fake::QueueReply({-1});
  EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), SVCMGR_ERROR_INVALID_API_LEVEL);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsInfo(kEntryFile, kLevel, "invalid api level")));
  ExpectOutputsUntouched();
}

TEST_F(AgentInfo, HasNoApiLevelWhenKyrIsDisabled) {
  connection::Stand();
  fake::QueueReply({-1073741826});
  EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), SVCMGR_ERROR_KYR_DISABLED);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsInfo(kEntryFile, kLevel, "KYR is disabled")));
  ExpectOutputsUntouched();
}

}  // namespace
