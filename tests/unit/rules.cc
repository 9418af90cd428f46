// SPDX-License-Identifier: Apache-2.0
#include "rules.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "connection_support.h"
#include "model_support.h"
#include "service_agent_list.h"
#include "service_model_list.h"
#include "service_progress.h"

namespace rules {

char untouched[] = "untouched";

namespace {

constexpr char kSucceeds[] = "SucceedsAfterTheLookUpsAndWritesItsEntryRecordAlone";
constexpr char kNotSupported[] =
    "IsNotSupportedBeforeAllElseIfThePackageOfTheAgentIsMissingAndOnlyThen";
constexpr char kNeedsItsLevel[] = "NeedsItsLevelOfTheAgentBeforeItsArgumentsAndSaysNothingBelow";
constexpr char kRefusesNull[] = "RefusesEachNullArgumentBeforeItLooksAtTheConnection";
constexpr char kNeedsTheConnection[] = "NeedsTheConnectionThatItWants";
constexpr char kReturnsItsOwn[] = "ReturnsEachCodeOfItsOwn";
constexpr char kLetsNoExceptionOut[] = "LetsNoExceptionOut";
constexpr char kWithoutMemory[] = "ReturnsItsCodeWhereverMemoryRunsOut";

constexpr char kCameraId[] = VENDOR_PACKAGE_PREFIX "camera";

template <typename Handle>
bool Release(Handle handle, int (*destroy)(Handle)) {
  if (handle == nullptr || handle == reinterpret_cast<Handle>(untouched)) return true;
  const int code = destroy(handle);
  EXPECT_EQ(code, SVCMGR_ERROR_NONE);
  return code == SVCMGR_ERROR_NONE;
}

// The storage of a list that held something would be left.
void ReleaseContents(velmora_svcmgr_agent_list_h agents) {
  for (char* agent : agents->agents) std::free(agent);
  decltype(agents->agents)().swap(agents->agents);
}

void ReleaseContents(velmora_svcmgr_ai_model_list_h list) {
  for (auto& model : list->models) {
    if (!Release(model, velmora_svcmgr_ai_model_info_destroy)) return;
    model = nullptr;
  }
  decltype(list->models)().swap(list->models);
}

}  // namespace

Stage::Stage() {
  fake::SetPackages(
      {{kCameraId, "4.5.6", {{"ai-agent-category", category}}}, {fake::kAgentId, "2.3.0", {}}});
  fake::Application application;
  application.resource_path = (folder_.path() / "res/").string();
  fake::SetApplication(application);
  std::ofstream(folder_.path() / "app", std::ios::binary) << elf::FileWith(elf::Marker{});

  EXPECT_EQ(velmora_svcmgr_agent_list_create(&agents), SVCMGR_ERROR_NONE);
  EXPECT_EQ(velmora_svcmgr_agent_list_create(&spare_agents), SVCMGR_ERROR_NONE);
  EXPECT_EQ(velmora_svcmgr_agent_list_add(agents, "agent"), SVCMGR_ERROR_NONE);
  info = models::NewInfo({"id", "1", "title", "description"});
  spare_info = models::NewInfo();
  models = models::NewList();
  spare_models = models::NewList();
  EXPECT_EQ(velmora_svcmgr_ai_model_list_add(models, info), SVCMGR_ERROR_NONE);
  EXPECT_EQ(velmora_svcmgr_ai_progress_create(&progress), SVCMGR_ERROR_NONE);
  EXPECT_EQ(velmora_svcmgr_ai_progress_create(&spare_progress), SVCMGR_ERROR_NONE);
  *progress = {1, 2, 3, 4};
  fake::ClearRecord();
}

Stage::~Stage() {
  fake::ForgetScripts("package_info_create");
  fake::InstallAgent("2.3.0");
  ReleaseContents(agents);
  ReleaseContents(models);
  for (const auto list : {agents, spare_agents, out_agents}) {
    Release(list, velmora_svcmgr_agent_list_destroy);
  }
  for (const auto list : {models, spare_models, out_models}) {
    Release(list, velmora_svcmgr_ai_model_list_destroy);
  }
  for (const auto model : {info, spare_info, out_info}) {
    Release(model, velmora_svcmgr_ai_model_info_destroy);
  }
  for (const auto record : {progress, spare_progress, out_progress}) {
    Release(record, velmora_svcmgr_ai_progress_destroy);
  }
  if (out_text != untouched) std::free(out_text);
  fake::ClearRecord();
}

std::string Stage::Contents() const {
  std::ostringstream out;
  out << out_agents << out_info << out_models << out_progress << static_cast<const void*>(out_text)
      << untouched << out_number << out_flag << models::Read(info);
  for (const char* agent : agents->agents) out << agent;
  for (const auto model : models->models) out << models::Read(model);
  out << progress->index << progress->count << progress->percentage << progress->state;
  return out.str();
}

std::map<int, std::set<std::string>> Function::TestsOfCodes() const {
  std::map<int, std::set<std::string>> tests;
  tests[SVCMGR_ERROR_NONE] = {kSucceeds};
  tests[SVCMGR_ERROR_NOT_SUPPORTED] = {kNotSupported};
  tests[failure].insert(kLetsNoExceptionOut);
  if (level > 0) tests[SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION].insert(kNeedsItsLevel);
  if (needed > 0) tests[SVCMGR_ERROR_INVALID_PARAMETER].insert(kRefusesNull);
  if (wants != Wants::kNothing) tests[SVCMGR_ERROR_NOT_CONNECTED].insert(kNeedsTheConnection);
  if (!create_message.empty()) tests[SVCMGR_ERROR_OUT_OF_MEMORY].insert(kWithoutMemory);
  for (const auto& [code, occasion] : occasions) tests[code].insert(kReturnsItsOwn);
  return tests;
}

std::set<int> Function::Codes() const {
  std::set<int> codes;
  for (const auto& [code, tests] : TestsOfCodes()) codes.insert(code);
  return codes;
}

std::map<std::string, std::string> Function::TestsOfRecords() const {
  std::map<std::string, std::string> tests = {{"Not supported", kNotSupported},
                                              {"Unknown Exception", kLetsNoExceptionOut}};
  if (!entry.empty()) tests[entry] = kSucceeds;
  if (needed > 0) tests[null_message] = kRefusesNull;
  if (wants == Wants::kConnection) tests["not initialized"] = kNeedsTheConnection;
  if (!create_message.empty()) tests[create_message] = kWithoutMemory;
  return tests;
}

/* The table. */

namespace {

using Rows = std::vector<Function>;

void Append(Rows& all, const char* unit, const Rows& rows) {
  for (Function row : rows) {
    row.unit = unit;
    all.push_back(std::move(row));
  }
}

Function::Occasion Answered(const fake::Item& answer) {
  return [answer](Stage&) {
    fake::ForgetMessages();
    fake::QueueReply({answer});
  };
}

Function::Occasion RefusedByThePlatform(const char* function, int code) {
  return [=](Stage&) { fake::Next(function, fake::Fail(code)); };
}

void Stand(Stage&) { connection::Stand(); }
void AskBeyondTheEnd(Stage& stage) { stage.index = 1; }
void AskForACategoryOfNobody(Stage& stage) { stage.category = "sound"; }
void Register(Stage& stage) {
  velmora_svcmgr_ai_register_status_cb(stage.on_model_status, nullptr);
  fake::Next("event_remove_event_handler", fake::Fail(-5));
}
void RemoveMarkers(Stage&) { fake::SetApplication({}); }

// As in a model whose text was never set.
template <char* velmora_svcmgr_ai_model_info_s::* field>
void Unset(Stage& stage) {
  std::free(stage.info->*field);
  stage.info->*field = nullptr;
}

#define NAMED(function) "velmora_svcmgr_" #function, velmora_svcmgr_##function

Rows ClientFunctions() {
  return {
      Function(NAMED(connect), Needed(&Stage::on_connection), Given(&Stage::user_data))
          .WithoutMemory({SVCMGR_ERROR_NONE, SVCMGR_ERROR_INVALID_OPERATION})
          .Returns(SVCMGR_ERROR_ALREADY_CONNECTED, Stand)
          .Returns(SVCMGR_ERROR_CONNECTION_FAILED,
                   RefusedByThePlatform("rpc_port_proxy_connect", -5))
          .Returns(SVCMGR_ERROR_PERMISSION_DENIED,
                   RefusedByThePlatform("rpc_port_proxy_connect", -13)),
      Function(NAMED(disconnect)),
      Function(NAMED(get_license_fulltext), Output(&Stage::out_text))
          .NeedsConnection()
          .IsAnswered({"A licence"})
          .WithoutMemory({SVCMGR_ERROR_NONE, SVCMGR_ERROR_INVALID_OPERATION})
          .Returns(SVCMGR_ERROR_KYR_DISABLED, Answered("SVCMGR_ERROR_KYR_DISABLED")),
      Function(NAMED(get_agent_api_level), Output(&Stage::out_number))
          .NeedsConnection()
          .IsAnswered({11})
          .FailsWith(SVCMGR_ERROR_INVALID_API_LEVEL)
          .Returns(SVCMGR_ERROR_INVALID_API_LEVEL, Answered(-1))
          .Returns(SVCMGR_ERROR_KYR_DISABLED, Answered(SVCMGR_ERROR_KYR_DISABLED)),
      Function(NAMED(get_client_api_level), Output(&Stage::out_number))
          .WithoutMemory({})
          .Returns(SVCMGR_ERROR_NOT_SUPPORTED, RemoveMarkers),
      Function(NAMED(request_update))
          .NeedsConnection()
          .IsAnswered({0})
          .WithoutMemory({SVCMGR_ERROR_NOT_CONNECTED})
          .Returns(SVCMGR_ERROR_PERMISSION_DENIED, Answered(SVCMGR_ERROR_PERMISSION_DENIED))
          .Returns(SVCMGR_ERROR_KYR_DISABLED, Answered(SVCMGR_ERROR_KYR_DISABLED)),
      Function(NAMED(request_update_with_list), Needed(&Stage::agents))
          .NeedsLevel(11)
          .NeedsConnection()
          .IsAnswered({0})
          .WithoutMemory({SVCMGR_ERROR_NOT_CONNECTED}),
      Function(NAMED(is_being_updated), Output(&Stage::out_flag)).NeedsConnection(),
      Function(NAMED(set_update_status_cb), Needed(&Stage::on_update_status),
               Given(&Stage::user_data)),
      Function(NAMED(unset_update_status_cb)),
  };
}

Rows AgentListFunctions() {
  constexpr char kNull[] = "Invalid parameter!!";
  return {
      Function(NAMED(agent_list_create), Output(&Stage::out_agents))
          .Enters("velmora_svcmgr_agent_list_create")
          .RefusesNull(kNull)
          .Creates("Failed to create velmora_svcmgr_agent_list_s."),
      Function(NAMED(agent_list_destroy), Taken(&Stage::spare_agents))
          .Enters("velmora_svcmgr_agent_list_destroy")
          .RefusesNull(kNull),
      Function(NAMED(agent_list_add), Needed(&Stage::agents), Needed(&Stage::text))
          .RefusesNull(kNull),
      Function(NAMED(agent_list_get), Needed(&Stage::agents), Given(&Stage::index),
               Output(&Stage::out_text))
          .RefusesNull(kNull)
          .Returns(SVCMGR_ERROR_OUT_OF_INDEX, AskBeyondTheEnd),
      Function(NAMED(agent_list_get_size), Needed(&Stage::agents), Output(&Stage::out_number))
          .RefusesNull("Invalid parameter"),
  };
}

#define TEXT_FUNCTIONS(field)                                                                      \
  Function(NAMED(ai_model_info_get_##field), Needed(&Stage::info), Output(&Stage::out_text))       \
      .RefusesNull("Invalid parameter")                                                            \
      .Returns(SVCMGR_ERROR_INVALID_OPERATION, Unset<&velmora_svcmgr_ai_model_info_s::field>),     \
      Function(NAMED(ai_model_info_set_##field), Needed(&Stage::spare_info), Needed(&Stage::text)) \
          .RefusesNull("Invalid parameter")

Rows ModelInfoFunctions() {
  return {
      Function(NAMED(ai_model_info_create), Output(&Stage::out_info))
          .Enters("velmora_svcmgr_ai_model_info_create")
          .RefusesNull("Invalid parameter!!")
          .Creates("Failed to create velmora_svcmgr_ai_model_info_h."),
      Function(NAMED(ai_model_info_destroy), Taken(&Stage::spare_info))
          .Enters("velmora_svcmgr_ai_model_info_destroy")
          .RefusesNull("Invalid parameter!!"),
      TEXT_FUNCTIONS(id),
      TEXT_FUNCTIONS(version),
      TEXT_FUNCTIONS(title),
      TEXT_FUNCTIONS(description),
  };
}

Rows ModelListFunctions() {
  constexpr char kNull[] = "Invalid parameter!!";
  return {
      Function(NAMED(ai_model_list_create), Output(&Stage::out_models))
          .Enters("velmora_svcmgr_ai_model_list_create")
          .RefusesNull(kNull)
          .Creates("Failed to create velmora_svcmgr_ai_model_list_s."),
      Function(NAMED(ai_model_list_destroy), Taken(&Stage::spare_models))
          .Enters("velmora_svcmgr_ai_model_list_destroy")
          .RefusesNull(kNull),
      Function(NAMED(ai_model_list_add), Needed(&Stage::models), Needed(&Stage::info))
          .RefusesNull(kNull),
      Function(NAMED(ai_model_list_get), Needed(&Stage::models), Given(&Stage::index),
               Output(&Stage::out_info))
          .RefusesNull(kNull)
          .Returns(SVCMGR_ERROR_OUT_OF_INDEX, AskBeyondTheEnd),
      Function(NAMED(ai_model_list_get_size), Needed(&Stage::models), Output(&Stage::out_number))
          .RefusesNull("Invalid parameter"),
  };
}

#define NUMBER_FUNCTIONS(field)                                                                  \
  Function(NAMED(ai_progress_get_##field), Needed(&Stage::progress), Output(&Stage::out_number)) \
      .RefusesNull("Invalid parameter!!"),                                                       \
      Function(NAMED(ai_progress_set_##field), Needed(&Stage::spare_progress),                   \
               Given(&Stage::number))                                                            \
          .RefusesNull("Invalid parameter!!")

Rows ProgressFunctions() {
  return {
      Function(NAMED(ai_progress_create), Output(&Stage::out_progress))
          .RefusesNull("Invalid parameter!!")
          .Creates("Failed to create update status handle."),
      Function(NAMED(ai_progress_destroy), Taken(&Stage::spare_progress))
          .RefusesNull("Invalid parameter!!"),
      NUMBER_FUNCTIONS(percentage),
      NUMBER_FUNCTIONS(count),
      NUMBER_FUNCTIONS(index),
      NUMBER_FUNCTIONS(state),
  };
}

Rows RequestFunctions() {
  return {
      Function(NAMED(ai_request_usable_model_list), Needed(&Stage::on_models),
               Given(&Stage::user_data))
          .Enters("__ velmora_svcmgr_ai_request_usable_model_list __")
          .NeedsLevel(8)
          .NeedsProxy(),
      Function(NAMED(ai_request_usable_model_list_with_description), Needed(&Stage::on_models),
               Given(&Stage::user_data))
          .Enters("__ velmora_svcmgr_ai_request_usable_model_list_with_description __")
          .NeedsLevel(8)
          .NeedsProxy(),
      Function(NAMED(ai_request_usable_model_list_with_category), Needed(&Stage::on_models),
               Given(&Stage::category), Given(&Stage::user_data))
          .Enters("__ velmora_svcmgr_ai_request_usable_model_list_with_category __")
          .NeedsLevel(11)
          .NeedsProxy()
          .Returns(SVCMGR_ERROR_INVALID_PARAMETER, AskForACategoryOfNobody)
          // The link to the app info that is kept is dispensable.
          .WithoutMemory({SVCMGR_ERROR_NONE, SVCMGR_ERROR_INVALID_OPERATION}),
      // The usable list's entry record; log readers know this request by it.
      Function(NAMED(ai_request_model_version_list), Needed(&Stage::info),
               Needed(&Stage::on_models), Given(&Stage::user_data))
          .Enters("__ velmora_svcmgr_ai_request_usable_model_list __")
          .NeedsLevel(8)
          .NeedsProxy(),
      Function(NAMED(ai_request_to_update), Needed(&Stage::models), Needed(&Stage::on_progress),
               Given(&Stage::user_data))
          .Enters("__ velmora_svcmgr_ai_request_to_update __")
          .NeedsLevel(8)
          .NeedsProxy(),
      Function(NAMED(ai_request_to_uninstall), Needed(&Stage::models), Needed(&Stage::on_progress),
               Given(&Stage::user_data))
          .Enters("__ velmora_svcmgr_ai_request_to_uninstall __")
          .NeedsLevel(8)
          .NeedsProxy(),
  };
}

Rows ModelStatusFunctions() {
  return {
      Function(NAMED(ai_register_status_cb), Needed(&Stage::on_model_status),
               Given(&Stage::user_data))
          .Enters("__ velmora_svcmgr_ai_register_status_cb __"),
      Function(NAMED(ai_deregister_status_cb))
          .Enters("__ velmora_svcmgr_ai_deregister_status_cb __")
          .Returns(SVCMGR_ERROR_INVALID_OPERATION, Register),
  };
}

}  // namespace

const std::vector<Function>& Functions() {
  static const Rows functions = [] {
    Rows all;
    Append(all, "velmora_svcmgr.cc", ClientFunctions());
    Append(all, "service_agent_list.cc", AgentListFunctions());
    Append(all, "service_model_info.cc", ModelInfoFunctions());
    Append(all, "service_model_list.cc", ModelListFunctions());
    Append(all, "service_progress.cc", ProgressFunctions());
    Append(all, "service_request.cc", RequestFunctions());
    Append(all, "service_status_cb.cc", ModelStatusFunctions());
    return all;
  }();
  return functions;
}

const Function& Find(const std::string& name) {
  const Rows& all = Functions();
  return *std::find_if(all.begin(), all.end(),
                       [&](const Function& row) { return row.name == name; });
}

}  // namespace rules
