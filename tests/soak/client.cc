// SPDX-License-Identifier: Apache-2.0
#include "client.h"

#include <fcntl.h>
#include <glib.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>
#include <velmora_svcmgr.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <random>
#include <utility>

#include "support/bytes_in_use.h"
#include "support/open_descriptors.h"

namespace soak {
namespace {

enum Kind { kUsable, kVersions, kKinds };

/** A number of a request as its user data. */
void* AsData(long number) { return reinterpret_cast<void*>(static_cast<std::intptr_t>(number)); }
long NumberOf(const void* data) { return static_cast<long>(reinterpret_cast<std::intptr_t>(data)); }

[[noreturn]] void GiveUp(const char* what, int code) {
  std::fprintf(stderr, "a client gives up: %s: %d\n", what, code);
  _exit(EXIT_FAILURE);
}

void Require(int code, const char* what) {
  if (code != SVCMGR_ERROR_NONE) GiveUp(what, code);
}

/** Without allocations, which would be taken for the library's. */
class Log {
 public:
  void Open(const char* file) {
    fd_ = open(file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd_ < 0) GiveUp(file, errno);
  }

  void Write(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    char line[512];
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    int size = std::snprintf(line, sizeof line, "%lld.%06ld ", static_cast<long long>(now.tv_sec),
                             now.tv_nsec / 1000);
    va_list arguments;
    va_start(arguments, format);
    size += std::vsnprintf(line + size, sizeof line - static_cast<std::size_t>(size), format,
                           arguments);
    va_end(arguments);
    line[size++] = '\n';
    Append(line, static_cast<std::size_t>(size));
  }

  /** The line that comes next is lost, comes twice, or comes behind the one after it. */
  void Spoil(Plant plant) { plant_ = plant; }

 private:
  void Append(const char* line, std::size_t size) {
    const bool is_told = std::strstr(line, " answer ") != nullptr;
    const Plant plant = is_told ? std::exchange(plant_, Plant::kNone) : Plant::kNone;
    if (plant == Plant::kMissed) return;
    if (plant == Plant::kOrder) {
      std::memcpy(held_, line, size);
      held_size_ = size;
      return;
    }
    Put(line, size);
    if (plant == Plant::kExtra) Put(line, size);
    if (is_told && held_size_ > 0) Put(held_, std::exchange(held_size_, 0));
  }

  void Put(const char* line, std::size_t size) const {
    if (write(fd_, line, size) != static_cast<ssize_t>(size)) GiveUp("its log", errno);
  }

  int fd_ = -1;
  Plant plant_ = Plant::kNone;
  char held_[512] = {};
  std::size_t held_size_ = 0;
};

struct Client {
  ClientOptions options;
  Shared* shared = nullptr;
  Shared::Slot* slot = nullptr;
  Log log;
  std::minstd_rand random;
  velmora_svcmgr_ai_model_list_h work = nullptr;

  long asked = 0;      // the number of the next request
  long answered = -1;  // the number of the last answer
  long answers[kKinds] = {};
  bool told_connected = false;
  bool attempt_failed = false;  // the last one, at once
  bool stranded = false;
  bool notes = false;  // a connection has begun, on which nothing was asked yet
  bool heard_last = false;
};

Client client;

// ---- What it is told ----

void OnConnection(int result, int state, void*) {
  client.log.Write("connection %d %d", result, state);
  ++client.slot->notices;
  if (state == SVCMGR_CONNECTION_STATE_CONNECTED) {
    client.told_connected = true;
    client.notes = true;
  } else {
    // A loss without a connection before: nothing is listened for any more.
    client.stranded = !std::exchange(client.told_connected, false);
  }
}

void OnUpdateStatus(int status, void*) {
  client.log.Write("update-status %d", status);
  ++client.slot->events;
  if (status == SVCMGR_UPDATE_STATUS_RESULT_13) client.heard_last = true;
}

void OnModelStatus(int error, int status, void*) {
  client.log.Write("model-status %d %d", error, status);
  ++client.slot->events;
}

void OnModels(int error, velmora_svcmgr_ai_model_list_h list, void* data, Kind kind) {
  char text[256] = "";
  int size = 0;
  Require(velmora_svcmgr_ai_model_list_get_size(list, &size), "a size");
  for (int i = 0; i < size; ++i) {
    velmora_svcmgr_ai_model_info_h model = nullptr;
    char* id = nullptr;
    char* version = nullptr;
    Require(velmora_svcmgr_ai_model_list_get(list, i, &model), "a model");
    Require(velmora_svcmgr_ai_model_info_get_id(model, &id), "an ID");
    Require(velmora_svcmgr_ai_model_info_get_version(model, &version), "a version");
    const std::size_t length = std::strlen(text);
    std::snprintf(text + length, sizeof text - length, "%s%s@%s", i == 0 ? "" : ",", id, version);
    free(id);
    free(version);
    Require(velmora_svcmgr_ai_model_info_destroy(model), "the end of a model");
  }
  Require(velmora_svcmgr_ai_model_list_destroy(list), "the end of a list");
  client.log.Write("answer %ld %d %s", NumberOf(data), error, size == 0 ? "none" : text);
  ++client.slot->answers;
  ++client.answers[kind];
  client.answered = NumberOf(data);
}

void OnUsable(int error, velmora_svcmgr_ai_model_list_h list, void* data) {
  OnModels(error, list, data, kUsable);
}

void OnVersions(int error, velmora_svcmgr_ai_model_list_h list, void* data) {
  OnModels(error, list, data, kVersions);
}

void OnProgress(int error, velmora_svcmgr_ai_progress_h progress, void* data) {
  int index = 0;
  int count = 0;
  int percentage = 0;
  int state = 0;
  Require(velmora_svcmgr_ai_progress_get_index(progress, &index), "an index");
  Require(velmora_svcmgr_ai_progress_get_count(progress, &count), "a count");
  Require(velmora_svcmgr_ai_progress_get_percentage(progress, &percentage), "a percentage");
  Require(velmora_svcmgr_ai_progress_get_state(progress, &state), "a state");
  Require(velmora_svcmgr_ai_progress_destroy(progress), "the end of a progress record");
  client.log.Write("progress %ld %d %d %d %d %d", NumberOf(data), error, index, count, percentage,
                   state);
  ++client.slot->answers;
}

// ---- What it does ----

bool OneIn(unsigned chance) { return client.random() % chance == 0; }

gboolean WakeUp(void* woken) {
  *static_cast<bool*>(woken) = true;
  return G_SOURCE_REMOVE;
}

/** Lets the main loop run for so long at least. */
void Turn(unsigned milliseconds) {
  bool woken = false;
  g_timeout_add(milliseconds, WakeUp, &woken);
  while (!woken) g_main_context_iteration(nullptr, TRUE);
}

/** What no application can tell from a wait, it ends by a time limit of its own. */
void LookAtTheTime(bool has_hope) {
  // The end of a world waits for it.
  const gint64 limit = (client.shared->settles ? 1 : 4) * G_USEC_PER_SEC;
  static gint64 away_since = 0;
  const gint64 now = g_get_monotonic_time();
  if (has_hope || away_since == 0) away_since = now;
  if (now - away_since > limit && !client.stranded) {
    client.log.Write("waited");
    client.stranded = true;
  }
}

velmora_svcmgr_ai_model_info_h MakeModel(const char* id, const char* title) {
  velmora_svcmgr_ai_model_info_h model = nullptr;
  Require(velmora_svcmgr_ai_model_info_create(&model), "a model");
  Require(velmora_svcmgr_ai_model_info_set_id(model, id), "an ID");
  Require(velmora_svcmgr_ai_model_info_set_version(model, ""), "a version");
  Require(velmora_svcmgr_ai_model_info_set_title(model, title), "a title");
  Require(velmora_svcmgr_ai_model_info_set_description(model, ""), "a description");
  return model;
}

/** A request that was taken, or failed with the connection there, has used up its number. */
void Asked(int code, const char* what) {
  client.log.Write("ask %d %s", code, what);
  if (code != SVCMGR_ERROR_NOT_CONNECTED) ++client.asked;
}

void AskForUsable() {
  Asked(velmora_svcmgr_ai_request_usable_model_list(OnUsable, AsData(client.asked)),
        "GetUsableModelList");
}

void AskForVersions() {
  char title[32];
  std::snprintf(title, sizeof title, "%ld", client.asked);
  const velmora_svcmgr_ai_model_info_h model = MakeModel("soak.fixed", title);
  const int code =
      velmora_svcmgr_ai_request_model_version_list(model, OnVersions, AsData(client.asked));
  char what[64];
  std::snprintf(what, sizeof what, "GetModelVersionList %s", title);
  Asked(code, what);
  Require(velmora_svcmgr_ai_model_info_destroy(model), "the end of a model");
}

void AskForWork() {
  if (OneIn(2)) {
    Asked(velmora_svcmgr_ai_request_to_update(client.work, OnProgress, AsData(client.asked)),
          "RequestToUpdate");
  } else {
    Asked(velmora_svcmgr_ai_request_to_uninstall(client.work, OnProgress, AsData(client.asked)),
          "RequestToUninstall");
  }
}

void AskForUpdate() { client.log.Write("request-update %d", velmora_svcmgr_request_update()); }

void AskForLevel() {
  int level = 0;
  const int code = velmora_svcmgr_get_agent_api_level(&level);
  client.log.Write("level %d %d", code, level);
}

bool IsConnected() {
  bool updating = false;
  const int code = velmora_svcmgr_is_being_updated(&updating);
  static int last = 0;
  // Again and again while it is away.
  if (code == SVCMGR_ERROR_NONE || code != last) client.log.Write("updating %d %d", code, updating);
  last = code;
  client.told_connected = code == SVCMGR_ERROR_NONE;
  LookAtTheTime(client.told_connected || client.attempt_failed);
  return client.told_connected;
}

void Connect() {
  const int code = velmora_svcmgr_connect(OnConnection, nullptr);
  client.log.Write("connect %d", code);
  client.attempt_failed = code != SVCMGR_ERROR_NONE;  // at once: the next one may do better
}

void Disconnect() {
  const int code = velmora_svcmgr_disconnect();
  client.log.Write("disconnect %d", code);
  Require(code, "disconnect");
}

/** How many sources the default main context has. Their numbers grow, from 1. */
long CountSources() {
  bool woken = false;
  const guint newest = g_timeout_add(0, WakeUp, &woken);
  g_source_remove(newest);
  long count = 0;
  for (guint id = 1; id < newest; ++id) {
    count += g_main_context_find_source_by_id(nullptr, id) != nullptr;
  }
  return count;
}

void* volatile forgotten;

void GrowOnPurpose() {
  switch (client.options.plant) {
    case Plant::kDescriptor:
      if (dup(STDIN_FILENO) < 0) GiveUp("no descriptor", errno);
      break;
    case Plant::kSource:
      g_timeout_add_seconds(3600, WakeUp, nullptr);
      break;
    case Plant::kMemory:
      forgotten = malloc(16 << 10);
      break;
    case Plant::kNone:
    case Plant::kMissed:
    case Plant::kExtra:
    case Plant::kOrder:
      break;
  }
}

/** What the process uses at a moment at which nothing is asked and a connection has just begun. */
void NoteUsage() {
  GrowOnPurpose();
  auto memory = static_cast<long>(BytesInUse());
  for (int kind = 0; kind < kKinds; ++kind) {
    memory -= client.shared->kept[kind] * client.answers[kind];
  }
  client.log.Write("usage %d %ld %ld", OpenDescriptors(), CountSources(), memory);
}

void Act() {
  if (OneIn(80)) return AskForUpdate();
  if (OneIn(10)) return AskForWork();
  if (OneIn(25)) return AskForLevel();
  if (OneIn(150)) {
    Disconnect();
    return Connect();
  }
  return OneIn(2) ? AskForUsable() : AskForVersions();
}

void Await(bool (*done)()) {
  constexpr unsigned kPause = 2;
  while (!done() && !client.stranded) Turn(kPause);
}

/** Measures what an answer keeps, and what comes with the first ones. */
void Measure() {
  constexpr int kAnswers = 64;
  void (*const ask[])() = {AskForUsable, AskForVersions};
  for (int kind = 0; kind < kKinds; ++kind) {
    long before = 0;
    for (int round = 0; round < 2; ++round) {
      before = static_cast<long>(BytesInUse());
      for (int i = 0; i < kAnswers; ++i) {
        ask[kind]();
        Await([] { return client.answered + 1 == client.asked; });
      }
    }
    const long after = static_cast<long>(BytesInUse());
    client.shared->kept[kind] = (after - before) / kAnswers;
  }
  client.shared->measured = true;
}

void Live() {
  constexpr unsigned kMostPause = 6;
  if (std::exchange(client.notes, false)) NoteUsage();
  if (IsConnected()) {
    Act();
  } else if (OneIn(8)) {
    Connect();
  }
  Turn(1 + static_cast<unsigned>(client.random()) % kMostPause);
}

/** Whatever was asked on this connection has been answered when the last answer comes. */
void Settle() {
  constexpr unsigned kPause = 5;
  long last = -1;
  while (!client.stranded && !(client.heard_last && client.slot->settled)) {
    if (!IsConnected()) {
      Connect();
      last = -1;
      client.slot->settled = false;
    } else if (last < 0) {
      last = client.asked;
      AskForVersions();
    } else if (client.answered == last) {
      client.slot->settled = true;
    }
    Turn(kPause);
  }
}

}  // namespace

int RunClient(const ClientOptions& options, Shared* shared) {
  client.options = options;
  client.shared = shared;
  client.slot = &shared->slots[options.slot];
  client.random.seed(options.seed);
  client.log.Open(options.log.c_str());
  client.log.Write("begin");
  Require(velmora_svcmgr_set_update_status_cb(OnUpdateStatus, nullptr), "update status");
  Require(velmora_svcmgr_ai_register_status_cb(OnModelStatus, nullptr), "model status");
  client.log.Write("subscribed");
  Require(velmora_svcmgr_ai_model_list_create(&client.work), "a list");
  const velmora_svcmgr_ai_model_info_h model = MakeModel("soak.work", "");
  Require(velmora_svcmgr_ai_model_list_add(client.work, model), "a model of a list");
  Require(velmora_svcmgr_ai_model_info_destroy(model), "the end of a model");

  Connect();
  if (!shared->measured && options.slot == 0) {
    Await([] { return client.told_connected; });
    Measure();
  }
  while (!shared->measured) Turn(1);
  client.log.Spoil(options.plant);
  while (!shared->settles && !client.stranded) Live();
  if (!client.stranded) Settle();
  client.log.Write(client.stranded ? "stranded" : "end");
  return client.stranded ? kStranded : EXIT_SUCCESS;
}

}  // namespace soak
