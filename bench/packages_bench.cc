// SPDX-License-Identifier: Apache-2.0
// The availability check, which every exported function begins with, and the smallest functions
// around it. Built twice: BENCH_PACKAGES says who has written the package folder.

#include <package_info.h>
#include <velmora_svcmgr.h>

#include <cstdlib>
#include <string>

#include "bench_world.h"
#include "promises.h"

namespace {

void AvailabilityCheck(benchmark::State& state) {
  for (auto _ : state) {
    package_info_h info = nullptr;
    benchmark::DoNotOptimize(package_info_create(AGENT_PACKAGE_ID, &info));
    package_info_destroy(info);
  }
}
BENCHMARK(AvailabilityCheck);

void TextGetter(benchmark::State& state) {
  velmora_svcmgr_ai_model_info_h info = nullptr;
  Require(velmora_svcmgr_ai_model_info_create(&info) == 0 &&
              velmora_svcmgr_ai_model_info_set_title(info, std::string(40, 't').c_str()) == 0,
          "make a model");
  for (auto _ : state) {
    char* text = nullptr;
    benchmark::DoNotOptimize(velmora_svcmgr_ai_model_info_get_title(info, &text));
    std::free(text);
  }
  velmora_svcmgr_ai_model_info_destroy(info);
}
BENCHMARK(TextGetter);

void SizeGetter(benchmark::State& state) {
  velmora_svcmgr_ai_model_list_h list = nullptr;
  Require(velmora_svcmgr_ai_model_list_create(&list) == 0, "make a list");
  for (auto _ : state) {
    int size = 0;
    benchmark::DoNotOptimize(velmora_svcmgr_ai_model_list_get_size(list, &size));
    benchmark::DoNotOptimize(size);
  }
  velmora_svcmgr_ai_model_list_destroy(list);
}
BENCHMARK(SizeGetter);

}  // namespace

int main(int argc, char** argv) {
  PrepareProcess();
  constexpr BenchWorld::Packages kWriter = BenchWorld::Packages::BENCH_PACKAGES;
  const BenchWorld world(kWriter);
  std::vector<Promise> promises = {
      {"availability check", "AvailabilityCheck", nullptr, BENCH_CHECK_TARGET}};
  if (kWriter == BenchWorld::Packages::kManaged) {
    promises.push_back({"getter of 40 characters", "TextGetter", nullptr, 80});
    promises.push_back({"size getter", "SizeGetter", nullptr, 30});
  }
  return RunBenches(argc, argv, promises);
}
