// SPDX-License-Identifier: Apache-2.0
// The messages that an agent sends for a client's delegates.
//
// Input: a byte that says what the application does inside its callback, then messages as blocks.
// The sequence number of a message counts from that of the input's first delegate.

#include <cstring>
#include <utility>

#include "agent_stand_in.h"
#include "input.h"
#include "kept_records.h"

namespace {

enum class Reaction { kNone, kDisconnect, kConnectAnew, kAskAgain };

Reaction reaction;

void OnConnection(int, int, void*) {}

void Connect() { REQUIRE(velmora_svcmgr_connect(OnConnection, nullptr) == 0); }

void ReadText(velmora_svcmgr_ai_model_info_h info,
              int (*get)(velmora_svcmgr_ai_model_info_h, char**)) {
  char* text = nullptr;
  REQUIRE(get(info, &text) == 0 && text != nullptr && std::strlen(text) <= 2048);
  std::free(text);
}

void ReadList(velmora_svcmgr_ai_model_list_h list) {
  int size = -1;
  REQUIRE(velmora_svcmgr_ai_model_list_get_size(list, &size) == 0 && size >= 0);
  for (int i = 0; i < size; ++i) {
    velmora_svcmgr_ai_model_info_h info = nullptr;
    REQUIRE(velmora_svcmgr_ai_model_list_get(list, i, &info) == 0);
    ReadText(info, velmora_svcmgr_ai_model_info_get_id);
    ReadText(info, velmora_svcmgr_ai_model_info_get_version);
    ReadText(info, velmora_svcmgr_ai_model_info_get_title);
    ReadText(info, velmora_svcmgr_ai_model_info_get_description);
    REQUIRE(velmora_svcmgr_ai_model_info_destroy(info) == 0);
  }
}

void OnList(int, velmora_svcmgr_ai_model_list_h list, void*) {
  const Reaction now = std::exchange(reaction, Reaction::kNone);
  if (now == Reaction::kDisconnect || now == Reaction::kConnectAnew) velmora_svcmgr_disconnect();
  if (now == Reaction::kConnectAnew) Connect();
  if (now == Reaction::kAskAgain) velmora_svcmgr_ai_request_usable_model_list(OnList, nullptr);
  ReadList(list);
  kept_records::DestroyWholly(list);
}

void OnProgress(int, velmora_svcmgr_ai_progress_h progress, void*) {
  const Reaction now = std::exchange(reaction, Reaction::kNone);
  if (now == Reaction::kDisconnect || now == Reaction::kConnectAnew) velmora_svcmgr_disconnect();
  if (now == Reaction::kConnectAnew) Connect();
  for (const auto get :
       {velmora_svcmgr_ai_progress_get_state, velmora_svcmgr_ai_progress_get_index,
        velmora_svcmgr_ai_progress_get_count, velmora_svcmgr_ai_progress_get_percentage}) {
    int number = 0;
    REQUIRE(get(progress, &number) == 0);
  }
  REQUIRE(velmora_svcmgr_ai_progress_destroy(progress) == 0);
}

// One delegate of each kind, with sequence numbers that follow each other.
void AskForAll() {
  velmora_svcmgr_ai_model_info_h model = nullptr;
  REQUIRE(velmora_svcmgr_ai_model_info_create(&model) == 0);
  for (const auto set :
       {velmora_svcmgr_ai_model_info_set_id, velmora_svcmgr_ai_model_info_set_version,
        velmora_svcmgr_ai_model_info_set_title, velmora_svcmgr_ai_model_info_set_description}) {
    REQUIRE(set(model, "model") == 0);
  }
  REQUIRE(velmora_svcmgr_ai_request_usable_model_list(OnList, nullptr) == 0);
  REQUIRE(velmora_svcmgr_ai_request_usable_model_list_with_description(OnList, nullptr) == 0);
  REQUIRE(velmora_svcmgr_ai_request_model_version_list(model, OnList, nullptr) == 0);
  velmora_svcmgr_ai_model_list_h list = nullptr;
  REQUIRE(velmora_svcmgr_ai_model_list_create(&list) == 0);
  REQUIRE(velmora_svcmgr_ai_model_list_add(list, model) == 0);
  REQUIRE(velmora_svcmgr_ai_request_to_update(list, OnProgress, nullptr) == 0);
  REQUIRE(velmora_svcmgr_ai_request_to_uninstall(list, OnProgress, nullptr) == 0);
  kept_records::DestroyWholly(list);
}

constexpr std::size_t kSeqOffset = 8;  // after the command, or the method, and the delegate's ID

std::uint32_t SeqOf(const std::string& message) {
  std::uint32_t seq = 0;
  std::memcpy(&seq, message.data() + kSeqOffset, sizeof seq);
  return seq;
}

std::string Resequenced(std::string message, std::uint32_t first) {
  if (message.size() < kSeqOffset + sizeof first) return message;
  const std::uint32_t seq = first + SeqOf(message);
  std::memcpy(message.data() + kSeqOffset, &seq, sizeof seq);
  return message;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  reaction = static_cast<Reaction>(input.Byte() % 4);
  Connect();
  AskForAll();
  const std::uint32_t first = SeqOf(agent_stand_in::sent.front());
  while (!input.empty()) {
    agent_stand_in::Push(Resequenced(std::string(input.Block()), first));
  }
  agent_stand_in::EndInput();
  return 0;
}
