// SPDX-License-Identifier: Apache-2.0
#include "promises.h"

#include <malloc.h>
#include <sched.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>

namespace {

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// Null if there was none. Newer versions of the library have another name for it.
template <typename Run>
const std::string* ErrorOf(const Run& run) {
  if constexpr (requires { run.error_occurred; })
    return run.error_occurred ? &run.error_message : nullptr;
  else
    return run.skipped != 0 ? &run.skip_message : nullptr;
}

// Gathers the rounds of each benchmark instead of printing them.
class Gatherer : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (const std::string* const error = ErrorOf(run)) {
        std::printf("%s: %s\n", run.benchmark_name().c_str(), error->c_str());
      } else if (run.run_type == Run::RT_Iteration) {
        rounds_[NameOf(run)].push_back(run.real_accumulated_time * 1e9 /
                                       static_cast<double>(run.iterations));
      }
    }
  }

  void PrintMedians() const {
    std::printf("%-44s %12s %9s\n", "median of a call", "ns", "rounds");
    for (const auto& [name, rounds] : rounds_) {
      std::printf("%-44s %12.1f %9zu\n", name.c_str(), Median(rounds), rounds.size());
    }
  }

  void Print(const Promise& promise) const {
    const auto measured = rounds_.find(promise.measured);
    if (measured == rounds_.end()) return;  // filtered out
    const double nanoseconds = Median(measured->second);
    if (promise.limit == nullptr) {
      return PrintPromise(promise.work, nanoseconds, " ns", promise.target);
    }
    const auto limit = rounds_.find(promise.limit);
    if (limit == rounds_.end()) return;
    // Round by round, since what disturbs one side of a round disturbs the other as well.
    std::vector<double> ratios;
    for (std::size_t i = 0; i < std::min(measured->second.size(), limit->second.size()); ++i) {
      ratios.push_back(measured->second[i] / limit->second[i]);
    }
    const auto [least, most] = std::minmax_element(ratios.begin(), ratios.end());
    char spread[64];
    std::snprintf(spread, sizeof spread, " (%.2f..%.2f)", *least, *most);
    PrintPromise((std::string(promise.work) + " / " + promise.limit).c_str(), Median(ratios), "",
                 promise.target, spread);
  }

 private:
  static std::string NameOf(const Run& run) {
    const auto& name = run.run_name;
    return name.args.empty() ? name.function_name : name.function_name + "/" + name.args;
  }

  std::map<std::string, std::vector<double>> rounds_;
};

}  // namespace

void PrepareProcess() {
  // Memory that a round releases stays for the next one: the time that the kernel takes to hand out
  // pages would outweigh everything else.
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  cpu_set_t allowed;
  if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) return;
  for (std::size_t cpu = CPU_SETSIZE; cpu-- > 0;) {
    if (!CPU_ISSET(cpu, &allowed)) continue;
    CPU_ZERO(&allowed);
    CPU_SET(cpu, &allowed);
    if (sched_setaffinity(0, sizeof allowed, &allowed) == 0) return;
  }
  std::puts("WARNING: not pinned to a CPU");
}

void WarnOfBuild() {
#ifndef __OPTIMIZE__
  std::puts("WARNING: this build is not optimised, its numbers mean nothing");
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  std::puts("WARNING: this build has sanitizers, its numbers mean nothing");
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
  std::puts("WARNING: this build has sanitizers, its numbers mean nothing");
#endif
#endif
}

void PrintPromise(const char* work, double measured, const char* unit, double target,
                  const char* spread) {
  std::printf("%s %s = %.2f%s%s (target <= %.2f%s)\n", measured <= target ? "kept  " : "MISSED",
              work, measured, unit, spread, target, unit);
}

int RunBenches(int argc, char** argv, const std::vector<Promise>& promises) {
  WarnOfBuild();
  // Rounds of all benchmarks alternate in random order; a caller's own flags come later and win.
  char repetitions[] = "--benchmark_repetitions=21";
  char interleaving[] = "--benchmark_enable_random_interleaving=true";
  char min_time[] = "--benchmark_min_time=0.02";
  std::vector<char*> arguments = {argv[0], repetitions, interleaving, min_time};
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  int count = static_cast<int>(arguments.size());
  arguments.push_back(nullptr);
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;
  Gatherer gatherer;
  if (benchmark::RunSpecifiedBenchmarks(&gatherer) == 0) return 1;
  gatherer.PrintMedians();
  for (const Promise& promise : promises) gatherer.Print(promise);
  return 0;
}
