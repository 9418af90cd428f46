// SPDX-License-Identifier: Apache-2.0
// The six requests for models: what they send, what they do when that fails, and what all answers
// to them have in common.

#include <algorithm>
#include <climits>
#include <memory>
#include <new>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "SvcMgrAppProxyException.h"
#include "SvcmgrException.h"
#include "connection_support.h"
#include "kept.h"
#include "model_support.h"
#include "rules.h"
#include "service_model_list.h"
#include "svcmgr_protocol.h"

namespace {

using fake::Count;
using fake::IsError;
using fake::IsInfo;
using fake::IsProxyError;
using fake::Items;
using models::Steps;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kEntryFile[] = "service_request.cc";
constexpr char kContextFile[] = "SvcMgrAppProxyHandler.cc";

struct Request {
  std::string name;                   // the exported function, without the common prefix
  std::string operation;              // of the client context
  std::string proxy_method;           // of the port
  int method;                         // on the wire
  int delegate_id;                    // of its answers
  std::string follow_up;              // the record after a failure, without its code
  std::vector<std::string> look_ups;  // what is asked of the platform before the request is built
  Items arguments;                    // after the delegate's header
  std::vector<std::string> writes;    // of the arguments
  Items answer;                       // after the agent's result

  const rules::Function& function() const {
    return rules::Find("velmora_svcmgr_ai_request_" + name);
  }
};

void PrintTo(const Request& request, std::ostream* out) { *out << request.operation; }

using Names = std::vector<std::string>;

template <typename... More>
Names Join(Names all, const More&... more) {
  (all.insert(all.end(), more.begin(), more.end()), ...);
  return all;
}

const Names kIdentity = {"app_get_id", "app_get_version"};
const Names kScan = {"package_manager_foreach_package_info", "package_info_get_package",
                     "package_info_get_version", "app_info_create", "app_info_foreach_metadata"};
const Items kApplication = {"org.example.app", "1.2.3"};
const Items kModel = {"id", "1", "title", "description"};
const Items kModels = Items{Count(1)} + kModel + Items{1};
const Items kNoModels = {Count(0), 0};
const Items kNoProgress = {0, 0, 0, 0};
const Names kTwoTexts(2, "rpc_port_parcel_write_string");
const Names kSixTexts(6, "rpc_port_parcel_write_string");
const Names kList =
    Join({"rpc_port_parcel_write_array_count"}, Names(4, "rpc_port_parcel_write_string"),
         Names{"rpc_port_parcel_write_int32"});

const Request kUsable = {"usable_model_list",
                         "GetUsableModelList",
                         "GetUsableModelList",
                         5,
                         1,
                         "connection error",
                         kIdentity,
                         kApplication,
                         kTwoTexts,
                         kNoModels};
const Request kDescribed = {"usable_model_list_with_description",
                            "GetUsableModelListWithDesc",
                            "GetUsableModelListWithDesc",
                            6,
                            2,
                            "connection error",
                            kIdentity,
                            kApplication,
                            kTwoTexts,
                            kNoModels};
const Request kCategory = {"usable_model_list_with_category",
                           "GetUsableModelListWithCategory",
                           "GetUsableModelList",
                           5,
                           1,
                           "connection error",
                           kScan,
                           {VENDOR_PACKAGE_PREFIX "camera", "4.5.6"},
                           kTwoTexts,
                           kNoModels};
const Request kVersions = {"model_version_list",
                           "GetModelVersionList",
                           "GetModelVersionList",
                           7,
                           3,
                           "error",
                           kIdentity,
                           kModel + kApplication,
                           kSixTexts,
                           kNoModels};
const Request kUpdate = {
    "to_update", "RequestToUpdate", "RequestToUpdate", 8, 4, "error", {}, kModels,
    kList,       kNoProgress};
const Request kUninstall = {
    "to_uninstall", "RequestToUninstall", "RequestToUninstall", 9, 5, "error", {}, kModels,
    kList,          kNoProgress};

const auto kAll = testing::Values(kUsable, kDescribed, kCategory, kVersions, kUpdate, kUninstall);

struct NameOfRequest {
  std::string operator()(const testing::TestParamInfo<Request>& info) const {
    return info.param.operation;
  }
  template <typename Row>
  std::string operator()(const testing::TestParamInfo<std::tuple<Request, Row>>& info) const {
    return std::get<0>(info.param).operation + "_" + std::get<1>(info.param).name;
  }
};

/** What a callback received. */
struct Answer {
  int error;
  bool has_handle;
};
bool operator==(const Answer& a, const Answer& b) {
  return a.error == b.error && a.has_handle == b.has_handle;
}

/** An application that sends requests. */
class ModelRequests : public fake::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    stage = std::make_unique<rules::Stage>();
    stage->on_models = [](int error, velmora_svcmgr_ai_model_list_h list, void* user_data) {
      Receive({error, list != nullptr}, user_data);
      velmora_svcmgr_ai_model_list_destroy(list);
    };
    stage->on_progress = [](int error, velmora_svcmgr_ai_progress_h progress, void* user_data) {
      Receive({error, progress != nullptr}, user_data);
      velmora_svcmgr_ai_progress_destroy(progress);
    };
    stage->user_data = &answers;
    fake::AllowHeld(fake::Kind::kAppInfo, 1000);
    fake::ExpectKept(fake::Kept::kAppInfo, fake::kEachThatLives);
  }

  void TearDown() override {
    stage.reset();
    PlatformTest::TearDown();
  }

  static void Receive(Answer answer, void* user_data) {
    if (user_data == nullptr) {
      ++without_user_data;
    } else {
      static_cast<std::vector<Answer>*>(user_data)->push_back(answer);
    }
  }

  int Ask(const Request& request) const { return request.function().Call(*stage); }

  static void Deliver(const Request& request, int seq, int result) {
    fake::DeliverDelegateMessage(request.delegate_id, seq, Items{result} + request.answer);
  }

  /** The seq of the latest request that was sent. */
  static int LatestSeq() { return fake::SentParcels().back().items.at(2).number; }

  /** The records of a request that comes to nothing. */
  static void ExpectRecords(const Request& request, int code,
                            std::vector<testing::Matcher<const fake::LogRecord&>> between) {
    const rules::Function& function = request.function();
    between.insert(between.begin(), IsInfo(kEntryFile, function.name, function.entry));
    between.push_back(
        IsError(kEntryFile, function.name, request.follow_up + " [" + std::to_string(code) + "]"));
    EXPECT_THAT(fake::Logs(), ElementsAreArray(between));
  }

  void ExpectFailure(const Request& request, int code, const std::string& message) const {
    EXPECT_EQ(Ask(request), code);
    ExpectRecords(request, code, {IsError(kContextFile, request.operation, message)});
  }

  std::unique_ptr<rules::Stage> stage;
  std::vector<Answer> answers;
  inline static int without_user_data = 0;
};

class AModelRequest : public ModelRequests, public testing::WithParamInterface<Request> {
 protected:
  static const Request& It() { return GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(Of, AModelRequest, kAll, NameOfRequest());

/* What is sent. */

TEST_P(AModelRequest, TakesItsStepsInOrder) {
  connection::Stand();
  EXPECT_EQ(Ask(It()), SVCMGR_ERROR_NONE);
  const Names look_ups = {"package_info_create", "package_info_destroy", "package_info_create",
                          "package_info_get_version", "package_info_destroy"};
  const Names header = {"rpc_port_parcel_create", "rpc_port_parcel_write_int32",
                        "rpc_port_parcel_write_int32", "rpc_port_parcel_write_int32",
                        "rpc_port_parcel_write_bool"};
  const Names sending = {"rpc_port_parcel_send", "rpc_port_parcel_destroy"};
  const std::string entry = "I " + It().function().name + ": " + It().function().entry;
  EXPECT_EQ(Steps(), Join({entry}, look_ups, It().look_ups, header, It().writes, sending));
}

TEST_P(AModelRequest, SendsItsMethodItsDelegateAndItsArguments) {
  connection::Stand();
  const std::string before = stage->Contents();
  for (int seq = 0; seq < 2; ++seq) {
    EXPECT_EQ(Ask(It()), SVCMGR_ERROR_NONE);
    EXPECT_EQ(fake::SentParcels().back().items,
              (Items{It().method, It().delegate_id, seq, false}) + It().arguments);
  }
  EXPECT_EQ(stage->Contents(), before);
  EXPECT_THAT(answers, IsEmpty());
}

TEST_P(AModelRequest, IsAnsweredWithItsUserDataWhichMayBeNull) {
  connection::Stand();
  EXPECT_EQ(Ask(It()), SVCMGR_ERROR_NONE);
  stage->user_data = nullptr;
  EXPECT_EQ(Ask(It()), SVCMGR_ERROR_NONE);
  Deliver(It(), 0, 0);
  EXPECT_THAT(answers, ElementsAre(Answer{0, true}));
  EXPECT_EQ(without_user_data, 0);
  Deliver(It(), 1, 0);
  EXPECT_EQ(without_user_data, 1);
}

TEST_P(AModelRequest, IsAnsweredByItsKindAndSequenceNumberAlone) {
  connection::Stand();
  EXPECT_EQ(Ask(It()), SVCMGR_ERROR_NONE);
  Deliver(It(), 1, 0);
  fake::DeliverDelegateMessage(It().delegate_id % 5 + 1, 0, {0, 0, 0, 0, 0});
  EXPECT_THAT(answers, IsEmpty());
  EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
  connection::Stand();
  Deliver(It(), 0, 0);  // of the former connection
  EXPECT_THAT(answers, IsEmpty());
}

/* What goes wrong. */

TEST_P(AModelRequest, IsNotConnectedWithoutAProxyWhateverTheConnectedFlagSays) {
  for (const auto enter : {+[] {}, connection::StandWithoutProxy}) {
    enter();
    fake::ClearRecord();
    ExpectFailure(It(), SVCMGR_ERROR_NOT_CONNECTED, "Not connected");
  }
}

TEST_P(AModelRequest, FailsInTheProxyWhileConnectingAndUsesItsSequenceNumberUp) {
  connection::Start();
  EXPECT_EQ(Ask(It()), SVCMGR_ERROR_INVALID_OPERATION);
  ExpectRecords(It(), -38,
                {IsProxyError(It().proxy_method, "Not connected"),
                 IsError(kContextFile, It().operation, "Unknown Exception")});
  EXPECT_EQ(fake::CountCalls("rpc_port_parcel_create"), 0U);
  fake::Proxy().FireConnected();
  EXPECT_EQ(Ask(It()), SVCMGR_ERROR_NONE);
  EXPECT_EQ(LatestSeq(), 1);
}

TEST_P(AModelRequest, IsSentOnTheStoredPortAfterADrop) {
  connection::Stand();
  fake::Proxy().FireDisconnected();
  EXPECT_EQ(Ask(It()), SVCMGR_ERROR_NONE);
  EXPECT_THAT(fake::SentParcels(), SizeIs(1));
}

TEST_P(AModelRequest, FailsWhenItCannotBeSentAndUsesItsSequenceNumberUp) {
  connection::Stand();
  EXPECT_EQ(Ask(It()), SVCMGR_ERROR_NONE);
  fake::ClearRecord();
  fake::Next("rpc_port_parcel_send", fake::Fail(-32));
  EXPECT_EQ(Ask(It()), SVCMGR_ERROR_INVALID_OPERATION);
  ExpectRecords(It(), -38,
                {IsProxyError(It().proxy_method, "Failed to send parcel. result(-32)"),
                 IsError(kContextFile, It().operation, "Unknown Exception")});
  EXPECT_EQ(Ask(It()), SVCMGR_ERROR_NONE);
  EXPECT_EQ(LatestSeq(), 2);
  Deliver(It(), 0, 0);  // an earlier one is still awaited
  EXPECT_THAT(answers, SizeIs(1));
}

TEST_P(AModelRequest, SendsNothingWhenItsParcelCannotBeMade) {
  connection::Stand();
  EXPECT_EQ(Ask(It()), SVCMGR_ERROR_NONE);
  const Names calls = fake::CallNames("rpc_port_parcel_write");
  for (const std::string& function : Join(kTwoTexts, calls, Names{"rpc_port_parcel_create"})) {
    const auto times = static_cast<int>(std::count(calls.begin(), calls.end(), function));
    for (int n = 1; n <= std::max(times, 1); ++n) {
      fake::ClearRecord();
      fake::AtCall(function, n, fake::Fail(-12));
      ExpectFailure(It(), SVCMGR_ERROR_INVALID_OPERATION, "Unknown Exception");
      EXPECT_EQ(fake::CountCalls("rpc_port_parcel_send"), 0U);
      EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
      fake::ForgetScripts(function);
    }
  }
}

struct Thrown {
  std::string name;
  fake::Step (*step)();
};

void PrintTo(const Thrown& thrown, std::ostream* out) { *out << thrown.name; }

template <typename T>
Thrown Row(const char* name) {
  return {name, [] { return fake::Throw(T()); }};
}

struct Unnamed {};

class AnExceptionInAModelRequest : public ModelRequests,
                                   public testing::WithParamInterface<std::tuple<Request, Thrown>> {
};

INSTANTIATE_TEST_SUITE_P(
    Of, AnExceptionInAModelRequest,
    testing::Combine(kAll, testing::Values(Row<AppInfoException>("AppInfo"),
                                           Row<NoSuchAppException>("NoSuchApp"),
                                           Row<SvcmgrException>("TheClientsBase"),
                                           Row<rpc::Exception>("TheProxysRoot"),
                                           Row<rpc::InvalidIOException>("InvalidIO"),
                                           Row<std::bad_alloc>("OutOfMemory"),
                                           Row<std::exception>("AStandardOne"),
                                           Row<Unnamed>("AnUnknownClass"), Row<int>("ANumber"))),
    NameOfRequest());

TEST_P(AnExceptionInAModelRequest, IsLoggedByTheOperation) {
  const auto& [request, thrown] = GetParam();
  connection::Stand();
  fake::Next("rpc_port_parcel_send", thrown.step());
  const bool of_category = request.operation == kCategory.operation;
  if (of_category && thrown.name == "NoSuchApp") {
    ExpectFailure(request, SVCMGR_ERROR_INVALID_PARAMETER, "No such package for the category.");
  } else if (!of_category && !request.look_ups.empty() && thrown.name == "AppInfo") {
    ExpectFailure(request, SVCMGR_ERROR_INVALID_OPERATION, "Failed to get app info.");
  } else {
    ExpectFailure(request, SVCMGR_ERROR_INVALID_OPERATION, "Unknown Exception");
  }
}

/* What is missing before there is anything to send: no sequence number is used up. */

struct Failure {
  std::string name;
  std::string function;
  fake::Step step;
};

void PrintTo(const Failure& failure, std::ostream* out) { *out << failure.name; }

class AnUnknownIdentity : public ModelRequests,
                          public testing::WithParamInterface<std::tuple<Request, Failure>> {};

INSTANTIATE_TEST_SUITE_P(
    Of, AnUnknownIdentity,
    testing::Combine(
        testing::Values(kUsable, kDescribed, kVersions),
        testing::Values(Failure{"IdFails", "app_get_id", fake::Fail(-5)},
                        Failure{"IdFailsWithGarbage", "app_get_id", fake::FailWithGarbage(-12)},
                        Failure{"IdIsNull", "app_get_id", fake::SucceedWithNull()},
                        Failure{"IdIsEmpty", "app_get_id", fake::SucceedWithText("")},
                        Failure{"VersionFails", "app_get_version", fake::FailWithNull(-5)},
                        Failure{"VersionIsEmpty", "app_get_version", fake::SucceedWithText("")})),
    NameOfRequest());

TEST_P(AnUnknownIdentity, EndsTheRequest) {
  const auto& [request, failure] = GetParam();
  const bool id = failure.function == "app_get_id";
  connection::Stand();
  fake::Next(failure.function, failure.step);
  EXPECT_EQ(Ask(request), SVCMGR_ERROR_INVALID_OPERATION);
  ExpectRecords(request, -38,
                {IsError(kContextFile, id ? "GetAppId" : "GetAppVersion",
                         id ? "Failed to get app ID." : "Failed to get app version."),
                 IsError(kContextFile, request.operation, "Failed to get app info.")});
  EXPECT_EQ(fake::CountCalls("app_get_version"), id ? 0U : 1U);
  EXPECT_EQ(fake::CountCalls("rpc_port_parcel_create"), 0U);
  EXPECT_EQ(Ask(request), SVCMGR_ERROR_NONE);
  EXPECT_EQ(LatestSeq(), 0);
}

TEST_F(ModelRequests, ReadTheIdentityAnewEachTime) {
  connection::Stand();
  EXPECT_EQ(Ask(kUsable), SVCMGR_ERROR_NONE);
  fake::SetApplication({"org.example.other", "9", std::nullopt});
  EXPECT_EQ(Ask(kUsable), SVCMGR_ERROR_NONE);
  EXPECT_EQ(fake::SentParcels().back().items, (Items{5, 1, 1, false, "org.example.other", "9"}));
}

TEST_F(ModelRequests, SendNothingWhenATextOfAnyModelIsNotSet) {
  connection::Stand();
  models::Add(stage->models, {"model-2", "2.0", "", "Another"});
  ASSERT_EQ(stage->models->models.size(), 2U);
  using Field = char* velmora_svcmgr_ai_model_info_s::*;
  const std::vector<std::pair<const Request&, models::Info>> cases = {
      {kVersions, stage->info},
      {kUpdate, stage->models->models[0]},
      {kUpdate, stage->models->models[1]},
      {kUninstall, stage->models->models[1]}};
  for (const auto& [request, info] : cases) {
    for (const Field field :
         {&velmora_svcmgr_ai_model_info_s::id, &velmora_svcmgr_ai_model_info_s::version,
          &velmora_svcmgr_ai_model_info_s::title, &velmora_svcmgr_ai_model_info_s::description}) {
      char* const text = info->*field;
      info->*field = nullptr;
      fake::ClearRecord();
      ExpectFailure(request, SVCMGR_ERROR_INVALID_OPERATION, "Unknown Exception");
      EXPECT_THAT(fake::CallNames("app_get"), IsEmpty());
      EXPECT_THAT(fake::CallNames("rpc_port"), IsEmpty());
      info->*field = text;
    }
  }
  EXPECT_EQ(Ask(kUpdate), SVCMGR_ERROR_NONE);
  EXPECT_EQ(fake::SentParcels().back().items, (Items{8, 4, 0, false, Count(2)}) + kModel +
                                                  (Items{"model-2", "2.0", "", "Another", 2}));
}

TEST_F(ModelRequests, SendNothingOfAListThatWasDestroyedInPart) {
  connection::Stand();
  const models::Info first = std::exchange(stage->models->models[0], nullptr);
  for (const Request& request : {kUpdate, kUninstall}) {
    fake::ClearRecord();
    ExpectFailure(request, SVCMGR_ERROR_INVALID_OPERATION, "Unknown Exception");
    EXPECT_THAT(fake::CallNames("rpc_port"), IsEmpty());
  }
  stage->models->models[0] = first;
}

TEST_F(ModelRequests, MayBeForAnEmptyList) {
  connection::Stand();
  std::swap(stage->models, stage->spare_models);
  EXPECT_EQ(Ask(kUpdate), SVCMGR_ERROR_NONE);
  EXPECT_EQ(Ask(kUninstall), SVCMGR_ERROR_NONE);
  EXPECT_EQ(fake::SentParcels()[0].items, (Items{8, 4, 0, false, Count(0), 0}));
  EXPECT_EQ(fake::SentParcels()[1].items, (Items{9, 5, 1, false, Count(0), 0}));
  std::swap(stage->models, stage->spare_models);
}

/* Answers. */

struct Translation {
  int result;
  int code;
};

constexpr Translation kTranslations[] = {
    {0, 0},           {1, -38},   {2, 0},           {3, -1073741831}, {4, -38}, {5, -28},
    {6, -1073741829}, {7, -38},   {8, -1073741826}, {9, -13},         {10, 0},  {11, -38},
    {-1, -38},        {-10, -38}, {INT_MAX, -38},   {INT_MIN, -38},
};

TEST_P(AModelRequest, IsAnsweredWithTheTranslatedResultAndAHandleWhateverItIs) {
  connection::Stand();
  EXPECT_EQ(Ask(It()), SVCMGR_ERROR_NONE);
  for (const Translation& row : kTranslations) {
    answers.clear();
    Deliver(It(), 0, row.result);
    EXPECT_THAT(answers, ElementsAre(Answer{row.code, true})) << row.result;
  }
}

TEST_P(AModelRequest, IsAnsweredWithAFailureAndAHandleIfTheAnswerEndsEarly) {
  connection::Stand();
  EXPECT_EQ(Ask(It()), SVCMGR_ERROR_NONE);
  const Items whole = Items{0} + It().answer;
  for (std::size_t n = 0; n < whole.size(); ++n) {
    answers.clear();
    fake::DeliverDelegateMessage(It().delegate_id, 0, fake::CutAfter(whole, n));
    EXPECT_THAT(answers, ElementsAre(Answer{SVCMGR_ERROR_INVALID_OPERATION, true})) << n;
  }
  Deliver(It(), 0, 0);  // and awaits the next
  EXPECT_THAT(answers, SizeIs(2));
}

TEST_P(AModelRequest, IsAnsweredWithoutAHandleIfNoneCanBeMade) {
  connection::Stand();
  EXPECT_EQ(Ask(It()), SVCMGR_ERROR_NONE);
  fake::RemoveAgent();
  Deliver(It(), 0, 3);
  EXPECT_THAT(answers, ElementsAre(Answer{SVCMGR_ERROR_AGENT_CODE_3, false}));
}

}  // namespace
