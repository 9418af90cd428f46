// SPDX-License-Identifier: Apache-2.0
// What the exported functions' checks share: records, the agent's level, the guard around the work.

#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "client.h"

namespace {

using client::Models;
using testing::AnyOf;
using testing::SizeIs;

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

/* The level of the agent follows from its installed version. */

struct Level {
  int level;
  std::vector<std::string> versions;
};

void PrintTo(const Level& level, std::ostream* out) { *out << level.level; }

/** The level as two functions show it: only if it is high enough do they see a null callback. */
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

class AgentLevel : public fake::PlatformTest, public testing::WithParamInterface<Level> {};

TEST_P(AgentLevel, FollowsFromTheInstalledVersion) {
  for (const std::string& version : GetParam().versions) {
    fake::InstallAgent(version);
    EXPECT_EQ(ObservedLevel(), GetParam().level) << '"' << version << '"';
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, AgentLevel,
    testing::Values(Level{-1, {"1.6.9", "1.6.99999", "1", "0", "0.0.0"}},
                    Level{8, {"1.7.0", "1.7", "2.2.99", "2.2", "2", "2."}},
                    Level{11, {"2.3", "2.3.0", "2.3.182", "2.10", "10", "3", "3.0.0", "002.003"}},
                    // Just below a limit, and at it.
                    Level{-1, {"0.10006"}},
                    Level{8, {"0.10007", "0.20002", "1.10002", "2.-1", "3.-9998"}},
                    Level{11, {"0.20003", "1.10003", "-1.40000"}},
                    // What else the text may hold.
                    Level{-1, {"", "abc", "v2.3", ".3", "0x2.3", "-2.3"}},
                    Level{8, {"2,3", "2.x.3", "2 .3", "2..3"}},
                    Level{11, {"2.3beta", "  2.3", "2. 3", "+2.+3"}},
                    // Numbers beyond int, and beyond every type.
                    Level{-1,
                          {"-2147483649.0", "-99999999999999999999.0", "2.-4294967296",
                           "2.-99999999999999999999"}},
                    Level{11,
                          {"2147483647.0", "2147483648.0", "4294967296.0", "4294967297.0",
                           "214749.0", "429497.0", "214748.40000", "999999999999.0",
                           "99999999999999999999.0", "1.4294967296", "1.99999999999999999999",
                           "2.3.99999999999999999999", std::string(4000, '9')}}));

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

constexpr char kCreate[] = "package_info_create";
constexpr char kVersion[] = "package_info_get_version";

INSTANTIATE_TEST_SUITE_P(
    Shapes, AFailingLevelLookUp,
    testing::Values(LookUp{"CreateFails", kCreate, 2, fake::Fail(-5)},
                    LookUp{"CreateFailsWithNoSuchPackage", kCreate, 2,
                           fake::Fail(fake::kNoSuchPackage)},
                    LookUp{"CreateFailsWithAHandle", kCreate, 2, fake::FailAfterWork(-5)},
                    LookUp{"CreateFailsWithGarbage", kCreate, 2, fake::FailWithGarbage(-5)},
                    LookUp{"CreateFailsWithNull", kCreate, 2, fake::FailWithNull(-13)},
                    LookUp{"CreateYieldsNull", kCreate, 2, fake::SucceedWithNull()},
                    LookUp{"VersionFails", kVersion, 1, fake::Fail(-5)},
                    LookUp{"VersionFailsWithGarbage", kVersion, 1, fake::FailWithGarbage(-5)},
                    LookUp{"VersionFailsWithNull", kVersion, 1, fake::FailWithNull(-22)},
                    LookUp{"VersionIsNull", kVersion, 1, fake::SucceedWithNull()}),
    [](const auto& row) { return std::string(row.param.name); });

/* The guard. */

using TheGuard = client::ConnectedTest;

TEST_F(TheGuard, ReleasesTheLockBeforeItsRecord) {
  int answered = -1;
  bool asks = true;
  fake::OnLog([&](const fake::LogRecord& record) {
    if (record.message != "PROXY EXCEPTION!!!" || !std::exchange(asks, false)) return;
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
