// SPDX-License-Identifier: Apache-2.0
// What anybody on the bus may say about the agent, its update and the models, as the library's three
// subscribers hear it, compared with what each event means.
//
// Input: steps. A byte chooses the step: one of the application, the loss of the connection, or an
// event. For an event a second byte says whose it is, which name it comes with and what its data is,
// which follows as a block: an encoded bundle, or entries, each of them a byte for its key, one for
// its type, and a block.

#include <bundle_desktop.h>
#include <velmora_svcmgr.h>

#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "agent_stand_in.h"
#include "event_stand_in.h"
#include "input.h"
#include "owned.h"

namespace {

constexpr const char* kEvents[] = {"event." AGENT_PACKAGE_ID ".agent_status",
                                   "event." AGENT_PACKAGE_ID ".update_status",
                                   "event." AGENT_PACKAGE_ID ".model_status"};
enum Subscriber : std::size_t { kAgent, kUpdates, kModels };

constexpr char kOwnId[] = "com.example.client";  // what agent_stand_in tells the library

// Those that mean something, and others that nearly do.
constexpr const char* kKeys[] = {"Update", "Launch",    "Start",  "Complete", "Fail",      kOwnId,
                                 "START",  "COMPLETED", "FAILED", "start",    "Completed", "key"};

using Bundle = base::Owned<bundle, bundle_free>;

// ---- What an event holds ------------------------------------------------------------------------

void AddEntry(Input* input, bundle* data) {
  const char* key = kKeys[input->Byte() % std::size(kKeys)];
  const std::uint8_t type = input->Byte();
  const std::string value(input->Block());
  const char* texts[] = {value.c_str(), "another"};
  // A key that is there already is refused.
  switch (type % 3) {
    case 0:
      bundle_add_str(data, key, value.c_str());
      break;
    case 1:
      bundle_add_byte(data, key, value.data(), value.size());
      break;
    default:
      bundle_add_str_array(data, key, texts, type / 3 % 3);
  }
}

// Null for what is no bundle.
Bundle DataOf(std::string_view block, bool is_encoded) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(block.data());
  if (is_encoded) return Bundle(bundle_desktop_decode(bytes, block.size()));
  Bundle data(bundle_create());
  for (Input entries(bytes, block.size()); !entries.empty();) AddEntry(&entries, data.get());
  return data;
}

bool HasText(bundle* data, const char* key) {
  char* text = nullptr;
  return bundle_get_str(data, key, &text) == 0;
}

bool HasTexts(bundle* data, const char* key) {
  int count = 0;
  return bundle_get_str_array(data, key, &count) != nullptr;
}

std::optional<int> NumberUnder(bundle* data, const char* key) {
  void* bytes = nullptr;
  std::size_t size = 0;
  int number = 0;
  if (bundle_get_byte(data, key, &bytes, &size) != 0 || size < sizeof number) return std::nullopt;
  std::memcpy(&number, bytes, sizeof number);
  return number;
}

// ---- What the application is to hear ------------------------------------------------------------

struct Notice {
  enum Kind { kConnection, kUpdate, kModel } kind;
  int first;
  int second;

  bool operator==(const Notice&) const = default;
};

class Model {
 public:
  void Connect() {
    if (connected) return;
    // A connection that was lost is still there until the application ends it or the agent is back.
    if (!has_proxy_) Arrive();
  }
  void Disconnect() {
    if (connected) EndConnection();
  }
  void Lose() {
    connected = false;
    if (update_ == 2) {
      update_ = 3;
    } else {
      notices.push_back({Notice::kConnection, 0, SVCMGR_CONNECTION_STATE_DISCONNECTED});
    }
  }
  void Hear(Subscriber whose, bundle* data) {
    if (whose == kAgent && has_proxy_ && data != nullptr) HearAgent(data);
    if (whose == kUpdates && hears_updates && data != nullptr) HearUpdate(data);
    if (whose == kModels && hears_models && data != nullptr) HearModel(data);
  }

  bool IsUpdating() const { return update_ > 1; }
  bool IsWatching() const { return has_proxy_; }

  bool connected = false;
  bool hears_updates = false;
  bool hears_models = false;
  bool is_subscribed_to_models = false;  // as far as the library knows
  bool is_left_to_models = false;        // by a platform that has refused to end it
  std::vector<Notice> notices;

 private:
  void Arrive() {
    connected = has_proxy_ = true;
    if (update_ != 4)
      notices.push_back({Notice::kConnection, 0, SVCMGR_CONNECTION_STATE_CONNECTED});
  }

  void EndConnection() { connected = has_proxy_ = false; }

  void HearAgent(bundle* data) {
    if (HasText(data, "Update")) {
      update_ = 2;
    } else if (HasText(data, "Launch") && !connected) {
      if (update_ == 3) update_ = 4;
      Arrive();
    }
  }

  void HearUpdate(bundle* data) {
    if (HasTexts(data, "Start")) {
      update_ = 5;
      notices.push_back({Notice::kUpdate, SVCMGR_UPDATE_STATUS_STARTED, 0});
    } else if (const auto own = NumberUnder(data, kOwnId)) {
      End(*own);
    } else if (HasText(data, "Complete")) {
      End(0);
    } else if (const auto code = NumberUnder(data, "Fail")) {
      End(*code == 0 ? 2 : *code);
    }
  }

  // Of an end that follows none nobody hears.
  void End(int result) {
    if (std::exchange(update_, 0) == 0) return;
    notices.push_back({Notice::kUpdate, StatusOf(result), 0});
  }

  static int StatusOf(int result) {
    switch (result) {
      case 0:
        return SVCMGR_UPDATE_STATUS_COMPLETED;
      case 1:
        return SVCMGR_UPDATE_STATUS_RESULT_1;
      case 3:
        return SVCMGR_UPDATE_STATUS_RESULT_3;
      case 7:
        return SVCMGR_UPDATE_STATUS_RESULT_7;
      case 10:
        return SVCMGR_UPDATE_STATUS_RESULT_10;
      case 13:
        return SVCMGR_UPDATE_STATUS_RESULT_13;
      default:
        return SVCMGR_UPDATE_STATUS_FAILED;
    }
  }

  void HearModel(bundle* data) {
    constexpr std::pair<const char*, int> kMeanings[] = {{"START", SVCMGR_AI_STATUS_STARTED},
                                                         {"COMPLETED", SVCMGR_AI_STATUS_COMPLETED},
                                                         {"FAILED", SVCMGR_AI_STATUS_FAILED}};
    for (const auto& [key, status] : kMeanings) {
      if (!HasText(data, key)) continue;
      notices.push_back({Notice::kModel, SVCMGR_ERROR_NONE, status});
      return;
    }
  }

  bool has_proxy_ = false;  // and with it the watch for the agent's return
  int update_ = 0;
};

// ---- The application ----------------------------------------------------------------------------

std::vector<Notice> heard;

void OnConnection(int result, int state, void*) {
  heard.push_back({Notice::kConnection, result, state});
}
void OnUpdate(int status, void*) { heard.push_back({Notice::kUpdate, status, 0}); }
void OnModel(int error, int status, void*) { heard.push_back({Notice::kModel, error, status}); }

void HearEvent(Input* input, Model* model) {
  const std::uint8_t kind = input->Byte();
  const auto whose = static_cast<Subscriber>(kind % 3);
  const Bundle data = DataOf(input->Block(), (kind & 32) != 0);
  const char* name = kEvents[whose];
  if (kind / 64 == 1) name = kEvents[(whose + 1) % 3];
  if (kind / 64 == 2) name = nullptr;
  if (kind / 64 == 3) name = "event.another";
  if (name == kEvents[whose] && event_stand_in::IsSubscribed(name)) model->Hear(whose, data.get());
  event_stand_in::Deliver(kEvents[whose], name, data.get());
}

// Where the platform refuses, the event goes on, and nobody hears of it.
void DeregisterModels(bool is_refused, Model* model) {
  const bool is_subscribed = std::exchange(model->is_subscribed_to_models, false);
  event_stand_in::refuses_removal = is_refused;
  REQUIRE(velmora_svcmgr_ai_deregister_status_cb() ==
          (is_refused && is_subscribed ? SVCMGR_ERROR_INVALID_OPERATION : SVCMGR_ERROR_NONE));
  event_stand_in::refuses_removal = false;
  model->is_left_to_models = is_subscribed ? is_refused : model->is_left_to_models;
  model->hears_models = false;
}

void TakeStep(Input* input, Model* model) {
  const std::uint8_t step = input->Byte();
  switch (step % 8) {
    case 0:
      REQUIRE(velmora_svcmgr_set_update_status_cb(OnUpdate, nullptr) == 0);
      model->hears_updates = true;
      break;
    case 1:
      REQUIRE(velmora_svcmgr_unset_update_status_cb() == 0);
      model->hears_updates = false;
      break;
    case 2:
      REQUIRE(velmora_svcmgr_ai_register_status_cb(OnModel, nullptr) == 0);
      model->hears_models = model->is_subscribed_to_models = true;
      model->is_left_to_models = false;
      break;
    case 3:
      DeregisterModels((step & 8) != 0, model);
      break;
    case 4:
      REQUIRE(velmora_svcmgr_connect(OnConnection, nullptr) ==
              (model->connected ? SVCMGR_ERROR_ALREADY_CONNECTED : SVCMGR_ERROR_NONE));
      model->Connect();
      break;
    case 5:
      REQUIRE(velmora_svcmgr_disconnect() == 0);
      model->Disconnect();
      break;
    case 6:
      if (!model->connected) break;
      agent_stand_in::Lose();
      model->Lose();
      break;
    default:
      HearEvent(input, model);
  }
}

void Compare(const Model& model) {
  REQUIRE(heard == model.notices);
  bool updating = false;
  const int result = velmora_svcmgr_is_being_updated(&updating);
  REQUIRE(result == (model.connected ? SVCMGR_ERROR_NONE : SVCMGR_ERROR_NOT_CONNECTED));
  REQUIRE(updating == (model.connected && model.IsUpdating()));
  REQUIRE(event_stand_in::IsSubscribed(kEvents[kAgent]) == model.IsWatching());
  REQUIRE(event_stand_in::IsSubscribed(kEvents[kUpdates]) == model.hears_updates);
  REQUIRE(event_stand_in::IsSubscribed(kEvents[kModels]) ==
          (model.is_subscribed_to_models || model.is_left_to_models));
}

void Announce(Subscriber whose, const char* key) {
  const Bundle data(bundle_create());
  bundle_add_str(data.get(), key, "");
  event_stand_in::Deliver(kEvents[whose], kEvents[whose], data.get());
}

// What is the process's own is left as it was at first: a connection, also a lost one, is ended, and
// so is an update.
void Forget() {
  Announce(kAgent, "Launch");
  REQUIRE(velmora_svcmgr_set_update_status_cb(OnUpdate, nullptr) == 0);
  Announce(kUpdates, "Complete");
  REQUIRE(velmora_svcmgr_unset_update_status_cb() == 0);
  REQUIRE(velmora_svcmgr_ai_register_status_cb(OnModel, nullptr) == 0);
  REQUIRE(velmora_svcmgr_ai_deregister_status_cb() == 0);
  agent_stand_in::EndInput();
  heard.clear();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  Model model;
  while (!input.empty()) {
    TakeStep(&input, &model);
    Compare(model);
  }
  Forget();
  return 0;
}
