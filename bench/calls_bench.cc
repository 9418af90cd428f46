// SPDX-License-Identifier: Apache-2.0
// Calls to another process: the library against a process that serves the agent's port, and the
// limit, a socket and nothing else, against one that sends the same content.

#include <glib.h>
#include <poll.h>
#include <sys/socket.h>
#include <velmora_svcmgr.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench_world.h"
#include "kept_records.h"
#include "models.h"
#include "owned.h"
#include "promises.h"
#include "servers.h"

namespace {

int raw_socket = -1;

void RunUntil(const bool& done) {
  while (!done) g_main_context_iteration(nullptr, TRUE);
}

// ---- The library --------------------------------------------------------------------------------

void OnConnection(int result, int state, void* connected) {
  Require(result == 0 && state == SVCMGR_CONNECTION_STATE_CONNECTED, "connect");
  *static_cast<bool*>(connected) = true;
}

void Int32Call(benchmark::State& state) {
  for (auto _ : state) {
    int level = 0;
    Require(velmora_svcmgr_get_agent_api_level(&level) == 0 && level == kLevel, "call");
  }
}

void LicenceCall(benchmark::State& state) {
  for (auto _ : state) {
    char* text = nullptr;
    Require(velmora_svcmgr_get_license_fulltext(&text) == 0 && text != nullptr, "call");
    std::free(text);
  }
}

velmora_svcmgr_ai_model_info_h model = nullptr;

struct Arrival {
  velmora_svcmgr_ai_model_list_h list = nullptr;
  bool done = false;
};

void OnList(int error, velmora_svcmgr_ai_model_list_h list, void* user_data) {
  Require(error == 0, "list models");
  *static_cast<Arrival*>(user_data) = {list, true};
}

int Request(int count, Arrival* arrival) {
  switch (count) {
    case 10:
      return velmora_svcmgr_ai_request_usable_model_list(OnList, arrival);
    case 100:
      return velmora_svcmgr_ai_request_usable_model_list_with_description(OnList, arrival);
    default:
      return velmora_svcmgr_ai_request_model_version_list(model, OnList, arrival);
  }
}

void ListQuery(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  for (auto _ : state) {
    const auto start = g_get_monotonic_time();
    Arrival arrival;
    Require(Request(count, &arrival) == 0, "ask for models");
    RunUntil(arrival.done);
    state.SetIterationTime(static_cast<double>(g_get_monotonic_time() - start) * 1e-6);
    int size = 0;
    velmora_svcmgr_ai_model_list_get_size(arrival.list, &size);
    Require(size == count, "get all models");
    kept_records::DestroyWholly(arrival.list);
    kept_records::Release();
  }
}

// ---- The limit ----------------------------------------------------------------------------------

// Sends a request of this size and reads the frame that comes back.
const std::vector<char>& Exchange(Content content, std::size_t request_size) {
  static std::vector<char> frame(1 << 20);
  char request[256] = {static_cast<char>(content)};
  Require(send(raw_socket, request, request_size, 0) == static_cast<ssize_t>(request_size), "send");
  std::size_t got = 0;
  std::uint32_t wanted = sizeof wanted;
  while (got < wanted) {
    pollfd wait = {raw_socket, POLLIN, 0};
    poll(&wait, 1, -1);
    const ssize_t now = recv(raw_socket, frame.data() + got, frame.size() - got, 0);
    Require(now > 0, "receive");
    got += static_cast<std::size_t>(now);
    std::memcpy(&wanted, frame.data(), sizeof wanted);
    wanted += static_cast<std::uint32_t>(sizeof wanted);
  }
  return frame;
}

void Int32Limit(benchmark::State& state) {
  for (auto _ : state) {
    char first = Exchange(Content::kInt32, 8)[8];
    benchmark::DoNotOptimize(first);
  }
}

void LicenceLimit(benchmark::State& state) {
  for (auto _ : state) {
    const std::vector<char>& frame = Exchange(Content::kLicence, 8);
    const base::Malloced<char> text(strdup(frame.data() + 12));
    benchmark::DoNotOptimize(text.get());
  }
}

// The models of a frame, one record each, with a block of its own for each text.
class Records {
 public:
  explicit Records(const char* frame) {
    constexpr std::size_t kHead = 21;  // prefix, command, delegate, sequence number, once, result
    frame += kHead;
    const std::uint32_t count = Number(&frame);
    for (std::uint32_t i = 0; i < count; ++i) {
      auto* record = records_.emplace_back(new std::array<char*, 4>);
      for (char*& text : *record) {
        const std::uint32_t size = Number(&frame);
        text = static_cast<char*>(std::malloc(size));
        std::memcpy(text, frame, size);
        frame += size;
      }
    }
  }
  ~Records() {
    for (auto* record : records_) {
      for (char* text : *record) std::free(text);
      delete record;
    }
  }
  Records(const Records&) = delete;
  Records& operator=(const Records&) = delete;

  std::size_t size() const { return records_.size(); }

 private:
  static std::uint32_t Number(const char** from) {
    std::uint32_t number = 0;
    std::memcpy(&number, *from, sizeof number);
    *from += sizeof number;
    return number;
  }

  std::vector<std::array<char*, 4>*> records_;
};

void ListLimit(benchmark::State& state) {
  constexpr std::size_t kRequestSize = 60;
  const auto count = static_cast<std::size_t>(state.range(0));
  const Content content = count == 10    ? Content::kTenModels
                          : count == 100 ? Content::kHundredModels
                                         : Content::kThousandModels;
  for (auto _ : state) {
    const auto start = g_get_monotonic_time();
    const Records records(Exchange(content, kRequestSize).data());
    state.SetIterationTime(static_cast<double>(g_get_monotonic_time() - start) * 1e-6);
    Require(records.size() == count, "get all models");
  }
}

void Sizes(benchmark::internal::Benchmark* bench) {
  bench->Arg(10)->Arg(100)->Arg(1000)->UseManualTime();
}
BENCHMARK(Int32Call)->UseRealTime();
BENCHMARK(Int32Limit)->UseRealTime();
BENCHMARK(LicenceCall)->UseRealTime();
BENCHMARK(LicenceLimit)->UseRealTime();
BENCHMARK(ListQuery)->Apply(Sizes);
BENCHMARK(ListLimit)->Apply(Sizes);

void MakeModel() {
  Require(velmora_svcmgr_ai_model_info_create(&model) == 0, "make a model");
  for (const auto set :
       {velmora_svcmgr_ai_model_info_set_id, velmora_svcmgr_ai_model_info_set_version,
        velmora_svcmgr_ai_model_info_set_title, velmora_svcmgr_ai_model_info_set_description}) {
    Require(set(model, "model") == 0, "fill a model");
  }
  kept_records::Forget();
}

}  // namespace

int main(int argc, char** argv) {
  PrepareProcess();
  const BenchWorld world;
  const ServerProcess raw = ServerProcess::Raw(&raw_socket);
  const ServerProcess agent = ServerProcess::Agent();
  bool connected = false;
  Require(velmora_svcmgr_connect(OnConnection, &connected) == 0, "connect");
  RunUntil(connected);
  MakeModel();
  return RunBenches(argc, argv,
                    {{"int32 call", "Int32Call", "Int32Limit", 1.15},
                     {"20 KB licence text", "LicenceCall", "LicenceLimit", 1.15},
                     {"list of 10 models", "ListQuery/10", "ListLimit/10", 1.3},
                     {"list of 100 models", "ListQuery/100", "ListLimit/100", 2.3},
                     {"list of 1,000 models", "ListQuery/1000", "ListLimit/1000", 2.3}});
}
