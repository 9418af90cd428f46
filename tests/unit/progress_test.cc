// SPDX-License-Identifier: Apache-2.0
// Progress records, and how the agent reports on work with them.

#include <climits>
#include <cstddef>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "connection_support.h"
#include "exhaustion.h"
#include "fake_platform.h"
#include "model_support.h"
#include "service_progress.h"

namespace {

using fake::IsError;
using fake::IsInfo;
using fake::Items;
using models::List;
using models::NameOfRow;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using Progress = velmora_svcmgr_ai_progress_h;

constexpr char kProgressFile[] = "service_progress.cc";
constexpr char kAnswerFile[] = "SvcMgrAppProxyCallback.cc";
constexpr char kPrefix[] = "velmora_svcmgr_ai_progress_";

// ---- Records ------------------------------------------------------------------------------------

struct Field {
  std::string name;
  int (*get)(Progress, int*);
  int (*set)(Progress, int);
  int velmora_svcmgr_ai_progress_s::* member;
};

void PrintTo(const Field& field, std::ostream* out) { *out << field.name; }

using Record = velmora_svcmgr_ai_progress_s;

const Field kFields[] = {
    {"index", velmora_svcmgr_ai_progress_get_index, velmora_svcmgr_ai_progress_set_index,
     &Record::index},
    {"count", velmora_svcmgr_ai_progress_get_count, velmora_svcmgr_ai_progress_set_count,
     &Record::count},
    {"percentage", velmora_svcmgr_ai_progress_get_percentage,
     velmora_svcmgr_ai_progress_set_percentage, &Record::percentage},
    {"state", velmora_svcmgr_ai_progress_get_state, velmora_svcmgr_ai_progress_set_state,
     &Record::state},
};

/** The four numbers of a record. */
struct Numbers {
  int index = 0;
  int count = 0;
  int percentage = 0;
  int state = 0;
};

bool operator==(const Numbers& a, const Numbers& b) {
  return a.index == b.index && a.count == b.count && a.percentage == b.percentage &&
         a.state == b.state;
}

std::ostream& operator<<(std::ostream& out, const Numbers& numbers) {
  return out << "(index " << numbers.index << ", count " << numbers.count << ", percentage "
             << numbers.percentage << ", state " << numbers.state << ')';
}

Numbers Read(Progress progress) {
  return {progress->index, progress->count, progress->percentage, progress->state};
}

struct AProgress : fake::PlatformTest {
  void SetUp() override {
    PlatformTest::SetUp();
    ASSERT_EQ(velmora_svcmgr_ai_progress_create(&progress), SVCMGR_ERROR_NONE);
    fake::ClearRecord();
  }

  void TearDown() override {
    fake::InstallAgent("2.3.0");
    if (progress != nullptr) {
      EXPECT_EQ(velmora_svcmgr_ai_progress_destroy(progress), SVCMGR_ERROR_NONE);
    }
    PlatformTest::TearDown();
  }

  Progress progress = nullptr;
};

TEST_F(AProgress, IsOfFourNumbersInThisOrder) {
  EXPECT_EQ(sizeof(Record), 16U);
  EXPECT_EQ(offsetof(Record, index), 0U);
  EXPECT_EQ(offsetof(Record, count), 4U);
  EXPECT_EQ(offsetof(Record, percentage), 8U);
  EXPECT_EQ(offsetof(Record, state), 12U);
}

TEST_F(AProgress, IsZeroAtFirst) {
  for (const Field& field : kFields) {
    int value = -1;
    EXPECT_EQ(field.get(progress, &value), SVCMGR_ERROR_NONE);
    EXPECT_EQ(value, 0) << field.name;
  }
}

TEST_F(AProgress, IsOneBlockOfCalloc) {
  const auto blocks = fake::LiveBlocks();
  ASSERT_THAT(blocks, SizeIs(1));
  EXPECT_EQ(blocks[0].origin, "calloc");
  EXPECT_EQ(blocks[0].size, sizeof(Record));
  EXPECT_EQ(blocks[0].pointer, progress);
}

TEST_F(AProgress, IsReleasedWhenDestroyed) {
  EXPECT_EQ(velmora_svcmgr_ai_progress_destroy(progress), SVCMGR_ERROR_NONE);
  progress = nullptr;
  EXPECT_THAT(fake::LiveBlocks(), IsEmpty());
  EXPECT_THAT(fake::Logs(), IsEmpty());
}

struct AProgressField : AProgress, ::testing::WithParamInterface<Field> {};

INSTANTIATE_TEST_SUITE_P(Of, AProgressField, ::testing::ValuesIn(kFields), NameOfRow());

TEST_P(AProgressField, IsReadAsItWasSetWhateverItIs) {
  for (const int value : {1, 100, 101, -1, -100, INT_MAX, INT_MIN, 0}) {
    EXPECT_EQ(GetParam().set(progress, value), SVCMGR_ERROR_NONE);
    int read = ~value;
    EXPECT_EQ(GetParam().get(progress, &read), SVCMGR_ERROR_NONE);
    EXPECT_EQ(read, value);
  }
  EXPECT_THAT(fake::Logs(), IsEmpty());
}

TEST_P(AProgressField, IsTheRecordsOwnAndNoOther) {
  *progress = {11, 12, 13, 14};
  Numbers expected{11, 12, 13, 14};
  int value = 0;
  EXPECT_EQ(GetParam().get(progress, &value), SVCMGR_ERROR_NONE);
  EXPECT_EQ(value, progress->*GetParam().member);
  EXPECT_EQ(Read(progress), expected);
  EXPECT_EQ(GetParam().set(progress, 99), SVCMGR_ERROR_NONE);
  EXPECT_EQ(progress->*GetParam().member, 99);
  progress->*GetParam().member = value;
  EXPECT_EQ(Read(progress), expected);
}

// ---- Messages -----------------------------------------------------------------------------------

/** What a progress callback received; the record is read and destroyed. */
struct Report {
  int error = 0;
  std::optional<Numbers> numbers;  // absent if the record was null
};

bool operator==(const Report& a, const Report& b) {
  return a.error == b.error && a.numbers == b.numbers;
}

std::ostream& operator<<(std::ostream& out, const Report& report) {
  out << "(error " << report.error << ", ";
  if (report.numbers.has_value()) return out << *report.numbers << ')';
  return out << "no record)";
}

// A message's payload: the result, then the numbers in the order of the wire.
Items Message(int result, const Numbers& numbers) {
  return {result, numbers.state, numbers.index, numbers.count, numbers.percentage};
}

// An update of no models is awaited, with the delegate (4, 0).
struct AProgressMessage : fake::PlatformTest {
  void SetUp() override {
    PlatformTest::SetUp();
    const List list = models::NewList();
    connection::Stand();
    ASSERT_EQ(velmora_svcmgr_ai_request_to_update(list, OnProgress, this), SVCMGR_ERROR_NONE);
    EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(list), SVCMGR_ERROR_NONE);
    reports.reserve(16);  // so that recording a report allocates nothing
    fake::ClearRecord();
  }

  void TearDown() override {
    fake::ForgetScripts("package_info_create");
    for (const Progress handle : handles) {
      EXPECT_EQ(velmora_svcmgr_ai_progress_destroy(handle), SVCMGR_ERROR_NONE);
    }
    PlatformTest::TearDown();
  }

  static void OnProgress(int error, Progress progress, void* user_data) {
    auto* const self = static_cast<AProgressMessage*>(user_data);
    Report report;
    report.error = error;
    if (progress != nullptr) report.numbers = Read(progress);
    self->reports.push_back(report);
    if (progress == nullptr) return;
    for (const Progress other : self->handles) EXPECT_NE(progress, other);
    if (self->keeps_handles) {
      self->handles.push_back(progress);
    } else {
      EXPECT_EQ(velmora_svcmgr_ai_progress_destroy(progress), SVCMGR_ERROR_NONE);
    }
  }

  static void Receive(const Items& payload) { fake::DeliverDelegateMessage(4, 0, payload); }

  std::vector<Report> reports;
  std::vector<Progress> handles;  // that are alive
  bool keeps_handles = false;
};

TEST_F(AProgressMessage, IsReadByteByByte) {
  fake::DeliverBytes(
      "01 00 00 00  04 00 00 00  00 00 00 00  00  05 00 00 00"
      "  11 00 00 00  02 00 00 00  03 00 00 00  e7 ff ff ff");
  EXPECT_THAT(reports, ElementsAre(Report{SVCMGR_ERROR_NO_SPACE, Numbers{2, 3, -25, 17}}));
}

TEST_F(AProgressMessage, IsConvertedInTheseSteps) {
  keeps_handles = true;
  Receive(Message(0, {1, 2, 3, 4}));
  EXPECT_THAT(fake::Logs(), ElementsAre(IsInfo(kAnswerFile, "Convert",
                                               "conver AIUpdateProgressInfo to progress_handle"),
                                        IsInfo(kAnswerFile, "Convert", "Successful conversion")));
  // To create the record, to set its four numbers, and to read its state back.
  EXPECT_EQ(fake::CountCalls("package_info_create"), 6U);
}

struct ASetterThatFails : AProgressMessage, ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(AtNumber, ASetterThatFails, ::testing::Range(0, 4));

TEST_P(ASetterThatFails, LeavesItsNumberZeroInTheOrderIndexCountPercentageState) {
  fake::AtCall("package_info_create", 2 + GetParam(), fake::Fail(fake::kNoSuchPackage));
  Receive(Message(0, {11, 12, 13, 14}));
  int expected[] = {11, 12, 13, 14};
  expected[GetParam()] = 0;
  EXPECT_THAT(reports,
              ElementsAre(Report{0, Numbers{expected[0], expected[1], expected[2], expected[3]}}));
  const std::string setter = kPrefix + ("set_" + kFields[GetParam()].name);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsInfo(kAnswerFile, "Convert",
                                               "conver AIUpdateProgressInfo to progress_handle"),
                                        IsError(kProgressFile, setter, "Not supported"),
                                        IsInfo(kAnswerFile, "Convert", "Successful conversion")));
}

TEST_F(AProgressMessage, IsDeliveredWithoutARecordWhenMemoryIsExhausted) {
  fake::Proxy().QueueCallbackMessage(Items{1, 4, 0, false} + Message(2, {1, 2, 3, 4}));
  {
    const fake::FailingAllocation failing(fake::Allocator::kCalloc);
    fake::Proxy().FireReceived();
    EXPECT_TRUE(failing.Happened());
  }
  EXPECT_THAT(reports, ElementsAre(Report{SVCMGR_ERROR_NONE, std::nullopt}));
  EXPECT_THAT(
      fake::Logs(),
      ElementsAre(
          IsInfo(kAnswerFile, "Convert", "conver AIUpdateProgressInfo to progress_handle"),
          IsError(kProgressFile, "velmora_svcmgr_ai_progress_create",
                  "Failed to create update status handle."),
          IsInfo(kAnswerFile, "Convert", "Successful conversion"),
          IsError(kProgressFile, "velmora_svcmgr_ai_progress_get_state", "Invalid parameter!!")));
}

TEST_F(AProgressMessage, IsOneOfManyAndEachGivesOneCallWithARecordOfItsOwn) {
  keeps_handles = true;
  std::vector<Report> expected;
  for (int i = 0; i < 10; ++i) {
    const Numbers numbers{i / 5, 2, i * 10, -i};
    Receive(Message(i == 9 ? 5 : 0, numbers));
    expected.push_back({i == 9 ? SVCMGR_ERROR_NO_SPACE : SVCMGR_ERROR_NONE, numbers});
    EXPECT_EQ(reports, expected);
  }
  ASSERT_THAT(handles, SizeIs(10));
  for (std::size_t i = 0; i < handles.size(); ++i) EXPECT_EQ(Read(handles[i]), expected[i].numbers);
}

TEST_F(AProgressMessage, PassesEveryNumberOn) {
  for (const Numbers& numbers :
       {Numbers{-1, -2, -3, -4}, Numbers{INT_MAX, INT_MIN, INT_MAX, INT_MIN}, Numbers{0, 0, 101, 0},
        Numbers{5, 2, 250, 99}}) {
    Receive(Message(0, numbers));
    EXPECT_EQ(reports.back(), (Report{0, numbers}));
  }
}

TEST_F(AProgressMessage, OfWhichLessThanAllCanBeReadIsAFailureOfNoProgress) {
  const Items whole = Message(0, {1, 2, 3, 4});
  for (std::size_t n = 0; n < whole.size(); ++n) {
    Receive(fake::CutAfter(whole, n));
    EXPECT_EQ(reports.back(), (Report{SVCMGR_ERROR_INVALID_OPERATION, Numbers{}}));
  }
}

TEST_F(AProgressMessage, DoesNoHarmWhereverMemoryRunsOut) {
  const int failures = exhaustion::ForEachFailingAllocation(
      [&] {
        reports.clear();
        fake::Proxy().QueueCallbackMessage(Items{1, 4, 0, false} + Message(0, {1, 2, 3, 4}));
      },
      exhaustion::Receive,
      [&](bool happened) {
        EXPECT_LE(reports.size(), 1U);
        EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
        if (!happened) {
          EXPECT_THAT(reports, ElementsAre(Report{0, Numbers{1, 2, 3, 4}}));
        }
      });
  EXPECT_GE(failures, 1);
}

}  // namespace
