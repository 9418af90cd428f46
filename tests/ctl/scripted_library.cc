// SPDX-License-Identifier: Apache-2.0
//
// The public interface without an agent: every function answers as the environment
// variable SVCMGRCTL_SCRIPT says, which holds a JSON object. All keys may be left out.
//
//   "connect"    {"result": code, "events": [[result, state]...], "inside": bool}
//                inside: the events run before the function returns
//   "license"    {"result": code, "text": text}, "level" {"result": code, "value": number}
//   "models", "described", "category", "versions"
//                {"result": code, "error": code, "models": [{"id": text...}...], "times": number,
//                 "again": code, "null": bool, "echo": bool}
//                again: the error of all answers but the first
//                echo: answer with the model that was asked about
//
//   "update"     {"result": code, "agents": [text...], "then": steps}
//                agents: the names that must be asked for; without it no list may be given
//   "work"       {"result": code, "models": [[id, version]...], "uninstall": bool, "then": steps}
//                models, uninstall: what must be asked for
//   "subscribed" {"update": steps, "model": steps}, begun by the subscription
//   "client"     {"result": code, "value": number, "root": text}
//                root: what VELMORA_APP_ROOT must be
//   "executable" text: where the kernel says that the program is; empty if it does not say
//   "packages"   {"result": code, "others": number, "agent": code, "version": text}
//                agent, version: what is said of the agent's; without a version that cannot be read
//   "disconnect" {"result": code}
//   "updating"   bool: what is_being_updated says, until a step says otherwise
//
// Steps are taken one after the other:
//
//   {"update": status}, {"model": status}, {"connection": [result, state]}
//   {"progress": [error, state, index, count, percentage]}; with "null": true without a record
//   {"updating": bool}, {"pause": milliseconds}, {"waiting": true}: tells that the program waits
//
// In each but "connect": "drop": true loses the connection when the function is called, "never":
// true never answers. A text is a string, or {"hex": digits} for bytes that JSON cannot hold.
//
// When something is asked that will never be answered, one byte is written to descriptor
// SVCMGRCTL_SCRIPT_FD, so that a test knows without a clock that the program waits.
//
// What the interface forbids its callers ends the process with 99, and so do handles left at the
// end.

#include <fcntl.h>
#include <glib-unix.h>
#include <glib.h>
#include <package_info.h>
#include <package_manager.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <queue>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "velmora_svcmgr.h"

using nlohmann::json;

enum Field { kId, kVersion, kTitle, kDescription, kFieldCount };

struct velmora_svcmgr_ai_model_info_s {
  std::array<std::optional<std::string>, kFieldCount> texts;
};

struct velmora_svcmgr_ai_model_list_s {
  std::vector<velmora_svcmgr_ai_model_info_s> models;
};

struct velmora_svcmgr_agent_list_s {
  std::vector<std::string> agents;
};

struct velmora_svcmgr_ai_progress_s {
  int state, index, count, percentage;
};

namespace {

constexpr std::array<const char*, kFieldCount> kFieldNames = {"id", "version", "title",
                                                              "description"};

[[noreturn]] void Forbidden(const char* what) {
  std::fprintf(stderr, "scripted library: %s\n", what);
  _exit(99);
}

struct Library {
  const std::thread::id main_thread = std::this_thread::get_id();
  json script;
  velmora_svcmgr_connection_cb on_connection = nullptr;
  void* on_connection_data = nullptr;
  int connection = 0;
  bool connected = false;
  // Handles may be made and released on the threads of calls that block.
  std::atomic<long> live_handles{0};
  std::atomic<bool> updating{false};
  velmora_svcmgr_update_status_cb on_update = nullptr;
  void* on_update_data = nullptr;
  velmora_svcmgr_ai_status_cb on_model = nullptr;
  void* on_model_data = nullptr;
  velmora_svcmgr_ai_progress_cb on_progress = nullptr;
  void* on_progress_data = nullptr;

  Library() {
    const char* text = std::getenv("SVCMGRCTL_SCRIPT");
    script = text == nullptr ? json::object() : json::parse(text);
    updating = script.value("updating", false);
  }
  ~Library() {
    if (live_handles != 0) Forbidden("handles are left at the end");
    if (connected) Forbidden("the connection was not ended");
  }
};

Library library;

void CheckMainThread() {
  if (std::this_thread::get_id() != library.main_thread) Forbidden("not on the main thread");
}

json Step(const char* name) { return library.script.value(name, json::object()); }

}  // namespace

// The program's own definition comes before that of the C library.
extern "C" __attribute__((visibility("default"))) ssize_t readlink(const char* path, char* buffer,
                                                                   size_t size) {
  if (std::strcmp(path, "/proc/self/exe") != 0 || !library.script.contains("executable"))
    return syscall(SYS_readlinkat, AT_FDCWD, path, buffer, size);
  const std::string executable = library.script["executable"];
  if (!executable.empty()) return static_cast<ssize_t>(executable.copy(buffer, size));
  errno = ENOENT;
  return -1;
}

namespace {

std::string TextOf(const json& text) {
  if (text.is_string()) return text.get<std::string>();
  const std::string hex = text.at("hex").get<std::string>();
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return bytes;
}

// The events that wait for the main loop, which a byte in a pipe wakes up. GLib's own hand-over from
// a thread that blocks would look like a race to ThreadSanitizer, which cannot see into GLib.
std::mutex events_mutex;
std::queue<std::function<void()>> waiting_events;
int wake_up[2] = {-1, -1};

std::function<void()> TakeEvent() {
  const std::lock_guard<std::mutex> lock(events_mutex);
  if (waiting_events.empty()) return nullptr;
  std::function<void()> event = std::move(waiting_events.front());
  waiting_events.pop();
  return event;
}

gboolean RunEvents(gint fd, GIOCondition, gpointer) {
  char byte = 0;
  if (read(fd, &byte, 1) != 1) Forbidden("the pipe is gone");
  while (const auto event = TakeEvent()) event();
  return G_SOURCE_CONTINUE;
}

void ListenForEvents() {
  if (wake_up[0] >= 0) return;
  if (pipe(wake_up) != 0) Forbidden("no pipe");
  g_unix_fd_add(wake_up[0], G_IO_IN, RunEvents, nullptr);
}

void RunLater(std::function<void()> event) {
  {
    const std::lock_guard<std::mutex> lock(events_mutex);
    waiting_events.push(std::move(event));
  }
  if (write(wake_up[1], "e", 1) != 1) Forbidden("the pipe is gone");
}

void Report(int result, int state) {
  library.connected = state == SVCMGR_CONNECTION_STATE_CONNECTED;
  library.on_connection(result, state, library.on_connection_data);
}

void TellThatItWaits() {
  const char* fd = std::getenv("SVCMGRCTL_SCRIPT_FD");
  if (fd != nullptr && write(std::atoi(fd), "w", 1) != 1) Forbidden("nobody listens");
}

// The same from inside the program's main loop, when all else that it has to do is done.
void TellOnceItWaits() {
  g_idle_add_full(
      G_PRIORITY_LOW,
      [](gpointer) -> gboolean {
        TellThatItWaits();
        return G_SOURCE_REMOVE;
      },
      nullptr, nullptr);
}

void DropIfAsked(const json& step) {
  if (step.value("drop", false))
    RunLater([] { Report(SVCMGR_ERROR_NONE, SVCMGR_CONNECTION_STATE_DISCONNECTED); });
}

// A call that waits for the agent.
int Call(const json& step, const std::function<void()>& answer) {
  DropIfAsked(step);
  if (step.value("never", false)) {
    TellThatItWaits();
    for (;;) pause();
  }
  const int result = step.value("result", 0);
  if (result == SVCMGR_ERROR_NONE) answer();
  return result;
}

velmora_svcmgr_ai_model_list_h ListOf(const json& models) {
  auto* list = new velmora_svcmgr_ai_model_list_s;
  ++library.live_handles;
  for (const json& texts : models) {
    auto& info = list->models.emplace_back();
    for (std::size_t i = 0; i < kFieldCount; ++i)
      if (texts.contains(kFieldNames[i])) info.texts[i] = TextOf(texts[kFieldNames[i]]);
  }
  return list;
}

int Request(const json& step, velmora_svcmgr_ai_model_list_cb callback, void* data) {
  if (callback == nullptr) return SVCMGR_ERROR_INVALID_PARAMETER;
  DropIfAsked(step);
  const int result = step.value("result", 0);
  if (result != SVCMGR_ERROR_NONE) return result;
  if (step.value("never", false)) {
    TellThatItWaits();
    return SVCMGR_ERROR_NONE;
  }
  for (int i = 0; i < step.value("times", 1); ++i)
    RunLater([step, callback, data, i, connection = library.connection] {
      if (!library.connected || connection != library.connection) return;
      callback(step.value(i == 0 ? "error" : "again", 0),
               step.value("null", false) ? nullptr : ListOf(step.value("models", json::array())),
               data);
    });
  return SVCMGR_ERROR_NONE;
}

void ReportProgress(const json& step) {
  if (!library.connected || library.on_progress == nullptr) return;
  const json& numbers = step["progress"];
  velmora_svcmgr_ai_progress_h progress = nullptr;
  if (!step.value("null", false)) {
    ++library.live_handles;
    progress = new velmora_svcmgr_ai_progress_s{numbers[1].get<int>(), numbers[2].get<int>(),
                                                numbers[3].get<int>(), numbers[4].get<int>()};
  }
  library.on_progress(numbers[0].get<int>(), progress, library.on_progress_data);
}

void ReportUpdate(int status) {
  library.updating = status == SVCMGR_UPDATE_STATUS_STARTED;
  if (library.on_update != nullptr) library.on_update(status, library.on_update_data);
}

void TakeStep(const json& step) {
  if (step.contains("update")) ReportUpdate(step["update"].get<int>());
  if (step.contains("model") && library.on_model != nullptr)
    library.on_model(SVCMGR_ERROR_NONE, step["model"].get<int>(), library.on_model_data);
  if (step.contains("connection"))
    Report(step["connection"][0].get<int>(), step["connection"][1].get<int>());
  if (step.contains("progress")) ReportProgress(step);
  if (step.contains("updating")) library.updating = step["updating"].get<bool>();
  if (step.contains("waiting")) TellOnceItWaits();
}

void TakeSteps(const json& steps, std::size_t next) {
  for (; next < steps.size(); ++next) {
    if (!steps[next].contains("pause")) {
      TakeStep(steps[next]);
      continue;
    }
    using Rest = std::pair<json, std::size_t>;
    g_timeout_add_full(
        G_PRIORITY_DEFAULT, steps[next]["pause"].get<guint>(),
        [](gpointer rest) -> gboolean {
          TakeSteps(static_cast<Rest*>(rest)->first, static_cast<Rest*>(rest)->second);
          return G_SOURCE_REMOVE;
        },
        new Rest(steps, next + 1), [](gpointer rest) { delete static_cast<Rest*>(rest); });
    return;
  }
}

void TakeStepsLater(const json& step, const char* name) {
  if (step.contains(name)) RunLater([steps = step[name]] { TakeSteps(steps, 0); });
}

int RequestUpdate(const json& agents) {
  const json step = Step("update");
  if (step.value("agents", json()) != agents) Forbidden("other agents are updated");
  return Call(step, [&] { TakeStepsLater(step, "then"); });
}

int RequestWork(bool uninstall, velmora_svcmgr_ai_model_list_h list,
                velmora_svcmgr_ai_progress_cb callback, void* data) {
  CheckMainThread();
  const json step = Step("work");
  json models = json::array();
  for (const auto& model : list->models) {
    for (const auto& text : model.texts)
      if (!text) return SVCMGR_ERROR_INVALID_OPERATION;
    models.push_back({*model.texts[kId], *model.texts[kVersion]});
  }
  if (step.value("models", models) != models) Forbidden("other models are worked on");
  if (step.value("uninstall", uninstall) != uninstall) Forbidden("it is the other kind of work");
  DropIfAsked(step);
  const int result = step.value("result", 0);
  if (result != SVCMGR_ERROR_NONE) return result;
  library.on_progress = callback;
  library.on_progress_data = data;
  TakeStepsLater(step, "then");
  return SVCMGR_ERROR_NONE;
}

template <int velmora_svcmgr_ai_progress_s::* number>
int GetNumber(velmora_svcmgr_ai_progress_h progress, int* value) {
  if (progress == nullptr || value == nullptr) return SVCMGR_ERROR_INVALID_PARAMETER;
  *value = progress->*number;
  return SVCMGR_ERROR_NONE;
}

template <std::size_t field>
int GetText(velmora_svcmgr_ai_model_info_h info, char** text) {
  if (info == nullptr || text == nullptr) return SVCMGR_ERROR_INVALID_PARAMETER;
  if (!info->texts[field]) return SVCMGR_ERROR_INVALID_OPERATION;
  *text = strdup(info->texts[field]->c_str());
  return SVCMGR_ERROR_NONE;
}

template <std::size_t field>
int SetText(velmora_svcmgr_ai_model_info_h info, const char* text) {
  if (info == nullptr || text == nullptr) return SVCMGR_ERROR_INVALID_PARAMETER;
  if (info->texts[field]) Forbidden("a text is set twice");
  info->texts[field] = text;
  return SVCMGR_ERROR_NONE;
}

}  // namespace

int package_info_create(const char*, package_info_h* info) {
  const int result = Step("packages").value("agent", 0);
  if (result != 0) return result;
  ++library.live_handles;
  *info = reinterpret_cast<package_info_h>(&library);
  return 0;
}

int package_info_destroy(package_info_h info) {
  if (info == nullptr) return -22;
  --library.live_handles;
  return 0;
}

int package_info_get_package(package_info_h, char** id) {
  *id = strdup("org.scripted.app");
  return 0;
}

int package_info_get_version(package_info_h, char** version) {
  const json text = Step("packages").value("version", json("2.3.182"));
  if (!text.is_string()) return -5;
  *version = strdup(text.get<std::string>().c_str());
  return 0;
}

int package_manager_foreach_package_info(package_manager_package_info_cb callback, void* data) {
  const json step = Step("packages");
  for (int i = 0; i < step.value("others", 1); ++i) callback(nullptr, data);
  return step.value("result", 0);
}

int velmora_svcmgr_connect(velmora_svcmgr_connection_cb callback, void* user_data) {
  CheckMainThread();
  const json step = Step("connect");
  // The real one writes records, unless it is told not to.
  if (const char* level = std::getenv("VELMORA_LOG_LEVEL");
      step.value("log", false) && (level == nullptr || std::string(level) != "silent"))
    std::fprintf(stderr, "a record at %s\n", level == nullptr ? "warn" : level);
  library.on_connection = callback;
  library.on_connection_data = user_data;
  ++library.connection;
  ListenForEvents();
  const json events = step.value("events", json::parse("[[0, 0]]"));
  const auto run = [events] {
    for (const json& event : events) Report(event[0].get<int>(), event[1].get<int>());
  };
  if (events.empty()) TellThatItWaits();
  if (step.value("inside", false))
    run();
  else if (step.value("result", 0) == SVCMGR_ERROR_NONE)
    RunLater(run);
  return step.value("result", 0);
}

int velmora_svcmgr_disconnect(void) {
  CheckMainThread();
  library.connected = false;
  return Step("disconnect").value("result", 0);
}

int velmora_svcmgr_get_license_fulltext(char** text) {
  const json step = Step("license");
  return Call(step, [&] {
    if (step.contains("text")) *text = strdup(TextOf(step["text"]).c_str());
  });
}

int velmora_svcmgr_get_agent_api_level(int* level) {
  const json step = Step("level");
  return Call(step, [&] { *level = step.value("value", 11); });
}

int velmora_svcmgr_ai_model_info_create(velmora_svcmgr_ai_model_info_h* info) {
  *info = new velmora_svcmgr_ai_model_info_s;
  ++library.live_handles;
  return SVCMGR_ERROR_NONE;
}

int velmora_svcmgr_ai_model_info_destroy(velmora_svcmgr_ai_model_info_h info) {
  --library.live_handles;
  delete info;
  return SVCMGR_ERROR_NONE;
}

int velmora_svcmgr_ai_model_info_get_id(velmora_svcmgr_ai_model_info_h info, char** text) {
  return GetText<kId>(info, text);
}
int velmora_svcmgr_ai_model_info_get_version(velmora_svcmgr_ai_model_info_h info, char** text) {
  return GetText<kVersion>(info, text);
}
int velmora_svcmgr_ai_model_info_get_title(velmora_svcmgr_ai_model_info_h info, char** text) {
  return GetText<kTitle>(info, text);
}
int velmora_svcmgr_ai_model_info_get_description(velmora_svcmgr_ai_model_info_h info, char** text) {
  return GetText<kDescription>(info, text);
}
int velmora_svcmgr_ai_model_info_set_id(velmora_svcmgr_ai_model_info_h info, const char* text) {
  return SetText<kId>(info, text);
}
int velmora_svcmgr_ai_model_info_set_version(velmora_svcmgr_ai_model_info_h info,
                                             const char* text) {
  return SetText<kVersion>(info, text);
}
int velmora_svcmgr_ai_model_info_set_title(velmora_svcmgr_ai_model_info_h info, const char* text) {
  return SetText<kTitle>(info, text);
}
int velmora_svcmgr_ai_model_info_set_description(velmora_svcmgr_ai_model_info_h info,
                                                 const char* text) {
  return SetText<kDescription>(info, text);
}

int velmora_svcmgr_ai_model_list_destroy(velmora_svcmgr_ai_model_list_h list) {
  if (list == nullptr) return SVCMGR_ERROR_INVALID_PARAMETER;
  --library.live_handles;
  delete list;
  return SVCMGR_ERROR_NONE;
}

int velmora_svcmgr_ai_model_list_get(velmora_svcmgr_ai_model_list_h list, int index,
                                     velmora_svcmgr_ai_model_info_h* info) {
  if (list == nullptr || info == nullptr) return SVCMGR_ERROR_INVALID_PARAMETER;
  if (index < 0) Forbidden("a negative index");
  if (static_cast<std::size_t>(index) >= list->models.size()) return SVCMGR_ERROR_OUT_OF_INDEX;
  *info = new velmora_svcmgr_ai_model_info_s(list->models[static_cast<std::size_t>(index)]);
  ++library.live_handles;
  return SVCMGR_ERROR_NONE;
}

int velmora_svcmgr_ai_model_list_get_size(velmora_svcmgr_ai_model_list_h list, int* size) {
  if (list == nullptr) return SVCMGR_ERROR_INVALID_PARAMETER;
  *size = static_cast<int>(list->models.size());
  return SVCMGR_ERROR_NONE;
}

int velmora_svcmgr_ai_request_usable_model_list(velmora_svcmgr_ai_model_list_cb callback,
                                                void* user_data) {
  return Request(Step("models"), callback, user_data);
}

int velmora_svcmgr_ai_request_usable_model_list_with_description(
    velmora_svcmgr_ai_model_list_cb callback, void* user_data) {
  return Request(Step("described"), callback, user_data);
}

int velmora_svcmgr_ai_request_usable_model_list_with_category(
    velmora_svcmgr_ai_model_list_cb callback, const char* category, void* user_data) {
  json step = Step("category");
  if (step.value("name", category) != category) return SVCMGR_ERROR_INVALID_PARAMETER;
  return Request(step, callback, user_data);
}

int velmora_svcmgr_ai_request_model_version_list(velmora_svcmgr_ai_model_info_h info,
                                                 velmora_svcmgr_ai_model_list_cb callback,
                                                 void* user_data) {
  json step = Step("versions");
  json echo;
  for (std::size_t i = 0; i < kFieldCount; ++i) {
    if (!info->texts[i]) return SVCMGR_ERROR_INVALID_OPERATION;
    echo[kFieldNames[i]] = *info->texts[i];
  }
  if (step.value("echo", false)) step["models"] = json::array({echo});
  return Request(step, callback, user_data);
}

int velmora_svcmgr_get_client_api_level(int* level) {
  const json step = Step("client");
  const char* root = std::getenv("VELMORA_APP_ROOT");
  if (step.contains("root") && (root == nullptr || step["root"] != root))
    Forbidden("another folder is looked at");
  return Call(step, [&] { *level = step.value("value", 11); });
}

int velmora_svcmgr_agent_list_create(velmora_svcmgr_agent_list_h* list) {
  *list = new velmora_svcmgr_agent_list_s;
  ++library.live_handles;
  return SVCMGR_ERROR_NONE;
}

int velmora_svcmgr_agent_list_destroy(velmora_svcmgr_agent_list_h list) {
  --library.live_handles;
  delete list;
  return SVCMGR_ERROR_NONE;
}

int velmora_svcmgr_agent_list_add(velmora_svcmgr_agent_list_h list, const char* agent) {
  list->agents.emplace_back(agent);
  return SVCMGR_ERROR_NONE;
}

int velmora_svcmgr_agent_list_get_size(velmora_svcmgr_agent_list_h list, int* size) {
  *size = static_cast<int>(list->agents.size());
  return SVCMGR_ERROR_NONE;
}

int velmora_svcmgr_request_update(void) { return RequestUpdate(json()); }

int velmora_svcmgr_request_update_with_list(velmora_svcmgr_agent_list_h list) {
  return RequestUpdate(list->agents);
}

int velmora_svcmgr_is_being_updated(bool* updating) {
  *updating = library.updating;
  return library.connected ? SVCMGR_ERROR_NONE : SVCMGR_ERROR_NOT_CONNECTED;
}

int velmora_svcmgr_set_update_status_cb(velmora_svcmgr_update_status_cb callback, void* user_data) {
  CheckMainThread();
  library.on_update = callback;
  library.on_update_data = user_data;
  ListenForEvents();
  const json step = Step("subscribed");
  TakeStepsLater(step, "update");
  return step.value("result", 0);
}

int velmora_svcmgr_unset_update_status_cb(void) {
  CheckMainThread();
  library.on_update = nullptr;
  return SVCMGR_ERROR_NONE;
}

int velmora_svcmgr_ai_register_status_cb(velmora_svcmgr_ai_status_cb callback, void* user_data) {
  CheckMainThread();
  library.on_model = callback;
  library.on_model_data = user_data;
  ListenForEvents();
  const json step = Step("subscribed");
  TakeStepsLater(step, "model");
  return step.value("result", 0);
}

int velmora_svcmgr_ai_deregister_status_cb(void) {
  CheckMainThread();
  library.on_model = nullptr;
  return SVCMGR_ERROR_NONE;
}

int velmora_svcmgr_ai_model_list_create(velmora_svcmgr_ai_model_list_h* list) {
  *list = ListOf(json::array());
  return SVCMGR_ERROR_NONE;
}

int velmora_svcmgr_ai_model_list_add(velmora_svcmgr_ai_model_list_h list,
                                     velmora_svcmgr_ai_model_info_h info) {
  list->models.push_back(*info);
  return SVCMGR_ERROR_NONE;
}

int velmora_svcmgr_ai_request_to_update(velmora_svcmgr_ai_model_list_h list,
                                        velmora_svcmgr_ai_progress_cb callback, void* user_data) {
  return RequestWork(false, list, callback, user_data);
}

int velmora_svcmgr_ai_request_to_uninstall(velmora_svcmgr_ai_model_list_h list,
                                           velmora_svcmgr_ai_progress_cb callback,
                                           void* user_data) {
  return RequestWork(true, list, callback, user_data);
}

int velmora_svcmgr_ai_progress_destroy(velmora_svcmgr_ai_progress_h progress) {
  if (progress == nullptr) return SVCMGR_ERROR_INVALID_PARAMETER;
  --library.live_handles;
  delete progress;
  return SVCMGR_ERROR_NONE;
}

int velmora_svcmgr_ai_progress_get_state(velmora_svcmgr_ai_progress_h progress, int* state) {
  return GetNumber<&velmora_svcmgr_ai_progress_s::state>(progress, state);
}
int velmora_svcmgr_ai_progress_get_index(velmora_svcmgr_ai_progress_h progress, int* index) {
  return GetNumber<&velmora_svcmgr_ai_progress_s::index>(progress, index);
}
int velmora_svcmgr_ai_progress_get_count(velmora_svcmgr_ai_progress_h progress, int* count) {
  return GetNumber<&velmora_svcmgr_ai_progress_s::count>(progress, count);
}
int velmora_svcmgr_ai_progress_get_percentage(velmora_svcmgr_ai_progress_h progress,
                                              int* percentage) {
  return GetNumber<&velmora_svcmgr_ai_progress_s::percentage>(progress, percentage);
}
