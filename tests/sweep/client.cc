// SPDX-License-Identifier: Apache-2.0
#include "client.h"

#include <app_event.h>
#include <dlfcn.h>
#include <glib.h>
#include <poll.h>
#include <rpc-port.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <velmora_svcmgr.h>

#include <initializer_list>

#include "service/control.h"
#include "support/open_descriptors.h"

// All that this client keeps is static: its own allocations would be among those that fail.

namespace sweep {
namespace {

constexpr int kTickMilliseconds = 10;
/** While nothing comes, the agent is asked this often whether it still answers. */
constexpr int kTicksPerProbe = 5;
/** What has not come after this many answers of the agent, and nothing else, will not come; on a busy
 *  machine the bus is seconds behind. */
constexpr int kProbes = 400;
/** What has not come after this many ticks in which nothing at all happened will not come. */
constexpr int kQuietTicks = 1000;
/** This many dispatches of which nobody hears mean that the loop spins. */
constexpr int kIdleDispatches = 100000;

constexpr char kLicence[] = "Licence of the sweep";
constexpr int kLevel = 11;
constexpr int kModels = 2;          // and as many versions of the one that comes and goes
constexpr int kMessagesOfWork = 3;  // before the first of two parts, and after each
constexpr char kModel[] = "vision.segment";
constexpr char kNewVersion[] = "2.1.0";

RunRecord* record = nullptr;

enum class Phase { kFailing, kSound };
Phase phase = Phase::kFailing;

// ---- Verdicts ----

[[noreturn, gnu::format(printf, 1, 2)]] void Fail(const char* format, ...) {
  const Uncounted own;
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(record->why, sizeof record->why, format, arguments);
  va_end(arguments);
  record->ending = Ending::kFailed;
  _exit(EXIT_SUCCESS);
}

void Progress() { record->progress.fetch_add(1, std::memory_order_relaxed); }

const char* Doing() { return record->failures.doing; }

void Step(const char* step) {
  record->failures.doing = step;
  Progress();
}

bool Injected() { return record->failures.failed > 0; }

// ---- What the library asks the platform for ----

struct Platform {
  int connect_result = 0;
  bool watches_agent = false;
  bool watches_updates = false;
  bool watches_models = false;
};
Platform platform;

bool EndsWith(const char* text, const char* end) {
  const std::size_t length = strlen(text);
  const std::size_t end_length = strlen(end);
  return length >= end_length && strcmp(text + length - end_length, end) == 0;
}

void NoteSubscription(const char* event, bool stands) {
  if (EndsWith(event, ".agent_status")) platform.watches_agent = stands;
  if (EndsWith(event, ".update_status")) platform.watches_updates = stands;
  if (EndsWith(event, ".model_status")) platform.watches_models = stands;
}

template <typename Function>
Function* NextDefinition(const char* name) {
  const Uncounted own;
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace
}  // namespace sweep

// The library finds these first.

int event_add_event_handler(const char* event_name, event_cb callback, void* user_data,
                            event_handler_h* event_handler) {
  static const auto next =
      sweep::NextDefinition<decltype(event_add_event_handler)>("event_add_event_handler");
  const int result = next(event_name, callback, user_data, event_handler);
  sweep::NoteSubscription(event_name, result == 0);
  return result;
}

int rpc_port_proxy_connect(rpc_port_proxy_h h, const char* appid, const char* port) {
  static const auto next =
      sweep::NextDefinition<decltype(rpc_port_proxy_connect)>("rpc_port_proxy_connect");
  return sweep::platform.connect_result = next(h, appid, port);
}

namespace sweep {
namespace {

// ---- What the client hears ----

/** A request that is answered by callbacks. */
struct Request {
  const char* name;
  int expected;  // answers; 0: it was not sent
  int answers;
  int size;
};

constexpr int kMostRequests = 64;
Request requests[kMostRequests];
int request_count = 0;

struct Heard {
  int connected = 0;
  int lost = 0;
  int refused = 0;
  int update_started = 0;
  int update_ended = 0;
  int models_started = 0;
  int models_ended = 0;
};
Heard heard;
int idle_dispatches = 0;

void Hear() {
  Progress();
  idle_dispatches = 0;
}

bool Standing() {
  const Uncounted own;
  bool updating = false;
  return velmora_svcmgr_is_being_updated(&updating) == SVCMGR_ERROR_NONE;
}

void OnConnection(int, int state, void*) {
  Hear();
  if (state == SVCMGR_CONNECTION_STATE_CONNECTED) ++heard.connected;
  if (state == SVCMGR_CONNECTION_STATE_REJECTED) ++heard.refused;
  if (state != SVCMGR_CONNECTION_STATE_DISCONNECTED) return;
  ++heard.lost;
  record->lost = true;
}

void OnUpdateStatus(int status, void*) {
  Hear();
  ++(status == SVCMGR_UPDATE_STATUS_STARTED ? heard.update_started : heard.update_ended);
}

void OnModelStatus(int, int status, void*) {
  Hear();
  ++(status == SVCMGR_AI_STATUS_STARTED ? heard.models_started : heard.models_ended);
}

/** Whether a call succeeded; ends the run if it had to, or if it fails with none of these codes. */
bool Succeeded(int code, const char* call, std::initializer_list<int> failures) {
  Progress();
  if (code == SVCMGR_ERROR_NONE) return true;
  if (phase == Phase::kSound) Fail("%s: %s answers %d", Doing(), call, code);
  // Any function may return it; see the conventions of the public header.
  if (code == SVCMGR_ERROR_INVALID_OPERATION) return false;
  if (code == SVCMGR_ERROR_NOT_CONNECTED && !Standing()) return false;
  for (const int failure : failures) {
    if (code == failure) return false;
  }
  Fail("%s: %s answers %d", Doing(), call, code);
}

void Answered(Request* request, int error) {
  Hear();
  if (++request->answers > request->expected) Fail("%s was answered too often", request->name);
  if (phase == Phase::kSound && error != SVCMGR_ERROR_NONE) {
    Fail("%s: %s was answered with %d", Doing(), request->name, error);
  }
}

void ReadText(int (*get)(velmora_svcmgr_ai_model_info_h, char**),
              velmora_svcmgr_ai_model_info_h info) {
  char* text = nullptr;
  if (!Succeeded(get(info, &text), "a text of a model", {})) return;
  free(text);
}

void ReadModel(velmora_svcmgr_ai_model_list_h list, int index) {
  velmora_svcmgr_ai_model_info_h info = nullptr;
  const int code = velmora_svcmgr_ai_model_list_get(list, index, &info);
  if (!Succeeded(code, "ai_model_list_get", {SVCMGR_ERROR_OUT_OF_MEMORY})) return;
  ReadText(velmora_svcmgr_ai_model_info_get_id, info);
  ReadText(velmora_svcmgr_ai_model_info_get_version, info);
  ReadText(velmora_svcmgr_ai_model_info_get_title, info);
  ReadText(velmora_svcmgr_ai_model_info_get_description, info);
  Succeeded(velmora_svcmgr_ai_model_info_destroy(info), "ai_model_info_destroy", {});
}

void OnModels(int error, velmora_svcmgr_ai_model_list_h list, void* user_data) {
  auto* const request = static_cast<Request*>(user_data);
  Answered(request, error);
  request->size = 0;
  if (list == nullptr) {
    if (phase == Phase::kSound) Fail("%s: %s brought no list", Doing(), request->name);
    return;
  }
  Succeeded(velmora_svcmgr_ai_model_list_get_size(list, &request->size), "get_size", {});
  for (int i = 0; i < request->size; ++i) ReadModel(list, i);
  Succeeded(velmora_svcmgr_ai_model_list_destroy(list), "ai_model_list_destroy", {});
}

void OnProgress(int error, velmora_svcmgr_ai_progress_h progress, void* user_data) {
  auto* const request = static_cast<Request*>(user_data);
  Answered(request, error);
  if (progress == nullptr) {
    if (phase == Phase::kSound) Fail("%s: %s brought no record", Doing(), request->name);
    return;
  }
  int number = 0;
  Succeeded(velmora_svcmgr_ai_progress_get_index(progress, &number), "get_index", {});
  Succeeded(velmora_svcmgr_ai_progress_get_count(progress, &number), "get_count", {});
  Succeeded(velmora_svcmgr_ai_progress_get_percentage(progress, &number), "get_percentage", {});
  Succeeded(velmora_svcmgr_ai_progress_get_state(progress, &number), "get_state", {});
  Succeeded(velmora_svcmgr_ai_progress_destroy(progress), "ai_progress_destroy", {});
}

// ---- Waiting ----

/** One turn of the main loop; whether anything was dispatched within a tick. */
bool TurnOnce() {
  constexpr int kMostDescriptors = 64;
  static GPollFD descriptors[kMostDescriptors];
  GMainContext* const context = g_main_context_default();
  if (!g_main_context_acquire(context)) Fail("the main loop belongs to somebody else");
  gint priority = 0;
  gint timeout = 0;
  g_main_context_prepare(context, &priority);
  const gint count =
      g_main_context_query(context, priority, &timeout, descriptors, kMostDescriptors);
  if (count > kMostDescriptors) Fail("the main loop has %d descriptors", count);
  if (timeout < 0 || timeout > kTickMilliseconds) timeout = kTickMilliseconds;
  g_poll(descriptors, static_cast<guint>(count), timeout);
  const bool ready = g_main_context_check(context, priority, descriptors, count) != FALSE;
  if (ready) g_main_context_dispatch(context);
  g_main_context_release(context);
  return ready;
}

/** Whether the agent answers on this connection. */
bool AgentAnswers() {
  const Uncounted own;
  int level = 0;
  return velmora_svcmgr_get_agent_api_level(&level) == SVCMGR_ERROR_NONE && level == kLevel;
}

/** Runs the main loop until `done`; false once it is known that this will not come. */
template <typename Done>
bool Await(Done done) {
  int quiet = 0;
  int probes = 0;
  long before = record->progress;
  idle_dispatches = 0;
  while (!done()) {
    const bool dispatched = TurnOnce();
    if (dispatched && ++idle_dispatches > kIdleDispatches) Fail("%s: spins", Doing());
    if (record->progress != before) {
      before = record->progress;
      quiet = probes = 0;
    } else if (!dispatched && ++quiet % kTicksPerProbe == 0 && Standing() && AgentAnswers()) {
      ++probes;
    }
    if (probes >= kProbes || quiet >= kQuietTicks) return done();
  }
  return true;
}

// ---- Connecting ----

bool ConnectionIsOver() { return heard.lost > 0 || heard.refused > 0; }

/** Ends a run whose application was told of a loss that has no way out. */
[[noreturn]] void EndStranded() {
  record->stranded = true;
  record->ending = Ending::kPassed;
  _exit(EXIT_SUCCESS);
}

/** After a loss that the application knows of, the agent's next announcement reconnects. */
void LeadOut() {
  if (heard.refused > 0) Fail("%s: the agent is said to refuse the client", Doing());
  if (Standing()) Fail("%s: a loss was told, but the connection stands", Doing());
  if (!platform.watches_agent) EndStranded();
  Step("after a loss, the agent's launch");
  const Uncounted own;
  const char* const control = getenv(sim::kControlVariable);
  const std::string why = sim::SendSteps(control, R"([{"event": "Launch"}])");
  if (!why.empty()) Fail("the agent announces nothing: %s", why.c_str());
  heard = {};
  if (!Await(Standing)) Fail("%s: does not lead out", Doing());
}

/** Returns whether it is connected. */
bool Connect() {
  heard = {};
  platform = {};
  const int code = velmora_svcmgr_connect(OnConnection, nullptr);
  if (!Succeeded(code, "connect", {SVCMGR_ERROR_CONNECTION_FAILED})) {
    // The connection may have been reported first; this ends it.
    const Uncounted own;
    if (velmora_svcmgr_disconnect() != SVCMGR_ERROR_NONE) Fail("%s: no way out", Doing());
    return false;
  }
  if (platform.connect_result != 0) {
    Fail("%s: connect succeeds although the port fails with %d: nothing will ever come", Doing(),
         platform.connect_result);
  }
  if (!Await([] { return heard.connected > 0 || ConnectionIsOver(); })) {
    Fail("%s: connect succeeds, and nothing comes", Doing());
  }
  if (heard.connected > 0 && !ConnectionIsOver() && !Standing()) {
    Fail("%s: reported to stand, but does not", Doing());
  }
  return !ConnectionIsOver();
}

void Disconnect() {
  if (!Succeeded(velmora_svcmgr_disconnect(), "disconnect", {})) {
    const Uncounted own;
    if (velmora_svcmgr_disconnect() != SVCMGR_ERROR_NONE) {
      Fail("%s: disconnect fails again", Doing());
    }
  }
  if (Standing()) Fail("%s: stands after disconnect", Doing());
}

// ---- Asking ----

void AskForLicence() {
  Step("licence");
  char* text = nullptr;
  const int code = velmora_svcmgr_get_license_fulltext(&text);
  const bool there = Succeeded(code, "get_license_fulltext", {}) && text != nullptr;
  if (there ? strcmp(text, kLicence) != 0 : phase == Phase::kSound) {
    Fail("%s: wrong text", Doing());
  }
  free(text);
}

void AskForLevels() {
  Step("API level");
  int level = 0;
  if (Succeeded(velmora_svcmgr_get_agent_api_level(&level), "get_agent_api_level",
                {SVCMGR_ERROR_INVALID_API_LEVEL}) &&
      level != kLevel) {
    Fail("%s: wrong level %d", Doing(), level);
  }
  Step("client level");
  if (Succeeded(velmora_svcmgr_get_client_api_level(&level), "get_client_api_level",
                {SVCMGR_ERROR_NOT_SUPPORTED}) &&
      level != VELMORA_SVCMGR_API_LEVEL) {
    Fail("%s: wrong level %d", Doing(), level);
  }
  Step("whether an update is under way");
  bool updating = false;
  if (Succeeded(velmora_svcmgr_is_being_updated(&updating), "is_being_updated", {}) && updating) {
    Fail("%s: wrong answer", Doing());
  }
}

Request* NewRequest(const char* name, int expected) {
  if (request_count == kMostRequests) Fail("too many requests");
  Request* const request = &requests[request_count++];
  *request = {name, expected, 0, 0};
  return request;
}

void Sent(Request* request, int code, std::initializer_list<int> failures) {
  if (!Succeeded(code, request->name, failures)) request->expected = 0;
}

void AwaitAnswers() {
  const auto missing = []() -> const Request* {
    for (int i = 0; i < request_count; ++i) {
      if (requests[i].answers < requests[i].expected) return &requests[i];
    }
    return nullptr;
  };
  if (!Await([&] { return ConnectionIsOver() || missing() == nullptr; })) {
    Fail("%s: %s was not answered, and the connection stands", Doing(), missing()->name);
  }
  if (!ConnectionIsOver()) return;
  for (int i = 0; i < request_count; ++i) requests[i].expected = requests[i].answers;
}

/** A model with all its texts, or none. */
velmora_svcmgr_ai_model_info_h MakeModel() {
  velmora_svcmgr_ai_model_info_h info = nullptr;
  if (!Succeeded(velmora_svcmgr_ai_model_info_create(&info), "ai_model_info_create",
                 {SVCMGR_ERROR_OUT_OF_MEMORY})) {
    return nullptr;
  }
  bool made = true;
  const auto set = [&](int (*setter)(velmora_svcmgr_ai_model_info_h, const char*),
                       const char* text) {
    made = made && Succeeded(setter(info, text), "a text for a model", {});
  };
  set(velmora_svcmgr_ai_model_info_set_id, kModel);
  set(velmora_svcmgr_ai_model_info_set_version, kNewVersion);
  set(velmora_svcmgr_ai_model_info_set_title, "");
  set(velmora_svcmgr_ai_model_info_set_description, "");
  if (made) return info;
  Succeeded(velmora_svcmgr_ai_model_info_destroy(info), "ai_model_info_destroy", {});
  return nullptr;
}

void AskForLists() {
  Step("lists of models");
  const int first = request_count;
  Request* const plain = NewRequest("the list of models", 1);
  const auto old = SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION;
  Sent(plain, velmora_svcmgr_ai_request_usable_model_list(OnModels, plain), {old});
  Request* const described = NewRequest("the list with descriptions", 1);
  Sent(described, velmora_svcmgr_ai_request_usable_model_list_with_description(OnModels, described),
       {old});
  Request* const category = NewRequest("the list of a category", 1);
  Sent(category,
       velmora_svcmgr_ai_request_usable_model_list_with_category(OnModels, "vision", category),
       {old, SVCMGR_ERROR_INVALID_PARAMETER});
  if (const velmora_svcmgr_ai_model_info_h model = MakeModel()) {
    Request* const versions = NewRequest("the versions of a model", 1);
    Sent(versions, velmora_svcmgr_ai_request_model_version_list(model, OnModels, versions), {old});
    Succeeded(velmora_svcmgr_ai_model_info_destroy(model), "ai_model_info_destroy", {});
  }
  AwaitAnswers();
  if (phase == Phase::kFailing) return;
  for (int i = first; i < request_count; ++i) {
    const int size = requests[i].size;
    if (size != kModels) {
      Fail("%s: %s has %d models", Doing(), requests[i].name, size);
    }
  }
}

void FollowEvents() {
  Step("subscriptions");
  Succeeded(velmora_svcmgr_set_update_status_cb(OnUpdateStatus, nullptr), "set_update_status_cb",
            {});
  Succeeded(velmora_svcmgr_ai_register_status_cb(OnModelStatus, nullptr), "register_status_cb", {});
  if (phase == Phase::kSound && !(platform.watches_updates && platform.watches_models)) {
    Fail("%s: the platform refuses them", Doing());
  }
}

void ForgetEvents() {
  Step("ends of subscriptions");
  if (Succeeded(velmora_svcmgr_unset_update_status_cb(), "unset_update_status_cb", {})) {
    platform.watches_updates = false;
  }
  // It counts as ended whatever the platform says, unless the agent's package was not found.
  if (Succeeded(velmora_svcmgr_ai_deregister_status_cb(), "deregister_status_cb", {})) {
    platform.watches_models = false;
  }
}

/** What an application makes itself: a record, as it would to test its own callback. */
void MakeProgress() {
  Step("a record of progress");
  velmora_svcmgr_ai_progress_h progress = nullptr;
  if (!Succeeded(velmora_svcmgr_ai_progress_create(&progress), "ai_progress_create",
                 {SVCMGR_ERROR_OUT_OF_MEMORY})) {
    return;
  }
  const bool is_set = Succeeded(velmora_svcmgr_ai_progress_set_index(progress, 1), "set_index", {});
  Succeeded(velmora_svcmgr_ai_progress_set_count(progress, 2), "set_count", {});
  Succeeded(velmora_svcmgr_ai_progress_set_percentage(progress, 50), "set_percentage", {});
  Succeeded(velmora_svcmgr_ai_progress_set_state(progress, 0), "set_state", {});
  int index = 0;
  const bool is_read =
      Succeeded(velmora_svcmgr_ai_progress_get_index(progress, &index), "get_index", {});
  if (is_set && is_read && index != 1) Fail("%s: the index is %d", Doing(), index);
  Succeeded(velmora_svcmgr_ai_progress_destroy(progress), "ai_progress_destroy", {});
}

velmora_svcmgr_agent_list_h MakeAgents() {
  velmora_svcmgr_agent_list_h list = nullptr;
  if (!Succeeded(velmora_svcmgr_agent_list_create(&list), "agent_list_create",
                 {SVCMGR_ERROR_OUT_OF_MEMORY})) {
    return nullptr;
  }
  for (const char* const agent : {"com.velmora.svcmgr", "org.example.agent"}) {
    Succeeded(velmora_svcmgr_agent_list_add(list, agent), "agent_list_add", {});
  }
  int size = 0;
  Succeeded(velmora_svcmgr_agent_list_get_size(list, &size), "agent_list_get_size", {});
  for (int i = 0; i < size; ++i) {
    char* agent = nullptr;
    Succeeded(velmora_svcmgr_agent_list_get(list, i, &agent), "agent_list_get", {});
    free(agent);
  }
  if (phase == Phase::kSound && size != 2) Fail("%s: %d agents", Doing(), size);
  return list;
}

/** Follows an update that the agent has taken on to its end. */
void FollowUpdate() {
  if (!platform.watches_updates) return;
  const auto ended = [] { return heard.update_started > 0 && heard.update_ended > 0; };
  if (!Await([&] { return ConnectionIsOver() || ended(); })) {
    Fail("%s: %d starts and %d ends of it were heard", Doing(), heard.update_started,
         heard.update_ended);
  }
}

void UpdateAgents() {
  Step("update of all agents");
  heard.update_started = heard.update_ended = 0;
  if (Succeeded(velmora_svcmgr_request_update(), "request_update", {SVCMGR_ERROR_NOT_CONNECTED})) {
    FollowUpdate();
  }
  Step("update of named agents");
  const velmora_svcmgr_agent_list_h agents = MakeAgents();
  if (agents == nullptr) return;
  heard.update_started = heard.update_ended = 0;
  if (Succeeded(velmora_svcmgr_request_update_with_list(agents), "request_update_with_list",
                {SVCMGR_ERROR_NOT_CONNECTED, SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION})) {
    FollowUpdate();
  }
  Succeeded(velmora_svcmgr_agent_list_destroy(agents), "agent_list_destroy", {});
}

using AskForWork = int (*)(velmora_svcmgr_ai_model_list_h, velmora_svcmgr_ai_progress_cb, void*);

/** Returns whether the agent was asked. */
bool WorkOn(velmora_svcmgr_ai_model_list_h list, const char* name, AskForWork ask) {
  Step(name);
  heard.models_started = heard.models_ended = 0;
  Request* const request = NewRequest(name, kMessagesOfWork);
  Sent(request, ask(list, OnProgress, request), {SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION});
  if (request->expected == 0) return false;
  AwaitAnswers();
  if (!platform.watches_models) return true;
  const auto ended = [] { return heard.models_started > 0 && heard.models_ended > 0; };
  if (!Await([&] { return ConnectionIsOver() || ended(); })) {
    Fail("%s: %d starts and %d ends of it were heard", Doing(), heard.models_started,
         heard.models_ended);
  }
  return true;
}

void WorkOnModels() {
  Step("a list of models");
  const velmora_svcmgr_ai_model_info_h model = MakeModel();
  velmora_svcmgr_ai_model_list_h list = nullptr;
  if (model != nullptr && Succeeded(velmora_svcmgr_ai_model_list_create(&list),
                                    "ai_model_list_create", {SVCMGR_ERROR_OUT_OF_MEMORY})) {
    // What was not updated cannot be uninstalled.
    if (Succeeded(velmora_svcmgr_ai_model_list_add(list, model), "ai_model_list_add", {}) &&
        WorkOn(list, "update of a model", velmora_svcmgr_ai_request_to_update) &&
        !ConnectionIsOver()) {
      WorkOn(list, "uninstallation", velmora_svcmgr_ai_request_to_uninstall);
    }
    Succeeded(velmora_svcmgr_ai_model_list_destroy(list), "ai_model_list_destroy", {});
  }
  if (model != nullptr) {
    Succeeded(velmora_svcmgr_ai_model_info_destroy(model), "ai_model_info_destroy", {});
  }
}

/** Everything that can be asked, on a connection that is up or has just been lost. */
void AskEverything() {
  FollowEvents();
  AskForLevels();
  AskForLicence();
  if (phase == Phase::kFailing) AskForLists();
  UpdateAgents();
  WorkOnModels();
  MakeProgress();
  // What failed work had left installed is gone now: each list is as long as in other runs.
  if (phase == Phase::kSound) AskForLists();
  ForgetEvents();
}

// ---- The run ----

void OnDeath(int signal) {
  record->death_signal = signal;
  Disarm();
  record->death.Capture();
  // As a shell does: the exit status says which signal it was.
  ::signal(signal, SIG_DFL);
  _exit(128 + signal);
}

void TellOfDeath() {
  static char stack[1 << 16];
  const stack_t alternative = {stack, 0, sizeof stack};
  sigaltstack(&alternative, nullptr);
  struct sigaction action = {};
  action.sa_handler = OnDeath;
  action.sa_flags = SA_ONSTACK;
  for (const int signal : {SIGABRT, SIGTRAP, SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGQUIT}) {
    sigaction(signal, &action, nullptr);
  }
}

void TellWhatIsLeft(void* kept_caller) {
  constexpr int kTurns = 1000;
  for (int i = 0; i < kTurns && TurnOnce(); ++i) continue;
  record->descriptors = OpenDescriptors();
  record->place_count = CountLiveBlocks(record->places, RunRecord::kMostPlaces);
  if (kept_caller != nullptr) record->kept = StackOfLiveBlock(kept_caller);
}

/** From here on nothing fails, and everything has to work. */
void BecomeSound() {
  Disarm();
  phase = Phase::kSound;
}

/** Connects again if that failed, or recovers from a loss. Returns once connected. */
void StandAgain() {
  if (ConnectionIsOver()) LeadOut();
  if (!Standing()) Connect();
  if (!Standing()) Fail("%s: no connection", Doing());
}

void* volatile forgotten;

void GoWrong(Plant plant) {
  switch (plant) {
    case Plant::kNone:
      return;
    case Plant::kBlock:
      forgotten = malloc(1);
      return;
    case Plant::kDescriptor:
      if (dup(STDIN_FILENO) < 0) Fail("no descriptor");
      return;
    case Plant::kCrash:
      raise(SIGSEGV);
      return;
    case Plant::kRequest:
      NewRequest("a request that was never sent", 1);
      return;
  }
}

void LiveThrough(const Injection& injection, Plant plant) {
  const bool from_start = injection.from == From::kStart;
  if (from_start) Arm(injection.first, injection.burst, &record->failures);
  Step("connecting");
  if (!Connect() && !Injected()) Fail("cannot connect");
  if (!from_start) Arm(injection.first, injection.burst, &record->failures);
  AskEverything();

  BecomeSound();
  if (Injected()) GoWrong(plant);
  Step("the second round: connecting");
  StandAgain();
  AskEverything();

  if (!Injected()) {
    phase = Phase::kFailing;
    Rearm();
  }
  Step("disconnecting");
  Disconnect();

  BecomeSound();
  Step("the third round: connecting");
  if (!Connect()) Fail("%s: lost", Doing());
  AskEverything();
  Step("the last disconnecting");
  Disconnect();
}

}  // namespace

int RunClient(const Injection& injection, Plant plant, void* kept_caller, RunRecord* shared) {
  record = shared;
  TellOfDeath();
  KeepStacksOf(kept_caller);
  TrackBlocks();
  LiveThrough(injection, plant);
  TellWhatIsLeft(kept_caller);
  record->failures.doing = "exiting";
  record->ending = Ending::kPassed;
  return EXIT_SUCCESS;
}

}  // namespace sweep
