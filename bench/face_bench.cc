// SPDX-License-Identifier: Apache-2.0
// A list of models through the C++ face, held against the same through the C interface: from the
// request to the last text. The agent's stand-in hands the answer over in memory.

#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <velmora_svcmgr.hpp>

#include "agent_stand_in.h"
#include "bench_world.h"
#include "kept_records.h"
#include "models.h"
#include "promises.h"

namespace {

namespace vs = velmora::svcmgr;

constexpr std::size_t kSeqOffset = 8;

// An answer to the usable list's delegate, to which a sequence number is still to be given.
std::string AnswerOf(int count) {
  rpc_port_parcel_h parcel = nullptr;
  Require(rpc_port_parcel_create(&parcel) == 0, "make a parcel");
  for (const int head : {1, 1, 0}) rpc_port_parcel_write_int32(parcel, head);
  rpc_port_parcel_write_bool(parcel, false);
  rpc_port_parcel_write_int32(parcel, 0);
  WriteModels(parcel, count);
  const void* bytes = nullptr;
  std::size_t size = 0;
  rpc_port_desktop_parcel_get_bytes(parcel, &bytes, &size);
  std::string answer(static_cast<const char*>(bytes), size);
  rpc_port_parcel_destroy(parcel);
  return answer;
}

// Answers the latest request.
void Answer(std::string* answer) {
  std::memcpy(answer->data() + kSeqOffset, agent_stand_in::sent.back().data() + kSeqOffset,
              sizeof(int));
  agent_stand_in::sent.clear();
  agent_stand_in::Push(*answer);
  kept_records::Release();
}

// What an application reads: both kinds of it the same.
std::size_t length = 0;

void OnConnection(int, int, void*) {}

using Getter = int (*)(velmora_svcmgr_ai_model_info_h, char**);

std::size_t LengthOf(velmora_svcmgr_ai_model_info_h info, Getter get) {
  char* text = nullptr;
  if (get(info, &text) != SVCMGR_ERROR_NONE) return 0;
  const std::size_t result = std::strlen(text);
  std::free(text);
  return result;
}

void OnList(int, velmora_svcmgr_ai_model_list_h list, void*) {
  int size = 0;
  velmora_svcmgr_ai_model_list_get_size(list, &size);
  for (int i = 0; i < size; ++i) {
    velmora_svcmgr_ai_model_info_h info = nullptr;
    if (velmora_svcmgr_ai_model_list_get(list, i, &info) != SVCMGR_ERROR_NONE) continue;
    length += LengthOf(info, velmora_svcmgr_ai_model_info_get_id);
    length += LengthOf(info, velmora_svcmgr_ai_model_info_get_version);
    velmora_svcmgr_ai_model_info_destroy(info);
  }
  kept_records::DestroyWholly(list);
}

void C(benchmark::State& state) {
  std::string answer = AnswerOf(static_cast<int>(state.range(0)));
  Require(velmora_svcmgr_connect(OnConnection, nullptr) == 0, "connect");
  length = 0;
  for (auto _ : state) {
    velmora_svcmgr_ai_request_usable_model_list(OnList, nullptr);
    Answer(&answer);
  }
  Require(length > 0, "read a list");
  agent_stand_in::EndInput();
}

// Nothing waits here but what is told later.
class BenchLoop final : public vs::Loop {
 public:
  bool Post(vs::Task task) noexcept override {
    tasks_.push_back(std::move(task));
    return true;
  }
  TimerId StartTimer(vs::Milliseconds, vs::Task) noexcept override { return 1; }
  void CancelTimer(TimerId) noexcept override {}

  void Turn() {
    for (; !tasks_.empty(); tasks_.pop_front()) tasks_.front()();
  }

 private:
  std::deque<vs::Task> tasks_;
};

template <typename Read>
void AskThroughFace(benchmark::State& state, Read read) {
  std::string answer = AnswerOf(static_cast<int>(state.range(0)));
  BenchLoop loop;
  vs::Session session(loop);
  loop.Turn();
  Require(session.state() == vs::State::kConnected, "connect");
  length = 0;
  for (auto _ : state) {
    const vs::Token token = session.Models([&read](vs::Outcome<vs::ModelList> models) {
      if (!models) return;
      for (const vs::Model& model : *models) read(model);
      kept_records::DestroyWholly(models->release());
    });
    Answer(&answer);
  }
  Require(length > 0, "read a list");
  agent_stand_in::EndInput();
}

void FaceViews(benchmark::State& state) {
  AskThroughFace(state, [](const vs::Model& model) {
    const vs::Text id = model.Read(vs::Field::kId);
    const vs::Text version = model.Read(vs::Field::kVersion);
    length += id.view().size() + version.view().size();
  });
}

void FaceStrings(benchmark::State& state) {
  AskThroughFace(state, [](const vs::Model& model) {
    length += model.id().size();
    length += model.version().size();
  });
}

BENCHMARK(C)->Arg(1)->Arg(1000);
BENCHMARK(FaceViews)->Arg(1)->Arg(1000);
BENCHMARK(FaceStrings)->Arg(1)->Arg(1000);

}  // namespace

int main(int argc, char** argv) {
  PrepareProcess();
  const BenchWorld world;
  constexpr double kTarget = 1.1;
  return RunBenches(argc, argv,
                    {{"list of 1,000 models, views of texts", "FaceViews/1000", "C/1000", kTarget},
                     {"list of 1,000 models, strings", "FaceStrings/1000", "C/1000", kTarget},
                     {"list of one model, strings", "FaceStrings/1", "C/1", 2}});
}
