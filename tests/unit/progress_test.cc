// SPDX-License-Identifier: Apache-2.0
// Progress records, the requests to update and uninstall models, and how the agent reports on them.

#include <climits>
#include <cstddef>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "SvcMgrAppProxyException.h"
#include "SvcmgrException.h"
#include "connection_support.h"
#include "fake_platform.h"
#include "model_support.h"
#include "service_model_list.h"
#include "service_progress.h"

namespace {

using fake::Allocator;
using fake::Count;
using fake::FailingAllocation;
using fake::IsError;
using fake::IsInfo;
using fake::IsProxyError;
using fake::Items;
using models::IsUnknownException;
using models::List;
using models::NameOfRow;
using models::NewList;
using models::Steps;
using models::Texts;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using Progress = velmora_svcmgr_ai_progress_h;

constexpr char kProgressFile[] = "service_progress.cc";
constexpr char kEntryFile[] = "service_request.cc";
constexpr char kContextFile[] = "SvcMgrAppProxyHandler.cc";
constexpr char kAnswerFile[] = "SvcMgrAppProxyCallback.cc";
constexpr char kPrefix[] = "velmora_svcmgr_ai_progress_";

// ---- Records ------------------------------------------------------------------------------------

struct Field {
  std::string name;
  int (*get)(Progress, int*);
  int (*set)(Progress, int);
  int velmora_svcmgr_ai_progress_s::*member;
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

TEST_F(AProgress, CannotBeCreatedWithoutMemory) {
  Progress other = progress;
  int result = 0;
  {
    const FailingAllocation failing(Allocator::kCalloc);
    result = velmora_svcmgr_ai_progress_create(&other);
  }
  EXPECT_EQ(result, SVCMGR_ERROR_OUT_OF_MEMORY);
  EXPECT_EQ(other, progress);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsError(kProgressFile, "velmora_svcmgr_ai_progress_create",
                                                "Failed to create update status handle.")));
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

struct BadCall {
  std::string name;  // behind the common prefix
  std::function<int(Progress, int*)> call;
  std::string test_name;
};

void PrintTo(const BadCall& call, std::ostream* out) { *out << call.test_name; }

std::vector<BadCall> CallsWithNull() {
  std::vector<BadCall> calls = {
      {"create", [](Progress, int*) { return velmora_svcmgr_ai_progress_create(nullptr); },
       "create"},
      {"destroy", [](Progress, int*) { return velmora_svcmgr_ai_progress_destroy(nullptr); },
       "destroy"}};
  for (const Field& field : kFields) {
    const std::string get = "get_" + field.name;
    const std::string set = "set_" + field.name;
    calls.push_back(
        {get, [=](Progress, int* out) { return field.get(nullptr, out); }, get + "_OfNull"});
    calls.push_back({get, [=](Progress progress, int*) { return field.get(progress, nullptr); },
                     get + "_IntoNull"});
    calls.push_back({get, [=](Progress, int*) { return field.get(nullptr, nullptr); },
                     get + "_OfNullIntoNull"});
    calls.push_back({set, [=](Progress, int*) { return field.set(nullptr, 5); }, set});
  }
  return calls;
}

struct ACallWithNull : AProgress, ::testing::WithParamInterface<BadCall> {};

INSTANTIATE_TEST_SUITE_P(Of, ACallWithNull, ::testing::ValuesIn(CallsWithNull()),
                         [](const auto& row) { return row.param.test_name; });

TEST_P(ACallWithNull, IsRefused) {
  int out = 4321;
  EXPECT_EQ(GetParam().call(progress, &out), SVCMGR_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(out, 4321);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsError(kProgressFile, kPrefix + GetParam().name,
                                                "Invalid parameter!!")));
  EXPECT_THAT(fake::CallNames(), ElementsAre("package_info_create", "package_info_destroy"));
}

TEST_P(ACallWithNull, IsNotSupportedFirstWhenTheAgentIsMissing) {
  fake::RemoveAgent();
  EXPECT_EQ(GetParam().call(progress, nullptr), SVCMGR_ERROR_NOT_SUPPORTED);
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsError(kProgressFile, kPrefix + GetParam().name, "Not supported")));
}

std::vector<BadCall> GoodCalls() {
  std::vector<BadCall> calls = {
      {"create",
       [](Progress progress, int*) {
         Progress other = progress;
         const int result = velmora_svcmgr_ai_progress_create(&other);
         EXPECT_EQ(other, progress);
         return result;
       },
       "create"},
      {"destroy",
       [](Progress progress, int*) { return velmora_svcmgr_ai_progress_destroy(progress); },
       "destroy"}};
  for (const Field& field : kFields) {
    calls.push_back({"get_" + field.name,
                     [=](Progress progress, int* out) { return field.get(progress, out); },
                     "get_" + field.name});
    calls.push_back({"set_" + field.name,
                     [=](Progress progress, int*) { return field.set(progress, 5); },
                     "set_" + field.name});
  }
  return calls;
}

struct ARefusedCall : AProgress, ::testing::WithParamInterface<BadCall> {};

INSTANTIATE_TEST_SUITE_P(Of, ARefusedCall, ::testing::ValuesIn(GoodCalls()),
                         [](const auto& row) { return row.param.test_name; });

TEST_P(ARefusedCall, IsNotSupportedAndChangesNothingWhenTheAgentIsMissing) {
  *progress = {1, 2, 3, 4};
  fake::RemoveAgent();
  int out = 4321;
  EXPECT_EQ(GetParam().call(progress, &out), SVCMGR_ERROR_NOT_SUPPORTED);
  EXPECT_EQ(out, 4321);
  EXPECT_EQ(Read(progress), (Numbers{1, 2, 3, 4}));
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsError(kProgressFile, kPrefix + GetParam().name, "Not supported")));
}

TEST_P(ARefusedCall, IsInvalidAndChangesNothingWhenTheLookUpOfTheAgentThrows) {
  *progress = {1, 2, 3, 4};
  fake::Next("package_info_create", fake::Throw(std::runtime_error("thrown")));
  int out = 4321;
  EXPECT_EQ(GetParam().call(progress, &out), SVCMGR_ERROR_INVALID_OPERATION);
  EXPECT_EQ(out, 4321);
  EXPECT_EQ(Read(progress), (Numbers{1, 2, 3, 4}));
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsError(kProgressFile, kPrefix + GetParam().name, "Unknown Exception")));
}

// ---- What both requests share -------------------------------------------------------------------

const Texts kModel = {"model-1", "1.0", "A title", "A description"};
const Texts kOther = {"model-2", "2.0", "", "Another"};

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

struct ModelRequests : fake::PlatformTest {
  void SetUp() override {
    PlatformTest::SetUp();
    list = NewList();
    models::Add(list, kModel);
    reports.reserve(16);  // so that recording a report allocates nothing
    fake::ClearRecord();
  }

  void TearDown() override {
    fake::ForgetScripts("package_info_create");
    fake::InstallAgent("2.3.0");
    EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(list), SVCMGR_ERROR_NONE);
    fake::ExpectKept(fake::SeesOperatorNew() ? storages : 0);
    PlatformTest::TearDown();
  }

  static void OnProgress(int error, Progress progress, void* user_data) {
    auto* const self = static_cast<ModelRequests*>(user_data);
    Report report;
    report.error = error;
    if (progress != nullptr) {
      report.numbers = Read(progress);
      for (const Progress other : self->handles) EXPECT_NE(progress, other);
      if (self->keeps_handles) {
        self->handles.push_back(progress);
      } else {
        EXPECT_EQ(velmora_svcmgr_ai_progress_destroy(progress), SVCMGR_ERROR_NONE);
      }
    }
    self->reports.push_back(report);
    if (self->on_report) self->on_report();
  }

  List list = nullptr;
  std::size_t storages = 1;  // of lists, which stay behind
  std::vector<Report> reports;
  std::vector<Progress> handles;  // that are alive
  bool keeps_handles = false;
  std::function<void()> on_report;
};

struct Request {
  std::string name;       // the exported function
  std::string operation;  // of the client context and the proxy
  int method;             // on the wire
  int delegate_id;
  int (*ask)(List, velmora_svcmgr_ai_progress_cb, void*);
};

void PrintTo(const Request& request, std::ostream* out) { *out << request.operation; }

const Request kUpdate = {"velmora_svcmgr_ai_request_to_update", "RequestToUpdate", 8, 4,
                         velmora_svcmgr_ai_request_to_update};
const Request kUninstall = {"velmora_svcmgr_ai_request_to_uninstall", "RequestToUninstall", 9, 5,
                            velmora_svcmgr_ai_request_to_uninstall};

::testing::Matcher<const fake::LogRecord&> Entry(const Request& request) {
  return IsInfo(kEntryFile, request.name, "__ " + request.name + " __");
}

::testing::Matcher<const fake::LogRecord&> FollowUp(const Request& request, int code) {
  return IsError(kEntryFile, request.name, "error [" + std::to_string(code) + "]");
}

int SeqOfSent(std::size_t n) {
  const auto sent = fake::SentParcels();
  return n < sent.size() && sent[n].items.size() > 2 ? sent[n].items[2].number : -1;
}

struct AModelRequest : ModelRequests, ::testing::WithParamInterface<Request> {
  static const Request& TheRequest() { return GetParam(); }
  int Ask() { return TheRequest().ask(list, OnProgress, this); }

  void ExpectUnknownException() {
    EXPECT_EQ(Ask(), SVCMGR_ERROR_INVALID_OPERATION);
    EXPECT_THAT(fake::Logs(),
                ElementsAre(Entry(TheRequest()),
                            IsError(kContextFile, TheRequest().operation, "Unknown Exception"),
                            FollowUp(TheRequest(), -38)));
  }
};

INSTANTIATE_TEST_SUITE_P(Of, AModelRequest, ::testing::Values(kUpdate, kUninstall),
                         [](const auto& row) { return row.param.operation; });

TEST_P(AModelRequest, TakesItsStepsInOrder) {
  connection::Stand();
  EXPECT_EQ(Ask(), SVCMGR_ERROR_NONE);
  EXPECT_THAT(Steps(),
              ElementsAre("I " + TheRequest().name + ": __ " + TheRequest().name + " __",
                          "package_info_create", "package_info_destroy",  //
                          "package_info_create", "package_info_get_version", "package_info_destroy",
                          "rpc_port_parcel_create", "rpc_port_parcel_write_int32",  // the method
                          "rpc_port_parcel_write_int32", "rpc_port_parcel_write_int32",
                          "rpc_port_parcel_write_bool",  // the delegate
                          "rpc_port_parcel_write_array_count", "rpc_port_parcel_write_string",
                          "rpc_port_parcel_write_string", "rpc_port_parcel_write_string",
                          "rpc_port_parcel_write_string", "rpc_port_parcel_write_int32",
                          "rpc_port_parcel_send", "rpc_port_parcel_destroy"));
  EXPECT_THAT(fake::Logs(), ElementsAre(Entry(TheRequest())));
}

TEST_P(AModelRequest, SendsItsMethodItsDelegateAndTheModels) {
  connection::Stand();
  models::Add(list, kOther);
  EXPECT_EQ(Ask(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(Ask(), SVCMGR_ERROR_NONE);
  const auto sent = fake::SentParcels();
  ASSERT_THAT(sent, SizeIs(2));
  for (int seq = 0; seq < 2; ++seq) {
    EXPECT_EQ(sent[static_cast<std::size_t>(seq)].items,
              (Items{TheRequest().method, TheRequest().delegate_id, seq, false, Count(2), "model-1",
                     "1.0", "A title", "A description", "model-2", "2.0", "", "Another", 2}));
  }
  EXPECT_THAT(reports, IsEmpty());
}

TEST_P(AModelRequest, IsTheseBytes) {
  connection::Stand();
  const List short_list = NewList();
  models::Add(short_list, {"a", "1", "T", ""});
  EXPECT_EQ(TheRequest().ask(short_list, OnProgress, this), SVCMGR_ERROR_NONE);
  const std::string head =
      TheRequest().method == 8 ? "08 00 00 00 04 00 00 00 " : "09 00 00 00 05 00 00 00 ";
  ASSERT_THAT(fake::SentParcels(), SizeIs(1));
  EXPECT_EQ(fake::SentParcels()[0].Hex(), head +
                                              "00 00 00 00 00 "                       // seq, once
                                              "01 00 00 00 "                          // models
                                              "02 00 00 00 61 00 02 00 00 00 31 00 "  // a, 1
                                              "02 00 00 00 54 00 01 00 00 00 00 "     // T, ""
                                              "01 00 00 00");                         // count
  EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(short_list), SVCMGR_ERROR_NONE);
  ++storages;
}

TEST_P(AModelRequest, IsNotSupportedWhenTheAgentIsMissing) {
  connection::Stand();
  fake::RemoveAgent();
  EXPECT_EQ(Ask(), SVCMGR_ERROR_NOT_SUPPORTED);
  EXPECT_EQ(TheRequest().ask(nullptr, nullptr, nullptr), SVCMGR_ERROR_NOT_SUPPORTED);
  const auto missing = IsError(kEntryFile, TheRequest().name, "Not supported");
  EXPECT_THAT(fake::Logs(),
              ElementsAre(Entry(TheRequest()), missing, Entry(TheRequest()), missing));
  EXPECT_THAT(fake::SentParcels(), IsEmpty());
}

TEST_P(AModelRequest, NeedsLevel8AndSaysNothingBelow) {
  connection::Stand();
  for (const char* version : {"1.6.9", "1.6", "0.1", "", "garbage"}) {
    fake::InstallAgent(version);
    fake::ClearRecord();
    EXPECT_EQ(Ask(), SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION) << version;
    EXPECT_EQ(TheRequest().ask(nullptr, nullptr, nullptr), SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION);
    EXPECT_THAT(fake::Logs(), ElementsAre(Entry(TheRequest()), Entry(TheRequest())));
    EXPECT_THAT(fake::SentParcels(), IsEmpty());
  }
  for (const char* version : {"1.7", "1.7.0", "2.2", "2.3.182"}) {
    fake::InstallAgent(version);
    EXPECT_EQ(Ask(), SVCMGR_ERROR_NONE) << version;
  }
}

TEST_P(AModelRequest, RefusesANullListThenANullCallbackBeforeItLooksAtTheConnection) {
  EXPECT_EQ(TheRequest().ask(nullptr, OnProgress, this), SVCMGR_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(TheRequest().ask(nullptr, nullptr, this), SVCMGR_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(TheRequest().ask(list, nullptr, this), SVCMGR_ERROR_INVALID_PARAMETER);
  std::vector<int> lines;
  for (const fake::LogRecord& record : fake::Logs()) {
    if (record.priority != DLOG_ERROR) continue;
    EXPECT_THAT(record, IsError(kEntryFile, TheRequest().name, "parameter is NULL!!"));
    lines.push_back(record.line);
  }
  ASSERT_THAT(lines, SizeIs(3));
  EXPECT_EQ(lines[0], lines[1]);
  EXPECT_LT(lines[1], lines[2]);
}

TEST_P(AModelRequest, RefusesNullWhenConnectedToo) {
  connection::Stand();
  EXPECT_EQ(TheRequest().ask(nullptr, OnProgress, this), SVCMGR_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(TheRequest().ask(list, nullptr, this), SVCMGR_ERROR_INVALID_PARAMETER);
  EXPECT_THAT(fake::SentParcels(), IsEmpty());
}

TEST_P(AModelRequest, PassesOnNullUserData) {
  static int count = 0;
  static void* seen = &count;
  const auto callback = [](int, Progress progress, void* user_data) {
    seen = user_data;
    ++count;
    velmora_svcmgr_ai_progress_destroy(progress);
  };
  connection::Stand();
  EXPECT_EQ(TheRequest().ask(list, callback, nullptr), SVCMGR_ERROR_NONE);
  fake::DeliverDelegateMessage(TheRequest().delegate_id, 0, {0, 1, 2, 3, 4});
  EXPECT_EQ(count, 1);
  EXPECT_EQ(seen, nullptr);
}

TEST_P(AModelRequest, IsNotConnectedWithoutAProxy) {
  EXPECT_EQ(Ask(), SVCMGR_ERROR_NOT_CONNECTED);
  connection::StandWithoutProxy();
  EXPECT_EQ(Ask(), SVCMGR_ERROR_NOT_CONNECTED);
  EXPECT_THAT(fake::Logs(),
              ElementsAre(Entry(TheRequest()),
                          IsError(kContextFile, TheRequest().operation, "Not connected"),
                          FollowUp(TheRequest(), -107)));
}

TEST_P(AModelRequest, IsNotConnectedBeforeAnEntryIsLookedAt) {
  models::Add(list, Texts{});
  EXPECT_EQ(Ask(), SVCMGR_ERROR_NOT_CONNECTED);
}

TEST_P(AModelRequest, IsNotConnectedAfterDisconnecting) {
  connection::Stand();
  EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(Ask(), SVCMGR_ERROR_NOT_CONNECTED);
}

TEST_P(AModelRequest, FailsInTheProxyWhileConnecting) {
  connection::Start();
  EXPECT_EQ(Ask(), SVCMGR_ERROR_INVALID_OPERATION);
  EXPECT_THAT(
      fake::Logs(),
      ElementsAre(Entry(TheRequest()), IsProxyError(TheRequest().operation, "Not connected"),
                  IsError(kContextFile, TheRequest().operation, "Unknown Exception"),
                  FollowUp(TheRequest(), -38)));
  EXPECT_EQ(fake::CountCalls("rpc_port_parcel_create"), 0U);
}

TEST_P(AModelRequest, IsSentOnTheStoredPortAfterADrop) {
  connection::Stand();
  fake::Proxy().FireDisconnected();
  EXPECT_EQ(Ask(), SVCMGR_ERROR_NONE);
  EXPECT_THAT(fake::SentParcels(), SizeIs(1));
}

TEST_P(AModelRequest, FailsWhenItCannotBeSentAndUsesItsSequenceNumberUp) {
  connection::Stand();
  fake::Next("rpc_port_parcel_send", fake::Fail(-32));
  EXPECT_EQ(Ask(), SVCMGR_ERROR_INVALID_OPERATION);
  EXPECT_THAT(
      fake::Logs(),
      ElementsAre(Entry(TheRequest()),
                  IsProxyError(TheRequest().operation, "Failed to send parcel. result(-32)"),
                  IsError(kContextFile, TheRequest().operation, "Unknown Exception"),
                  FollowUp(TheRequest(), -38)));
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
  EXPECT_EQ(Ask(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(SeqOfSent(0), 1);
}

TEST_P(AModelRequest, SendsNothingWhenItsParcelCannotBeMade) {
  connection::Stand();
  const std::vector<std::pair<const char*, int>> writes = {{"rpc_port_parcel_create", 1},
                                                           {"rpc_port_parcel_write_int32", 4},
                                                           {"rpc_port_parcel_write_bool", 1},
                                                           {"rpc_port_parcel_write_array_count", 1},
                                                           {"rpc_port_parcel_write_string", 4}};
  for (const auto& [function, calls] : writes) {
    for (int n = 1; n <= calls; ++n) {
      fake::ClearRecord();
      fake::AtCall(function, n, fake::Fail(-12));
      ExpectUnknownException();
      EXPECT_EQ(fake::CountCalls("rpc_port_parcel_send"), 0U) << function << ' ' << n;
      EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
      fake::ForgetScripts(function);
    }
  }
}

TEST_P(AModelRequest, OfAnEmptyListIsSent) {
  connection::Stand();
  const List empty = NewList();
  EXPECT_EQ(TheRequest().ask(empty, OnProgress, this), SVCMGR_ERROR_NONE);
  ASSERT_THAT(fake::SentParcels(), SizeIs(1));
  EXPECT_EQ(fake::SentParcels()[0].items,
            (Items{TheRequest().method, TheRequest().delegate_id, 0, false, Count(0), 0}));
  EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(empty), SVCMGR_ERROR_NONE);
}

TEST_P(AModelRequest, DoesNotNeedItsListAnyLonger) {
  connection::Stand();
  EXPECT_EQ(Ask(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(list), SVCMGR_ERROR_NONE);
  fake::DeliverDelegateMessage(TheRequest().delegate_id, 0, {0, 1, 2, 3, 4});
  EXPECT_THAT(reports, SizeIs(1));
  list = NewList();
}

TEST_P(AModelRequest, LeavesItsListAsItIs) {
  connection::Stand();
  EXPECT_EQ(Ask(), SVCMGR_ERROR_NONE);
  EXPECT_THAT(models::Contents(list), ElementsAre(kModel));
}

TEST_P(AModelRequest, SendsNothingWhenATextOfAnyModelIsNull) {
  connection::Stand();
  models::Add(list, kOther);
  models::Add(list, kOther);
  for (const velmora_svcmgr_ai_model_info_h info :
       {list->models.at(0), list->models.at(1), list->models.at(2)}) {
    for (char** field : {&info->id, &info->version, &info->title, &info->description}) {
      char* const text = *field;
      *field = nullptr;
      fake::ClearRecord();
      ExpectUnknownException();
      EXPECT_THAT(fake::CallNames("rpc_port"), IsEmpty());
      *field = text;
    }
  }
  EXPECT_EQ(Ask(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(SeqOfSent(0), 0);
}

TEST_P(AModelRequest, SendsNothingOfAListThatWasDestroyedInPart) {
  connection::Stand();
  models::Add(list, kOther);
  // The list itself, its first model, its second.
  fake::AtCall("package_info_create", 3, fake::Fail(fake::kNoSuchPackage));
  EXPECT_NE(velmora_svcmgr_ai_model_list_destroy(list), SVCMGR_ERROR_NONE);
  ASSERT_EQ(list->models.at(0), nullptr);
  ASSERT_NE(list->models.at(1), nullptr);
  fake::ClearRecord();
  ExpectUnknownException();
  EXPECT_THAT(fake::CallNames("rpc_port"), IsEmpty());
}

TEST_P(AModelRequest, IsInvalidWhenALookUpOfTheAgentThrows) {
  connection::Stand();
  for (const int n : {1, 2}) {
    fake::ClearRecord();
    fake::AtCall("package_info_create", n, fake::Throw(std::runtime_error("thrown")));
    EXPECT_EQ(Ask(), SVCMGR_ERROR_INVALID_OPERATION);
    EXPECT_THAT(fake::Logs(),
                ElementsAre(Entry(TheRequest()),
                            IsError(kEntryFile, TheRequest().name, "Unknown Exception")));
    fake::ForgetScripts("package_info_create");
  }
}

TEST_P(AModelRequest, IsInvalidWhereverMemoryRunsOut) {
  connection::Stand();
  int failures = 0;
  for (; failures < 300; ++failures) {
    fake::ClearRecord();
    int result = 0;
    bool happened = false;
    {
      const FailingAllocation failing(Allocator::kAny, failures + 1);
      result = Ask();
      happened = failing.Happened();
    }
    if (!happened) {
      EXPECT_EQ(result, SVCMGR_ERROR_NONE);
      break;
    }
    EXPECT_EQ(result, SVCMGR_ERROR_INVALID_OPERATION) << failures;
    EXPECT_THAT(fake::Logs(), Contains(IsUnknownException())) << failures;
    EXPECT_THAT(fake::SentParcels(), IsEmpty()) << failures;
    EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0) << failures;
    EXPECT_EQ(fake::LiveObjects(fake::Kind::kPackageInfo), 0) << failures;
  }
  EXPECT_GE(failures, 4);  // a text of the model each
  EXPECT_LT(failures, 300);
}

TEST_P(AModelRequest, KeepsAnEarlierOneAwaitedWhenItFails) {
  connection::Stand();
  EXPECT_EQ(Ask(), SVCMGR_ERROR_NONE);
  fake::Next("rpc_port_parcel_send", fake::Fail(-32));
  EXPECT_EQ(Ask(), SVCMGR_ERROR_INVALID_OPERATION);
  fake::DeliverDelegateMessage(TheRequest().delegate_id, 0, {0, 0, 0, 0, 0});
  EXPECT_THAT(reports, SizeIs(1));
}

namespace rpc = rpc_port::SvcMgrAppProxy::proxy;

struct Unnamed {};

template <typename T>
struct AnExceptionInAModelRequest : ModelRequests {};

using Exceptions =
    ::testing::Types<AppInfoException, NoSuchAppException, SvcmgrException, rpc::Exception,
                     rpc::NotConnectedSocketException, rpc::InvalidProtocolException,
                     rpc::InvalidIOException, std::bad_alloc, std::exception, Unnamed, int>;
struct NameByIndex {
  template <typename>
  static std::string GetName(int index) {
    return std::to_string(index);
  }
};
TYPED_TEST_SUITE(AnExceptionInAModelRequest, Exceptions, NameByIndex);

TYPED_TEST(AnExceptionInAModelRequest, IsUnknownWhateverItIs) {
  connection::Stand();
  for (const Request& request : {kUpdate, kUninstall}) {
    fake::ClearRecord();
    fake::Next("rpc_port_parcel_send", fake::Throw(TypeParam()));
    EXPECT_EQ(request.ask(this->list, ModelRequests::OnProgress, this),
              SVCMGR_ERROR_INVALID_OPERATION);
    EXPECT_THAT(
        fake::Logs(),
        ElementsAre(Entry(request), IsError(kContextFile, request.operation, "Unknown Exception"),
                    FollowUp(request, -38)));
  }
}

// ---- Progress messages --------------------------------------------------------------------------

// A message's payload: the result, then the numbers in the order of the wire.
Items Message(int result, const Numbers& numbers) {
  return {result, numbers.state, numbers.index, numbers.count, numbers.percentage};
}

struct Translation {
  std::string name;
  int result;
  int code;
};

void PrintTo(const Translation& translation, std::ostream* out) { *out << translation.name; }

struct AnAgentResult : ModelRequests,
                       ::testing::WithParamInterface<std::tuple<Request, Translation>> {};

INSTANTIATE_TEST_SUITE_P(
    Of, AnAgentResult,
    ::testing::Combine(::testing::Values(kUpdate, kUninstall),
                       ::testing::Values(Translation{"0", 0, 0}, Translation{"1", 1, -38},
                                         Translation{"2", 2, 0}, Translation{"3", 3, -1073741831},
                                         Translation{"4", 4, -38}, Translation{"5", 5, -28},
                                         Translation{"6", 6, -1073741829}, Translation{"7", 7, -38},
                                         Translation{"8", 8, -1073741826}, Translation{"9", 9, -13},
                                         Translation{"10", 10, 0}, Translation{"11", 11, -38},
                                         Translation{"Minus1", -1, -38},
                                         Translation{"Minus10", -10, -38},
                                         Translation{"TheLargest", INT_MAX, -38},
                                         Translation{"TheSmallest", INT_MIN, -38})),
    [](const auto& row) {
      return std::get<0>(row.param).operation + "_" + std::get<1>(row.param).name;
    });

TEST_P(AnAgentResult, IsTranslatedAndTheNumbersDeliveredWhateverItIs) {
  const auto& [request, row] = GetParam();
  connection::Stand();
  ASSERT_EQ(request.ask(list, OnProgress, this), SVCMGR_ERROR_NONE);
  fake::DeliverDelegateMessage(request.delegate_id, 0, Message(row.result, {1, 2, 3, 4}));
  EXPECT_THAT(reports, ElementsAre(Report{row.code, Numbers{1, 2, 3, 4}}));
}

struct AProgressMessage : ModelRequests, ::testing::WithParamInterface<Request> {
  void SetUp() override {
    ModelRequests::SetUp();
    connection::Stand();
    ASSERT_EQ(TheRequest().ask(list, OnProgress, this), SVCMGR_ERROR_NONE);
    fake::ClearRecord();
  }

  static const Request& TheRequest() { return GetParam(); }
  static void Receive(const Items& payload, int seq = 0) {
    fake::DeliverDelegateMessage(TheRequest().delegate_id, seq, payload);
  }
};

INSTANTIATE_TEST_SUITE_P(Of, AProgressMessage, ::testing::Values(kUpdate, kUninstall),
                         [](const auto& row) { return row.param.operation; });

TEST_P(AProgressMessage, IsTheseBytes) {
  fake::DeliverBytes(std::string("01 00 00 00  0") + (TheRequest().delegate_id == 4 ? "4" : "5") +
                     " 00 00 00  00 00 00 00  00  05 00 00 00"
                     "  11 00 00 00  02 00 00 00  03 00 00 00  e7 ff ff ff");
  EXPECT_THAT(reports, ElementsAre(Report{SVCMGR_ERROR_NO_SPACE, Numbers{2, 3, -25, 17}}));
}

TEST_P(AProgressMessage, IsConvertedInTheseSteps) {
  keeps_handles = true;
  Receive(Message(0, {1, 2, 3, 4}));
  EXPECT_THAT(fake::Logs(), ElementsAre(IsInfo(kAnswerFile, "Convert",
                                               "conver AIUpdateProgressInfo to progress_handle"),
                                        IsInfo(kAnswerFile, "Convert", "Successful conversion")));
  // To create the record, to set its four numbers, and to read its state back.
  EXPECT_EQ(fake::CountCalls("package_info_create"), 6U);
  ASSERT_THAT(handles, SizeIs(1));
  EXPECT_EQ(velmora_svcmgr_ai_progress_destroy(handles[0]), SVCMGR_ERROR_NONE);
}

struct ASetterThatFails : ModelRequests, ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(AtNumber, ASetterThatFails, ::testing::Range(0, 4));

TEST_P(ASetterThatFails, LeavesItsNumberZeroInTheOrderIndexCountPercentageState) {
  connection::Stand();
  ASSERT_EQ(velmora_svcmgr_ai_request_to_update(list, OnProgress, this), SVCMGR_ERROR_NONE);
  fake::ClearRecord();
  fake::AtCall("package_info_create", 2 + GetParam(), fake::Fail(fake::kNoSuchPackage));
  fake::DeliverDelegateMessage(4, 0, Message(0, {11, 12, 13, 14}));
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

TEST_P(AProgressMessage, IsDeliveredWithoutARecordWhenMemoryIsExhausted) {
  fake::Proxy().QueueCallbackMessage(Items{1, TheRequest().delegate_id, 0, false} +
                                     Message(2, {1, 2, 3, 4}));
  bool happened = false;
  {
    const FailingAllocation failing(Allocator::kCalloc);
    fake::Proxy().FireReceived();
    happened = failing.Happened();
  }
  EXPECT_TRUE(happened);
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

TEST_P(AProgressMessage, IsDeliveredWithoutARecordWhenTheAgentIsMissing) {
  fake::RemoveAgent();
  Receive(Message(3, {1, 2, 3, 4}));
  EXPECT_THAT(reports, ElementsAre(Report{SVCMGR_ERROR_AGENT_CODE_3, std::nullopt}));
}

TEST_P(AProgressMessage, IsOneOfManyAndEachGivesOneCallWithARecordOfItsOwn) {
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
  for (const Progress handle : handles) {
    EXPECT_EQ(velmora_svcmgr_ai_progress_destroy(handle), SVCMGR_ERROR_NONE);
  }
}

TEST_P(AProgressMessage, PassesEveryNumberOn) {
  for (const Numbers& numbers :
       {Numbers{-1, -2, -3, -4}, Numbers{INT_MAX, INT_MIN, INT_MAX, INT_MIN}, Numbers{0, 0, 101, 0},
        Numbers{5, 2, 250, 99}}) {
    Receive(Message(0, numbers));
    EXPECT_EQ(reports.back(), (Report{0, numbers}));
  }
}

TEST_P(AProgressMessage, IsForTheRequestOfItsKindAndSequenceNumberAlone) {
  Receive(Message(0, {}), 1);
  fake::DeliverDelegateMessage(9 - TheRequest().delegate_id, 0, Message(0, {}));
  EXPECT_THAT(reports, IsEmpty());
  Receive(Message(0, {}), 0);
  EXPECT_THAT(reports, SizeIs(1));
}

TEST_P(AProgressMessage, OfAFormerConnectionIsNotDelivered) {
  EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
  connection::Stand();
  Receive(Message(0, {}));
  EXPECT_THAT(reports, IsEmpty());
}

TEST_P(AProgressMessage, DoesNoHarmWhereverMemoryRunsOut) {
  int failures = 0;
  for (; failures < 300; ++failures) {
    reports.clear();
    fake::Proxy().QueueCallbackMessage(Items{1, TheRequest().delegate_id, 0, false} +
                                       Message(0, {1, 2, 3, 4}));
    bool happened = false;
    {
      const FailingAllocation failing(Allocator::kAny, failures + 1);
      try {
        fake::Proxy().FireReceived();
      } catch (const std::bad_alloc&) {
        // Memory ran out outside the library, in what delivers the message.
      }
      happened = failing.Happened();
    }
    EXPECT_LE(reports.size(), 1U) << failures;
    EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0) << failures;
    if (!happened) {
      EXPECT_THAT(reports, ElementsAre(Report{0, Numbers{1, 2, 3, 4}}));
      break;
    }
  }
  EXPECT_GE(failures, 1);
  EXPECT_LT(failures, 300);
}

struct ATruncatedMessage : ModelRequests,
                           ::testing::WithParamInterface<std::tuple<Request, std::size_t>> {};

INSTANTIATE_TEST_SUITE_P(Of, ATruncatedMessage,
                         ::testing::Combine(::testing::Values(kUpdate, kUninstall),
                                            ::testing::Range(std::size_t{0}, std::size_t{5})),
                         [](const auto& row) {
                           return std::get<0>(row.param).operation + "_CutAfter" +
                                  std::to_string(std::get<1>(row.param));
                         });

TEST_P(ATruncatedMessage, IsDeliveredOnceAsAFailureOfNoProgress) {
  const auto& [request, items] = GetParam();
  connection::Stand();
  ASSERT_EQ(request.ask(list, OnProgress, this), SVCMGR_ERROR_NONE);
  const Items whole = Message(0, {1, 2, 3, 4});
  fake::DeliverDelegateMessage(request.delegate_id, 0, fake::CutAfter(whole, items));
  EXPECT_THAT(reports, ElementsAre(Report{SVCMGR_ERROR_INVALID_OPERATION, Numbers{}}));
  Items garbage(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(items));
  garbage.push_back(fake::UnreadableWithGarbage());
  fake::DeliverDelegateMessage(request.delegate_id, 0, garbage);
  EXPECT_EQ(reports.back(), (Report{SVCMGR_ERROR_INVALID_OPERATION, Numbers{}}));
  fake::DeliverDelegateMessage(request.delegate_id, 0, whole);
  EXPECT_EQ(reports.back(), (Report{0, Numbers{1, 2, 3, 4}}));
  EXPECT_THAT(reports, SizeIs(3));
}

// ---- What a callback may do ---------------------------------------------------------------------

struct ACallback : AProgressMessage {};

INSTANTIATE_TEST_SUITE_P(Of, ACallback, ::testing::Values(kUpdate, kUninstall),
                         [](const auto& row) { return row.param.operation; });

TEST_P(ACallback, MayDisconnect) {
  on_report = [] { EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE); };
  Receive(Message(0, {}));
  EXPECT_THAT(reports, SizeIs(1));
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 0);
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
}

TEST_P(ACallback, MayDisconnectConnectAndAskAgain) {
  on_report = [this] {
    on_report = nullptr;
    EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
    EXPECT_EQ(velmora_svcmgr_connect(connection::Ignore, nullptr), SVCMGR_ERROR_NONE);
    fake::Proxy().FireConnected();
    EXPECT_EQ(TheRequest().ask(list, OnProgress, this), SVCMGR_ERROR_NONE);
  };
  Receive(Message(0, {}));
  EXPECT_EQ(fake::ProxyCount(), 2);
  Receive(Message(0, {1, 1, 1, 1}), 1);
  EXPECT_THAT(reports, ElementsAre(Report{0, Numbers{}}, Report{0, Numbers{1, 1, 1, 1}}));
}

TEST_P(ACallback, MayAskAgainForEitherKind) {
  on_report = [this] {
    on_report = nullptr;
    EXPECT_EQ(kUpdate.ask(list, OnProgress, this), SVCMGR_ERROR_NONE);
    EXPECT_EQ(kUninstall.ask(list, OnProgress, this), SVCMGR_ERROR_NONE);
  };
  Receive(Message(0, {}));
  fake::DeliverDelegateMessage(4, 1, Message(0, {1, 1, 1, 1}));
  fake::DeliverDelegateMessage(5, 2, Message(0, {2, 2, 2, 2}));
  EXPECT_THAT(reports, ElementsAre(Report{0, Numbers{}}, Report{0, Numbers{1, 1, 1, 1}},
                                   Report{0, Numbers{2, 2, 2, 2}}));
}

TEST_P(ACallback, MayReceiveAnotherMessageInside) {
  on_report = [this] {
    if (reports.size() == 1) Receive(Message(0, {2, 2, 2, 2}));
  };
  Receive(Message(0, {1, 1, 1, 1}));
  EXPECT_THAT(reports, ElementsAre(Report{0, Numbers{1, 1, 1, 1}}, Report{0, Numbers{2, 2, 2, 2}}));
}

TEST_P(ACallback, MayWaitForAnotherAnswer) {
  int level = 0;
  on_report = [&level] {
    fake::QueueReply({11});
    EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), SVCMGR_ERROR_NONE);
  };
  Receive(Message(0, {}));
  EXPECT_EQ(level, 11);
}

TEST_P(ACallback, MayThrowAndReceivesTheNextMessageToo) {
  const std::vector<std::function<void()>> throwing = {[] { throw std::runtime_error("thrown"); },
                                                       [] { throw 42; },
                                                       [] { throw rpc::InvalidIOException(); },
                                                       [] {
                                                         velmora_svcmgr_disconnect();
                                                         throw std::bad_alloc();
                                                       }};
  for (const auto& action : throwing) {
    fake::ClearRecord();
    on_report = action;
    Receive(Message(0, {}));
    const auto logs = fake::Logs();
    ASSERT_THAT(logs, ::testing::Not(IsEmpty()));
    EXPECT_THAT(logs.back(), IsUnknownException());
    EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
  }
  EXPECT_THAT(reports, SizeIs(throwing.size()));
}

}  // namespace
