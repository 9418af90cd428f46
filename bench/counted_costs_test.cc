// SPDX-License-Identifier: Apache-2.0
// What a call costs, as far as it can be counted: allocations, looks at the agent's package, log
// records, threads and task switches. The program's own definitions of what is counted come first.

#include <dlfcn.h>
#include <dlog.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <package_info.h>
#include <rpc-port-desktop.h>
#include <sys/resource.h>
#include <unistd.h>
#include <velmora_svcmgr.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "SvcMgrAppProxyCallback.h"
#include "bench_world.h"
#include "exported_calls.h"
#include "messages.h"
#include "models.h"
#include "servers.h"

extern "C" void* __libc_malloc(std::size_t size);
extern "C" void* __libc_calloc(std::size_t count, std::size_t size);
extern "C" void* __libc_realloc(void* block, std::size_t size);

namespace {

struct Counts {
  int allocations = 0;
  int looks = 0;
  int records = 0;
};

Counts counts;

template <typename Function>
Function Next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

Counts CountsOf(const std::function<void()>& work) {
  counts = {};
  work();
  return counts;
}

int AllocationsOf(const std::function<void()>& work) { return CountsOf(work).allocations; }

}  // namespace

#pragma GCC visibility push(default)

void* malloc(std::size_t size) {
  ++counts.allocations;
  return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
  ++counts.allocations;
  return __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size) {
  ++counts.allocations;
  return __libc_realloc(block, size);
}

int package_info_create(const char* package, package_info_h* info) {
  static const auto next = Next<decltype(&package_info_create)>("package_info_create");
  ++counts.looks;
  return next(package, info);
}

int dlog_print(log_priority, const char*, const char*, ...) {
  ++counts.records;
  return 0;
}

#pragma GCC visibility pop

namespace {

using List = velmora_svcmgr_ai_model_list_h;
using Model = velmora_svcmgr_ai_model_info_h;

void Keep(int, List list, void* kept) { *static_cast<List*>(kept) = list; }

// What it takes to make an answer of so many models a list.
Counts CountsOfConversion(int models) {
  rpc_port_parcel_h parcel = nullptr;
  rpc_port_parcel_create(&parcel);
  rpc_port_parcel_write_int32(parcel, 0);
  WriteModels(parcel, models);
  List list = nullptr;
  svcmgr::GetModelVersionListCB delegate({Keep, &list});
  const Counts result = CountsOf([&] { delegate.OnReceivedEvent(parcel); });
  int size = 0;
  velmora_svcmgr_ai_model_list_get_size(list, &size);
  EXPECT_EQ(size, models);
  velmora_svcmgr_ai_model_list_destroy(list);
  rpc_port_parcel_destroy(parcel);
  return result;
}

class ACount : public testing::Test {
 protected:
  void SetUp() override {
    // What only the first calls do is not counted.
    ASSERT_EQ(velmora_svcmgr_ai_model_info_create(&model_), 0);
    ASSERT_EQ(velmora_svcmgr_ai_model_list_create(&list_), 0);
  }

  const BenchWorld world_;
  Model model_ = nullptr;
  List list_ = nullptr;
};

using AConvertedModel = ACount;

TEST_F(AConvertedModel, TakesSixLooksAtTheAgentsPackageAndTwoRecords) {
  CountsOfConversion(1);
  const Counts few = CountsOfConversion(100);
  const Counts many = CountsOfConversion(300);
  EXPECT_EQ(many.looks - few.looks, 6 * 200);
  EXPECT_EQ(many.records - few.records, 2 * 200);
}

TEST_F(AConvertedModel, TakesFourteenAllocations) {
  CountsOfConversion(1);
  // Four texts of the platform, and two records with four texts each.
  const int few = CountsOfConversion(1000).allocations;
  const int many = CountsOfConversion(2000).allocations;
  EXPECT_GE(many - few, 14 * 1000);
  // The list's array doubles once, and what is read grows by a few blocks.
  EXPECT_LE(many - few, 14 * 1000 + 4);
}

TEST_F(AConvertedModel, OfAUsualAnswerIsReadWithoutAllocationsOfTheLibrary) {
  CountsOfConversion(1);
  // The list, its array as it doubles to 16, and the link to what is kept.
  EXPECT_EQ(CountsOfConversion(10).allocations, 14 * 10 + 1 + 5 + 1);
}

void OnConnection(int, int, void* connected) { *static_cast<bool*>(connected) = true; }

void OnModels(int, List list, void* arrived) {
  velmora_svcmgr_ai_model_list_destroy(list);
  *static_cast<bool*>(arrived) = true;
}

long SwitchesOf(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  const std::string name = "voluntary_ctxt_switches:";
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(name, 0) == 0) return std::stol(line.substr(name.size()));
  }
  return -1;
}

std::ptrdiff_t Threads() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

using EachExportedFunction = ACount;

// What one call takes, as most of many calls do: now and then a table grows, or the package folder's
// watch is read.
class Typical {
 public:
  void Add(int figure) { figures_.push_back(figure); }
  int Get() {
    const auto middle = figures_.begin() + static_cast<std::ptrdiff_t>(figures_.size() / 2);
    std::nth_element(figures_.begin(), middle, figures_.end());
    return *middle;
  }

 private:
  std::vector<int> figures_;
};

int SwitchesOfThisThread() {
  rusage usage = {};
  getrusage(RUSAGE_THREAD, &usage);
  return static_cast<int>(usage.ru_nvcsw);
}

CallCosts CostsOf(const ExportedCall& call) {
  constexpr int kFirst = 3;  // what only the first calls do is not counted
  constexpr int kCalls = 21;
  Typical looks;
  Typical records;
  Typical allocations;
  Typical switches;
  for (int i = 0; i < kFirst + kCalls; ++i) {
    Prepare(call.needs);
    CallStage stage;
    int result = -1;
    const int switches_before = SwitchesOfThisThread();
    const Counts made = CountsOf([&] { result = call.call(stage); });
    const int switches_after = SwitchesOfThisThread();
    EXPECT_EQ(result, SVCMGR_ERROR_NONE);
    if (i < kFirst) continue;
    looks.Add(made.looks);
    records.Add(made.records);
    allocations.Add(made.allocations);
    switches.Add(switches_after - switches_before);
  }
  CallCosts costs;
  costs.looks = looks.Get();
  costs.records = records.Get();
  costs.allocations = allocations.Get();
  costs.switches = switches.Get();
  return costs;
}

TEST_F(EachExportedFunction, TakesTheLooksRecordsAllocationsAndSwitchesOfItsRow) {
  PrepareExportedCalls(world_.folder().c_str());
  const ServerProcess agent = ServerProcess::Agent();
  const std::ptrdiff_t threads = Threads();
  for (const ExportedCall& call : ExportedCalls()) {
    SCOPED_TRACE(call.name);
    const CallCosts costs = CostsOf(call);
    EXPECT_EQ(costs.looks, call.costs.looks) << "looks at the agent's package";
    EXPECT_EQ(costs.records, call.costs.records) << "log records";
    if (call.costs.at_most) {
      EXPECT_LE(costs.allocations, call.costs.allocations) << "allocations";
    } else {
      EXPECT_EQ(costs.allocations, call.costs.allocations) << "allocations";
    }
    // With a CPU of its own, the agent may have answered before the client waits.
    EXPECT_LE(costs.switches, call.costs.switches) << "task switches";
    EXPECT_EQ(Threads(), threads) << "threads";
  }
}

TEST(TheTableOfCalls, HasEachExportedFunction) {
  std::set<std::string> in_table;
  for (const ExportedCall& call : ExportedCalls()) {
    in_table.insert("velmora_svcmgr_" + std::string(call.name));
  }
  std::set<std::string> exported;
  std::ifstream exports(SVCMGR_EXPORTS);
  for (std::string word; exports >> word;) {
    if (word.rfind("velmora_", 0) == 0) exported.insert(word.substr(0, word.find(';')));
  }
  EXPECT_EQ(in_table, exported);
}

class AConnectedClient : public testing::Test {
 protected:
  void SetUp() override {
    bool connected = false;
    ASSERT_EQ(velmora_svcmgr_connect(OnConnection, &connected), 0);
    while (!connected) g_main_context_iteration(nullptr, TRUE);
    Ask(100);
  }

  void Ask(int calls) {
    for (int i = 0; i < calls; ++i) {
      ASSERT_EQ(velmora_svcmgr_get_agent_api_level(&level_), 0);
    }
  }

  const BenchWorld world_;
  const ServerProcess agent_ = ServerProcess::Agent();
  int level_ = 0;
};

TEST_F(AConnectedClient, HasASingleThread) {
  bool arrived = false;
  ASSERT_EQ(velmora_svcmgr_ai_request_usable_model_list(OnModels, &arrived), 0);
  while (!arrived) g_main_context_iteration(nullptr, TRUE);
  EXPECT_EQ(Threads(), 1);
}

TEST_F(AConnectedClient, AllocatesTheTwoParcelsOfACall) {
  EXPECT_EQ(AllocationsOf([&] { Ask(1); }), 2);
  // Beside the parcels: the next buffer to read into, which goes with a long reply, and the text
  // as the platform hands it out and as the application gets it.
  char* text = nullptr;
  velmora_svcmgr_get_license_fulltext(&text);
  free(text);
  EXPECT_EQ(AllocationsOf([&] { velmora_svcmgr_get_license_fulltext(&text); }), 5);
  free(text);
}

TEST_F(AConnectedClient, WaitsOnceForACallAsTheAgentDoes) {
  constexpr int kCalls = 1000;
  constexpr int kOnce = 50;  // of what else may put a process to sleep
  const long of_client = SwitchesOf(getpid());
  const long of_agent = SwitchesOf(agent_.pid());
  ASSERT_GE(of_agent, 0);
  Ask(kCalls);
  EXPECT_LE(SwitchesOf(getpid()) - of_client, kCalls + kOnce);
  EXPECT_LE(SwitchesOf(agent_.pid()) - of_agent, kCalls + kOnce);
}

}  // namespace
