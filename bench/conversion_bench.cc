// SPDX-License-Identifier: Apache-2.0
// A list of models in memory, from its parcel to the application's callback, with real checks of
// the agent's package. Built twice: BENCH_LOGS writes every record to a file; without it, they are
// filtered.

#include <chrono>
#include <cstdlib>

#include "SvcMgrAppProxyCallback.h"
#include "bench_world.h"
#include "kept_records.h"
#include "models.h"
#include "promises.h"

namespace {

using Clock = std::chrono::steady_clock;

void OnList(int, velmora_svcmgr_ai_model_list_h list, void* received) {
  *static_cast<velmora_svcmgr_ai_model_list_h*>(received) = list;
}

class Message {
 public:
  explicit Message(int count) {
    Require(rpc_port_parcel_create(&message_) == 0, "make a parcel");
    Require(rpc_port_parcel_create(&copy_) == 0, "make a parcel");
    rpc_port_parcel_write_int32(message_, 0);  // the agent's result
    WriteModels(message_, count);
  }
  ~Message() {
    rpc_port_parcel_destroy(message_);
    rpc_port_parcel_destroy(copy_);
  }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  // To be read from the front once more.
  rpc_port_parcel_h Rewound() {
    const void* bytes = nullptr;
    std::size_t size = 0;
    rpc_port_desktop_parcel_get_bytes(message_, &bytes, &size);
    rpc_port_desktop_parcel_set_bytes(copy_, bytes, size);
    return copy_;
  }

 private:
  rpc_port_parcel_h message_ = nullptr;
  rpc_port_parcel_h copy_ = nullptr;
};

class Stopwatch {
 public:
  explicit Stopwatch(benchmark::State* state) : state_(state) {}
  void Stop() const {
    state_->SetIterationTime(std::chrono::duration<double>(Clock::now() - start_).count());
  }

 private:
  benchmark::State* const state_;
  const Clock::time_point start_ = Clock::now();
};

void Conversion(benchmark::State& state) {
  Message message(static_cast<int>(state.range(0)));
  velmora_svcmgr_ai_model_list_h list = nullptr;
  svcmgr::GetModelVersionListCB delegate({OnList, &list});
  for (auto _ : state) {
    const rpc_port_parcel_h parcel = message.Rewound();
    const Stopwatch stopwatch(&state);
    delegate.OnReceivedEvent(parcel);
    stopwatch.Stop();
    kept_records::DestroyWholly(list);
    kept_records::Release();
  }
}

void Limit(benchmark::State& state) {
  Message message(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    const rpc_port_parcel_h parcel = message.Rewound();
    const Stopwatch stopwatch(&state);
    int result = 0;
    rpc_port_parcel_read_int32(parcel, &result);
    const PlainModels models(parcel);
    stopwatch.Stop();
  }
}

void Sizes(benchmark::internal::Benchmark* bench) {
  bench->Arg(10)->Arg(100)->Arg(1000)->Arg(10000)->UseManualTime();
}
BENCHMARK(Conversion)->Apply(Sizes);
BENCHMARK(Limit)->Apply(Sizes);

}  // namespace

int main(int argc, char** argv) {
  PrepareProcess();
  const BenchWorld world;
#ifdef BENCH_LOGS
  constexpr double kTarget = 3;
  setenv("VELMORA_LOG_LEVEL", "verbose", 1);
  setenv("VELMORA_LOG_FILE", (world.folder() + "/log").c_str(), 1);
#else
  constexpr double kTarget = 1.25;
#endif
  return RunBenches(argc, argv,
                    {{"10 models", "Conversion/10", "Limit/10", kTarget},
                     {"100 models", "Conversion/100", "Limit/100", kTarget},
                     {"1,000 models", "Conversion/1000", "Limit/1000", kTarget},
                     {"10,000 models", "Conversion/10000", "Limit/10000", kTarget},
                     {"growth, ten times as many", "Conversion/10000", "Conversion/1000", 12}});
}
