// SPDX-License-Identifier: Apache-2.0
// The agent's licence text and its API level.

#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "SvcMgrAppProxyException.h"
#include "SvcmgrException.h"
#include "connection_support.h"
#include "fake_platform.h"
#include "model_support.h"

namespace {

using fake::IsError;
using fake::IsInfo;
using fake::IsProxyError;
using models::NameOfRow;
using models::Steps;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kEntryFile[] = "velmora_svcmgr.cc";
constexpr char kContextFile[] = "SvcMgrAppProxyHandler.cc";
constexpr char kLicense[] = "velmora_svcmgr_get_license_fulltext";
constexpr char kLevel[] = "velmora_svcmgr_get_agent_api_level";

char untouched_text[] = "untouched";
constexpr int kUntouchedLevel = -77;

// One of the two queries, with its output in the test.
struct Query {
  std::string name;       // the exported function
  std::string method;     // the method of the context, and of the proxy
  int number;             // of the method on the wire
  fake::Item answer;      // an answer that leads to success
  const char* no_answer;  // the record that follows a failure
  int failure;            // the code that follows a failure
  int exception_code;     // the code of an exception outside the question itself
};

void PrintTo(const Query& query, std::ostream* out) { *out << query.method; }

const Query kLicenseQuery = {kLicense,
                             "get_license",
                             3,
                             "A licence",
                             "can't get agent license",
                             SVCMGR_ERROR_NONE,
                             SVCMGR_ERROR_INVALID_OPERATION};
const Query kLevelQuery = {kLevel,
                           "get_agent_api_level",
                           2,
                           11,
                           "invalid api level",
                           SVCMGR_ERROR_INVALID_API_LEVEL,
                           SVCMGR_ERROR_INVALID_API_LEVEL};

struct AgentInfo : fake::PlatformTest {
  void TearDown() override {
    if (text != untouched_text) free(text);
    PlatformTest::TearDown();
  }

  int Ask(const Query& query) {
    return query.number == kLicenseQuery.number ? velmora_svcmgr_get_license_fulltext(&text)
                                                : velmora_svcmgr_get_agent_api_level(&level);
  }

  static int AskWithNull(const Query& query) {
    return query.number == kLicenseQuery.number ? velmora_svcmgr_get_license_fulltext(nullptr)
                                                : velmora_svcmgr_get_agent_api_level(nullptr);
  }

  void ExpectOutputsUntouched() const {
    EXPECT_EQ(text, untouched_text);
    EXPECT_STREQ(untouched_text, "untouched");
    EXPECT_EQ(level, kUntouchedLevel);
  }

  char* text = untouched_text;
  int level = kUntouchedLevel;
};

// ---- What both queries share --------------------------------------------------------------------

struct AQuery : AgentInfo, ::testing::WithParamInterface<Query> {
  static std::string Error(const std::string& message) {
    return "E " + GetParam().name + ": " + message;
  }

  // The context's or the proxy's records, then the one that follows a failure.
  static void ExpectFailureBehind(std::vector<::testing::Matcher<const fake::LogRecord&>> records) {
    records.push_back(IsInfo(kEntryFile, GetParam().name, GetParam().no_answer));
    EXPECT_THAT(fake::Logs(), ElementsAreArray(records));
  }
};

INSTANTIATE_TEST_SUITE_P(Of, AQuery, ::testing::Values(kLicenseQuery, kLevelQuery),
                         [](const auto& row) { return row.param.method; });

TEST_P(AQuery, IsNotSupportedWhenTheAgentIsMissingWhateverTheArgument) {
  fake::RemoveAgent();
  for (const int result : {Ask(GetParam()), AskWithNull(GetParam())}) {
    EXPECT_EQ(result, SVCMGR_ERROR_NOT_SUPPORTED);
  }
  EXPECT_THAT(Steps(), ElementsAre("package_info_create", Error("Not supported"),
                                   "package_info_create", Error("Not supported")));
  EXPECT_THAT(fake::Logs().front(), IsError(kEntryFile, GetParam().name, "Not supported"));
  ExpectOutputsUntouched();
}

TEST_P(AQuery, GoesOnWhenTheLookUpFailsForAnotherReason) {
  connection::Stand();
  for (const int code : {-22, -12, -5, -13, fake::kNoSuchPackage - 1, fake::kNoSuchPackage + 1}) {
    fake::Next("package_info_create", fake::FailAfterWork(code));
    EXPECT_EQ(AskWithNull(GetParam()), SVCMGR_ERROR_INVALID_PARAMETER) << code;
  }
}

TEST_P(AQuery, RefusesANullArgumentBeforeItLooksAtTheConnection) {
  EXPECT_EQ(AskWithNull(GetParam()), SVCMGR_ERROR_INVALID_PARAMETER);
  EXPECT_THAT(Steps(), ElementsAre("package_info_create", "package_info_destroy",
                                   Error("parameter is NULL!!")));
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsError(kEntryFile, GetParam().name, "parameter is NULL!!")));
}

TEST_P(AQuery, RefusesANullArgumentWhenConnected) {
  connection::Stand();
  EXPECT_EQ(AskWithNull(GetParam()), SVCMGR_ERROR_INVALID_PARAMETER);
  EXPECT_THAT(fake::SentParcels(), IsEmpty());
}

TEST_P(AQuery, IsNotConnectedBeforeAnyConnect) {
  EXPECT_EQ(Ask(GetParam()), SVCMGR_ERROR_NOT_CONNECTED);
  EXPECT_THAT(Steps(), ElementsAre("package_info_create", "package_info_destroy",
                                   "I " + GetParam().name + ": not initialized"));
  EXPECT_THAT(fake::Logs(), ElementsAre(IsInfo(kEntryFile, GetParam().name, "not initialized")));
  ExpectOutputsUntouched();
}

TEST_P(AQuery, IsNotConnectedWhileConnecting) {
  connection::Start();
  EXPECT_EQ(Ask(GetParam()), SVCMGR_ERROR_NOT_CONNECTED);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsInfo(kEntryFile, GetParam().name, "not initialized")));
  ExpectOutputsUntouched();
}

TEST_P(AQuery, IsNotConnectedAfterTheConnectionWasLost) {
  connection::Stand();
  fake::Proxy().FireDisconnected();
  fake::ClearRecord();
  EXPECT_EQ(Ask(GetParam()), SVCMGR_ERROR_NOT_CONNECTED);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsInfo(kEntryFile, GetParam().name, "not initialized")));
  EXPECT_THAT(fake::SentParcels(), IsEmpty());
}

TEST_P(AQuery, IsNotConnectedAfterDisconnecting) {
  connection::Stand();
  EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
  fake::ClearRecord();
  EXPECT_EQ(Ask(GetParam()), SVCMGR_ERROR_NOT_CONNECTED);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsInfo(kEntryFile, GetParam().name, "not initialized")));
}

TEST_P(AQuery, FailsWhenConnectedWithoutAProxy) {
  connection::StandWithoutProxy();
  EXPECT_EQ(Ask(GetParam()), GetParam().failure);
  ExpectFailureBehind({IsError(kContextFile, GetParam().method, "Not connected")});
  ExpectOutputsUntouched();
}

TEST_P(AQuery, SendsItsNumberAloneAndReadsTheAnswer) {
  connection::Stand();
  fake::QueueReply({GetParam().answer});
  EXPECT_EQ(Ask(GetParam()), SVCMGR_ERROR_NONE);
  ASSERT_THAT(fake::SentParcels(), SizeIs(1));
  EXPECT_EQ(fake::SentParcels().front().items, fake::Items{GetParam().number});
  EXPECT_EQ(fake::SentParcels().front().Hex(),
            "0" + std::to_string(GetParam().number) + " 00 00 00");
  EXPECT_THAT(fake::Logs(), IsEmpty());
  EXPECT_EQ(fake::CountCalls("package_info_create"), 1U);
}

TEST_P(AQuery, WaitsForTheReplyBehindStrayMessages) {
  connection::Stand();
  fake::QueueStray(1, {7, "stray"});
  fake::QueueStray(-1);
  fake::QueueReply({GetParam().answer});
  EXPECT_EQ(Ask(GetParam()), SVCMGR_ERROR_NONE);
  EXPECT_EQ(fake::WaitingMessages(), 0U);
}

TEST_P(AQuery, FailsWhenItCannotBeSent) {
  connection::Stand();
  fake::Next("rpc_port_parcel_send", fake::Fail(-32));
  fake::QueueReply({GetParam().answer});
  EXPECT_EQ(Ask(GetParam()), GetParam().failure);
  ExpectFailureBehind({IsProxyError(GetParam().method, "Failed to send parcel. result(-32)"),
                       IsError(kContextFile, GetParam().method, "PROXY EXCEPTION!!!")});
  EXPECT_EQ(fake::WaitingMessages(), 1U);
  ExpectOutputsUntouched();
}

TEST_P(AQuery, FailsWhenNoReplyComes) {
  connection::Stand();
  EXPECT_EQ(Ask(GetParam()), GetParam().failure);
  ExpectFailureBehind({IsProxyError(GetParam().method, "Invalid protocol"),
                       IsError(kContextFile, GetParam().method, "PROXY EXCEPTION!!!")});
  ExpectOutputsUntouched();
}

TEST_P(AQuery, FailsWhenTheReplyCannotBeRead) {
  connection::Stand();
  for (const fake::Item& unreadable : {fake::Unreadable(), fake::UnreadableWithGarbage()}) {
    fake::ClearRecord();
    fake::QueueReply({unreadable});
    EXPECT_EQ(Ask(GetParam()), GetParam().failure);
    ExpectFailureBehind({IsProxyError(GetParam().method, "Invalid protocol"),
                         IsError(kContextFile, GetParam().method, "PROXY EXCEPTION!!!")});
  }
  ExpectOutputsUntouched();
}

TEST_P(AQuery, FailsWhenItsParcelCannotBeMade) {
  connection::Stand();
  for (const char* function : {"rpc_port_parcel_create", "rpc_port_parcel_write_int32"}) {
    fake::ClearRecord();
    fake::Next(function, fake::Fail(-12));
    EXPECT_EQ(Ask(GetParam()), GetParam().failure);
    ExpectFailureBehind({IsError(kContextFile, GetParam().method, "PROXY EXCEPTION!!!")});
  }
  EXPECT_EQ(fake::CountCalls("rpc_port_parcel_send"), 0U);
  ExpectOutputsUntouched();
}

TEST_P(AQuery, WorksAgainAfterAFailure) {
  connection::Stand();
  fake::Next("rpc_port_parcel_send", fake::Throw(std::runtime_error("thrown")));
  EXPECT_EQ(Ask(GetParam()), GetParam().failure);
  fake::QueueReply({GetParam().answer});
  EXPECT_EQ(Ask(GetParam()), SVCMGR_ERROR_NONE);
  EXPECT_THAT(fake::SentParcels(), SizeIs(1));
}

TEST_P(AQuery, ReturnsItsFailureCodeWhenTheLookUpThrows) {
  connection::Stand();
  fake::Next("package_info_create", fake::Throw(std::runtime_error("thrown")));
  EXPECT_EQ(Ask(GetParam()), GetParam().exception_code);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsError(kEntryFile, GetParam().name, "Unknown Exception")));
  ExpectOutputsUntouched();
}

// ---- Each kind of exception ---------------------------------------------------------------------

namespace rpc = rpc_port::SvcMgrAppProxy::proxy;

struct Thrown {
  std::string name;
  fake::Step (*step)();
  const char* message;
};

void PrintTo(const Thrown& thrown, std::ostream* out) { *out << thrown.name; }

template <typename T>
Thrown Row(const char* name, const char* message) {
  return {name, [] { return fake::Throw(T()); }, message};
}

struct Unnamed {};

struct AnExceptionInAQuery : AgentInfo, ::testing::WithParamInterface<std::tuple<Query, Thrown>> {};

INSTANTIATE_TEST_SUITE_P(
    Of, AnExceptionInAQuery,
    ::testing::Combine(
        ::testing::Values(kLicenseQuery, kLevelQuery),
        ::testing::Values(
            Row<AppInfoException>("AppInfo", "Failed to get app info."),
            Row<rpc::Exception>("TheProxysRoot", "PROXY EXCEPTION!!!"),
            Row<rpc::NotConnectedSocketException>("NotConnected", "PROXY EXCEPTION!!!"),
            Row<rpc::InvalidProtocolException>("InvalidProtocol", "PROXY EXCEPTION!!!"),
            Row<rpc::InvalidIOException>("InvalidIO", "PROXY EXCEPTION!!!"),
            Row<rpc::PermissionDeniedException>("PermissionDenied", "PROXY EXCEPTION!!!"),
            Row<rpc::InvalidIDException>("InvalidID", "PROXY EXCEPTION!!!"),
            Row<SvcmgrException>("TheClientsBase", "Unknown Exception"),
            Row<std::bad_alloc>("OutOfMemory", "Unknown Exception"),
            Row<std::exception>("AStandardOne", "Unknown Exception"),
            Row<Unnamed>("AnUnknownClass", "Unknown Exception"),
            Row<int>("ANumber", "Unknown Exception"))),
    [](const auto& row) {
      return std::get<0>(row.param).method + "_" + std::get<1>(row.param).name;
    });

TEST_P(AnExceptionInAQuery, IsLoggedByTheContextAndFailsTheQuery) {
  const auto& [query, thrown] = GetParam();
  connection::Stand();
  fake::Next("rpc_port_parcel_send", thrown.step());
  EXPECT_EQ(Ask(query), query.failure);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsError(kContextFile, query.method, thrown.message),
                                        IsInfo(kEntryFile, query.name, query.no_answer)));
  ExpectOutputsUntouched();
}

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
  bool happened = false;
  int result = -1;
  {
    const fake::FailingAllocation failing(fake::Allocator::kStrdup);
    result = velmora_svcmgr_get_license_fulltext(&text);
    happened = failing.Happened();
  }
  EXPECT_TRUE(happened);
  EXPECT_EQ(result, SVCMGR_ERROR_NONE);
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
