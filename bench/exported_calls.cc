// SPDX-License-Identifier: Apache-2.0
#include "exported_calls.h"

#include <app_event.h>
#include <glib.h>
#include <package_desktop.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "bench_world.h"
#include "unit/elf_builder.h"

#pragma GCC visibility push(default)

int event_add_event_handler(const char*, event_cb, void*, event_handler_h* event_handler) {
  static char subscription;
  *event_handler = reinterpret_cast<event_handler_h>(&subscription);
  return 0;
}

int event_remove_event_handler(event_handler_h) { return 0; }

#pragma GCC visibility pop

namespace {

constexpr char kCategory[] = "vision";

bool connected = false;

void OnConnection(int error, int state, void*) {
  Require(error == 0 && state == SVCMGR_CONNECTION_STATE_CONNECTED, "connect");
  connected = true;
}

void OnUpdate(int, void*) {}
void OnStatus(int, int, void*) {}

void OnModels(int error, velmora_svcmgr_ai_model_list_h list, void* stage) {
  Require(error == 0 && velmora_svcmgr_ai_model_list_destroy(list) == 0, "list models");
  static_cast<CallStage*>(stage)->awaits = false;
}

void OnProgress(int error, velmora_svcmgr_ai_progress_h progress, void* stage) {
  Require(error == 0 && velmora_svcmgr_ai_progress_destroy(progress) == 0, "work on models");
  static_cast<CallStage*>(stage)->awaits = false;
}

template <typename Handle>
int Release(Handle& handle, int (*destroy)(Handle)) {
  if (handle == nullptr) return 0;
  const int result = destroy(handle);
  handle = nullptr;
  return result;
}

int Awaiting(CallStage& stage, int result) {
  stage.awaits = result == 0;
  return result;
}

}  // namespace

CallStage::CallStage() {
  Require(velmora_svcmgr_agent_list_create(&agents) == 0 &&
              velmora_svcmgr_agent_list_add(agents, "agent") == 0 &&
              velmora_svcmgr_ai_model_info_create(&model) == 0 &&
              velmora_svcmgr_ai_model_info_set_id(model, "com.example.model") == 0 &&
              velmora_svcmgr_ai_model_info_set_version(model, "1.0.0") == 0 &&
              velmora_svcmgr_ai_model_info_set_title(model, "A model") == 0 &&
              velmora_svcmgr_ai_model_info_set_description(model, "It does something.") == 0 &&
              velmora_svcmgr_ai_model_list_create(&models) == 0 &&
              velmora_svcmgr_ai_model_list_add(models, model) == 0 &&
              velmora_svcmgr_ai_progress_create(&progress) == 0 &&
              velmora_svcmgr_ai_model_info_create(&empty_model) == 0,
          "make what to call with");
}

CallStage::~CallStage() {
  while (awaits) g_main_context_iteration(nullptr, TRUE);
  for (auto* list : {&agents, &made_agents}) Release(*list, velmora_svcmgr_agent_list_destroy);
  for (auto* info : {&model, &empty_model, &made_model}) {
    Release(*info, velmora_svcmgr_ai_model_info_destroy);
  }
  for (auto* list : {&models, &made_models}) Release(*list, velmora_svcmgr_ai_model_list_destroy);
  for (auto* record : {&progress, &made_progress}) {
    Release(*record, velmora_svcmgr_ai_progress_destroy);
  }
  std::free(text);
}

#define CALL(function, ...) \
  #function,                \
      []([[maybe_unused]] CallStage& s) -> int { return velmora_svcmgr_##function(__VA_ARGS__); }
#define REQUEST(function, ...) \
  #function, [](CallStage& s) -> int { return Awaiting(s, velmora_svcmgr_##function(__VA_ARGS__)); }
#define RELEASE(function, member) \
  #function, [](CallStage& s) -> int { return Release(s.member, velmora_svcmgr_##function); }

const std::vector<ExportedCall>& ExportedCalls() {
  using enum ExportedCall::Needs;
  // clang-format off
  static const std::vector<ExportedCall> calls = {
      // looks, records, allocations, system calls, of the agent, switches
      {CALL(connect, OnConnection, nullptr), {1, 1, 60, 28, 60, 0, true}, kNoConnection},
      {CALL(disconnect), {1, 3, 0, 6, 40, 0, true}},
      {CALL(get_license_fulltext, &s.text), {1, 0, 5, 3, 3, 1}},
      {CALL(get_agent_api_level, &s.number), {1, 0, 2, 3, 3, 1}},
      {CALL(get_client_api_level, &s.number), {1, 0, 12, 14, 0, 0, true}},
      {CALL(is_being_updated, &s.flag), {1}},
      {CALL(request_update), {1, 0, 2, 3, 3, 1}},
      {CALL(request_update_with_list, s.agents), {2, 0, 4, 3, 3, 1}},
      {CALL(set_update_status_cb, OnUpdate, nullptr), {1}},
      {CALL(unset_update_status_cb), {1}, kSubscriptions},
      {CALL(ai_register_status_cb, OnStatus, nullptr), {1, 1}},
      {CALL(ai_deregister_status_cb), {1, 1}, kSubscriptions},

      {CALL(agent_list_create, &s.made_agents), {1, 1, 1}},
      {RELEASE(agent_list_destroy, agents), {1, 1}},
      {CALL(agent_list_add, s.agents, "another"), {1, 0, 2}},
      {CALL(agent_list_get, s.agents, 0, &s.text), {1, 0, 1}},
      {CALL(agent_list_get_size, s.agents, &s.number), {1}},

      {CALL(ai_model_info_create, &s.made_model), {1, 1, 1}},
      {RELEASE(ai_model_info_destroy, model), {1, 1}},
      {CALL(ai_model_info_get_id, s.model, &s.text), {1, 0, 1}},
      {CALL(ai_model_info_get_version, s.model, &s.text), {1, 0, 1}},
      {CALL(ai_model_info_get_title, s.model, &s.text), {1, 0, 1}},
      {CALL(ai_model_info_get_description, s.model, &s.text), {1, 0, 1}},
      {CALL(ai_model_info_set_id, s.empty_model, "text"), {1, 0, 1}},
      {CALL(ai_model_info_set_version, s.empty_model, "text"), {1, 0, 1}},
      {CALL(ai_model_info_set_title, s.empty_model, "text"), {1, 0, 1}},
      {CALL(ai_model_info_set_description, s.empty_model, "text"), {1, 0, 1}},

      {CALL(ai_model_list_create, &s.made_models), {1, 1, 1}},
      {RELEASE(ai_model_list_destroy, models), {2, 2}},
      {CALL(ai_model_list_add, s.models, s.model), {1, 0, 6}},
      {CALL(ai_model_list_get, s.models, 0, &s.made_model), {1, 0, 5}},
      {CALL(ai_model_list_get_size, s.models, &s.number), {1}},

      {CALL(ai_progress_create, &s.made_progress), {1, 0, 1}},
      {RELEASE(ai_progress_destroy, progress), {1}},
      {CALL(ai_progress_get_percentage, s.progress, &s.number), {1}},
      {CALL(ai_progress_get_count, s.progress, &s.number), {1}},
      {CALL(ai_progress_get_index, s.progress, &s.number), {1}},
      {CALL(ai_progress_get_state, s.progress, &s.number), {1}},
      {CALL(ai_progress_set_percentage, s.progress, 1), {1}},
      {CALL(ai_progress_set_count, s.progress, 1), {1}},
      {CALL(ai_progress_set_index, s.progress, 1), {1}},
      {CALL(ai_progress_set_state, s.progress, 1), {1}},

      {REQUEST(ai_request_usable_model_list, OnModels, &s), {2, 1, 10, 1, 3}},
      {REQUEST(ai_request_usable_model_list_with_description, OnModels, &s), {2, 1, 10, 1, 3}},
      {REQUEST(ai_request_usable_model_list_with_category, OnModels, kCategory, &s), {2, 1, 10, 1, 3}},
      {REQUEST(ai_request_model_version_list, s.model, OnModels, &s), {2, 1, 10, 1, 3}},
      {REQUEST(ai_request_to_update, s.models, OnProgress, &s), {2, 1, 5, 1, 3}},
      {REQUEST(ai_request_to_uninstall, s.models, OnProgress, &s), {2, 1, 5, 1, 3}},
  };
  // clang-format on
  return calls;
}

void PrepareExportedCalls(const char* world_folder) {
  const std::filesystem::path world = world_folder;
  const std::filesystem::path root = world / "application";
  Require(std::filesystem::create_directory(root), "make the application's folder");
  std::ofstream(root / "program", std::ios::binary) << elf::FileWith(elf::Marker{});
  setenv("VELMORA_APP_ROOT", root.c_str(), 1);
  const std::string key_file = "[Package]\nVersion=1.0.0\n[Application " VENDOR_PACKAGE_PREFIX
                               "camera]\nai-agent-category=" +
                               std::string(kCategory) + '\n';
  Require(package_desktop_install((world / "packages").c_str(), VENDOR_PACKAGE_PREFIX "camera",
                                  key_file.c_str()) == 0,
          "install a package");
}

void Prepare(ExportedCall::Needs needs) {
  using enum ExportedCall::Needs;
  bool updating = false;
  while (velmora_svcmgr_is_being_updated(&updating) == SVCMGR_ERROR_NOT_CONNECTED) {
    connected = false;
    // Starts nothing while an attempt is under way.
    Require(velmora_svcmgr_connect(OnConnection, nullptr) == 0, "connect");
    while (!connected) g_main_context_iteration(nullptr, TRUE);
  }
  if (needs == kNoConnection) Require(velmora_svcmgr_disconnect() == 0, "disconnect");
  if (needs == kSubscriptions) {
    Require(velmora_svcmgr_set_update_status_cb(OnUpdate, nullptr) == 0 &&
                velmora_svcmgr_ai_register_status_cb(OnStatus, nullptr) == 0,
            "subscribe");
  }
}
