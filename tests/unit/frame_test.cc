// SPDX-License-Identifier: Apache-2.0
// The frame of every exported function: availability, agent level, arguments, connection, guard.

#include <cstdlib>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "client.h"

namespace {

using client::Connection;
using client::Models;
using fake::IsError;
using fake::IsInfo;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

/* Error codes. */

struct Code {
  const char* name;
  int value;
  std::uint32_t hex;
  int decimal;
};

void PrintTo(const Code& code, std::ostream* out) { *out << code.name; }

class ErrorCode : public testing::TestWithParam<Code> {};

TEST_P(ErrorCode, HasItsFixedValue) {
  EXPECT_EQ(GetParam().value, GetParam().decimal);
  EXPECT_EQ(static_cast<std::uint32_t>(GetParam().value), GetParam().hex);
}

#define CODE(name, hex, decimal) \
  Code { #name, name, hex, decimal }
INSTANTIATE_TEST_SUITE_P(
    Table, ErrorCode,
    testing::Values(CODE(SVCMGR_ERROR_NONE, 0x00000000, 0),
                    CODE(SVCMGR_ERROR_CONNECTION_FAILED, 0xFFFFFFFF, -1),
                    CODE(SVCMGR_ERROR_IO_ERROR, 0xFFFFFFFB, -5),
                    CODE(SVCMGR_ERROR_OUT_OF_MEMORY, 0xFFFFFFF4, -12),
                    CODE(SVCMGR_ERROR_PERMISSION_DENIED, 0xFFFFFFF3, -13),
                    CODE(SVCMGR_ERROR_INVALID_PARAMETER, 0xFFFFFFEA, -22),
                    CODE(SVCMGR_ERROR_INVALID_OPERATION, 0xFFFFFFDA, -38),
                    CODE(SVCMGR_ERROR_ALREADY_CONNECTED, 0xFFFFFF96, -106),
                    CODE(SVCMGR_ERROR_NOT_CONNECTED, 0xFFFFFF95, -107),
                    CODE(SVCMGR_ERROR_NOT_SUPPORTED, 0xC0000002, -1073741822),
                    CODE(SVCMGR_ERROR_INVALID_API_LEVEL, 0xBFFFFFFF, -1073741825),
                    CODE(SVCMGR_ERROR_KYR_DISABLED, 0xBFFFFFFE, -1073741826),
                    CODE(SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION, 0xBFFFFFFD, -1073741827),
                    CODE(SVCMGR_ERROR_OUT_OF_INDEX, 0xBFFFFFFA, -1073741830),
                    CODE(SVCMGR_ERROR_NO_SPACE, 0xFFFFFFE4, -28),
                    CODE(SVCMGR_ERROR_AGENT_CODE_3, 0xBFFFFFF9, -1073741831),
                    CODE(SVCMGR_ERROR_AGENT_CODE_6, 0xBFFFFFFB, -1073741829)),
    [](const auto& row) { return std::string(row.param.name); });
#undef CODE

/* Availability. */

constexpr char kInfoFile[] = "service_model_info.cc";
constexpr char kListFile[] = "service_model_list.cc";
constexpr char kRequestFile[] = "service_request.cc";
constexpr char kAgentListFile[] = "service_agent_list.cc";
constexpr char kProgressFile[] = "service_progress.cc";
constexpr char kStatusFile[] = "service_status_cb.cc";

/** An exported function, called with null wherever it takes a pointer. */
struct Function {
  const char* name;
  const char* file;
  const char* entry;  // the record that comes before all checks; null if there is none
  std::function<int()> call;
  int failure = SVCMGR_ERROR_INVALID_OPERATION;  // what an exception inside becomes
};

void PrintTo(const Function& function, std::ostream* out) { *out << function.name; }

#define EXPORTED(name, file, entry, ...)                 \
  Function {                                             \
#name, file, entry, [] { return name(__VA_ARGS__); } \
  }

std::vector<Function> ExportedFunctions() {
  std::vector<Function> functions = {
      EXPORTED(velmora_svcmgr_connect, client::kClientFile, nullptr, nullptr, nullptr),
      {"velmora_svcmgr_disconnect", client::kClientFile, nullptr, velmora_svcmgr_disconnect},
      EXPORTED(velmora_svcmgr_get_license_fulltext, client::kClientFile, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_model_info_create, kInfoFile,
               "velmora_svcmgr_ai_model_info_create", nullptr),
      EXPORTED(velmora_svcmgr_ai_model_info_destroy, kInfoFile,
               "velmora_svcmgr_ai_model_info_destroy", nullptr),
      EXPORTED(velmora_svcmgr_ai_model_info_get_id, kInfoFile, nullptr, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_model_info_get_version, kInfoFile, nullptr, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_model_info_get_title, kInfoFile, nullptr, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_model_info_get_description, kInfoFile, nullptr, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_model_info_set_id, kInfoFile, nullptr, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_model_info_set_version, kInfoFile, nullptr, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_model_info_set_title, kInfoFile, nullptr, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_model_info_set_description, kInfoFile, nullptr, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_model_list_create, kListFile,
               "velmora_svcmgr_ai_model_list_create", nullptr),
      EXPORTED(velmora_svcmgr_ai_model_list_destroy, kListFile,
               "velmora_svcmgr_ai_model_list_destroy", nullptr),
      EXPORTED(velmora_svcmgr_ai_model_list_add, kListFile, nullptr, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_model_list_get, kListFile, nullptr, nullptr, 0, nullptr),
      EXPORTED(velmora_svcmgr_ai_model_list_get_size, kListFile, nullptr, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_request_usable_model_list, kRequestFile,
               "__ velmora_svcmgr_ai_request_usable_model_list __", nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_request_usable_model_list_with_description, kRequestFile,
               "__ velmora_svcmgr_ai_request_usable_model_list_with_description __", nullptr,
               nullptr),
      EXPORTED(velmora_svcmgr_ai_request_usable_model_list_with_category, kRequestFile,
               "__ velmora_svcmgr_ai_request_usable_model_list_with_category __", nullptr, nullptr,
               nullptr),
      EXPORTED(velmora_svcmgr_ai_request_model_version_list, kRequestFile,
               "__ velmora_svcmgr_ai_request_usable_model_list __", nullptr, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_get_client_api_level, client::kClientFile, nullptr, nullptr),
      {"velmora_svcmgr_request_update", client::kClientFile, nullptr,
       velmora_svcmgr_request_update},
      EXPORTED(velmora_svcmgr_request_update_with_list, client::kClientFile, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_is_being_updated, client::kClientFile, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_set_update_status_cb, client::kClientFile, nullptr, nullptr, nullptr),
      {"velmora_svcmgr_unset_update_status_cb", client::kClientFile, nullptr,
       velmora_svcmgr_unset_update_status_cb},
      EXPORTED(velmora_svcmgr_agent_list_create, kAgentListFile, "velmora_svcmgr_agent_list_create",
               nullptr),
      EXPORTED(velmora_svcmgr_agent_list_destroy, kAgentListFile,
               "velmora_svcmgr_agent_list_destroy", nullptr),
      EXPORTED(velmora_svcmgr_agent_list_add, kAgentListFile, nullptr, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_agent_list_get, kAgentListFile, nullptr, nullptr, 0, nullptr),
      EXPORTED(velmora_svcmgr_agent_list_get_size, kAgentListFile, nullptr, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_progress_create, kProgressFile, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_progress_destroy, kProgressFile, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_progress_get_percentage, kProgressFile, nullptr, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_progress_get_count, kProgressFile, nullptr, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_progress_get_index, kProgressFile, nullptr, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_progress_get_state, kProgressFile, nullptr, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_progress_set_percentage, kProgressFile, nullptr, nullptr, 0),
      EXPORTED(velmora_svcmgr_ai_progress_set_count, kProgressFile, nullptr, nullptr, 0),
      EXPORTED(velmora_svcmgr_ai_progress_set_index, kProgressFile, nullptr, nullptr, 0),
      EXPORTED(velmora_svcmgr_ai_progress_set_state, kProgressFile, nullptr, nullptr, 0),
      EXPORTED(velmora_svcmgr_ai_request_to_update, kRequestFile,
               "__ velmora_svcmgr_ai_request_to_update __", nullptr, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_request_to_uninstall, kRequestFile,
               "__ velmora_svcmgr_ai_request_to_uninstall __", nullptr, nullptr, nullptr),
      EXPORTED(velmora_svcmgr_ai_register_status_cb, kStatusFile,
               "__ velmora_svcmgr_ai_register_status_cb __", nullptr, nullptr),
      {"velmora_svcmgr_ai_deregister_status_cb", kStatusFile,
       "__ velmora_svcmgr_ai_deregister_status_cb __", velmora_svcmgr_ai_deregister_status_cb},
  };
  Function level =
      EXPORTED(velmora_svcmgr_get_agent_api_level, client::kClientFile, nullptr, nullptr);
  level.failure = SVCMGR_ERROR_INVALID_API_LEVEL;
  functions.push_back(level);
  return functions;
}
#undef EXPORTED

class ExportedFunction : public fake::PlatformTest, public testing::WithParamInterface<Function> {
 protected:
  static int Call() { return GetParam().call(); }

  /** The records behind the entry record, which is held against the table. */
  static std::vector<fake::LogRecord> RecordsBehindEntry() {
    auto records = client::Logs();
    if (GetParam().entry == nullptr) return records;
    if (records.empty()) {
      ADD_FAILURE() << "no entry record";
      return records;
    }
    EXPECT_THAT(records.front(), IsInfo(GetParam().file, GetParam().name, GetParam().entry));
    records.erase(records.begin());
    return records;
  }
};

INSTANTIATE_TEST_SUITE_P(All, ExportedFunction, testing::ValuesIn(ExportedFunctions()),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(ExportedFunction, ReturnsNotSupportedBeforeAllElseWhenTheAgentIsMissing) {
  fake::RemoveAgent();
  EXPECT_EQ(Call(), client::kNotSupported);
  EXPECT_THAT(RecordsBehindEntry(),
              ElementsAre(IsError(GetParam().file, GetParam().name, "Not supported")));
  EXPECT_THAT(fake::CallNames(), ElementsAre("package_info_create"));
}

TEST_P(ExportedFunction, AsksForTheAgentsPackageAndReleasesItAtOnce) {
  Call();
  const auto calls = fake::Calls();
  ASSERT_GE(calls.size(), 2U);
  EXPECT_EQ(calls[0].Text(), "package_info_create(\"" AGENT_PACKAGE_ID "\")");
  EXPECT_EQ(calls[1].Text(), "package_info_destroy(package info#1)");
}

TEST_P(ExportedFunction, GoesOnWhenTheLookUpFailsOtherwise) {
  for (const int code : {-1, -5, -13, -22, -38, 1, fake::kNoSuchPackage + 1,
                         fake::kNoSuchPackage - 1, 0x7EEB0071, 0x0EEB0071}) {
    fake::Next("package_info_create", fake::Fail(code));
    EXPECT_NE(Call(), client::kNotSupported) << code;
  }
}

TEST_P(ExportedFunction, ReleasesAPackageInfoThatCameWithAnyResult) {
  fake::Next("package_info_create", fake::FailAfterWork(-5));
  EXPECT_NE(Call(), client::kNotSupported);
  fake::Next("package_info_create", fake::FailAfterWork(fake::kNoSuchPackage));
  EXPECT_EQ(Call(), client::kNotSupported);
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kPackageInfo), 0);
}

TEST_P(ExportedFunction, ReleasesWhateverAFailingLookUpLeaves) {
  fake::Next("package_info_create", fake::FailWithGarbage(fake::kNoSuchPackage));
  EXPECT_EQ(Call(), client::kNotSupported);
  EXPECT_THAT(fake::CallNames(), ElementsAre("package_info_create", "package_info_destroy"));
}

TEST_P(ExportedFunction, ReleasesNothingWhenTheLookUpYieldsNull) {
  fake::Next("package_info_create", fake::FailWithNull(fake::kNoSuchPackage));
  EXPECT_EQ(Call(), client::kNotSupported);
  fake::Next("package_info_create", fake::SucceedWithNull());
  EXPECT_NE(Call(), client::kNotSupported);
  EXPECT_EQ(fake::CountCalls("package_info_create"), fake::CountCalls("package_info_destroy") + 2);
}

TEST_P(ExportedFunction, IgnoresTheResultOfReleasing) {
  fake::Next("package_info_destroy", fake::FailAfterWork(fake::kNoSuchPackage));
  EXPECT_NE(Call(), client::kNotSupported);
}

TEST_P(ExportedFunction, LetsNoExceptionOut) {
  fake::Next("package_info_create", fake::Throw(std::bad_alloc()));
  EXPECT_EQ(Call(), GetParam().failure);
  fake::Next("package_info_create", fake::Throw(std::runtime_error("platform")));
  EXPECT_EQ(Call(), GetParam().failure);
  fake::Next("package_info_create", fake::Throw(7));
  EXPECT_EQ(Call(), GetParam().failure);
  EXPECT_THAT(
      client::Logs(),
      testing::Contains(IsError(GetParam().file, GetParam().name, "Unknown Exception")).Times(3));
}

TEST(TheFrame, WritesItsRecordsInTheClientsColours) {
  fake::Reset();
  EXPECT_EQ(velmora_svcmgr_connect(nullptr, nullptr), -22);
  int level = 0;
  EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), -107);
  ASSERT_THAT(fake::Logs(), SizeIs(2));
  const auto error = fake::Logs()[0];
  EXPECT_EQ(error.priority, 6);
  EXPECT_EQ(error.tag, "SERVICE_MANAGER_CLIENT");
  EXPECT_EQ(error.text, "\033[0;31m velmora_svcmgr.cc: velmora_svcmgr_connect(" +
                            std::to_string(error.line) + ") > parameter is NULL!!\033[0;m");
  const auto info = fake::Logs()[1];
  EXPECT_EQ(info.priority, 4);
  EXPECT_EQ(info.text, "\033[0;32m velmora_svcmgr.cc: velmora_svcmgr_get_agent_api_level(" +
                           std::to_string(info.line) + ") > not initialized\033[0;m");
  fake::Verify();
}

/* Agent level: what the minimum-8 and the minimum-11 functions make of it. */

struct Version {
  const char* text;
  int level;
};

void PrintTo(const Version& version, std::ostream* out) {
  *out << '"' << version.text << "\" is level " << version.level;
}

/** The level as two functions with a null callback show it: only enough of it shows the null. */
int ObservedLevel() {
  const int models = velmora_svcmgr_ai_request_usable_model_list(nullptr, nullptr);
  const int categories =
      velmora_svcmgr_ai_request_usable_model_list_with_category(nullptr, "category", nullptr);
  EXPECT_THAT(models, AnyOf(SVCMGR_ERROR_INVALID_PARAMETER, client::kUnsupportedAgentVersion));
  EXPECT_THAT(categories, AnyOf(SVCMGR_ERROR_INVALID_PARAMETER, client::kUnsupportedAgentVersion));
  if (categories == SVCMGR_ERROR_INVALID_PARAMETER) {
    EXPECT_EQ(models, SVCMGR_ERROR_INVALID_PARAMETER);
    return 11;
  }
  return models == SVCMGR_ERROR_INVALID_PARAMETER ? 8 : -1;
}

class AgentLevel : public fake::PlatformTest, public testing::WithParamInterface<Version> {};

TEST_P(AgentLevel, FollowsFromTheInstalledVersion) {
  fake::InstallAgent(GetParam().text);
  EXPECT_EQ(ObservedLevel(), GetParam().level);
}

INSTANTIATE_TEST_SUITE_P(
    Table, AgentLevel,
    testing::Values(Version{"1.6.9", -1}, Version{"1.6.99999", -1}, Version{"1.7.0", 8},
                    Version{"1.7", 8}, Version{"2.2.99", 8}, Version{"2.2", 8}, Version{"2", 8},
                    Version{"2.3", 11}, Version{"2.3.0", 11}, Version{"2.3.182", 11},
                    Version{"10", 11}, Version{"3.0.0", 11}, Version{"1", -1}, Version{"0", -1},
                    Version{"", -1}, Version{"abc", -1}, Version{"v2.3", -1},
                    Version{"2.3beta", 11}, Version{"2,3", 8}, Version{"2.x.3", 8},
                    Version{" 2.3", 11}, Version{"2. 3", 11}, Version{"2 .3", 8},
                    Version{"+2.+3", 11}, Version{"0x2.3", -1}, Version{"2..3", 8},
                    Version{".3", -1}));

INSTANTIATE_TEST_SUITE_P(Limits, AgentLevel,
                         testing::Values(Version{"0.10006", -1}, Version{"0.10007", 8},
                                         Version{"0.20002", 8}, Version{"0.20003", 11},
                                         Version{"1.10003", 11}, Version{"-1.40000", 11},
                                         Version{"2.-1", 8}, Version{"3.-9998", 8}));

INSTANTIATE_TEST_SUITE_P(NumbersBeyondInt, AgentLevel,
                         testing::Values(Version{"2147483647.0", 11}, Version{"2147483648.0", 11},
                                         Version{"4294967296.0", 11}, Version{"214748.40000", 11},
                                         Version{"999999999999.0", 11},
                                         Version{"99999999999999999999.0", 11},
                                         Version{"-99999999999999999999.0", -1},
                                         Version{"-2147483649.0", -1}, Version{"1.4294967296", 11},
                                         Version{"2.-4294967296", -1}));

class TheAgentLevelCheck : public fake::PlatformTest {};

TEST_F(TheAgentLevelCheck, RefusesWithoutARecord) {
  fake::InstallAgent("1.6.9");
  EXPECT_EQ(velmora_svcmgr_ai_request_usable_model_list(Models::Callback, nullptr),
            client::kUnsupportedAgentVersion);
  EXPECT_THAT(client::Logs(),
              ElementsAre(IsInfo(kRequestFile, "velmora_svcmgr_ai_request_usable_model_list",
                                 "__ velmora_svcmgr_ai_request_usable_model_list __")));
}

TEST_F(TheAgentLevelCheck, ComesAfterAvailabilityAndBeforeTheArguments) {
  fake::InstallAgent("1.6.9");
  EXPECT_EQ(velmora_svcmgr_ai_request_usable_model_list(nullptr, nullptr),
            client::kUnsupportedAgentVersion);
  fake::RemoveAgent();
  EXPECT_EQ(velmora_svcmgr_ai_request_usable_model_list(nullptr, nullptr), client::kNotSupported);
}

TEST_F(TheAgentLevelCheck, ReadsTheVersionBetweenCreatingAndReleasingThePackageInfo) {
  velmora_svcmgr_ai_request_usable_model_list(nullptr, nullptr);
  EXPECT_THAT(fake::Trace(),
              ElementsAre(testing::HasSubstr("__ velmora_svcmgr_ai_request_usable_model_list __"),
                          "package_info_create(\"" AGENT_PACKAGE_ID "\")",
                          "package_info_destroy(package info#1)",
                          "package_info_create(\"" AGENT_PACKAGE_ID "\")",
                          "package_info_get_version(package info#2)",
                          "package_info_destroy(package info#2)",
                          testing::HasSubstr("parameter is NULL!!")));
}

/** How the level's own look-up, the second one, may fail. */
struct LookUp {
  const char* name;
  const char* function;
  int nth;
  fake::Step step;
};

void PrintTo(const LookUp& row, std::ostream* out) { *out << row.name; }

class AFailingLevelLookUp : public fake::PlatformTest,
                            public testing::WithParamInterface<LookUp> {};

TEST_P(AFailingLevelLookUp, IsNoLevelAtAll) {
  fake::AtCall(GetParam().function, GetParam().nth, GetParam().step);
  EXPECT_EQ(velmora_svcmgr_ai_request_usable_model_list(Models::Callback, nullptr),
            client::kUnsupportedAgentVersion);
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kPackageInfo), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, AFailingLevelLookUp,
    testing::Values(
        LookUp{"CreateFails", "package_info_create", 2, fake::Fail(-5)},
        LookUp{"CreateFailsWithNoSuchPackage", "package_info_create", 2,
               fake::Fail(fake::kNoSuchPackage)},
        LookUp{"CreateFailsWithAHandle", "package_info_create", 2, fake::FailAfterWork(-5)},
        LookUp{"CreateFailsWithGarbage", "package_info_create", 2, fake::FailWithGarbage(-5)},
        LookUp{"CreateYieldsNull", "package_info_create", 2, fake::SucceedWithNull()},
        LookUp{"VersionFails", "package_info_get_version", 1, fake::Fail(-5)},
        LookUp{"VersionFailsWithGarbage", "package_info_get_version", 1, fake::FailWithGarbage(-5)},
        LookUp{"VersionIsNull", "package_info_get_version", 1, fake::SucceedWithNull()}),
    [](const auto& row) { return std::string(row.param.name); });

/* Arguments and connection. */

class TheArgumentCheck : public fake::PlatformTest {};

TEST_F(TheArgumentCheck, ComesBeforeTheConnectionCheck) {
  EXPECT_EQ(velmora_svcmgr_get_license_fulltext(nullptr), -22);
  EXPECT_EQ(velmora_svcmgr_get_agent_api_level(nullptr), -22);
  EXPECT_THAT(client::Logs(),
              ElementsAre(IsError(client::kClientFile, "velmora_svcmgr_get_license_fulltext",
                                  "parameter is NULL!!"),
                          IsError(client::kClientFile, "velmora_svcmgr_get_agent_api_level",
                                  "parameter is NULL!!")));
}

class TheConnectionCheck : public fake::PlatformTest {};

TEST_F(TheConnectionCheck, WritesAnInfoRecordBeforeTheFirstConnect) {
  char* text = nullptr;
  int level = 5;
  EXPECT_EQ(velmora_svcmgr_get_license_fulltext(&text), -107);
  EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), -107);
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(level, 5);
  EXPECT_THAT(
      client::Logs(),
      ElementsAre(
          IsInfo(client::kClientFile, "velmora_svcmgr_get_license_fulltext", "not initialized"),
          IsInfo(client::kClientFile, "velmora_svcmgr_get_agent_api_level", "not initialized")));
  EXPECT_THAT(fake::CallNames("rpc_port_"), IsEmpty());
}

TEST_F(TheConnectionCheck, WantsTheConnectedEventNotTheAttempt) {
  Connection connection;
  ASSERT_EQ(connection.Connect(), 0);
  int level = 5;
  EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), -107);
  EXPECT_THAT(fake::CallNames("rpc_port_parcel"), IsEmpty());
  fake::AllowHeldConnection();
}

/* The guard. */

class TheGuard : public client::ConnectedTest {
 protected:
  static void ExpectAnswered() {
    fake::QueueReply({8});
    int level = 0;
    EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), 0);
    EXPECT_EQ(level, 8);
  }
};

TEST_F(TheGuard, LogsAProxyExceptionUnderTheContextsMember) {
  fake::Next("rpc_port_parcel_send", fake::Fail(-5));
  int level = 5;
  EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), client::kInvalidApiLevel);
  EXPECT_EQ(level, 5);
  EXPECT_THAT(
      client::Logs(),
      ElementsAre(
          fake::IsProxyError("get_agent_api_level", "Failed to send parcel. result(-5)"),
          IsError(client::kHandlerFile, "get_agent_api_level", "PROXY EXCEPTION!!!"),
          IsInfo(client::kClientFile, "velmora_svcmgr_get_agent_api_level", "invalid api level")));
  ExpectAnswered();
}

TEST_F(TheGuard, LogsAnythingElseAsUnknown) {
  fake::Next("rpc_port_parcel_create", fake::Throw(std::runtime_error("platform")));
  int level = 5;
  EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), client::kInvalidApiLevel);
  EXPECT_THAT(client::Logs(),
              ElementsAre(IsError(client::kHandlerFile, "get_agent_api_level", "Unknown Exception"),
                          IsInfo(client::kClientFile, "velmora_svcmgr_get_agent_api_level",
                                 "invalid api level")));
  ExpectAnswered();
}

TEST_F(TheGuard, ReleasesTheLockBeforeItsRecord) {
  int answered = -1;
  fake::OnLog([&](const fake::LogRecord& record) {
    if (record.message != "PROXY EXCEPTION!!!") return;
    std::thread([&] {
      fake::QueueReply({8});
      velmora_svcmgr_get_agent_api_level(&answered);
    }).join();
  });
  fake::Next("rpc_port_parcel_send", fake::Fail(-5));
  int level = 0;
  EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), client::kInvalidApiLevel);
  EXPECT_EQ(answered, 8);
}

TEST_F(TheGuard, ReleasesParcelsWhateverCallThrows) {
  for (const char* const function :
       {"rpc_port_parcel_create", "rpc_port_parcel_write_int32", "rpc_port_parcel_send",
        "rpc_port_parcel_create_from_port", "rpc_port_parcel_read_int32"}) {
    fake::QueueReply({8});
    fake::Next(function, fake::Throw(std::runtime_error("platform")));
    int level = 0;
    EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), client::kInvalidApiLevel) << function;
    EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0) << function;
  }
}

}  // namespace
