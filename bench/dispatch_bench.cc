// SPDX-License-Identifier: Apache-2.0
// The dispatch of one message while many delegates await theirs. The agent's stand-in hands
// messages over in memory.

#include <velmora_svcmgr.h>

#include <cstring>

#include "agent_stand_in.h"
#include "bench_world.h"
#include "kept_records.h"
#include "promises.h"

namespace {

void OnConnection(int, int, void*) {}

void OnList(int, velmora_svcmgr_ai_model_list_h list, void*) { kept_records::DestroyWholly(list); }

template <typename Number>
void Append(std::string* message, Number number) {
  message->append(reinterpret_cast<const char*>(&number), sizeof number);
}

// An empty list for the delegate of this sequence number.
std::string Message(int seq) {
  std::string message;
  for (const int head : {1, 1, seq}) Append(&message, head);
  Append(&message, false);
  for (const int payload : {0, 0, 0}) Append(&message, payload);
  return message;
}

void Dispatch(benchmark::State& state) {
  constexpr std::size_t kSeqOffset = 8;
  const auto count = static_cast<std::size_t>(state.range(0));
  Require(velmora_svcmgr_connect(OnConnection, nullptr) == 0, "connect");
  for (std::size_t i = 0; i < count; ++i) {
    Require(velmora_svcmgr_ai_request_usable_model_list(OnList, nullptr) == 0, "queue a delegate");
  }
  int seq = 0;
  std::memcpy(&seq, agent_stand_in::sent.back().data() + kSeqOffset, sizeof seq);
  const std::string message = Message(seq);
  for (auto _ : state) agent_stand_in::Push(message);
  agent_stand_in::EndInput();
}
BENCHMARK(Dispatch)->Arg(1)->Arg(100000);

}  // namespace

int main(int argc, char** argv) {
  PrepareProcess();
  return RunBenches(argc, argv,
                    {{"100,000 queued delegates", "Dispatch/100000", "Dispatch/1", 1.5}});
}
