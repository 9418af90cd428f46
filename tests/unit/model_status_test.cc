// SPDX-License-Identifier: Apache-2.0
// What an application hears of changes of the device's AI models.

#include <ModelUpdateEventHandler.h>

#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "client.h"
#include "event_support.h"

namespace {

using events::kModelStatus;
using events::ModelNotice;
using fake::BundleBuilder;
using fake::IsError;
using fake::IsInfo;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kHandler[] = "ModelUpdateEventHandler.cc";
constexpr char kCallback[] = "ModelEventCallback";

constexpr ModelNotice kStarted{0, 17};
constexpr ModelNotice kCompleted{0, 20};
constexpr ModelNotice kFailed{0, 24};

/* Events. */

class AModelStatus : public events::AReceived<events::ModelStatuses> {
 protected:
  /** Nothing is received, and this record says so. */
  void ExpectDropped(const testing::Matcher<const fake::LogRecord&>& record) const {
    EXPECT_THAT(statuses.received, IsEmpty());
    EXPECT_THAT(fake::Logs(), ElementsAre(record));
  }

  static testing::Matcher<const fake::LogRecord&> Error(const std::string& text) {
    return IsError(kHandler, kCallback, text);
  }
};

struct Row {
  const char* key;
  const char* record;
  ModelNotice notice;
};

constexpr Row kRows[] = {
    {"START", "Received UPDATE EVENT : START", kStarted},
    {"COMPLETED", "Received UPDATE EVENT : COMPLETED", kCompleted},
    {"FAILED", "Received UPDATE EVENT : FAILED", kFailed},
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.key; }

class AKey : public AModelStatus, public testing::WithParamInterface<Row> {};

TEST_P(AKey, IsRecordedAndReported) {
  statuses.inside = [] { EXPECT_EQ(fake::Logs().size(), 1U) << "the record comes first"; };
  EXPECT_EQ(events::Announce(kModelStatus, {GetParam().key}), 1);
  EXPECT_THAT(statuses.received, ElementsAre(GetParam().notice));
  EXPECT_THAT(fake::Logs(), ElementsAre(IsInfo(kHandler, kCallback, GetParam().record)));
}

TEST_P(AKey, HasARecordThatASearchOfTheSourcesFinds) {
  events::Announce(kModelStatus, {GetParam().key});
  ASSERT_EQ(fake::Logs().size(), 1U);
  EXPECT_THAT(fake::Logs()[0].format, testing::HasSubstr(GetParam().record));
}

TEST_P(AKey, CountsWhateverItsTextIs) {
  fake::FireEvent(kModelStatus, BundleBuilder().Str(GetParam().key, "FAILED"));
  EXPECT_THAT(statuses.received, ElementsAre(GetParam().notice));
}

TEST_P(AKey, OfAnotherTypeIsUnknown) {
  fake::FireEvent(kModelStatus, BundleBuilder().Int(GetParam().key, 1));
  ExpectDropped(Error("Received Unknown State"));
}

TEST_P(AKey, LeavesTheUpdateStateAlone) {
  for (int state = 0; state < 6; ++state) {
    events::Enter(state);
    events::Announce(kModelStatus, {GetParam().key});
    EXPECT_EQ(events::State(), state);
  }
  EXPECT_EQ(statuses.received.size(), 6U);
}

INSTANTIATE_TEST_SUITE_P(Each, AKey, testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.key); });

class AMixture : public AModelStatus,
                 public testing::WithParamInterface<std::tuple<bool, bool, bool>> {};

TEST_P(AMixture, CountsByItsFirstKeyAlone) {
  const auto [start, completed, failed] = GetParam();
  std::vector<std::string> keys = {"UNRELATED", "start"};
  if (failed) keys.emplace_back("FAILED");
  if (completed) keys.emplace_back("COMPLETED");
  if (start) keys.emplace_back("START");
  events::Announce(kModelStatus, keys);
  if (!start && !completed && !failed) {
    ExpectDropped(Error("Received Unknown State"));
  } else {
    EXPECT_THAT(statuses.received, ElementsAre(start       ? kStarted
                                               : completed ? kCompleted
                                                           : kFailed));
    EXPECT_EQ(fake::Logs().size(), 1U);
  }
}

INSTANTIATE_TEST_SUITE_P(Each, AMixture,
                         testing::Combine(testing::Bool(), testing::Bool(), testing::Bool()));

TEST_F(AModelStatus, IsLookedForInOrder) {
  fake::FireEvent(kModelStatus, BundleBuilder());
  std::vector<std::string> keys;
  for (const fake::Call& call : fake::Calls()) {
    EXPECT_EQ(call.name, "bundle_get_str");
    keys.push_back(call.arguments.substr(call.arguments.find('"')));
  }
  EXPECT_THAT(keys, ElementsAre("\"START\"", "\"COMPLETED\"", "\"FAILED\""));
}

TEST_F(AModelStatus, OfNoNameIsInvalid) {
  BundleBuilder data;
  data.Str("START", "");
  fake::FireEventAt(kModelStatus, nullptr, data.get());
  EXPECT_THAT(fake::Trace(),
              ElementsAre("E ModelEventCallback: EVENT CALLBACK : INVALID PARAMETER"));
  ExpectDropped(Error("EVENT CALLBACK : INVALID PARAMETER"));
}

TEST_F(AModelStatus, OfNoDataIsInvalid) {
  fake::FireEventAt(kModelStatus, kModelStatus, nullptr);
  ExpectDropped(Error("EVENT CALLBACK : INVALID PARAMETER"));
  EXPECT_THAT(fake::Calls(), IsEmpty());
}

class AForeignName : public AModelStatus, public testing::WithParamInterface<const char*> {};

TEST_P(AForeignName, IsUnknown) {
  BundleBuilder data;
  data.Str("START", "");
  fake::FireEventAt(kModelStatus, GetParam(), data.get());
  EXPECT_THAT(fake::Trace(), ElementsAre("E ModelEventCallback: Received Unknown Event"));
  ExpectDropped(Error("Received Unknown Event"));
}

INSTANTIATE_TEST_SUITE_P(Each, AForeignName,
                         testing::Values("", "event." AGENT_PACKAGE_ID ".model_statu",
                                         "event." AGENT_PACKAGE_ID ".model_status2",
                                         "event." AGENT_PACKAGE_ID ".MODEL_STATUS",
                                         "event." AGENT_PACKAGE_ID ".update_status"));

/** A subscription that the platform did not end, and no callback left. */
class WithoutACallback : public AModelStatus {
 protected:
  void SetUp() override {
    AModelStatus::SetUp();
    fake::Next(events::kRemove, fake::Fail(-5));
    EXPECT_EQ(velmora_svcmgr_ai_deregister_status_cb(), -38);
    fake::ClearRecord();
  }
};

TEST_F(WithoutACallback, AModelStatusIsRecordedAndDropped) {
  EXPECT_EQ(events::Announce(kModelStatus, {"START"}), 1);
  EXPECT_THAT(fake::Trace(), ElementsAre("I ModelEventCallback: There is no registered callback"));
  ExpectDropped(IsInfo(kHandler, kCallback, "There is no registered callback"));
}

TEST_F(WithoutACallback, AForeignNameIsNotLookedAt) {
  BundleBuilder data;
  fake::FireEventAt(kModelStatus, "event.other", data.get());
  ExpectDropped(IsInfo(kHandler, kCallback, "There is no registered callback"));
}

TEST_F(WithoutACallback, MissingDataIsStillInvalid) {
  fake::FireEventAt(kModelStatus, kModelStatus, nullptr);
  ExpectDropped(Error("EVENT CALLBACK : INVALID PARAMETER"));
}

/* Inside the callback. */

TEST_F(AModelStatus, MayBeDeregisteredInside) {
  statuses.inside = [] { EXPECT_EQ(velmora_svcmgr_ai_deregister_status_cb(), 0); };
  events::Announce(kModelStatus, {"START"});
  EXPECT_EQ(events::Announce(kModelStatus, {"COMPLETED"}), 0);
  EXPECT_THAT(statuses.received, ElementsAre(kStarted));
}

TEST_F(AModelStatus, MayBeRegisteredForAnotherInside) {
  events::ModelStatuses second;
  statuses.inside = [&] { EXPECT_EQ(second.Set(), 0); };
  events::Announce(kModelStatus, {"START"});
  events::Announce(kModelStatus, {"COMPLETED"});
  EXPECT_THAT(statuses.received, ElementsAre(kStarted));
  EXPECT_THAT(second.received, ElementsAre(kCompleted));
  EXPECT_EQ(velmora_svcmgr_ai_deregister_status_cb(), 0);
}

TEST_F(AModelStatus, MayArriveInsideAnother) {
  statuses.inside = [] { events::Announce(kModelStatus, {"FAILED"}); };
  events::Announce(kModelStatus, {"START"});
  EXPECT_THAT(statuses.received, ElementsAre(kStarted, kFailed));
}

TEST_F(AModelStatus, SurvivesACallbackThatThrows) {
  statuses.inside = [] { throw std::runtime_error("no"); };
  events::Announce(kModelStatus, {"FAILED"});
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsInfo(kHandler, kCallback, "Received UPDATE EVENT : FAILED"),
                          IsError(kHandler, kCallback, "Unknown Exception")));
  events::Announce(kModelStatus, {"START"});
  EXPECT_THAT(statuses.received, ElementsAre(kFailed, kStarted));
}

TEST_F(AModelStatus, SurvivesABundleThatThrows) {
  fake::Next("bundle_get_str", fake::Throw(std::runtime_error("no")));
  events::Announce(kModelStatus, {"START"});
  ExpectDropped(Error("Unknown Exception"));
}

}  // namespace
