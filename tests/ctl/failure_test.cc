// SPDX-License-Identifier: Apache-2.0
#include "failure.h"

#include <gmock/gmock.h>

#include "console.h"
#include "velmora_svcmgr.h"

namespace svcmgrctl {
namespace {

using testing::HasSubstr;
using testing::Not;

struct Row {
  int code;
  const char* name;
  int exit;
};

constexpr Row kRows[] = {
    {-1, "SVCMGR_ERROR_CONNECTION_FAILED", 6},
    {-5, "SVCMGR_ERROR_IO_ERROR", 1},
    {-12, "SVCMGR_ERROR_OUT_OF_MEMORY", 1},
    {-13, "SVCMGR_ERROR_PERMISSION_DENIED", 3},
    {-22, "SVCMGR_ERROR_INVALID_PARAMETER", 1},
    {-28, "SVCMGR_ERROR_NO_SPACE", 8},
    {-38, "SVCMGR_ERROR_INVALID_OPERATION", 1},
    {-106, "SVCMGR_ERROR_ALREADY_CONNECTED", 1},
    {-107, "SVCMGR_ERROR_NOT_CONNECTED", 6},
    {-1073741822, "SVCMGR_ERROR_NOT_SUPPORTED", 5},
    {-1073741825, "SVCMGR_ERROR_INVALID_API_LEVEL", 1},
    {-1073741826, "SVCMGR_ERROR_KYR_DISABLED", 9},
    {-1073741827, "SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION", 5},
    {-1073741829, "SVCMGR_ERROR_AGENT_CODE_6", 1},
    {-1073741830, "SVCMGR_ERROR_OUT_OF_INDEX", 1},
    {-1073741831, "SVCMGR_ERROR_AGENT_CODE_3", 1},
};

TEST(AFailure, HasTheNameAndTheExitCodeOfItsCode) {
  for (const Row& row : kRows) {
    const Failure failure = FailureOf(row.code);
    EXPECT_EQ(failure.code, row.code);
    EXPECT_EQ(failure.name, row.name);
    EXPECT_EQ(failure.exit, row.exit) << row.name;
    EXPECT_THAT(failure.message, Not(testing::IsEmpty())) << row.name;
  }
}

TEST(AFailure, OfAnUnknownCodeIsAPlainOneThatShowsTheNumber) {
  const Failure failure = FailureOf(-4711);
  EXPECT_EQ(failure.name, "UNKNOWN");
  EXPECT_EQ(failure.exit, kExitFailed);
  EXPECT_THAT(failure.message, HasSubstr("-4711"));
}

TEST(AFailure, KeepsItsCodeWhenTheMessageAndTheExitCodeAreReplaced) {
  const Failure failure =
      FailureOf(SVCMGR_ERROR_INVALID_PARAMETER, "no such category", kExitNotFound, "install it");
  EXPECT_EQ(failure.code, -22);
  EXPECT_EQ(RemedyFor(failure), "install it");
  EXPECT_EQ(failure.message, "no such category");
  EXPECT_EQ(failure.exit, kExitNotFound);
}

TEST(AFailure, IsAJsonObjectWithFiveKeysInOrder) {
  EXPECT_EQ(ToJson(FailureOf(-107)).dump(),
            R"({"code":-107,"name":"SVCMGR_ERROR_NOT_CONNECTED",)"
            R"("message":"not connected to the agent","exit":6,)"
            R"("remedy":"try again; 'svcmgrctl doctor' looks for the reason"})");
  EXPECT_EQ(ToJson({std::nullopt, "USAGE", "wrong", kExitUsage}).dump(),
            R"({"code":null,"name":"USAGE","message":"wrong","exit":2,"remedy":null})");
}

TEST(AFailure, HasTheRemedyOfItsNameUnlessItKnowsABetterOne) {
  EXPECT_EQ(RemedyFor(FailureOf(SVCMGR_ERROR_NOT_SUPPORTED)),
            "without a device: svcmgr-sim run demo -- \u2026");
  for (const Row& row : kRows) EXPECT_THAT(RemedyFor(FailureOf(row.code)), Not(testing::IsEmpty()));
  EXPECT_EQ(RemedyFor({std::nullopt, "TIMEOUT", "late", kExitTimeout}),
            "try again, or wait longer with --timeout");
  EXPECT_EQ(RemedyFor({std::nullopt, "TIMEOUT", "late", kExitTimeout, "sleep"}), "sleep");
  EXPECT_EQ(RemedyFor({std::nullopt, "TIMEOUT", "late", kExitTimeout, ""}), "");
}

TEST(TheTableOfExitCodes, NamesEveryCodeOnItsOwnLine) {
  EXPECT_EQ(ExitCodeTable(),
            "    0  done\n"
            "    1  failed\n"
            "    2  the command line is wrong\n"
            "    3  permission denied\n"
            "    4  no such model, category, folder or marker\n"
            "    5  the agent is not installed, or too old\n"
            "    6  no connection to the agent\n"
            "    7  the agent did not answer in time\n"
            "    8  no storage left on the device\n"
            "    9  the KYR feature is disabled\n"
            "  130  interrupted (SIGINT)\n"
            "  143  terminated (SIGTERM)\n");
}

}  // namespace
}  // namespace svcmgrctl
