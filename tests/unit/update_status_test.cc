// SPDX-License-Identifier: Apache-2.0
// What an application hears of an update of the agents.

#include <UpdateStatusEventHandler.h>

#include <climits>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "client.h"
#include "event_support.h"

namespace {

using events::AnnounceComplete;
using events::AnnounceFailure;
using events::AnnounceStart;
using events::kUpdateStatus;
using fake::BundleBuilder;
using fake::IsError;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kHandler[] = "UpdateStatusEventHandler.cc";
constexpr char kAppId[] = "org.example.app";

class AnUpdateStatus : public events::AReceived<events::Statuses> {
 protected:
  static int AnnounceOwnResult(int result) {
    return fake::FireEvent(kUpdateStatus, BundleBuilder().Int(kAppId, result));
  }

  /** The calls without the bundle's name: "bundle_get_str Complete". */
  static std::vector<std::string> Lookups() {
    std::vector<std::string> lookups;
    for (const fake::Call& call : fake::Calls()) {
      const std::size_t quote = call.arguments.find('"');
      const bool keyed = quote != std::string::npos;
      lookups.push_back(call.name + (keyed ? " " + call.arguments.substr(quote) : ""));
    }
    return lookups;
  }

  /** Nothing is received, and the update state is what it was. */
  void ExpectIgnored(int state = 5) const {
    EXPECT_THAT(statuses.received, IsEmpty());
    EXPECT_EQ(events::State(), state);
  }
};

/* The two tables. */

struct Translation {
  int code;
  int own;      // the status of the application's own result
  int failure;  // the status of a failure of all
};

constexpr Translation kTranslations[] = {
    {0, 1, 6},           {1, 2, 2},    {2, 6, 6},           {3, 3, 3},     {4, 6, 6},
    {5, 6, 6},           {6, 6, 6},    {7, 4, 4},           {8, 6, 6},     {9, 6, 6},
    {10, 5, 5},          {11, 6, 6},   {12, 6, 6},          {13, 7, 7},    {14, 6, 6},
    {15, 6, 6},          {255, 6, 6},  {256, 6, 6},         {65536, 6, 6}, {65537, 6, 6},
    {INT_MAX, 6, 6},     {-1, 6, 6},   {-3, 6, 6},          {-13, 6, 6},   {INT_MIN, 6, 6},
    {INT_MIN + 1, 6, 6}, {-256, 6, 6}, {-1073741826, 6, 6},
};

void PrintTo(const Translation& row, std::ostream* out) { *out << "code " << row.code; }

std::string CodeName(const testing::TestParamInfo<Translation>& info) {
  const std::int64_t code = info.param.code;
  return (code < 0 ? "Minus" : "") + std::to_string(code < 0 ? -code : code);
}

class ACode : public AnUpdateStatus, public testing::WithParamInterface<Translation> {};

TEST_P(ACode, OfTheApplicationOrOfAFailureIsTranslated) {
  for (const bool own : {true, false}) {
    events::Enter(5);
    statuses.received.clear();
    EXPECT_EQ((own ? AnnounceOwnResult : AnnounceFailure)(GetParam().code), 1);
    EXPECT_THAT(statuses.received, ElementsAre(own ? GetParam().own : GetParam().failure));
    EXPECT_EQ(events::State(), 0);
    EXPECT_THAT(fake::Logs(), IsEmpty());
  }
}

INSTANTIATE_TEST_SUITE_P(Each, ACode, testing::ValuesIn(kTranslations), CodeName);

/* Keys and their order. */

TEST_F(AnUpdateStatus, OfAStartNeedsNoElement) {
  fake::FireEvent(kUpdateStatus, BundleBuilder().StrArray("Start", {}));
  EXPECT_THAT(statuses.received, ElementsAre(0));
}

TEST_F(AnUpdateStatus, OfAStartIsATextArrayAndNoText) {
  events::Enter(5);
  fake::FireEvent(kUpdateStatus, BundleBuilder().Str("Start", "").Str("Complete", ""));
  EXPECT_THAT(statuses.received, ElementsAre(1));
}

TEST_F(AnUpdateStatus, IsLookedForInOrder) {
  events::Enter(5);
  fake::FireEvent(kUpdateStatus, BundleBuilder());
  EXPECT_THAT(Lookups(), ElementsAre("bundle_get_str_array \"Start\"", "app_get_id",
                                     "bundle_get_byte \"org.example.app\"",
                                     "bundle_get_str \"Complete\"", "bundle_get_byte \"Fail\""));
  ExpectIgnored();
  EXPECT_THAT(fake::Logs(), IsEmpty());
}

class AMixture : public AnUpdateStatus,
                 public testing::WithParamInterface<std::tuple<bool, bool, bool, bool>> {};

TEST_P(AMixture, CountsByItsFirstKeyAlone) {
  const auto [start, own, complete, fail] = GetParam();
  BundleBuilder data;
  if (fail) data.Int("Fail", 3);
  if (complete) data.Str("Complete", "");
  if (own) data.Int(kAppId, 7);
  if (start) data.StrArray("Start", {""});
  events::Enter(2);
  fake::FireEvent(kUpdateStatus, data);

  const int expected = start ? 0 : own ? 4 : complete ? 1 : fail ? 3 : -1;
  if (expected < 0) {
    ExpectIgnored(2);
  } else {
    EXPECT_THAT(statuses.received, ElementsAre(expected));
    EXPECT_EQ(events::State(), start ? 5 : 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Each, AMixture,
                         testing::Combine(testing::Bool(), testing::Bool(), testing::Bool(),
                                          testing::Bool()));

TEST_F(AnUpdateStatus, OfAnotherApplicationIsNotHeard) {
  events::Enter(5);
  fake::FireEvent(kUpdateStatus, BundleBuilder().Int("org.example.app2", 0).Int("org.example", 0));
  ExpectIgnored();
}

TEST_F(AnUpdateStatus, OfAnApplicationThatIsCalledAsAKeyIsItsOwn) {
  fake::SetApplication({"Complete", "1", "/opt/"});
  events::Enter(5);
  fake::FireEvent(kUpdateStatus, BundleBuilder().Int("Complete", 13));
  EXPECT_THAT(statuses.received, ElementsAre(7));
}

TEST_F(AnUpdateStatus, HoldsKeysOfOtherTypesForNothing) {
  events::Enter(5);
  fake::FireEvent(
      kUpdateStatus,
      BundleBuilder().Int("Start", 0).Str(kAppId, "0").Int("Complete", 0).Str("Fail", ""));
  ExpectIgnored();
}

/* Values of bytes. */

class AShortValue : public AnUpdateStatus, public testing::WithParamInterface<std::size_t> {};

TEST_P(AShortValue, CountsAsAbsent) {
  const unsigned char bytes[4] = {};
  events::Enter(5);
  fake::FireEvent(
      kUpdateStatus,
      BundleBuilder().Bytes(kAppId, bytes, GetParam()).Bytes("Fail", bytes, GetParam()));
  ExpectIgnored();
}

TEST_P(AShortValue, LetsTheNextKeyCount) {
  const unsigned char bytes[4] = {};
  events::Enter(5);
  fake::FireEvent(kUpdateStatus, BundleBuilder().Bytes(kAppId, bytes, GetParam()).Int("Fail", 10));
  EXPECT_THAT(statuses.received, ElementsAre(5));
}

INSTANTIATE_TEST_SUITE_P(OfEachLength, AShortValue, testing::Range<std::size_t>(0, 4));

TEST_F(AnUpdateStatus, ReadsTheFirstFourBytesOfALongerValue) {
  const unsigned char bytes[7] = {0, 0, 0, 0, 9, 9, 9};
  events::Enter(5);
  fake::FireEvent(kUpdateStatus, BundleBuilder().Bytes(kAppId, bytes, sizeof bytes));
  EXPECT_THAT(statuses.received, ElementsAre(1));
}

TEST_F(AnUpdateStatus, IsNoneWhenTheBundleHandsOutNoBytesOrGarbage) {
  events::Enter(5);
  for (const fake::Step& step : {fake::SucceedWithNull(), fake::FailWithGarbage(-5)}) {
    fake::Always("bundle_get_byte", step);
    AnnounceFailure(1);
    ExpectIgnored();
  }
}

/* The filter by the update state. */

class AnUpdateState : public AnUpdateStatus, public testing::WithParamInterface<int> {
 protected:
  std::vector<int> ExpectedUnlessIdle(int status) const {
    return GetParam() == 0 ? std::vector<int>() : std::vector<int>{status};
  }
};

TEST_P(AnUpdateState, LetsTheApplicationsResultThroughUnlessIdle) {
  events::Enter(GetParam());
  AnnounceOwnResult(0);
  EXPECT_EQ(statuses.received, ExpectedUnlessIdle(1));
  EXPECT_EQ(events::State(), 0);
}

TEST_P(AnUpdateState, IsLeftAloneByAnEventWithoutKeys) {
  events::Enter(GetParam());
  fake::FireEvent(kUpdateStatus, BundleBuilder());
  ExpectIgnored(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Each, AnUpdateState, testing::Range(0, 6));

/* Without a callback: the events of a subscription that the platform did not end. */

TEST_F(AnUpdateStatus, MovesTheStateWithoutACallbackToo) {
  fake::Next(events::kRemove, fake::Fail(-5));
  EXPECT_EQ(velmora_svcmgr_unset_update_status_cb(), 0);
  EXPECT_EQ(AnnounceStart(), 1);
  EXPECT_EQ(events::State(), 5);
  AnnounceComplete();
  EXPECT_EQ(events::State(), 0);
  events::Enter(4);
  AnnounceFailure(3);
  EXPECT_EQ(events::State(), 0);
  events::Enter(1);
  AnnounceOwnResult(3);
  EXPECT_EQ(events::State(), 0);
  EXPECT_THAT(statuses.received, IsEmpty());
}

/* The application's ID. */

struct Identity {
  const char* name;
  fake::Step step;
};

void PrintTo(const Identity& row, std::ostream* out) { *out << row.name; }

class AMissingId : public AnUpdateStatus, public testing::WithParamInterface<Identity> {
 protected:
  void SetUp() override {
    AnUpdateStatus::SetUp();
    events::Enter(5);
    fake::Next("app_get_id", GetParam().step);
  }
};

TEST_P(AMissingId, IsRecordedAndTheCommonKeysCount) {
  AnnounceComplete();
  EXPECT_THAT(statuses.received, ElementsAre(1));
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsError(kHandler, "UpdateEventCallback", "Failed to get app ID.")));
  EXPECT_THAT(Lookups(), ElementsAre("bundle_get_str_array \"Start\"", "app_get_id",
                                     "bundle_get_str \"Complete\""));
}

TEST_P(AMissingId, LetsAFailureCount) {
  AnnounceFailure(13);
  EXPECT_THAT(statuses.received, ElementsAre(7));
}

TEST_P(AMissingId, MakesTheApplicationsResultUnheard) {
  fake::FireEvent(kUpdateStatus, BundleBuilder().Int(kAppId, 0).Int("", 0));
  ExpectIgnored();
}

INSTANTIATE_TEST_SUITE_P(InEachWay, AMissingId,
                         testing::Values(Identity{"Fails", fake::Fail(-5)},
                                         Identity{"FailsWithGarbage", fake::FailWithGarbage(-12)},
                                         Identity{"FailsWithNull", fake::FailWithNull(-22)},
                                         Identity{"IsNull", fake::SucceedWithNull()},
                                         Identity{"IsEmpty", fake::SucceedWithText("")}),
                         [](const auto& row) { return std::string(row.param.name); });

/* Other names. */

class AForeignName : public AnUpdateStatus, public testing::WithParamInterface<const char*> {};

TEST_P(AForeignName, IsIgnored) {
  events::Enter(5);
  BundleBuilder data;
  data.StrArray("Start", {""}).Str("Complete", "").Int("Fail", 1).Int(kAppId, 0);
  fake::FireEventAt(kUpdateStatus, GetParam(), data.get());
  ExpectIgnored();
  EXPECT_THAT(fake::Trace(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Each, AForeignName,
                         testing::Values(nullptr, "", "event." AGENT_PACKAGE_ID,
                                         "event." AGENT_PACKAGE_ID ".update_statu",
                                         "event." AGENT_PACKAGE_ID ".update_status2",
                                         "event." AGENT_PACKAGE_ID ".Update_status",
                                         "event." AGENT_PACKAGE_ID ".agent_status"));

TEST_F(AnUpdateStatus, WithoutDataIsNone) {
  events::Enter(5);
  fake::FireEventAt(kUpdateStatus, kUpdateStatus, nullptr);
  ExpectIgnored();
}

/* Inside the callback. */

TEST_F(AnUpdateStatus, IsReportedBeforeTheStateBecomesIdle) {
  for (const auto& announce :
       {+[] { AnnounceComplete(); }, +[] { AnnounceFailure(1); }, +[] { AnnounceOwnResult(0); }}) {
    int inside = -1;
    events::Enter(5);
    statuses.inside = [&] { inside = events::State(); };
    announce();
    EXPECT_EQ(inside, 5);
    EXPECT_EQ(events::State(), 0);
  }
}

TEST_F(AnUpdateStatus, OfAStartIsReportedWithTheNewState) {
  int inside = -1;
  statuses.inside = [&] { inside = events::State(); };
  AnnounceStart();
  EXPECT_EQ(inside, 5);
}

TEST_F(AnUpdateStatus, OfAnEndLeavesAStateOfTheCallbacksMakingIdle) {
  events::Enter(5);
  statuses.inside = [] { svcmgr::agent_update_state.Request(); };
  AnnounceComplete();
  EXPECT_EQ(events::State(), 0);
}

TEST_F(AnUpdateStatus, MayBeUnsetInside) {
  statuses.inside = [] { EXPECT_EQ(velmora_svcmgr_unset_update_status_cb(), 0); };
  AnnounceStart();
  EXPECT_EQ(AnnounceStart(), 0);
  EXPECT_THAT(statuses.received, ElementsAre(0));
}

TEST_F(AnUpdateStatus, MayBeSetForAnotherInside) {
  events::Statuses second;
  statuses.inside = [&] {
    EXPECT_EQ(velmora_svcmgr_unset_update_status_cb(), 0);
    EXPECT_EQ(second.Set(), 0);
  };
  AnnounceStart();
  AnnounceComplete();
  EXPECT_THAT(statuses.received, ElementsAre(0));
  EXPECT_THAT(second.received, ElementsAre(1));
  EXPECT_EQ(velmora_svcmgr_unset_update_status_cb(), 0);
}

TEST_F(AnUpdateStatus, MayArriveInsideAnother) {
  statuses.inside = [] { AnnounceComplete(); };
  AnnounceStart();
  EXPECT_THAT(statuses.received, ElementsAre(0, 1));
  EXPECT_EQ(events::State(), 0);
}

TEST_F(AnUpdateStatus, ThatEndsInsideAnEndIsHeardTwiceAndEndsOnce) {
  events::Enter(5);
  statuses.inside = [] { AnnounceFailure(1); };
  AnnounceComplete();
  EXPECT_THAT(statuses.received, ElementsAre(1, 2));
  EXPECT_EQ(events::State(), 0);
}

TEST_F(AnUpdateStatus, OfAnEndEndsTheUpdateAlsoWhenTheCallbackThrows) {
  events::Enter(5);
  statuses.inside = [] { throw std::runtime_error("no"); };
  AnnounceComplete();
  EXPECT_EQ(events::State(), 0);
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsError(kHandler, "UpdateEventCallback", "Unknown Exception")));
  AnnounceStart();
  EXPECT_THAT(statuses.received, ElementsAre(1, 0));
}

TEST_F(AnUpdateStatus, OfAStartStaysStartedWhenTheCallbackThrows) {
  statuses.inside = [] { throw 1; };
  AnnounceStart();
  EXPECT_EQ(events::State(), 5);
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsError(kHandler, "UpdateEventCallback", "Unknown Exception")));
}

TEST_F(AnUpdateStatus, OfAnEndNeedsNoMemoryForTheApplicationsId) {
  if (!fake::SeesOperatorNew()) GTEST_SKIP() << "operator new cannot be made to fail here";
  fake::SetApplication({std::string(100, 'a'), "1", "/opt/"});
  events::Enter(5);
  BundleBuilder data;
  data.Str("Complete", "");
  const std::string event = kUpdateStatus;
  statuses.received.reserve(1);
  {
    const fake::FailingAllocation failing(fake::Allocator::kNew, 1,
                                          fake::FailingAllocation::Then::kFailAll);
    EXPECT_EQ(fake::FireEvent(event, data), 1);
  }
  EXPECT_THAT(statuses.received, ElementsAre(1));
  EXPECT_EQ(events::State(), 0);
  EXPECT_THAT(fake::Logs(), IsEmpty());
}

}  // namespace
