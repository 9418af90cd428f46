// SPDX-License-Identifier: Apache-2.0
// A program of unit tests in which each call that may fail does fail, one run for each.

#include <fnmatch.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <velmora_svcmgr.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "afterwards.h"
#include "api_calls.h"
#include "balance.h"
#include "fake_platform.h"
#include "injection.h"
#include "internal.h"
#include "owners.h"

extern "C" decltype(velmora_svcmgr_get_client_api_level) __real_velmora_svcmgr_get_client_api_level;

namespace faults {
namespace {

using Json = nlohmann::ordered_json;

using Clock = std::chrono::steady_clock;

/** A run may take this long, and as much longer as a busy machine makes of the run without a fault. */
constexpr std::chrono::seconds kPatience{60};
std::chrono::milliseconds patience = kPatience;

struct Options {
  std::string owners;
  std::string filter = "*";
  /** Each n-th call fails, from the offset on. */
  long stride = 1;
  long offset = 1;
  /** How many calls of a family fail in one test at most; they are spread over all of them. */
  long most = 300;
};

template <typename T>
T* MapShared() {
  void* const memory =
      mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) std::abort();
  return static_cast<T*>(memory);
}

RunRecord* const run = MapShared<RunRecord>();
SiteRecord* const sites = MapShared<SiteRecord>();

/* In the process of a run. */

void JudgeOnce() {
  if (!IsArmedProcess() || run->ending != Ending::kGone) return;
  Disarm();
  const Use use = UseTheConnectionAfterwards();
  JudgeBalance();
  run->ending = use == Use::kDone ? Ending::kDone : Ending::kStranded;
}

void OnFault(const std::string& what) {
  const Caller caller = FindCaller();
  const bool escaped = what.find("escaped") != std::string::npos;
  if (caller.owner != Owner::kLibrary && !escaped) return;
  // A text that is null was not taken off its parcel, and a query from inside has taken a reply.
  const bool out_of_step =
      (InjectedShape() == Shape::kNull || InjectedShape() == Shape::kReentry) &&
      (what.find("has another type") != std::string::npos ||
       what.find("past its end") != std::string::npos);
  // The test fires it, inside a call of the library.
  const bool unheard = what.find("no callback is registered") != std::string::npos;
  if (!out_of_step && !unheard) FindAt(caller, "%s", what.c_str());
}

void OnSignal(int number) {
  if (!IsArmedProcess()) {
    signal(number, SIG_DFL);
    raise(number);
    return;
  }
  const Caller caller = FindCaller();
  // What the library's own classes throw is the test's to catch, in each thread that it starts.
  if (caller.owner == Owner::kTest || (number == SIGABRT && !LibraryIsAtWork())) {
    run->ending = Ending::kGaveUp;
  } else if (number == SIGABRT && caller.depth > 0 &&
             IsIn(caller.frames[0],
                  reinterpret_cast<const void*>(__real_velmora_svcmgr_get_client_api_level))) {
    run->ending = Ending::kAssertion;
  } else {
    FindAt(caller, number == SIGALRM ? "hangs" : "dies of %s", strsignal(number));
  }
  _exit(EXIT_SUCCESS);
}

void WatchSignals() {
  static char stack[1 << 16];
  stack_t own = {};
  own.ss_sp = stack;
  own.ss_size = sizeof stack;
  sigaltstack(&own, nullptr);
  for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
    struct sigaction action = {};
    action.sa_handler = OnSignal;
    action.sa_flags = SA_ONSTACK;
    sigaction(number, &action, nullptr);
  }
}

[[noreturn]] void RunTest(const std::string& test, const Plan& plan) {
  setpgid(0, 0);
  const rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);
  const bool quiet = std::getenv("FAULTS_VERBOSE") == nullptr;
  if (quiet && (freopen("/dev/null", "w", stdout) == nullptr ||
                freopen("/dev/null", "w", stderr) == nullptr)) {
    _exit(EXIT_FAILURE);
  }
  GTEST_FLAG_SET(filter, test);
  fake::internal::hooks.on_verify = JudgeOnce;
  fake::internal::hooks.on_fault = OnFault;
  WatchBalance();
  Arm(plan, run, sites);
  WatchSignals();
  [[maybe_unused]] const int verdict = RUN_ALL_TESTS();  // a fault may well make the test fail
  JudgeOnce();
  _exit(EXIT_SUCCESS);
}

/* In the process that starts them. */

void Await(pid_t child) {
  const int descriptor = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
  pollfd ended = {descriptor, POLLIN, 0};
  int status = 0;
  if (poll(&ended, 1, static_cast<int>(patience.count())) == 0) {
    if (run->finding[0] == '\0') std::snprintf(run->finding, sizeof run->finding, "hangs");
    kill(-child, SIGKILL);
    kill(child, SIGKILL);
  }
  waitpid(child, &status, 0);
  close(descriptor);
  if (WIFSIGNALED(status) && run->finding[0] == '\0') {
    std::snprintf(run->finding, sizeof run->finding, "dies of %s", strsignal(WTERMSIG(status)));
  }
  kill(-child, SIGKILL);  // what the test has started, and not ended
}

void Start(const std::string& test, const Plan& plan) {
  run->ending = Ending::kGone;
  run->injected = 0;
  run->finding[0] = '\0';
  run->where = {};
  std::fill_n(run->counted, kFamilies, 0);
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) std::abort();
  if (child == 0) RunTest(test, plan);
  Await(child);
}

Json FramesOf(const Caller& caller) {
  Json frames = Json::array();
  for (int i = 0; i < caller.depth; ++i)
    frames.push_back(caller.frames[static_cast<std::size_t>(i)]);
  return frames;
}

void Print(const Json& line) {
  std::puts(line.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
  std::fflush(stdout);
}

class Sweep {
 public:
  explicit Sweep(const Options& options) : options_(options) {}

  void Go(const std::string& test) {
    test_ = test;
    counts_ = {};
    const auto start = Clock::now();
    patience = 10 * kPatience;
    Start(test, {});
    const std::chrono::duration<double> taken = Clock::now() - start;
    patience = kPatience + std::chrono::duration_cast<std::chrono::milliseconds>(20 * taken);
    // Of a test that takes a second or more, a few calls have to do.
    most_ = std::max(
        3L, static_cast<long>(static_cast<double>(options_.most) / (1 + 10 * taken.count())));
    ++counts_["tests"];
    JudgeRun({}, "");
    long calls[kFamilies];
    std::copy_n(run->counted, kFamilies, calls);
    std::vector<Function> functions[kFamilies];
    for (int family = 0; family < kFamilies; ++family) {
      const long n = std::min(calls[family], RunRecord::kMostCalls);
      functions[family].assign(run->calls[family], run->calls[family] + n);
    }
    for (int family = 0; family < kFamilies; ++family) {
      SweepFamily(static_cast<Family>(family), functions[family]);
    }
    Print({{"test", test_}, {"counts", counts_}});
  }

 private:
  void SweepFamily(Family family, const std::vector<Function>& functions) {
    const long calls = static_cast<long>(functions.size());
    const long stride = std::max(options_.stride, (calls + most_ - 1) / most_);
    counts_["calls"] += calls;
    if (stride > 1) counts_["calls left out"] += calls - calls / stride;
    for (long i = std::min(options_.offset, stride); i <= calls; i += stride) {
      for (const Way& way : WaysOf(functions[static_cast<std::size_t>(i - 1)])) {
        SweepWay(family, i, way);
      }
    }
  }

  void SweepWay(Family family, long i, const Way& way) {
    Inject({family, i, i, way.shape, way.code}, "once");
    if (way.lasts) Inject({family, i, kForever, way.shape, way.code}, "from there on");
    if (family != Family::kMemory) return;
    for (const long burst : {2, 3, 4}) {
      Inject({family, i, i + burst - 1, way.shape, way.code}, "in a burst");
    }
  }

  void Inject(const Plan& plan, const char* how) {
    Start(test_, plan);
    ++counts_["runs"];
    if (run->injected > 0) ++counts_["injections"];
    JudgeRun(plan, how);
  }

  void JudgeRun(const Plan& plan, const char* how) {
    static constexpr const char* kEndings[] = {"ended by itself", "judged", "given up by the test",
                                               "stranded", "documented assertion"};
    ++counts_[kEndings[static_cast<int>(run->ending)]];
    if (run->finding[0] == '\0') return;
    ++counts_["findings"];
    Print({{"finding", run->finding},
           {"test", test_},
           {"function", run->injected > 0 ? FunctionNames()[run->function] : ""},
           {"call", plan.first},
           {"shape", NameOf(plan.shape)},
           {"code", plan.code},
           {"how", how},
           {"frames", FramesOf(run->where)}});
  }

  const Options& options_;
  std::string test_;
  long most_ = 0;
  std::map<std::string, long> counts_;
};

void PrintSites() {
  for (int i = 0; i < sites->count; ++i) {
    const Site& site = sites->sites[static_cast<std::size_t>(i)];
    Print({{"site", FunctionNames()[site.function]}, {"frames", FramesOf(site.caller)}});
  }
}

std::vector<std::string> TestsOf(const std::string& filter) {
  std::vector<std::string> tests;
  const testing::UnitTest& all = *testing::UnitTest::GetInstance();
  for (int i = 0; i < all.total_test_suite_count(); ++i) {
    const testing::TestSuite& suite = *all.GetTestSuite(i);
    for (int j = 0; j < suite.total_test_count(); ++j) {
      const std::string name = std::string(suite.name()) + '.' + suite.GetTestInfo(j)->name();
      if (fnmatch(filter.c_str(), name.c_str(), 0) == 0) tests.push_back(name);
    }
  }
  return tests;
}

bool Parse(int argc, char** argv, Options* options) {
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    const char* const value = argv[i + 1];
    if (name == "--owners") options->owners = value;
    if (name == "--filter") options->filter = value;
    if (name == "--stride") options->stride = std::atol(value);
    if (name == "--offset") options->offset = std::atol(value);
    if (name == "--most") options->most = std::atol(value);
  }
  return argc % 2 == 1 && options->stride > 0 && options->offset > 0 && options->most > 0;
}

int Main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  Options options;
  if (!Parse(argc, argv, &options) || !LoadOwners(options.owners.c_str())) {
    std::fputs("usage: --owners FILE [--filter GLOB] [--stride N] [--offset N] [--most N]\n",
               stderr);
    return 2;
  }
  JudgeCodes();
  Sweep sweep(options);
  for (const std::string& test : TestsOf(options.filter)) sweep.Go(test);
  PrintSites();
  return 0;
}

}  // namespace
}  // namespace faults

int main(int argc, char** argv) { return faults::Main(argc, argv); }
