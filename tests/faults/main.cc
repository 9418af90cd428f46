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
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <utility>
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
constexpr std::chrono::milliseconds kPatience{60'000};
std::chrono::milliseconds patience = kPatience;

struct Options {
  std::chrono::milliseconds patience{kPatience};
  std::string owners;
  std::string filter = "*";
  std::string except;
  /** Each n-th call fails, from the offset on. */
  long stride = 1;
  long offset = 1;
  /** How many calls of a family fail in one test at most; they are spread over all of them. */
  long most = 300;
  /** How many calls with the same stack fail in one test: the first ones, and the last; 0 for all. */
  long alike = 2;
  /** Lets nothing fail, and prints the stacks of each test. */
  bool only_list = false;
  /** A file of calls, of which no others fail: lines of "FAMILY CALL TEST", by test. */
  std::string calls;
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

const Plan* plan_of_run = nullptr;

void Judge(const void* frames) {
  Disarm();
  const Use use = UseTheConnectionAfterwards();
  JudgeBalance(frames);
  run->ending = use == Use::kDone ? Ending::kDone : Ending::kStranded;
  // What the test does with what a fault has left it is its own affair from here on.
  _exit(EXIT_SUCCESS);
}

/** A test may have several verdicts, and begins anew after each. */
void OnVerdict(const void* frames) {
  if (!IsArmedProcess()) return;
  ++run->verdicts;
  const bool last = run->verdicts == plan_of_run->verdict;
  if (plan_of_run->shape == Shape::kNone ? last : run->injected > 0) Judge(frames);
  RestartBalance();
}

void OnFault(const std::string& what) {
  const Caller caller = FindCaller();
  const bool escaped = what.find("escaped") != std::string::npos;
  if (caller.owner != Owner::kLibrary && !escaped) return;
  // A text that is null was not taken off its parcel, a query from inside has taken a reply, and one
  // that could not be received is the next query's.
  const bool out_of_step = (InjectedShape() == Shape::kNull || InjectedShape() == Shape::kReentry ||
                            InjectedFunction() == "rpc_port_parcel_create_from_port") &&
                           (what.find("has another type") != std::string::npos ||
                            what.find("past its end") != std::string::npos);
  // The test fires it, inside a call of the library.
  const bool unheard = what.find("no callback is registered") != std::string::npos;
  // The re-entry may end the connection while another thread is inside a call, which the public header
  // warns of; the platform refuses the port.
  const bool ended_elsewhere = InjectedDisconnection() && !InjectedHere() &&
                               what.find("is used after its proxy") != std::string::npos;
  if (!out_of_step && !unheard && !ended_elsewhere) FindAt(caller, "%s", what.c_str());
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
  plan_of_run = &plan;
  fake::internal::hooks.on_verify = OnVerdict;
  fake::internal::hooks.on_fault = OnFault;
  WatchBalance();
  Arm(plan, run, sites);
  WatchSignals();
  [[maybe_unused]] const int verdict = RUN_ALL_TESTS();  // a fault may well make the test fail
  if (run->injected > 0 || run->verdicts == 0) Judge(__builtin_frame_address(0));
  run->ending = Ending::kNothingFailed;
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

/** Where tests put their files, of which a run that ends early leaves some behind; empty for none. */
std::string scratch;

void SweepScratch() {
  if (scratch.empty()) return;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(scratch, ignored)) {
    std::filesystem::remove_all(entry.path(), ignored);
  }
}

void Start(const std::string& test, const Plan& plan) {
  run->ending = Ending::kGone;
  run->injected = 0;
  run->verdicts = 0;
  run->finding[0] = '\0';
  run->where = {};
  std::fill_n(run->counted, kFamilies, 0);
  if (plan.shape == Shape::kNone) run->stacks.Clear();
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) std::abort();
  if (child == 0) RunTest(test, plan);
  Await(child);
  SweepScratch();
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

/** Of the calls of one family in a test, those that fail. */
std::vector<long> WithoutAlike(Family family, long most) {
  const StackTable::Number* const stacks = run->calls[static_cast<int>(family)];
  const long calls = std::min(run->counted[static_cast<int>(family)], RunRecord::kMostCalls);
  std::vector<long> last(run->stacks.Count());
  for (long i = 1; i <= calls; ++i) last[stacks[i - 1]] = i;
  std::vector<long> seen(run->stacks.Count());
  std::vector<long> chosen;
  for (long i = 1; i <= calls; ++i) {
    const StackTable::Number stack = stacks[i - 1];
    if (most == 0 || ++seen[stack] < most || i == last[stack]) chosen.push_back(i);
  }
  return chosen;
}

/** A call and the function that it calls. */
struct Call {
  long number;
  Function function;
};

class Sweep {
 public:
  explicit Sweep(const Options& options) : options_(options) {}

  void Go(const std::string& test) {
    Begin(test);
    std::vector<Call> calls[kFamilies];
    for (int family = 0; family < kFamilies; ++family) {
      calls[family] = Choose(static_cast<Family>(family));
    }
    JudgeSound();
    for (int family = 0; family < kFamilies; ++family) {
      for (const Call& call : calls[family]) SweepCall(static_cast<Family>(family), call);
    }
    Print({{"test", test_}, {"counts", counts_}});
  }

  /** Lets these calls fail, and no others. */
  void Go(const std::string& test, const std::vector<std::pair<Family, long>>& calls) {
    Begin(test);
    std::vector<std::pair<Family, Call>> chosen;
    for (const auto& [family, number] : calls) {
      if (number <= Counted(family)) chosen.emplace_back(family, CallOf(family, number));
    }
    JudgeSound();
    for (const auto& [family, call] : chosen) SweepCall(family, call);
    Print({{"test", test_}, {"counts", counts_}});
  }

  void List(const std::string& test) {
    Begin(test);
    Json stacks = Json::array();
    for (int family = 0; family < kFamilies; ++family) {
      for (const long i : WithoutAlike(static_cast<Family>(family), 2)) {
        const Stack& stack = run->stacks[run->calls[family][i - 1]];
        stacks.push_back({family, i, FunctionNames()[stack.function], FramesOf(stack.caller)});
      }
    }
    Print({{"test", test_}, {"seconds", taken_.count()}, {"stacks", stacks}, {"counts", counts_}});
  }

 private:
  /** Runs a test in which nothing fails. */
  void Begin(const std::string& test) {
    test_ = test;
    counts_ = {};
    const auto start = Clock::now();
    patience = 10 * kPatience;
    Start(test, {});
    taken_ = Clock::now() - start;
    patience =
        options_.patience + std::chrono::duration_cast<std::chrono::milliseconds>(20 * taken_);
    ++counts_["tests"];
    JudgeRun({}, "");
  }

  /** Without a fault nothing is found, or it says nothing that something is found with one. */
  void JudgeSound() {
    Plan sound;
    sound.verdict = run->verdicts;
    Start(test_, sound);
    JudgeRun(sound, "");
  }

  static long Counted(Family family) {
    return std::min(run->counted[static_cast<int>(family)], RunRecord::kMostCalls);
  }

  static Call CallOf(Family family, long number) {
    const StackTable::Number stack = run->calls[static_cast<int>(family)][number - 1];
    return {number, run->stacks[stack].function};
  }

  std::vector<Call> Choose(Family family) {
    const std::vector<long> different = WithoutAlike(family, options_.alike);
    const long all = run->counted[static_cast<int>(family)];
    // Of a test that takes a second or more, a few calls have to do.
    const long most = std::max(
        3L, static_cast<long>(static_cast<double>(options_.most) / (1 + 10 * taken_.count())));
    const long count = static_cast<long>(different.size());
    const long stride = std::max(options_.stride, (count + most - 1) / most);
    std::vector<Call> chosen;
    for (long i = std::min(options_.offset, stride); i <= count; i += stride) {
      chosen.push_back(CallOf(family, different[static_cast<std::size_t>(i - 1)]));
    }
    const long beyond = all - Counted(family);
    counts_["calls"] += all;
    counts_["calls like others"] += Counted(family) - count;
    counts_["calls left out"] += beyond + count - static_cast<long>(chosen.size());
    return chosen;
  }

  void SweepCall(Family family, const Call& call) {
    const long i = call.number;
    ++counts_["calls that failed"];
    for (const Way& way : WaysOf(call.function)) {
      Inject({family, i, i, way.shape, way.code}, "once");
      if (way.lasts) Inject({family, i, LastOf(call, way), way.shape, way.code}, "from there on");
      if (family != Family::kMemory) continue;
      for (const long burst : {2, 3, 4}) {
        Inject({family, i, i + burst - 1, way.shape, way.code}, "in a burst");
      }
    }
  }

  /**
   * A text that is null counts as read, and an array's count may be two thousand million: a platform
   * that never comes to the end of a message would keep the library at work for hours.
   */
  static long LastOf(const Call& call, const Way& way) {
    constexpr long kMostNulls = 4096;
    const bool is_text = FunctionNames()[call.function] == "rpc_port_parcel_read_string";
    return is_text && way.shape == Shape::kNull ? call.number + kMostNulls - 1 : kForever;
  }

  void Inject(const Plan& plan, const char* how) {
    Start(test_, plan);
    ++counts_["runs"];
    if (run->injected > 0) ++counts_["injections"];
    JudgeRun(plan, how);
  }

  void JudgeRun(const Plan& plan, const char* how) {
    static constexpr const char* kEndings[] = {"ended by itself",      "judged",
                                               "given up by the test", "stranded",
                                               "documented assertion", "nothing failed"};
    const bool injected = run->injected > 0;
    if (plan.shape != Shape::kNone) ++counts_[kEndings[static_cast<int>(run->ending)]];
    if (injected && run->ending != Ending::kGaveUp && run->ending != Ending::kGone) {
      sites->judged[run->site] = true;
    }
    if (run->finding[0] == '\0') return;
    ++counts_["findings"];
    Print({{"finding", run->finding},
           {"test", test_},
           {"function", injected ? FunctionNames()[sites->stacks[run->site].function] : ""},
           {"call", plan.first},
           {"shape", NameOf(plan.shape)},
           {"code", plan.code},
           {"how", how},
           {"frames", FramesOf(run->where)}});
  }

  const Options& options_;
  std::string test_;
  std::chrono::duration<double> taken_{};
  std::map<std::string, long> counts_;
};

void PrintSites() {
  for (StackTable::Number i = 0; i < sites->stacks.Count(); ++i) {
    const Stack& site = sites->stacks[i];
    Print({{"site", FunctionNames()[site.function]},
           {"judged", sites->judged[i]},
           {"frames", FramesOf(site.caller)}});
  }
}

bool SweepCallsOf(const std::string& file, Sweep* sweep) {
  std::ifstream in(file);
  if (!in) return false;
  std::map<std::string, std::vector<std::pair<Family, long>>> calls;
  int family = 0;
  long number = 0;
  std::string test;
  while (in >> family >> number >> test) {
    calls[test].emplace_back(static_cast<Family>(family), number);
  }
  for (const auto& [its_test, its_calls] : calls) sweep->Go(its_test, its_calls);
  return true;
}

bool MatchesOneOf(const std::string& globs, const std::string& name) {
  std::istringstream in(globs);
  std::string glob;
  while (in >> glob) {
    if (fnmatch(glob.c_str(), name.c_str(), 0) == 0) return true;
  }
  return false;
}

std::vector<std::string> TestsOf(const Options& options) {
  std::vector<std::string> tests;
  const testing::UnitTest& all = *testing::UnitTest::GetInstance();
  for (int i = 0; i < all.total_test_suite_count(); ++i) {
    const testing::TestSuite& suite = *all.GetTestSuite(i);
    for (int j = 0; j < suite.total_test_count(); ++j) {
      const std::string name = std::string(suite.name()) + '.' + suite.GetTestInfo(j)->name();
      const bool left_out = MatchesOneOf(options.except, name);
      if (!left_out && MatchesOneOf(options.filter, name)) tests.push_back(name);
    }
  }
  return tests;
}

bool Parse(int argc, char** argv, Options* options) {
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    const char* const value = argv[i + 1];
    if (name == "--scratch") scratch = value;
    if (name == "--owners") options->owners = value;
    if (name == "--filter") options->filter = value;
    if (name == "--except") options->except = value;
    if (name == "--stride") options->stride = std::atol(value);
    if (name == "--offset") options->offset = std::atol(value);
    if (name == "--most") options->most = std::atol(value);
    if (name == "--alike") options->alike = std::atol(value);
    if (name == "--list") options->only_list = std::atol(value) != 0;
    if (name == "--calls") options->calls = value;
    if (name == "--patience") options->patience = std::chrono::milliseconds(std::atol(value));
  }
  return argc % 2 == 1 && options->stride > 0 && options->offset > 0 && options->most > 0;
}

int Main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  Options options;
  if (!Parse(argc, argv, &options) || !LoadOwners(options.owners.c_str())) {
    std::fputs(
        "usage: --owners FILE [--filter GLOB] [--except GLOBS] [--stride N] [--offset N] [--most "
        "N] [--alike N] "
        "[--patience MILLISECONDS] [--scratch FOLDER] [--list 1 | --calls FILE]\n",
        stderr);
    return 2;
  }
  if (!scratch.empty()) setenv("TMPDIR", scratch.c_str(), 1);
  JudgeCodes();
  Sweep sweep(options);
  if (!options.calls.empty()) {
    if (!SweepCallsOf(options.calls, &sweep)) return 2;
  } else {
    for (const std::string& test : TestsOf(options)) {
      if (options.only_list) {
        sweep.List(test);
      } else {
        sweep.Go(test);
      }
    }
  }
  PrintSites();
  return 0;
}

}  // namespace
}  // namespace faults

int main(int argc, char** argv) { return faults::Main(argc, argv); }
