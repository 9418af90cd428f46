// SPDX-License-Identifier: Apache-2.0
// Counts the system calls of a call to the agent, by tracing both processes.

#include <glib.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <velmora_svcmgr.h>

#include <map>

#include "bench_world.h"
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
  // Counts what each process enters between the client's marks. False if the client failed.
  bool Run(pid_t client, Counts* counts) {
    int marks = 0;
    for (;;) {
      int status = 0;
      const pid_t pid = waitpid(-1, &status, __WALL);
      if (pid < 0) return false;
      if (!WIFSTOPPED(status)) {
        if (pid == client) return marks == 2 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        continue;
      }
      int signal = WSTOPSIG(status);
      if (signal == (SIGTRAP | 0x80)) {
        signal = 0;
        if (Enters(pid)) {
          if (pid == client && marks < 2 && Number(pid) == kMark) {
            ++marks;
          } else if (marks == 1) {
            ++(*counts)[pid][Number(pid)];
          }
        }
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
  static bool Enters(pid_t pid) { return Info(pid).op == PTRACE_SYSCALL_INFO_ENTRY; }
  static long Number(pid_t pid) { return static_cast<long>(Info(pid).entry.nr); }
};

bool Attach(pid_t pid) {
  if (ptrace(PTRACE_SEIZE, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) != 0) {
    return false;
  }
  // Stops it, so that it goes on from one system call to the next.
  return ptrace(PTRACE_INTERRUPT, pid, nullptr, nullptr) == 0;
}

TEST(AnInt32Call, MakesThreeSystemCallsOnEitherSide) {
  const BenchWorld world;
  const ServerProcess agent = ServerProcess::Agent();
  int begin[2];
  ASSERT_EQ(pipe(begin), 0);
  const pid_t client = fork();
  ASSERT_GE(client, 0);
  if (client == 0) {
    char byte;
    if (read(begin[0], &byte, 1) != 1) _exit(1);
    CallAgent();
  }
  if (!Attach(client) || !Attach(agent.pid())) {
    kill(client, SIGKILL);
    waitpid(client, nullptr, 0);
    GTEST_SKIP() << "processes may not be traced here";
  }
  ASSERT_EQ(write(begin[1], "", 1), 1);
  Counts counts;
  ASSERT_TRUE(Tracer().Run(client, &counts));
  const auto& of_client = counts[client];
  const auto& of_agent = counts[agent.pid()];
  EXPECT_LE(Sum(of_client), 3 * kCalls + kOnce) << testing::PrintToString(of_client);
  EXPECT_LE(Sum(of_agent), 3 * kCalls + kOnce) << testing::PrintToString(of_agent);
  EXPECT_GE(Sum(of_agent), 2 * kCalls) << "the agent was not counted";
}

}  // namespace
