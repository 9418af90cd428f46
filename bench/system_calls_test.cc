// SPDX-License-Identifier: Apache-2.0
// Counts the system calls of calls, of the client and of the agent, by tracing both processes.

#include <glib.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <velmora_svcmgr.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <string_view>
#include <vector>

#include "bench_world.h"
#include "exported_calls.h"
#include "messages.h"
#include "model_texts.h"
#include "servers.h"

namespace {

constexpr int kCalls = 200;
// What may fall into the counting once: a look at the package folder after it has changed, reads that
// the tracing interrupts, or the agent's return to its poll.
constexpr int kOnce = 16;
// A system call that neither side makes otherwise: with it, the client marks where counting begins
// and ends.
constexpr long kMark = SYS_getpriority;

void OnConnection(int, int, void* connected) { *static_cast<bool*>(connected) = true; }

// Runs in the traced child.
[[noreturn]] void CallAgent() {
  bool connected = false;
  if (velmora_svcmgr_connect(OnConnection, &connected) != 0) _exit(1);
  while (!connected) g_main_context_iteration(nullptr, TRUE);
  int level = 0;
  // What only the first calls do is not counted.
  for (int i = 0; i < 100; ++i) velmora_svcmgr_get_agent_api_level(&level);
  syscall(kMark, 0, 0);
  for (int i = 0; i < kCalls; ++i) velmora_svcmgr_get_agent_api_level(&level);
  syscall(kMark, 0, 0);
  _exit(level == kLevel ? 0 : 1);
}

// How often each process entered each system call, by its number.
using Counts = std::map<pid_t, std::map<long, int>>;

int Sum(const std::map<long, int>& counts) {
  int sum = 0;
  for (const auto& [number, count] : counts) sum += count;
  return sum;
}

// Follows two processes from one system call to the next.
class Tracer {
 public:
  using Entered = std::function<void(pid_t, const __ptrace_syscall_info&)>;

  // Passes on what either process enters, until the client ends. False if it failed.
  static bool Run(pid_t client, const Entered& entered) {
    for (;;) {
      int status = 0;
      const pid_t pid = waitpid(-1, &status, __WALL);
      if (pid < 0) return false;
      if (!WIFSTOPPED(status)) {
        if (pid == client) return WIFEXITED(status) && WEXITSTATUS(status) == 0;
        continue;
      }
      int signal = WSTOPSIG(status);
      if (signal == (SIGTRAP | 0x80)) {
        signal = 0;
        const __ptrace_syscall_info info = Info(pid);
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY) entered(pid, info);
      } else if (signal == SIGSTOP || signal == SIGTRAP) {
        signal = 0;
      }
      ptrace(PTRACE_SYSCALL, pid, nullptr, signal);
    }
  }

 private:
  static __ptrace_syscall_info Info(pid_t pid) {
    __ptrace_syscall_info info = {};
    ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info);
    return info;
  }
};

bool Attach(pid_t pid) {
  if (ptrace(PTRACE_SEIZE, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) != 0) {
    return false;
  }
  // Stops it, so that it goes on from one system call to the next.
  return ptrace(PTRACE_INTERRUPT, pid, nullptr, nullptr) == 0;
}

// A client beside an agent, both traced.
class TracedProcesses : public testing::Test {
 protected:
  // Runs `work`, which ends the process, in the client. False if it failed, or cannot be traced.
  void Trace(void (*work)(), const Tracer::Entered& entered) {
    int begin[2];
    ASSERT_EQ(pipe(begin), 0);
    client_ = fork();
    ASSERT_GE(client_, 0);
    if (client_ == 0) {
      char byte;
      if (read(begin[0], &byte, 1) != 1) _exit(1);
      work();
    }
    if (!Attach(client_) || !Attach(agent_.pid())) {
      kill(client_, SIGKILL);
      waitpid(client_, nullptr, 0);
      GTEST_SKIP() << "processes may not be traced here";
    }
    ASSERT_EQ(write(begin[1], "", 1), 1);
    ASSERT_TRUE(Tracer::Run(client_, entered));
  }

  const BenchWorld world_;
  const ServerProcess agent_ = ServerProcess::Agent();
  pid_t client_ = -1;
};

using AnInt32Call = TracedProcesses;

TEST_F(AnInt32Call, MakesThreeSystemCallsOnEitherSide) {
  Counts counts;
  int marks = 0;
  Trace(CallAgent, [&](pid_t pid, const __ptrace_syscall_info& info) {
    const auto number = static_cast<long>(info.entry.nr);
    if (pid == client_ && number == kMark) {
      ++marks;
    } else if (marks == 1) {
      ++counts[pid][number];
    }
  });
  if (IsSkipped()) return;
  ASSERT_EQ(marks, 2);
  const auto& of_client = counts[client_];
  const auto& of_agent = counts[agent_.pid()];
  EXPECT_LE(Sum(of_client), 3 * kCalls + kOnce) << testing::PrintToString(of_client);
  EXPECT_LE(Sum(of_agent), 3 * kCalls + kOnce) << testing::PrintToString(of_agent);
  EXPECT_GE(Sum(of_agent), 2 * kCalls) << "the agent was not counted";
}

// ---- Each exported function ---------------------------------------------------------------------

// The marks' first argument.
enum class Mark : unsigned {
  kCallBegins = 1000,  // the second one is the function's row
  kCallEnds,
  kAnswerHasCome,
};

constexpr int kFirstCalls = 3;  // what only they do is not counted
constexpr int kCallsOfEach = 21;

void SetMark(Mark mark, std::size_t row) { syscall(kMark, static_cast<unsigned>(mark), row); }

// Runs in the traced child.
[[noreturn]] void CallEach() {
  const auto& calls = ExportedCalls();
  for (std::size_t row = 0; row < calls.size(); ++row) {
    for (int i = 0; i < kFirstCalls + kCallsOfEach; ++i) {
      Prepare(calls[row].needs);
      {
        CallStage stage;
        if (i >= kFirstCalls) SetMark(Mark::kCallBegins, row);
        if (calls[row].call(stage) != SVCMGR_ERROR_NONE) _exit(1);
        if (i >= kFirstCalls) SetMark(Mark::kCallEnds, row);
      }
      if (i >= kFirstCalls) SetMark(Mark::kAnswerHasCome, row);
    }
  }
  _exit(0);
}

// What most calls make: now and then one reads the package folder's watch.
int Typical(std::vector<int> counts) {
  if (counts.empty()) return -1;
  const auto middle = counts.begin() + static_cast<std::ptrdiff_t>(counts.size() / 2);
  std::nth_element(counts.begin(), middle, counts.end());
  return *middle;
}

// What the marks enclose.
struct RowCounts {
  std::vector<int> of_client;  // in each call
  std::vector<int> of_answer;  // of the client until the answer is dispatched, for each call
  int of_agent = 0;            // of all calls

  int Client() const { return Typical(of_client); }
  int Answer() const { return Typical(of_answer); }
  // Of a call, too, the agent may make the last one a little later.
  int Agent() const { return static_cast<int>(std::lround(1.0 * of_agent / kCallsOfEach)); }
};

class RowCounter {
 public:
  explicit RowCounter(std::size_t rows) : rows_(rows) {}

  void OnMark(const __ptrace_syscall_info& info) {
    switch (static_cast<Mark>(info.entry.args[0])) {
      case Mark::kCallBegins:
        row_ = &rows_.at(static_cast<std::size_t>(info.entry.args[1]));
        count_ = &row_->of_client.emplace_back(0);
        break;
      case Mark::kCallEnds:
        count_ = &row_->of_answer.emplace_back(0);
        break;
      case Mark::kAnswerHasCome:
        row_ = nullptr;
        count_ = nullptr;
        break;
    }
  }
  void OfClient() {
    if (count_ != nullptr) ++*count_;
  }
  void OfAgent() {
    if (row_ != nullptr) ++row_->of_agent;
  }

  const std::vector<RowCounts>& rows() const { return rows_; }

 private:
  std::vector<RowCounts> rows_;
  RowCounts* row_ = nullptr;
  int* count_ = nullptr;
};

// What tracing all calls of the table has counted, a row each; empty if it cannot be done here.
class EachExportedFunction : public TracedProcesses {
 protected:
  void SetUp() override {
    PrepareExportedCalls(world_.folder().c_str());
    Trace(CallEach, [&](pid_t pid, const __ptrace_syscall_info& info) {
      if (pid == agent_.pid()) {
        counter_.OfAgent();
      } else if (info.entry.nr == kMark) {
        counter_.OnMark(info);
      } else {
        counter_.OfClient();
      }
    });
  }

  RowCounter counter_{ExportedCalls().size()};
};

using AConvertedModel = EachExportedFunction;

TEST_F(EachExportedFunction, MakesTheSystemCallsOfItsRow) {
  const auto& calls = ExportedCalls();
  for (std::size_t row = 0; row < calls.size(); ++row) {
    SCOPED_TRACE(calls[row].name);
    const CallCosts& costs = calls[row].costs;
    const RowCounts& counts = counter_.rows()[row];
    ASSERT_EQ(counts.of_client.size(), static_cast<std::size_t>(kCallsOfEach));
    if (costs.at_most) {
      EXPECT_LE(counts.Client(), costs.system_calls) << "of the client";
      EXPECT_LE(counts.Agent(), costs.agent_system_calls) << "of the agent";
    } else {
      EXPECT_EQ(counts.Client(), costs.system_calls) << "of the client";
      EXPECT_EQ(counts.Agent(), costs.agent_system_calls) << "of the agent";
    }
  }
}

TEST_F(AConvertedModel, MakesNoSystemCall) {
  const auto& calls = ExportedCalls();
  for (std::size_t row = 0; row < calls.size(); ++row) {
    if (std::string_view(calls[row].name) != "ai_request_model_version_list") continue;
    // The answer has 1,000 models: it is read in pieces, and the heap grows for them.
    EXPECT_GT(counter_.rows()[row].Answer(), 0);
    EXPECT_LE(counter_.rows()[row].Answer(), 1000 / 20);
  }
}

}  // namespace
