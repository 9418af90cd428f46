// SPDX-License-Identifier: Apache-2.0
// Queries for models, their answers, and the look-up of a category.

#include <algorithm>
#include <climits>
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

namespace {

using fake::Allocator;
using fake::Count;
using fake::FailingAllocation;
using fake::IsError;
using fake::IsInfo;
using fake::IsProxyError;
using fake::Items;
using models::Contents;
using models::Info;
using models::IsUnknownException;
using models::List;
using models::NameOfRow;
using models::NewInfo;
using models::Size;
using models::Steps;
using models::Texts;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

constexpr char kEntryFile[] = "service_request.cc";
constexpr char kContextFile[] = "SvcMgrAppProxyHandler.cc";
constexpr char kAnswerFile[] = "SvcMgrAppProxyCallback.cc";
constexpr char kNoSuchPackageText[] = "No such package for the category.";
const std::string kVendor = VENDOR_PACKAGE_PREFIX;
const std::string kCamera = kVendor + "camera";
const Texts kModel = {"model-1", "1.0", "A title", "A description"};

struct Answer {
  int error;
  List list;
};

// The agent and the vendor's camera, which declares the category "vision", are installed.
struct ModelQueries : fake::PlatformTest {
  void SetUp() override {
    PlatformTest::SetUp();
    fake::SetPackages({Camera(), Agent("2.3.0")});
    fake::AllowHeld(fake::Kind::kAppInfo, 1000);
    info = NewInfo(kModel);
    answers.reserve(16);  // so that recording an answer allocates nothing
    fake::ClearRecord();
  }

  void TearDown() override {
    fake::ForgetScripts("package_info_create");
    fake::SetPackages({Agent("2.3.0")});
    if (info != nullptr) {
      EXPECT_EQ(velmora_svcmgr_ai_model_info_destroy(info), SVCMGR_ERROR_NONE);
    }
    for (const Answer& answer : answers) {
      if (answer.list == nullptr) continue;
      EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(answer.list), SVCMGR_ERROR_NONE);
    }
    fake::ExpectKept(kept);
    PlatformTest::TearDown();
  }

  static fake::Package Camera() { return {kCamera, "4.5.6", {{"ai-agent-category", "vision"}}}; }
  static fake::Package Agent(const std::string& version) { return {fake::kAgentId, version, {}}; }

  static void OnModels(int error, List list, void* user_data) {
    auto* const self = static_cast<ModelQueries*>(user_data);
    self->answers.push_back({error, list});
    if (self->on_answer) self->on_answer();
  }

  // Delivers an answer; the storage of the list that it makes enters the ledger of blocks.
  static void Deliver(int id, int seq, const Items& payload) {
    fake::Proxy().QueueCallbackMessage(Items{1, id, seq, false} + payload);
    const fake::NewTracking tracking;
    fake::Proxy().FireReceived();
  }

  // What the conversion of this many models leaves on purpose, once the list is destroyed: the
  // storage, and for each model the temporary record with its four texts.
  void KeptByConversion(std::size_t models) {
    const std::size_t storage = models > 0 && fake::SeesOperatorNew() ? 1 : 0;
    kept += storage + 5 * models;
  }

  Info info = nullptr;
  std::vector<Answer> answers;
  std::function<void()> on_answer;
  std::size_t kept = 0;
};

using Q = ModelQueries;
using Callback = velmora_svcmgr_ai_model_list_cb;

struct Query {
  std::string name;       // the exported function
  std::string entry;      // its first record
  std::string operation;  // of the client context
  int level;              // the agent level that it needs
  std::string follow_up;  // the record behind a failure, without the code
  int method;             // on the wire
  int delegate_id;
  const char* received;  // the record behind an answer, without the code; null for none
  int (*ask)(Q&, Callback callback, void* user_data);
  int (*ask_nothing)();               // with all arguments null
  std::vector<std::string> look_ups;  // what is asked of the platform before the request is built
  Items arguments;                    // behind the delegate's header
};

void PrintTo(const Query& query, std::ostream* out) { *out << query.operation; }

const Query kUsable = {"velmora_svcmgr_ai_request_usable_model_list",
                       "__ velmora_svcmgr_ai_request_usable_model_list __",
                       "GetUsableModelList",
                       8,
                       "connection error",
                       5,
                       1,
                       "GetModelVersionListCB::OnReceived error_code",
                       [](Q&, Callback callback, void* user_data) {
                         return velmora_svcmgr_ai_request_usable_model_list(callback, user_data);
                       },
                       [] { return velmora_svcmgr_ai_request_usable_model_list(nullptr, nullptr); },
                       {"app_get_id", "app_get_version"},
                       {"org.example.app", "1.2.3"}};

const Query kDescribed = {
    "velmora_svcmgr_ai_request_usable_model_list_with_description",
    "__ velmora_svcmgr_ai_request_usable_model_list_with_description __",
    "GetUsableModelListWithDesc",
    8,
    "connection error",
    6,
    2,
    "GetUsableModelListWithDescCB::OnReceived error_code",
    [](Q&, Callback callback, void* user_data) {
      return velmora_svcmgr_ai_request_usable_model_list_with_description(callback, user_data);
    },
    [] { return velmora_svcmgr_ai_request_usable_model_list_with_description(nullptr, nullptr); },
    {"app_get_id", "app_get_version"},
    {"org.example.app", "1.2.3"}};

const Query kCategory = {
    "velmora_svcmgr_ai_request_usable_model_list_with_category",
    "__ velmora_svcmgr_ai_request_usable_model_list_with_category __",
    "GetUsableModelListWithCategory",
    11,
    "connection error",
    5,
    1,
    "GetModelVersionListCB::OnReceived error_code",
    [](Q&, Callback callback, void* user_data) {
      return velmora_svcmgr_ai_request_usable_model_list_with_category(callback, "vision",
                                                                       user_data);
    },
    [] {
      return velmora_svcmgr_ai_request_usable_model_list_with_category(nullptr, nullptr, nullptr);
    },
    {"package_manager_foreach_package_info", "package_info_get_package", "package_info_get_version",
     "app_info_create", "app_info_foreach_metadata"},
    {kCamera, "4.5.6"}};

const Query kVersions = {
    "velmora_svcmgr_ai_request_model_version_list",
    "__ velmora_svcmgr_ai_request_usable_model_list __",
    "GetModelVersionList",
    8,
    "error",
    7,
    3,
    nullptr,
    [](Q& q, Callback callback, void* user_data) {
      return velmora_svcmgr_ai_request_model_version_list(q.info, callback, user_data);
    },
    [] { return velmora_svcmgr_ai_request_model_version_list(nullptr, nullptr, nullptr); },
    {"app_get_id", "app_get_version"},
    {"model-1", "1.0", "A title", "A description", "org.example.app", "1.2.3"}};

std::string NameOfQuery(const Query& query) { return query.operation; }

int Ask(Q& q, const Query& query) { return query.ask(q, Q::OnModels, &q); }

::testing::Matcher<const fake::LogRecord&> Entry(const Query& query) {
  return IsInfo(kEntryFile, query.name, query.entry);
}

::testing::Matcher<const fake::LogRecord&> FollowUp(const Query& query, int code) {
  return IsError(kEntryFile, query.name, query.follow_up + " [" + std::to_string(code) + "]");
}

// The seq of the n-th request that was sent.
int SeqOfSent(std::size_t n) {
  const auto sent = fake::SentParcels();
  return n < sent.size() && sent[n].items.size() > 2 ? sent[n].items[2].number : -1;
}

const std::vector<std::string> kAvailability = {"package_info_create", "package_info_destroy"};
const std::vector<std::string> kAgentLevel = {"package_info_create", "package_info_get_version",
                                              "package_info_destroy"};

template <typename... More>
std::vector<std::string> Join(std::vector<std::string> all, const More&... more) {
  (all.insert(all.end(), more.begin(), more.end()), ...);
  return all;
}

// ---- What the four queries share ----------------------------------------------------------------

struct AModelQuery : ModelQueries, ::testing::WithParamInterface<Query> {
  static const Query& TheQuery() { return GetParam(); }
  int AskIt() { return Ask(*this, TheQuery()); }
  static std::vector<std::string> EntryStep() {
    return {"I " + TheQuery().name + ": " + TheQuery().entry};
  }
  static std::vector<std::string> Error(const std::string& message) {
    return {"E " + TheQuery().name + ": " + message};
  }
};

INSTANTIATE_TEST_SUITE_P(Of, AModelQuery,
                         ::testing::Values(kUsable, kDescribed, kCategory, kVersions),
                         [](const auto& row) { return NameOfQuery(row.param); });

TEST_P(AModelQuery, TakesItsStepsInOrder) {
  connection::Stand();
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_NONE);
  std::vector<std::string> request = {"rpc_port_parcel_create", "rpc_port_parcel_write_int32",
                                      "rpc_port_parcel_write_int32", "rpc_port_parcel_write_int32",
                                      "rpc_port_parcel_write_bool"};
  request.resize(request.size() + TheQuery().arguments.size(), "rpc_port_parcel_write_string");
  request.insert(request.end(), {"rpc_port_parcel_send", "rpc_port_parcel_destroy"});
  EXPECT_EQ(Steps(), Join(EntryStep(), kAvailability, kAgentLevel, TheQuery().look_ups, request));
  EXPECT_THAT(fake::Logs(), ElementsAre(Entry(TheQuery())));
}

TEST_P(AModelQuery, SendsItsMethodItsDelegateAndItsArguments) {
  connection::Stand();
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_NONE);
  const auto sent = fake::SentParcels();
  ASSERT_THAT(sent, SizeIs(2));
  for (int seq = 0; seq < 2; ++seq) {
    const Items head = {TheQuery().method, TheQuery().delegate_id, seq, false};
    EXPECT_EQ(sent[static_cast<std::size_t>(seq)].items, head + TheQuery().arguments);
  }
  EXPECT_THAT(answers, IsEmpty());
}

TEST_P(AModelQuery, IsNotSupportedWhenTheAgentIsMissing) {
  fake::RemoveAgent();
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_NOT_SUPPORTED);
  EXPECT_EQ(Steps(), Join(EntryStep(), std::vector<std::string>{"package_info_create"},
                          Error("Not supported")));
  EXPECT_THAT(fake::Logs(), ElementsAre(Entry(TheQuery()),
                                        IsError(kEntryFile, TheQuery().name, "Not supported")));
}

TEST_P(AModelQuery, IsNotSupportedWhenTheAgentIsMissingWhateverIsNull) {
  fake::RemoveAgent();
  EXPECT_EQ(TheQuery().ask_nothing(), SVCMGR_ERROR_NOT_SUPPORTED);
}

TEST_P(AModelQuery, IsUnsupportedWithoutARecordWhenTheAgentIsTooOld) {
  connection::Stand();
  fake::SetPackages({Camera(), Agent(TheQuery().level == 8 ? "1.6.9" : "2.2.99")});
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION);
  EXPECT_EQ(Steps(), Join(EntryStep(), kAvailability, kAgentLevel));
  EXPECT_THAT(fake::Logs(), ElementsAre(Entry(TheQuery())));
}

TEST_P(AModelQuery, IsUnsupportedBeforeItLooksAtItsArguments) {
  fake::InstallAgent("1.6.9");
  EXPECT_EQ(TheQuery().ask_nothing(), SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION);
  EXPECT_THAT(fake::Logs(), ElementsAre(Entry(TheQuery())));
}

TEST_P(AModelQuery, RefusesANullCallbackBeforeItLooksAtTheConnection) {
  EXPECT_EQ(TheQuery().ask(*this, nullptr, this), SVCMGR_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(Steps(), Join(EntryStep(), kAvailability, kAgentLevel, Error("parameter is NULL!!")));
  EXPECT_THAT(fake::Logs(), ElementsAre(Entry(TheQuery()), IsError(kEntryFile, TheQuery().name,
                                                                   "parameter is NULL!!")));
}

TEST_P(AModelQuery, RefusesANullCallbackWhenConnected) {
  connection::Stand();
  EXPECT_EQ(TheQuery().ask(*this, nullptr, this), SVCMGR_ERROR_INVALID_PARAMETER);
  EXPECT_THAT(fake::SentParcels(), IsEmpty());
}

TEST_P(AModelQuery, PassesOnNullUserData) {
  static int count = 0;
  static void* seen = &count;
  const Callback callback = [](int, List list, void* user_data) {
    seen = user_data;
    ++count;
    velmora_svcmgr_ai_model_list_destroy(list);
  };
  connection::Stand();
  EXPECT_EQ(TheQuery().ask(*this, callback, nullptr), SVCMGR_ERROR_NONE);
  Deliver(TheQuery().delegate_id, 0, {0, Count(0), 0});
  EXPECT_EQ(count, 1);
  EXPECT_EQ(seen, nullptr);
}

TEST_P(AModelQuery, IsNotConnectedWithoutAProxy) {
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_NOT_CONNECTED);
  EXPECT_EQ(Steps(), Join(EntryStep(), kAvailability, kAgentLevel,
                          std::vector<std::string>{"E " + TheQuery().operation + ": Not connected"},
                          Error(TheQuery().follow_up + " [-107]")));
  EXPECT_THAT(
      fake::Logs(),
      ElementsAre(Entry(TheQuery()), IsError(kContextFile, TheQuery().operation, "Not connected"),
                  FollowUp(TheQuery(), -107)));
}

TEST_P(AModelQuery, IsNotConnectedWithoutAProxyWhateverTheConnectedFlagSays) {
  connection::StandWithoutProxy();
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_NOT_CONNECTED);
  EXPECT_THAT(
      fake::Logs(),
      ElementsAre(Entry(TheQuery()), IsError(kContextFile, TheQuery().operation, "Not connected"),
                  FollowUp(TheQuery(), -107)));
}

TEST_P(AModelQuery, IsNotConnectedAfterDisconnecting) {
  connection::Stand();
  EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_NOT_CONNECTED);
}

TEST_P(AModelQuery, FailsInTheProxyWhileConnecting) {
  connection::Start();
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_INVALID_OPERATION);
  const std::string method = TheQuery().method == 5 ? "GetUsableModelList" : TheQuery().operation;
  EXPECT_THAT(fake::Logs(),
              ElementsAre(Entry(TheQuery()), IsProxyError(method, "Not connected"),
                          IsError(kContextFile, TheQuery().operation, "Unknown Exception"),
                          FollowUp(TheQuery(), -38)));
  EXPECT_EQ(fake::CountCalls("rpc_port_parcel_create"), 0U);
}

TEST_P(AModelQuery, IsSentOnTheStoredPortAfterADrop) {
  connection::Stand();
  fake::Proxy().FireDisconnected();
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_NONE);
  EXPECT_THAT(fake::SentParcels(), SizeIs(1));
}

TEST_P(AModelQuery, FailsWhenItCannotBeSent) {
  connection::Stand();
  fake::Next("rpc_port_parcel_send", fake::Fail(-32));
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_INVALID_OPERATION);
  const std::string method = TheQuery().method == 5 ? "GetUsableModelList" : TheQuery().operation;
  EXPECT_THAT(
      fake::Logs(),
      ElementsAre(Entry(TheQuery()), IsProxyError(method, "Failed to send parcel. result(-32)"),
                  IsError(kContextFile, TheQuery().operation, "Unknown Exception"),
                  FollowUp(TheQuery(), -38)));
  EXPECT_THAT(answers, IsEmpty());
}

TEST_P(AModelQuery, SendsNothingWhenItsParcelCannotBeMade) {
  connection::Stand();
  const std::vector<std::pair<const char*, int>> writes = {
      {"rpc_port_parcel_create", 1},
      {"rpc_port_parcel_write_int32", 3},
      {"rpc_port_parcel_write_bool", 1},
      {"rpc_port_parcel_write_string", static_cast<int>(TheQuery().arguments.size())}};
  for (const auto& [function, calls] : writes) {
    for (int n = 1; n <= calls; ++n) {
      fake::ClearRecord();
      fake::AtCall(function, n, fake::Fail(-12));
      EXPECT_EQ(AskIt(), SVCMGR_ERROR_INVALID_OPERATION) << function << ' ' << n;
      EXPECT_THAT(fake::Logs(),
                  ElementsAre(Entry(TheQuery()),
                              IsError(kContextFile, TheQuery().operation, "Unknown Exception"),
                              FollowUp(TheQuery(), -38)));
      EXPECT_EQ(fake::CountCalls("rpc_port_parcel_send"), 0U);
      EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
      fake::ForgetScripts(function);
    }
  }
}

TEST_P(AModelQuery, UsesItsSequenceNumberUpWhenSendingFails) {
  connection::Stand();
  fake::Next("rpc_port_parcel_send", fake::Fail(-32));
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_INVALID_OPERATION);
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(SeqOfSent(0), 1);
}

TEST_P(AModelQuery, UsesItsSequenceNumberUpWhileConnecting) {
  connection::Start();
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_INVALID_OPERATION);
  fake::Proxy().FireConnected();
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(SeqOfSent(0), 1);
}

TEST_P(AModelQuery, UsesNoSequenceNumberUpBeforeItsDelegateIsMade) {
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_NOT_CONNECTED);
  connection::Stand();
  EXPECT_EQ(TheQuery().ask(*this, nullptr, this), SVCMGR_ERROR_INVALID_PARAMETER);
  fake::Next(TheQuery().look_ups.front(), fake::Throw(std::runtime_error("thrown")));
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_INVALID_OPERATION);
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(SeqOfSent(0), 0);
}

TEST_P(AModelQuery, KeepsAnEarlierRequestAwaitedWhenItFails) {
  connection::Stand();
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_NONE);
  fake::Next("rpc_port_parcel_send", fake::Fail(-32));
  EXPECT_EQ(AskIt(), SVCMGR_ERROR_INVALID_OPERATION);
  Deliver(TheQuery().delegate_id, 0, {0, Count(0), 0});
  EXPECT_THAT(answers, SizeIs(1));
}

TEST_P(AModelQuery, IsInvalidWhenALookUpOfTheAgentThrows) {
  connection::Stand();
  for (const int n : {1, 2}) {
    fake::ClearRecord();
    fake::AtCall("package_info_create", n, fake::Throw(std::runtime_error("thrown")));
    EXPECT_EQ(AskIt(), SVCMGR_ERROR_INVALID_OPERATION);
    EXPECT_THAT(fake::Logs(), ElementsAre(Entry(TheQuery()), IsError(kEntryFile, TheQuery().name,
                                                                     "Unknown Exception")));
    fake::ForgetScripts("package_info_create");
  }
}

TEST_P(AModelQuery, IsInvalidWhereverMemoryRunsOut) {
  if (!fake::SeesOperatorNew()) GTEST_SKIP() << "operator new is the sanitizer's";
  connection::Stand();
  int failures = 0;
  for (; failures < 300; ++failures) {
    fake::ClearRecord();
    int result = 0;
    bool happened = false;
    {
      const FailingAllocation failing(Allocator::kAny, failures + 1);
      result = AskIt();
      happened = failing.Happened();
    }
    if (!happened) {
      EXPECT_EQ(result, SVCMGR_ERROR_NONE);
      break;
    }
    EXPECT_EQ(result, SVCMGR_ERROR_INVALID_OPERATION) << failures;
    EXPECT_THAT(fake::Logs(), Contains(IsUnknownException())) << failures;
    EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0) << failures;
    EXPECT_EQ(fake::LiveObjects(fake::Kind::kPackageInfo), 0) << failures;
  }
  EXPECT_GE(failures, 1);
  EXPECT_LT(failures, 300);
}

// ---- Each kind of exception ---------------------------------------------------------------------

namespace rpc = rpc_port::SvcMgrAppProxy::proxy;

struct Unnamed {};

struct Thrown {
  std::string name;
  fake::Step (*step)();
};

void PrintTo(const Thrown& thrown, std::ostream* out) { *out << thrown.name; }

template <typename T>
Thrown Row(const char* name) {
  return {name, [] { return fake::Throw(T()); }};
}

struct AnExceptionInAModelQuery : ModelQueries,
                                  ::testing::WithParamInterface<std::tuple<Query, Thrown>> {};

INSTANTIATE_TEST_SUITE_P(
    Of, AnExceptionInAModelQuery,
    ::testing::Combine(::testing::Values(kUsable, kDescribed, kCategory, kVersions),
                       ::testing::Values(Row<AppInfoException>("AppInfo"),
                                         Row<NoSuchAppException>("NoSuchApp"),
                                         Row<SvcmgrException>("TheClientsBase"),
                                         Row<rpc::Exception>("TheProxysRoot"),
                                         Row<rpc::NotConnectedSocketException>("NotConnected"),
                                         Row<rpc::InvalidIOException>("InvalidIO"),
                                         Row<std::bad_alloc>("OutOfMemory"),
                                         Row<std::exception>("AStandardOne"),
                                         Row<Unnamed>("AnUnknownClass"), Row<int>("ANumber"))),
    [](const auto& row) {
      return NameOfQuery(std::get<0>(row.param)) + "_" + std::get<1>(row.param).name;
    });

TEST_P(AnExceptionInAModelQuery, IsLoggedByTheOperation) {
  const auto& [query, thrown] = GetParam();
  connection::Stand();
  fake::Next("rpc_port_parcel_send", thrown.step());
  const bool of_category = query.operation == kCategory.operation;
  std::string message = "Unknown Exception";
  int code = SVCMGR_ERROR_INVALID_OPERATION;
  if (!of_category && thrown.name == "AppInfo") message = "Failed to get app info.";
  if (of_category && thrown.name == "NoSuchApp") {
    message = kNoSuchPackageText;
    code = SVCMGR_ERROR_INVALID_PARAMETER;
  }
  EXPECT_EQ(Ask(*this, query), code);
  EXPECT_THAT(fake::Logs(),
              ElementsAre(Entry(query), IsError(kContextFile, query.operation, message),
                          FollowUp(query, code)));
}

// ---- The application's own ID and version -------------------------------------------------------

struct IdentityFailure {
  std::string name;
  std::string function;
  fake::Step (*step)();
};

void PrintTo(const IdentityFailure& failure, std::ostream* out) { *out << failure.name; }

struct AnUnknownIdentity : ModelQueries,
                           ::testing::WithParamInterface<std::tuple<Query, IdentityFailure>> {};

INSTANTIATE_TEST_SUITE_P(
    Of, AnUnknownIdentity,
    ::testing::Combine(
        ::testing::Values(kUsable, kDescribed, kVersions),
        ::testing::Values(
            IdentityFailure{"IdFails", "app_get_id", [] { return fake::Fail(-5); }},
            IdentityFailure{"IdFailsWithGarbage", "app_get_id",
                            [] { return fake::FailWithGarbage(-12); }},
            IdentityFailure{"IdFailsWithNull", "app_get_id",
                            [] { return fake::FailWithNull(-22); }},
            IdentityFailure{"IdIsNull", "app_get_id", [] { return fake::SucceedWithNull(); }},
            IdentityFailure{"IdIsEmpty", "app_get_id", [] { return fake::SucceedWithText(""); }},
            IdentityFailure{"VersionFails", "app_get_version", [] { return fake::Fail(-5); }},
            IdentityFailure{"VersionFailsWithGarbage", "app_get_version",
                            [] { return fake::FailWithGarbage(-12); }},
            IdentityFailure{"VersionFailsWithNull", "app_get_version",
                            [] { return fake::FailWithNull(-22); }},
            IdentityFailure{"VersionIsNull", "app_get_version",
                            [] { return fake::SucceedWithNull(); }},
            IdentityFailure{"VersionIsEmpty", "app_get_version",
                            [] { return fake::SucceedWithText(""); }})),
    [](const auto& row) {
      return NameOfQuery(std::get<0>(row.param)) + "_" + std::get<1>(row.param).name;
    });

TEST_P(AnUnknownIdentity, EndsTheQueryAndUsesNoSequenceNumberUp) {
  const auto& [query, failure] = GetParam();
  const bool id = failure.function == "app_get_id";
  connection::Stand();
  fake::Next(failure.function, failure.step());
  EXPECT_EQ(Ask(*this, query), SVCMGR_ERROR_INVALID_OPERATION);
  EXPECT_THAT(fake::Logs(),
              ElementsAre(Entry(query),
                          IsError(kContextFile, id ? "GetAppId" : "GetAppVersion",
                                  id ? "Failed to get app ID." : "Failed to get app version."),
                          IsError(kContextFile, query.operation, "Failed to get app info."),
                          FollowUp(query, -38)));
  EXPECT_EQ(fake::CountCalls("app_get_version"), id ? 0U : 1U);
  EXPECT_EQ(fake::CountCalls("rpc_port_parcel_create"), 0U);
  EXPECT_EQ(Ask(*this, query), SVCMGR_ERROR_NONE);
  EXPECT_EQ(SeqOfSent(0), 0);
}

TEST_F(ModelQueries, ReadTheIdentityAnewEachTime) {
  connection::Stand();
  EXPECT_EQ(Ask(*this, kUsable), SVCMGR_ERROR_NONE);
  fake::SetApplication({"org.example.other", "9", std::nullopt});
  EXPECT_EQ(Ask(*this, kUsable), SVCMGR_ERROR_NONE);
  EXPECT_EQ(fake::SentParcels().back().items, (Items{5, 1, 1, false, "org.example.other", "9"}));
}

TEST_F(ModelQueries, OfACategoryDoNotReadTheIdentity) {
  connection::Stand();
  EXPECT_EQ(Ask(*this, kCategory), SVCMGR_ERROR_NONE);
  EXPECT_THAT(fake::CallNames("app_get"), IsEmpty());
}

// ---- The model of a version query ---------------------------------------------------------------

struct AMissingText : ModelQueries, ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(OfField, AMissingText, ::testing::Range(0, 4));

TEST_P(AMissingText, EndsTheVersionQueryBeforeAnythingIsAsked) {
  connection::Stand();
  Texts texts = kModel;
  std::optional<std::string>* const fields[] = {&texts.id, &texts.version, &texts.title,
                                                &texts.description};
  fields[GetParam()]->reset();
  const Info incomplete = NewInfo(texts);
  fake::ClearRecord();
  EXPECT_EQ(velmora_svcmgr_ai_request_model_version_list(incomplete, OnModels, this),
            SVCMGR_ERROR_INVALID_OPERATION);
  EXPECT_THAT(fake::Logs(),
              ElementsAre(Entry(kVersions),
                          IsError(kContextFile, "GetModelVersionList", "Unknown Exception"),
                          FollowUp(kVersions, -38)));
  EXPECT_THAT(fake::CallNames("app_get"), IsEmpty());
  EXPECT_THAT(fake::CallNames("rpc_port"), IsEmpty());
  EXPECT_EQ(velmora_svcmgr_ai_model_info_destroy(incomplete), SVCMGR_ERROR_NONE);
  EXPECT_EQ(Ask(*this, kVersions), SVCMGR_ERROR_NONE);
  EXPECT_EQ(SeqOfSent(0), 0);
}

TEST_F(ModelQueries, OfVersionsSendEmptyTextsToo) {
  connection::Stand();
  const Info empty = NewInfo({"", "", "", ""});
  EXPECT_EQ(velmora_svcmgr_ai_request_model_version_list(empty, OnModels, this), SVCMGR_ERROR_NONE);
  EXPECT_EQ(fake::SentParcels().front().items,
            (Items{7, 3, 0, false, "", "", "", "", "org.example.app", "1.2.3"}));
  EXPECT_EQ(velmora_svcmgr_ai_model_info_destroy(empty), SVCMGR_ERROR_NONE);
}

TEST_F(ModelQueries, OfVersionsLeaveTheModelAsItIs) {
  connection::Stand();
  EXPECT_EQ(Ask(*this, kVersions), SVCMGR_ERROR_NONE);
  EXPECT_EQ(models::Read(info), kModel);
}

TEST_F(ModelQueries, OfVersionsLookAtTheModelBeforeTheCallback) {
  EXPECT_EQ(velmora_svcmgr_ai_request_model_version_list(nullptr, OnModels, this),
            SVCMGR_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(velmora_svcmgr_ai_request_model_version_list(nullptr, nullptr, this),
            SVCMGR_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(velmora_svcmgr_ai_request_model_version_list(info, nullptr, this),
            SVCMGR_ERROR_INVALID_PARAMETER);
  std::vector<int> lines;
  for (const fake::LogRecord& record : fake::Logs()) {
    if (record.priority != DLOG_ERROR) continue;
    EXPECT_THAT(record, IsError(kEntryFile, kVersions.name, "parameter is NULL!!"));
    lines.push_back(record.line);
  }
  ASSERT_THAT(lines, SizeIs(3));
  EXPECT_EQ(lines[0], lines[1]);
  EXPECT_LT(lines[1], lines[2]);
}

// ---- The level of the agent ---------------------------------------------------------------------

struct Version {
  std::string name;
  std::string text;
  int level;
};

void PrintTo(const Version& version, std::ostream* out) { *out << '"' << version.text << '"'; }

// Arguments are looked at behind the level, so that a null one shows that it is high enough.
int CodeAtLevel(int level, int minimum) {
  return level < minimum ? SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION : SVCMGR_ERROR_INVALID_PARAMETER;
}

void ExpectLevel(int level) {
  EXPECT_EQ(kUsable.ask_nothing(), CodeAtLevel(level, 8));
  EXPECT_EQ(kDescribed.ask_nothing(), CodeAtLevel(level, 8));
  EXPECT_EQ(kVersions.ask_nothing(), CodeAtLevel(level, 8));
  EXPECT_EQ(kCategory.ask_nothing(), CodeAtLevel(level, 11));
}

struct AnAgentVersion : ModelQueries, ::testing::WithParamInterface<Version> {};

INSTANTIATE_TEST_SUITE_P(
    Of, AnAgentVersion,
    ::testing::Values(
        Version{"1_6_9", "1.6.9", -1}, Version{"1_6_99999", "1.6.99999", -1},
        Version{"1_7_0", "1.7.0", 8}, Version{"1_7", "1.7", 8}, Version{"2_2_99", "2.2.99", 8},
        Version{"2_2", "2.2", 8}, Version{"2_3", "2.3", 11}, Version{"2_3_0", "2.3.0", 11},
        Version{"2_3_182", "2.3.182", 11}, Version{"2_10", "2.10", 11}, Version{"10", "10", 11},
        Version{"3", "3", 11}, Version{"2", "2", 8}, Version{"1", "1", -1}, Version{"0", "0", -1},
        Version{"0_0_0", "0.0.0", -1}, Version{"LeadingZeros", "002.003", 11},
        Version{"MinorOverflowsIntoMajor", "1.10003", 11},
        Version{"MinorJustBelowCategories", "1.10002", 8}, Version{"OnlyMinor", "0.10007", 8},
        Version{"OnlyMinorJustBelow", "0.10006", -1}, Version{"Empty", "", -1},
        Version{"Garbage", "garbage", -1}, Version{"LettersFirst", "v2.3", -1},
        Version{"LettersBehind", "2.3beta", 11}, Version{"LettersForMinor", "2.x", 8},
        Version{"AnotherSeparator", "2,3", 8}, Version{"DotFirst", ".3", -1},
        Version{"TrailingDot", "2.", 8}, Version{"TwoDots", "2..3", 8},
        Version{"BlanksFirst", "  2.3", 11}, Version{"BlankBehindTheDot", "2. 3", 11},
        Version{"BlankBeforeTheDot", "2 .3", 8}, Version{"Plus", "+2.+3", 11},
        Version{"NegativeMajor", "-2.3", -1}, Version{"NegativeMinor", "2.-1", 8},
        Version{"Hexadecimal", "0x2.3", -1}, Version{"MajorBeyondInt", "2147483648.0", 11},
        Version{"MajorWhoseProductIsBeyondInt", "214749.0", 11},
        Version{"MajorWhoseProductWrapsToLittle", "429497.0", 11},
        Version{"MajorThatWrapsToOne", "4294967297.0", 11},
        Version{"MajorBeyondLong", "99999999999999999999.0", 11},
        Version{"MajorFarBelow", "-99999999999999999999.0", -1},
        Version{"MinorBeyondInt", "1.4294967296", 11},
        Version{"MinorBeyondLong", "1.99999999999999999999", 11},
        Version{"MinorFarBelow", "2.-99999999999999999999", -1},
        Version{"FourThousandDigits", std::string(4000, '9'), 11},
        Version{"AHugePatch", "2.3.99999999999999999999", 11}),
    NameOfRow());

TEST_P(AnAgentVersion, GivesTheLevel) {
  fake::InstallAgent(GetParam().text);
  ExpectLevel(GetParam().level);
}

struct VersionFailure {
  std::string name;
  std::string function;
  int call;  // the one of the level, counted in one query
  fake::Step (*step)();
};

void PrintTo(const VersionFailure& failure, std::ostream* out) { *out << failure.name; }

struct AnUnknownAgentVersion : ModelQueries,
                               ::testing::WithParamInterface<std::tuple<Query, VersionFailure>> {};

INSTANTIATE_TEST_SUITE_P(
    Of, AnUnknownAgentVersion,
    ::testing::Combine(
        ::testing::Values(kUsable, kDescribed, kCategory, kVersions),
        ::testing::Values(VersionFailure{"PackageFails", "package_info_create", 2,
                                         [] { return fake::Fail(-5); }},
                          VersionFailure{"PackageFailsWithGarbage", "package_info_create", 2,
                                         [] { return fake::FailWithGarbage(-12); }},
                          VersionFailure{"PackageFailsWithNull", "package_info_create", 2,
                                         [] { return fake::FailWithNull(-13); }},
                          VersionFailure{"PackageFailsWithAnObject", "package_info_create", 2,
                                         [] { return fake::FailAfterWork(-22); }},
                          VersionFailure{"PackageIsNull", "package_info_create", 2,
                                         [] { return fake::SucceedWithNull(); }},
                          VersionFailure{"PackageVanishes", "package_info_create", 2,
                                         [] { return fake::Fail(fake::kNoSuchPackage); }},
                          VersionFailure{"VersionFails", "package_info_get_version", 1,
                                         [] { return fake::Fail(-5); }},
                          VersionFailure{"VersionFailsWithGarbage", "package_info_get_version", 1,
                                         [] { return fake::FailWithGarbage(-12); }},
                          VersionFailure{"VersionFailsWithNull", "package_info_get_version", 1,
                                         [] { return fake::FailWithNull(-22); }},
                          VersionFailure{"VersionIsNull", "package_info_get_version", 1,
                                         [] { return fake::SucceedWithNull(); }})),
    [](const auto& row) {
      return NameOfQuery(std::get<0>(row.param)) + "_" + std::get<1>(row.param).name;
    });

TEST_P(AnUnknownAgentVersion, IsTooOldWithoutARecord) {
  const auto& [query, failure] = GetParam();
  fake::AtCall(failure.function, failure.call, failure.step());
  EXPECT_EQ(Ask(*this, query), SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION);
  EXPECT_THAT(fake::Logs(), ElementsAre(Entry(query)));
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kPackageInfo), 0);
}

// ---- Answers ------------------------------------------------------------------------------------

// An answer of this result, these models and this count.
Items Answering(int result, const std::vector<Texts>& models, int count) {
  Items items = {result, Count(static_cast<int>(models.size()))};
  for (const Texts& model : models) {
    for (const auto& text : {model.id, model.version, model.title, model.description}) {
      items.push_back(text.has_value() ? fake::Item(*text) : fake::NullText());
    }
  }
  items.push_back(count);
  return items;
}

std::vector<Texts> ThreeModels() {
  return {{"a", "1", "A", "first"}, {"b", "2", "B", "second"}, {"c", "3", "C", "third"}};
}

struct Translation {
  std::string name;
  int result;
  int code;
};

void PrintTo(const Translation& translation, std::ostream* out) { *out << translation.name; }

struct AnAgentResult : ModelQueries,
                       ::testing::WithParamInterface<std::tuple<Query, Translation>> {};

INSTANTIATE_TEST_SUITE_P(
    Of, AnAgentResult,
    ::testing::Combine(::testing::Values(kUsable, kDescribed, kCategory, kVersions),
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
      return NameOfQuery(std::get<0>(row.param)) + "_" + std::get<1>(row.param).name;
    });

TEST_P(AnAgentResult, IsTranslatedAndTheListDeliveredWhateverItIs) {
  const auto& [query, row] = GetParam();
  connection::Stand();
  ASSERT_EQ(Ask(*this, query), SVCMGR_ERROR_NONE);
  fake::ClearRecord();
  Deliver(query.delegate_id, 0, Answering(row.result, {kModel}, 1));
  if (query.received != nullptr) {
    EXPECT_THAT(fake::Logs().front(),
                IsInfo(kAnswerFile, "OnReceived",
                       query.received + ("[" + std::to_string(row.result) + "]")));
  } else {
    EXPECT_EQ(fake::Logs().front().function, "Convert");
  }
  ASSERT_THAT(answers, SizeIs(1));
  EXPECT_EQ(answers[0].error, row.code);
  EXPECT_THAT(Contents(answers[0].list), ElementsAre(kModel));
  KeptByConversion(1);
}

// Tests of answers ask for the usable list, whose delegate is (1, 0).
struct AnAnswer : ModelQueries {
  void SetUp() override {
    ModelQueries::SetUp();
    connection::Stand();
    ASSERT_EQ(Ask(*this, kUsable), SVCMGR_ERROR_NONE);
    fake::ClearRecord();
  }

  static void Receive(const Items& payload) { Deliver(1, 0, payload); }

  static std::vector<std::string> MessagesOf(const std::string& function) {
    std::vector<std::string> messages;
    for (const fake::LogRecord& record : fake::Logs()) {
      if (record.function == function) messages.push_back(record.message);
    }
    return messages;
  }
};

TEST_F(AnAnswer, WritesItsRecordsInOrder) {
  Receive(Answering(8, {ThreeModels()[0], ThreeModels()[1]}, 2));
  KeptByConversion(2);
  const std::string info_create = "velmora_svcmgr_ai_model_info_create";
  const std::string list_create = "velmora_svcmgr_ai_model_list_create";
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsInfo(kAnswerFile, "OnReceived",
                                 "GetModelVersionListCB::OnReceived error_code[8]"),
                          IsInfo(kAnswerFile, "Convert", "conver AIModelList to model_list_handle"),
                          IsInfo("service_model_list.cc", list_create, list_create),
                          IsInfo("service_model_info.cc", info_create, info_create),
                          IsInfo(kAnswerFile, "Convert", "model [a - 1 - A - first]"),
                          IsInfo("service_model_info.cc", info_create, info_create),
                          IsInfo(kAnswerFile, "Convert", "model [b - 2 - B - second]"),
                          IsInfo(kAnswerFile, "Convert", "Successful conversion of [2] models.")));
  EXPECT_EQ(answers.at(0).error, SVCMGR_ERROR_KYR_DISABLED);
}

TEST_F(AnAnswer, IsConvertedThroughThePublicFunctions) {
  Receive(Answering(0, ThreeModels(), 3));
  KeptByConversion(3);
  // One for the list; for each model one to make it, four to set its texts, one to add it.
  EXPECT_EQ(fake::CountCalls("package_info_create"), 1U + 3U * 6U);
}

TEST_F(AnAnswer, CarriesItsModelsInOrder) {
  Receive(Answering(0, ThreeModels(), 3));
  KeptByConversion(3);
  EXPECT_EQ(Contents(answers.at(0).list), ThreeModels());
}

TEST_F(AnAnswer, LeavesTheStorageAndOneRecordForEachModel) {
  Receive(Answering(0, ThreeModels(), 3));
  KeptByConversion(3);
  EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(answers.at(0).list), SVCMGR_ERROR_NONE);
  answers[0].list = nullptr;
  EXPECT_EQ(velmora_svcmgr_ai_model_info_destroy(info), SVCMGR_ERROR_NONE);
  info = nullptr;
  std::vector<std::string> texts;
  int records = 0;
  int others = 0;
  for (const fake::Block& block : fake::LiveBlocks()) {
    if (block.origin == "strndup") {
      texts.push_back(block.Text());
    } else if (block.origin == "calloc") {
      ++records;
      EXPECT_EQ(block.size, 4 * sizeof(char*));
    } else {
      ++others;
      EXPECT_EQ(block.size, 4 * sizeof(void*));
    }
  }
  EXPECT_THAT(texts, ::testing::UnorderedElementsAre("a", "1", "A", "first", "b", "2", "B",
                                                     "second", "c", "3", "C", "third"));
  EXPECT_EQ(records, 3);
  EXPECT_EQ(others, fake::SeesOperatorNew() ? 1 : 0);
}

TEST_F(AnAnswer, OfNoModelsIsAnEmptyListOfItsOwn) {
  Receive(Answering(0, {}, 0));
  ASSERT_THAT(answers, SizeIs(1));
  ASSERT_NE(answers[0].list, nullptr);
  EXPECT_EQ(Size(answers[0].list), 0);
  EXPECT_THAT(MessagesOf("Convert"), ElementsAre("conver AIModelList to model_list_handle",
                                                 "Successful conversion of [0] models."));
}

struct ACount : AnAnswer, ::testing::WithParamInterface<int> {};

struct ACountThatIsNotPositive : ACount {};

INSTANTIATE_TEST_SUITE_P(Of, ACountThatIsNotPositive, ::testing::Values(0, -1, -3, INT_MIN),
                         [](const auto& row) {
                           const auto digits = std::to_string(row.param);
                           return row.param < 0 ? "Minus" + digits.substr(1) : digits;
                         });

TEST_P(ACountThatIsNotPositive, MakesTheListEmptyWhateverFollows) {
  Receive(Answering(0, ThreeModels(), GetParam()));
  ASSERT_THAT(answers, SizeIs(1));
  EXPECT_EQ(answers[0].error, SVCMGR_ERROR_NONE);
  EXPECT_EQ(Size(answers[0].list), 0);
}

TEST_P(ACountThatIsNotPositive, IsLoggedAsItIs) {
  Receive(Answering(0, ThreeModels(), GetParam()));
  EXPECT_THAT(MessagesOf("Convert"),
              ElementsAre("conver AIModelList to model_list_handle",
                          "Successful conversion of [" + std::to_string(GetParam()) + "] models."));
}

struct ACountThatIsPositive : ACount {};

INSTANTIATE_TEST_SUITE_P(Of, ACountThatIsPositive, ::testing::Values(1, 2, 3, 4, 1000, INT_MAX));

TEST_P(ACountThatIsPositive, IsLoggedAndBoundsNothing) {
  Receive(Answering(0, ThreeModels(), GetParam()));
  KeptByConversion(3);
  EXPECT_EQ(MessagesOf("Convert").back(),
            "Successful conversion of [" + std::to_string(GetParam()) + "] models.");
  EXPECT_EQ(Contents(answers.at(0).list), ThreeModels());
}

TEST_F(AnAnswer, WithANegativeArrayCountIsAnEmptyList) {
  for (const int count : {-1, -1000, INT_MIN}) {
    answers.clear();
    Receive({0, Count(count), 3});
    ASSERT_THAT(answers, SizeIs(1));
    EXPECT_EQ(answers[0].error, SVCMGR_ERROR_NONE);
    EXPECT_EQ(Size(answers[0].list), 0);
    EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(answers[0].list), SVCMGR_ERROR_NONE);
  }
  answers.clear();
}

TEST_F(AnAnswer, WithNullTextsHasEmptyOnes) {
  Receive(Answering(0, {Texts{}}, 1));
  KeptByConversion(1);
  EXPECT_THAT(Contents(answers.at(0).list), ElementsAre(Texts{"", "", "", ""}));
  EXPECT_THAT(fake::LogMessages(), Contains("Convert: model [ -  -  - ]"));
}

TEST_F(AnAnswer, WithConversionsInItsTextsIsLoggedAsItIs) {
  Receive(Answering(0, {{"%s", "%n", "%d%%", "100%"}}, 1));
  KeptByConversion(1);
  EXPECT_THAT(fake::LogMessages(), Contains("Convert: model [%s - %n - %d%% - 100%]"));
}

TEST_F(AnAnswer, WithLongTextsIsLoggedWholeAndBoundedInTheList) {
  const std::string text(3000, 'x');
  Receive(Answering(0, {{"id", "1", "title", text}}, 1));
  KeptByConversion(1);
  EXPECT_THAT(fake::LogMessages(), Contains("Convert: model [id - 1 - title - " + text + "]"));
  EXPECT_EQ(Contents(answers.at(0).list).at(0).description, text.substr(0, 2048));
}

TEST_F(AnAnswer, MayComeAgain) {
  Receive(Answering(0, {kModel}, 1));
  Receive(Answering(5, ThreeModels(), 3));
  KeptByConversion(1);
  KeptByConversion(3);
  ASSERT_THAT(answers, SizeIs(2));
  EXPECT_THAT(Contents(answers[0].list), ElementsAre(kModel));
  EXPECT_EQ(answers[1].error, SVCMGR_ERROR_NO_SPACE);
  EXPECT_EQ(Contents(answers[1].list), ThreeModels());
}

TEST_F(AnAnswer, IsForTheRequestOfItsSequenceNumberAlone) {
  static int count = 0;
  const Callback callback = [](int, List list, void*) {
    ++count;
    velmora_svcmgr_ai_model_list_destroy(list);
  };
  EXPECT_EQ(velmora_svcmgr_ai_request_usable_model_list(callback, nullptr), SVCMGR_ERROR_NONE);
  Deliver(1, 1, Answering(0, {}, 0));
  EXPECT_EQ(count, 1);
  EXPECT_THAT(answers, IsEmpty());
  Deliver(2, 0, Answering(0, {}, 0));  // another kind
  EXPECT_THAT(answers, IsEmpty());
}

// ---- Answers that cannot be converted -----------------------------------------------------------

TEST_F(AnAnswer, IsDeliveredWithoutAListWhenMemoryIsExhausted) {
  fake::Proxy().QueueCallbackMessage(Items{1, 1, 0, false} + Answering(0, ThreeModels(), 3));
  bool happened = false;
  {
    const FailingAllocation failing(Allocator::kCalloc);
    fake::Proxy().FireReceived();
    happened = failing.Happened();
  }
  EXPECT_TRUE(happened);
  ASSERT_THAT(answers, SizeIs(1));
  EXPECT_EQ(answers[0].error, SVCMGR_ERROR_NONE);
  EXPECT_EQ(answers[0].list, nullptr);
  const std::string list_create = "velmora_svcmgr_ai_model_list_create";
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsInfo(kAnswerFile, "OnReceived",
                                 "GetModelVersionListCB::OnReceived error_code[0]"),
                          IsInfo(kAnswerFile, "Convert", "conver AIModelList to model_list_handle"),
                          IsInfo("service_model_list.cc", list_create, list_create),
                          IsError("service_model_list.cc", list_create,
                                  "Failed to create velmora_svcmgr_ai_model_list_s."),
                          IsInfo(kAnswerFile, "Convert", "Successful conversion of [3] models.")));
}

TEST_F(AnAnswer, IsDeliveredWithoutAListWhenTheAgentIsMissing) {
  fake::RemoveAgent();
  Receive(Answering(3, ThreeModels(), 3));
  ASSERT_THAT(answers, SizeIs(1));
  EXPECT_EQ(answers[0].error, SVCMGR_ERROR_AGENT_CODE_3);
  EXPECT_EQ(answers[0].list, nullptr);
  EXPECT_THAT(MessagesOf("Convert"), ElementsAre("conver AIModelList to model_list_handle",
                                                 "Successful conversion of [3] models."));
}

struct AModelThatCannotBeMade : AnAnswer, ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(OfThree, AModelThatCannotBeMade, ::testing::Range(0, 3));

TEST_P(AModelThatCannotBeMade, IsLoggedAndLeftOut) {
  fake::Proxy().QueueCallbackMessage(Items{1, 1, 0, false} + Answering(0, ThreeModels(), 3));
  // The list comes first; a model takes two records, a temporary one and the list's.
  const int n = 1 + 2 * GetParam() + 1;
  bool happened = false;
  {
    const fake::NewTracking tracking;
    const FailingAllocation failing(Allocator::kCalloc, n);
    fake::Proxy().FireReceived();
    happened = failing.Happened();
  }
  EXPECT_TRUE(happened);
  KeptByConversion(2);
  EXPECT_THAT(MessagesOf("Convert"),
              ElementsAre("conver AIModelList to model_list_handle", "model [a - 1 - A - first]",
                          "model [b - 2 - B - second]", "model [c - 3 - C - third]",
                          "Successful conversion of [3] models."));
  EXPECT_THAT(fake::Logs(),
              Contains(IsError("service_model_info.cc", "velmora_svcmgr_ai_model_info_create",
                               "Failed to create velmora_svcmgr_ai_model_info_h.")));
  std::vector<Texts> rest = ThreeModels();
  rest.erase(rest.begin() + GetParam());
  EXPECT_EQ(Contents(answers.at(0).list), rest);
}

TEST_F(AnAnswer, LacksTheTextsThatCouldNotBeSet) {
  fake::Proxy().QueueCallbackMessage(Items{1, 1, 0, false} + Answering(0, {kModel}, 1));
  {
    const fake::NewTracking tracking;
    const FailingAllocation failing(Allocator::kStrndup, 3);
    fake::Proxy().FireReceived();
  }
  KeptByConversion(1);
  --kept;  // the temporary record has three texts
  EXPECT_THAT(Contents(answers.at(0).list),
              ElementsAre(Texts{kModel.id, kModel.version, std::nullopt, kModel.description}));
}

TEST_F(AnAnswer, LacksAModelThatCouldNotBeAdded) {
  fake::Proxy().QueueCallbackMessage(Items{1, 1, 0, false} + Answering(0, ThreeModels(), 3));
  // One for the list, and for each model one to make it, four to set its texts, one to add it.
  fake::AtCall("package_info_create", 1 + 6 + 6, fake::Fail(fake::kNoSuchPackage));
  {
    const fake::NewTracking tracking;
    fake::Proxy().FireReceived();
  }
  KeptByConversion(3);
  EXPECT_THAT(Contents(answers.at(0).list), ElementsAre(ThreeModels()[0], ThreeModels()[2]));
}

TEST_F(AnAnswer, DoesNoHarmWhereverMemoryRunsOut) {
  int failures = 0;
  for (; failures < 300; ++failures) {
    fake::ClearRecord();
    answers.clear();
    fake::Proxy().QueueCallbackMessage(Items{1, 1, 0, false} +
                                       Answering(0, {ThreeModels()[0], ThreeModels()[1]}, 2));
    bool happened = false;
    {
      const fake::NewTracking tracking;
      const FailingAllocation failing(Allocator::kAny, failures + 1);
      try {
        fake::Proxy().FireReceived();
      } catch (const std::bad_alloc&) {
        // Memory ran out outside the library, in what delivers the message.
      }
      happened = failing.Happened();
    }
    EXPECT_LE(answers.size(), 1U) << failures;
    EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0) << failures;
    if (!answers.empty() && answers[0].list != nullptr) {
      EXPECT_LE(Size(answers[0].list), 2) << failures;
      EXPECT_LE(Contents(answers[0].list).size(), 2U) << failures;
      EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(answers[0].list), SVCMGR_ERROR_NONE);
    }
    if (!happened) {
      EXPECT_THAT(answers, SizeIs(1));
      break;
    }
  }
  answers.clear();
  EXPECT_GE(failures, 10);
  EXPECT_LT(failures, 300);
  EXPECT_EQ(velmora_svcmgr_ai_model_info_destroy(info), SVCMGR_ERROR_NONE);
  info = nullptr;
  // How much is left depends on how far each conversion came; nothing but that kind is left.
  for (const fake::Block& block : fake::LiveBlocks()) {
    EXPECT_THAT(block.origin, ::testing::AnyOf("calloc", "strndup", "new"));
  }
  kept = fake::LiveBlocks().size();
  EXPECT_LE(kept, 11U * static_cast<unsigned>(failures + 1));
}

// ---- Answers that end early ---------------------------------------------------------------------

struct ATruncatedAnswer : ModelQueries,
                          ::testing::WithParamInterface<std::tuple<Query, std::size_t>> {
  // Of two models; 1 + 1 + 8 + 1 items.
  static Items Whole() { return Answering(0, {ThreeModels()[0], ThreeModels()[1]}, 2); }

  static constexpr std::size_t kItems = 11;
};

INSTANTIATE_TEST_SUITE_P(
    Of, ATruncatedAnswer,
    ::testing::Combine(::testing::Values(kUsable, kDescribed, kCategory, kVersions),
                       ::testing::Range(std::size_t{0}, ATruncatedAnswer::kItems)),
    [](const auto& row) {
      return NameOfQuery(std::get<0>(row.param)) + "_CutAfter" +
             std::to_string(std::get<1>(row.param));
    });

TEST_P(ATruncatedAnswer, IsDeliveredOnceAsAFailureWithAnEmptyList) {
  const auto& [query, items] = GetParam();
  ASSERT_THAT(Whole(), SizeIs(kItems));
  connection::Stand();
  ASSERT_EQ(Ask(*this, query), SVCMGR_ERROR_NONE);
  for (const fake::Item& end : {fake::Unreadable(), fake::UnreadableWithGarbage()}) {
    Items payload = Whole();
    payload.erase(payload.begin() + static_cast<std::ptrdiff_t>(items), payload.end());
    payload.push_back(end);
    Deliver(query.delegate_id, 0, payload);
  }
  ASSERT_THAT(answers, SizeIs(2));
  for (const Answer& answer : answers) {
    EXPECT_EQ(answer.error, SVCMGR_ERROR_INVALID_OPERATION);
    ASSERT_NE(answer.list, nullptr);
    EXPECT_EQ(Size(answer.list), 0);
  }
}

TEST_F(AnAnswer, WithACountBeyondItsModelsIsAFailureWithAnEmptyList) {
  Receive({0, Count(INT_MAX), "a", "1", "A", "first", fake::Unreadable()});
  ASSERT_THAT(answers, SizeIs(1));
  EXPECT_EQ(answers[0].error, SVCMGR_ERROR_INVALID_OPERATION);
  EXPECT_EQ(Size(answers[0].list), 0);
}

TEST_F(AnAnswer, IsAwaitedAgainAfterOneThatEndsEarly) {
  Receive({fake::Unreadable()});
  Receive(Answering(0, {kModel}, 1));
  KeptByConversion(1);
  ASSERT_THAT(answers, SizeIs(2));
  EXPECT_EQ(answers[1].error, SVCMGR_ERROR_NONE);
  EXPECT_THAT(Contents(answers[1].list), ElementsAre(kModel));
}

// ---- What a callback may do ---------------------------------------------------------------------

struct ACallback : AnAnswer {
  static constexpr auto kNoModels = [] { return Answering(0, {}, 0); };

  // Without tracking: a callback that connects makes what lives on.
  static void ReceiveEmpty(int seq = 0) { fake::DeliverDelegateMessage(1, seq, kNoModels()); }
};

TEST_F(ACallback, MayDisconnect) {
  on_answer = [] { EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE); };
  ReceiveEmpty();
  EXPECT_THAT(answers, SizeIs(1));
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 0);
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
  on_answer = nullptr;
  EXPECT_EQ(Ask(*this, kUsable), SVCMGR_ERROR_NOT_CONNECTED);
}

TEST_F(ACallback, MayDisconnectAndConnect) {
  on_answer = [] {
    EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
    EXPECT_EQ(velmora_svcmgr_connect(connection::Ignore, nullptr), SVCMGR_ERROR_NONE);
    fake::Proxy().FireConnected();
  };
  ReceiveEmpty();
  EXPECT_EQ(fake::ProxyCount(), 2);
  EXPECT_FALSE(fake::Proxy(1).Alive());
  EXPECT_TRUE(fake::Proxy(2).Alive());
  on_answer = nullptr;
  EXPECT_EQ(Ask(*this, kUsable), SVCMGR_ERROR_NONE);
  EXPECT_EQ(fake::SentParcels().back().proxy, 2);
  ReceiveEmpty(1);
  EXPECT_THAT(answers, SizeIs(2));
  ReceiveEmpty(0);  // a request of the former connection
  EXPECT_THAT(answers, SizeIs(2));
}

TEST_F(ACallback, MayAskAgain) {
  on_answer = [this] {
    if (answers.size() == 1) {
      EXPECT_EQ(Ask(*this, kUsable), SVCMGR_ERROR_NONE);
      EXPECT_EQ(Ask(*this, kVersions), SVCMGR_ERROR_NONE);
    }
  };
  ReceiveEmpty();
  EXPECT_EQ(SeqOfSent(0), 1);
  EXPECT_EQ(SeqOfSent(1), 2);
  ReceiveEmpty(1);
  fake::DeliverDelegateMessage(3, 2, kNoModels());
  EXPECT_THAT(answers, SizeIs(3));
}

TEST_F(ACallback, MayWaitForAnotherAnswer) {
  int level = 0;
  on_answer = [&level] {
    fake::QueueReply({11});
    EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&level), SVCMGR_ERROR_NONE);
  };
  ReceiveEmpty();
  EXPECT_EQ(level, 11);
}

TEST_F(ACallback, MayLoseTheConnection) {
  on_answer = [] { fake::Proxy().FireDisconnected(); };
  ReceiveEmpty();
  EXPECT_THAT(answers, SizeIs(1));
  on_answer = nullptr;
  ReceiveEmpty();  // the drop has dropped the request
  EXPECT_THAT(answers, SizeIs(1));
}

TEST_F(ACallback, MayDestroyItsListAtOnce) {
  on_answer = [this] {
    EXPECT_EQ(velmora_svcmgr_ai_model_list_destroy(answers.back().list), SVCMGR_ERROR_NONE);
    answers.back().list = nullptr;
  };
  Receive(Answering(0, ThreeModels(), 3));
  KeptByConversion(3);
  EXPECT_THAT(answers, SizeIs(1));
}

TEST_F(ACallback, MayReceiveAnotherAnswerInside) {
  on_answer = [this] {
    if (answers.size() == 1) ReceiveEmpty();
  };
  ReceiveEmpty();
  EXPECT_THAT(answers, SizeIs(2));
}

struct AThrowingCallback : ACallback, ::testing::WithParamInterface<int> {
  // Anything at all.
  static void ThrowSomething() {
    switch (GetParam()) {
      case 0:
        throw std::runtime_error("thrown");
      case 1:
        throw 42;
      case 2:
        throw AppInfoException();
      default:
        throw rpc::InvalidIOException();
    }
  }

  static std::size_t UnknownExceptions() {
    const auto logs = fake::Logs();
    return static_cast<std::size_t>(
        std::count_if(logs.begin(), logs.end(), [](const fake::LogRecord& record) {
          return record.priority == DLOG_ERROR && record.message == "Unknown Exception";
        }));
  }
};

INSTANTIATE_TEST_SUITE_P(Something, AThrowingCallback, ::testing::Range(0, 4));

TEST_P(AThrowingCallback, IsCaughtAndLogged) {
  on_answer = ThrowSomething;
  ReceiveEmpty();
  EXPECT_THAT(answers, SizeIs(1));
  EXPECT_EQ(UnknownExceptions(), 1U);
  EXPECT_THAT(fake::Logs().back(), IsUnknownException());
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
}

TEST_P(AThrowingCallback, ReceivesTheNextAnswerToo) {
  on_answer = ThrowSomething;
  ReceiveEmpty();
  on_answer = nullptr;
  ReceiveEmpty();
  EXPECT_THAT(answers, SizeIs(2));
}

TEST_P(AThrowingCallback, MayHaveDisconnectedBefore) {
  on_answer = [] {
    velmora_svcmgr_disconnect();
    ThrowSomething();
  };
  ReceiveEmpty();
  EXPECT_EQ(UnknownExceptions(), 1U);
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 0);
}

// ---- The look-up of a category ------------------------------------------------------------------

struct ACategory : ModelQueries {
  void SetUp() override {
    ModelQueries::SetUp();
    connection::Stand();
  }

  // The agent's package comes last.
  static void Install(std::vector<fake::Package> packages) {
    packages.push_back(Agent("2.3.0"));
    fake::SetPackages(std::move(packages));
  }

  static fake::Package Vendors(const std::string& name,
                               const std::vector<fake::Metadata>& metadata = {}) {
    return {kVendor + name, "version of " + name, metadata};
  }

  static std::vector<fake::Metadata> Declares(const std::string& category) {
    return {{"ai-agent-category", category}};
  }

  int AskFor(const char* category) {
    return velmora_svcmgr_ai_request_usable_model_list_with_category(OnModels, category, this);
  }

  static void ExpectSentFor(const std::string& id, const std::string& version) {
    ASSERT_THAT(fake::SentParcels(), SizeIs(1));
    EXPECT_EQ(fake::SentParcels()[0].items, (Items{5, 1, 0, false, id, version}));
  }

  static void ExpectNoSuchPackage(int result) {
    EXPECT_EQ(result, SVCMGR_ERROR_INVALID_PARAMETER);
    EXPECT_THAT(fake::Logs(),
                ElementsAre(Entry(kCategory),
                            IsError(kContextFile, kCategory.operation, kNoSuchPackageText),
                            FollowUp(kCategory, -22)));
    EXPECT_THAT(fake::SentParcels(), IsEmpty());
  }

  // The calls of the look-up.
  static std::vector<std::string> Scan() {
    std::vector<std::string> calls;
    for (const fake::Call& call : fake::Calls()) calls.push_back(call.name);
    const auto begin =
        std::find(calls.begin(), calls.end(), "package_manager_foreach_package_info");
    const auto end = std::find(calls.begin(), calls.end(), "rpc_port_parcel_create");
    return {begin, end};
  }
};

TEST_F(ACategory, OfNullIsOfNoPackageAndNothingIsScanned) {
  ExpectNoSuchPackage(AskFor(nullptr));
  EXPECT_EQ(fake::CountCalls("package_manager_foreach_package_info"), 0U);
}

TEST_F(ACategory, OfNullIsLookedAtBehindTheConnection) {
  EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(AskFor(nullptr), SVCMGR_ERROR_NOT_CONNECTED);
}

TEST_F(ACategory, OfNullIsLookedAtBehindTheCallback) {
  EXPECT_EQ(velmora_svcmgr_ai_request_usable_model_list_with_category(nullptr, nullptr, this),
            SVCMGR_ERROR_INVALID_PARAMETER);
  EXPECT_THAT(fake::Logs().back(), IsError(kEntryFile, kCategory.name, "parameter is NULL!!"));
}

TEST_F(ACategory, ThatNobodyDeclaresIsOfNoPackage) {
  ExpectNoSuchPackage(AskFor("sound"));
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kAppInfo), 2);  // of the camera and of the agent
}

TEST_F(ACategory, IsLookedForAgainEachTime) {
  EXPECT_EQ(AskFor("sound"), SVCMGR_ERROR_INVALID_PARAMETER);
  Install({Vendors("radio", Declares("sound"))});
  EXPECT_EQ(AskFor("sound"), SVCMGR_ERROR_NONE);
  ExpectSentFor(kVendor + "radio", "version of radio");  // with seq 0
}

TEST_F(ACategory, IsLookedForInOrderAndItsAppInfosAreKept) {
  Install({{"org.example.camera", "1", Declares("vision")},
           Vendors("clock", Declares("time")),
           Vendors("camera", Declares("vision")),
           Vendors("door", Declares("vision"))});
  EXPECT_EQ(AskFor("vision"), SVCMGR_ERROR_NONE);
  EXPECT_THAT(Scan(), ElementsAre("package_manager_foreach_package_info",  //
                                  "package_info_get_package", "package_info_get_version",
                                  "package_info_get_package", "package_info_get_version",
                                  "app_info_create", "app_info_foreach_metadata",
                                  "package_info_get_package", "package_info_get_version",
                                  "app_info_create", "app_info_foreach_metadata"));
  ExpectSentFor(kVendor + "camera", "version of camera");
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kAppInfo), 2);
  EXPECT_EQ(fake::CountCalls("app_info_destroy"), 0U);
}

TEST_F(ACategory, LooksItsApplicationUpByThePackagesId) {
  EXPECT_EQ(AskFor("vision"), SVCMGR_ERROR_NONE);
  ASSERT_THAT(fake::Calls("app_info_create"), SizeIs(1));
  EXPECT_EQ(fake::Calls("app_info_create")[0].arguments, '"' + kCamera + '"');
}

TEST_F(ACategory, IsOfTheFirstPackageThatDeclaresIt) {
  Install({Vendors("b", Declares("vision")), Vendors("a", Declares("vision"))});
  EXPECT_EQ(AskFor("vision"), SVCMGR_ERROR_NONE);
  ExpectSentFor(kVendor + "b", "version of b");
}

TEST_F(ACategory, MayBeDeclaredByAPackageWithAnEmptyVersion) {
  Install({{kCamera, "", Declares("vision")}});
  EXPECT_EQ(AskFor("vision"), SVCMGR_ERROR_NONE);
  ExpectSentFor(kCamera, "");
}

struct PackageId {
  std::string name;
  std::string id;
  bool is_vendors;
};

void PrintTo(const PackageId& id, std::ostream* out) { *out << id.id; }

struct APackageId : ACategory, ::testing::WithParamInterface<PackageId> {};

INSTANTIATE_TEST_SUITE_P(
    Of, APackageId,
    ::testing::Values(PackageId{"PrefixFirst", kVendor + "camera", true},
                      PackageId{"PrefixInTheMiddle", "org." + kVendor + "camera", true},
                      PackageId{"PrefixLast", "org." + kVendor, true},
                      PackageId{"PrefixAlone", kVendor, true},
                      PackageId{"PrefixBehindLetters", "x" + kVendor + "camera", true},
                      PackageId{"PrefixTwice", kVendor + kVendor, true},
                      PackageId{"PrefixCutShort", kVendor.substr(0, kVendor.size() - 1), false},
                      PackageId{"PrefixWithoutItsFirst", kVendor.substr(1) + "camera", false},
                      PackageId{"AnotherVendors", "org.example.camera", false},
                      PackageId{"Empty", "", false}),
    NameOfRow());

TEST_P(APackageId, DecidesWhetherMetadataIsReadAtAll) {
  Install({{GetParam().id, "7", Declares("vision")}});
  const int result = AskFor("vision");
  if (GetParam().is_vendors) {
    EXPECT_EQ(result, SVCMGR_ERROR_NONE);
    ExpectSentFor(GetParam().id, "7");
  } else {
    ExpectNoSuchPackage(result);
    EXPECT_EQ(fake::CountCalls("app_info_create"), 1U);  // of the agent's own package
  }
}

TEST_F(ACategory, IsNotLookedForInAPackageWhoseIdHasThePrefixInCapitals) {
  std::string id = kCamera;
  std::transform(id.begin(), id.end(), id.begin(),
                 [](char c) { return static_cast<char>(std::toupper(c)); });
  Install({{id, "7", Declares("vision")}});
  ExpectNoSuchPackage(AskFor("vision"));
}

struct MetadataRow {
  std::string name;
  std::vector<fake::Metadata> metadata;
  std::string category;
  bool matches;
};

void PrintTo(const MetadataRow& row, std::ostream* out) { *out << row.name; }

struct SomeMetadata : ACategory, ::testing::WithParamInterface<MetadataRow> {};

constexpr char kKey[] = "ai-agent-category";

INSTANTIATE_TEST_SUITE_P(
    Of, SomeMetadata,
    ::testing::Values(
        MetadataRow{"KeyAndValue", {{kKey, "vision"}}, "vision", true},
        MetadataRow{"None", {}, "vision", false},
        MetadataRow{"ANullKey", {{std::nullopt, "vision"}}, "vision", false},
        MetadataRow{"ANullKeyFirst", {{std::nullopt, "vision"}, {kKey, "vision"}}, "vision", true},
        MetadataRow{"ANullValue", {{kKey, std::nullopt}}, "vision", false},
        MetadataRow{"ANullValueFirst", {{kKey, std::nullopt}, {kKey, "vision"}}, "vision", true},
        MetadataRow{"NullKeyAndValue", {{std::nullopt, std::nullopt}}, "vision", false},
        MetadataRow{
            "OtherKeysFirst", {{"a", "b"}, {"c", "vision"}, {kKey, "vision"}}, "vision", true},
        MetadataRow{"AnotherValueFirst", {{kKey, "sound"}, {kKey, "vision"}}, "vision", true},
        MetadataRow{"AnotherKey", {{"category", "vision"}}, "vision", false},
        MetadataRow{"AKeyInCapitals", {{"AI-AGENT-CATEGORY", "vision"}}, "vision", false},
        MetadataRow{"AKeyWithMore", {{"ai-agent-category2", "vision"}}, "vision", false},
        MetadataRow{"AKeyWithLess", {{"ai-agent-categor", "vision"}}, "vision", false},
        MetadataRow{"AKeyBehindABlank", {{" ai-agent-category", "vision"}}, "vision", false},
        MetadataRow{"AnEmptyKey", {{"", "vision"}}, "vision", false},
        MetadataRow{"AValueInCapitals", {{kKey, "VISION"}}, "vision", false},
        MetadataRow{"AValueWithMore", {{kKey, "visions"}}, "vision", false},
        MetadataRow{"AValueWithLess", {{kKey, "visio"}}, "vision", false},
        MetadataRow{"AValueWithABlank", {{kKey, "vision "}}, "vision", false},
        MetadataRow{"AnEmptyValue", {{kKey, ""}}, "vision", false},
        MetadataRow{"AnEmptyCategory", {{kKey, "vision"}}, "", false},
        MetadataRow{"AnEmptyCategoryThatIsDeclared", {{kKey, ""}}, "", true}),
    NameOfRow());

TEST_P(SomeMetadata, DecidesWhetherAPackageMatches) {
  Install({Vendors("camera", GetParam().metadata)});
  const int result = AskFor(GetParam().category.c_str());
  if (GetParam().matches) {
    EXPECT_EQ(result, SVCMGR_ERROR_NONE);
    ExpectSentFor(kCamera, "version of camera");
  } else {
    ExpectNoSuchPackage(result);
  }
}

// ---- A look-up that fails -----------------------------------------------------------------------

struct ScanFailure {
  std::string name;
  std::string function;
  int calls_before;  // calls of the function before the scan, in one query
  fake::Step (*step)();
};

void PrintTo(const ScanFailure& failure, std::ostream* out) { *out << failure.name; }

const ScanFailure kScanFailures[] = {
    {"IdFails", "package_info_get_package", 0, [] { return fake::Fail(-5); }},
    {"IdFailsWithGarbage", "package_info_get_package", 0,
     [] { return fake::FailWithGarbage(-22); }},
    {"IdFailsWithNull", "package_info_get_package", 0, [] { return fake::FailWithNull(-12); }},
    {"IdIsNull", "package_info_get_package", 0, [] { return fake::SucceedWithNull(); }},
    {"VersionFails", "package_info_get_version", 1, [] { return fake::Fail(-5); }},
    {"VersionFailsWithGarbage", "package_info_get_version", 1,
     [] { return fake::FailWithGarbage(-22); }},
    {"VersionFailsWithNull", "package_info_get_version", 1, [] { return fake::FailWithNull(-12); }},
    {"VersionIsNull", "package_info_get_version", 1, [] { return fake::SucceedWithNull(); }},
    {"ApplicationFails", "app_info_create", 0, [] { return fake::Fail(-5); }},
    {"ApplicationFailsWithGarbage", "app_info_create", 0,
     [] { return fake::FailWithGarbage(-22); }},
    {"ApplicationFailsWithNull", "app_info_create", 0, [] { return fake::FailWithNull(-12); }},
    {"ApplicationIsNull", "app_info_create", 0, [] { return fake::SucceedWithNull(); }},
};

struct AFailureInTheScan : ACategory, ::testing::WithParamInterface<std::tuple<ScanFailure, int>> {
  void SetUp() override {
    ACategory::SetUp();
    Install(
        {Vendors("one"), Vendors("two"), Vendors("three"), Vendors("four", Declares("vision"))});
  }
};

INSTANTIATE_TEST_SUITE_P(Of, AFailureInTheScan,
                         ::testing::Combine(::testing::ValuesIn(kScanFailures),
                                            ::testing::Range(1, 5)),
                         [](const auto& row) {
                           return std::get<0>(row.param).name + "_AtPackage" +
                                  std::to_string(std::get<1>(row.param));
                         });

TEST_P(AFailureInTheScan, EndsItAndNothingIsFound) {
  const auto& [failure, n] = GetParam();
  fake::AtCall(failure.function, failure.calls_before + n, failure.step());
  ExpectNoSuchPackage(AskFor("vision"));
  EXPECT_EQ(fake::CountCalls("package_info_get_package"), static_cast<std::size_t>(n));
  EXPECT_EQ(fake::CountCalls("app_info_foreach_metadata"), static_cast<std::size_t>(n - 1));
}

TEST_F(ACategory, IsNotFoundBehindAVendorsPackageWithoutAnApplication) {
  fake::Package headless = Vendors("headless");
  headless.has_application = false;
  Install({headless, Camera()});
  ExpectNoSuchPackage(AskFor("vision"));
}

TEST_F(ACategory, IsFoundBehindAnotherVendorsPackageWithoutAnApplication) {
  Install({{"org.example.headless", "1", {}, false}, Camera()});
  EXPECT_EQ(AskFor("vision"), SVCMGR_ERROR_NONE);
}

TEST_F(ACategory, IsFoundAlthoughTheIterationFailsBehindIt) {
  fake::Next("package_manager_foreach_package_info", fake::FailAfterWork(-5));
  EXPECT_EQ(AskFor("vision"), SVCMGR_ERROR_NONE);
  ExpectSentFor(kCamera, "4.5.6");
}

TEST_F(ACategory, IsNotFoundWhenTheIterationFailsAtOnce) {
  fake::Next("package_manager_foreach_package_info", fake::Fail(-5));
  ExpectNoSuchPackage(AskFor("vision"));
}

TEST_F(ACategory, IsFoundAlthoughTheMetadatasIterationFailsBehindIt) {
  fake::Next("app_info_foreach_metadata", fake::FailAfterWork(-5));
  EXPECT_EQ(AskFor("vision"), SVCMGR_ERROR_NONE);
  ExpectSentFor(kCamera, "4.5.6");
}

TEST_F(ACategory, IsLookedForFurtherWhenTheMetadatasIterationFailsAtOnce) {
  Install({Vendors("first", Declares("vision")), Camera()});
  fake::Next("app_info_foreach_metadata", fake::Fail(-5));
  EXPECT_EQ(AskFor("vision"), SVCMGR_ERROR_NONE);
  ExpectSentFor(kCamera, "4.5.6");
}

struct AnExceptionInTheScan : ACategory, ::testing::WithParamInterface<std::string> {};

INSTANTIATE_TEST_SUITE_P(In, AnExceptionInTheScan,
                         ::testing::Values("package_manager_foreach_package_info",
                                           "package_info_get_package", "package_info_get_version",
                                           "app_info_create", "app_info_foreach_metadata"),
                         [](const auto& row) { return row.param; });

TEST_P(AnExceptionInTheScan, DoesNotCrossThePlatformAndEndsTheQuery) {
  const int n = GetParam() == "package_info_get_version" ? 2 : 1;
  fake::AtCall(GetParam(), n, fake::Throw(std::runtime_error("thrown")));
  EXPECT_EQ(AskFor("vision"), SVCMGR_ERROR_INVALID_OPERATION);
  const auto logs = fake::Logs();
  ASSERT_GE(logs.size(), 3U);
  EXPECT_THAT(logs.front(), Entry(kCategory));
  EXPECT_THAT(logs.back(), FollowUp(kCategory, -38));
  for (std::size_t i = 1; i + 1 < logs.size(); ++i) EXPECT_THAT(logs[i], IsUnknownException());
  EXPECT_THAT(fake::SentParcels(), IsEmpty());
  // There is a package behind the one whose step threw.
  const bool scanned = GetParam() != "package_manager_foreach_package_info";
  EXPECT_EQ(fake::CountCalls("package_info_get_package"), scanned ? 1U : 0U);
  fake::ForgetScripts(GetParam());
  EXPECT_EQ(AskFor("vision"), SVCMGR_ERROR_NONE);
  EXPECT_EQ(SeqOfSent(0), 0);
}

}  // namespace
