// SPDX-License-Identifier: Apache-2.0
#include "world/child.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "unique_fd.h"

namespace sim {
namespace {

// Descriptors below may be the target of a dup2 in the child.
constexpr int kFirstSafeFd = 10;

void CloseOnExecFrom(int first) {
  constexpr unsigned kCloseOnExec = 1u << 2;  // CLOSE_RANGE_CLOEXEC
  if (syscall(SYS_close_range, static_cast<unsigned>(first), ~0u, kCloseOnExec) == 0) return;
  const long most = sysconf(_SC_OPEN_MAX);
  for (int fd = first; fd < most; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);
}

/** None of them may have the number that another is to get. */
bool Pass(const std::vector<int>& passed) {
  std::vector<int> copies;
  for (const int fd : passed) copies.push_back(fcntl(fd, F_DUPFD_CLOEXEC, kFirstSafeFd));
  int target = kFirstPassedFd;
  for (const int copy : copies) {
    if (copy < 0 || dup2(copy, target++) < 0) return false;
  }
  return true;
}

bool Redirect(const ChildSetup& setup) {
  if (setup.detached) {
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (nothing < 0 || dup2(nothing, STDIN_FILENO) < 0) return false;
  }
  if (setup.output >= 0 &&
      (dup2(setup.output, STDOUT_FILENO) < 0 || dup2(setup.output, STDERR_FILENO) < 0)) {
    return false;
  }
  CloseOnExecFrom(STDERR_FILENO + 1);
  return Pass(setup.passed);
}

void ChangeEnvironment(const EnvironmentChanges& changes) {
  for (const auto& [name, value] : changes.set) setenv(name.c_str(), value.c_str(), 1);
  for (const std::string& name : changes.unset) unsetenv(name.c_str());
}

std::vector<char*> Pointers(const std::vector<std::string>& arguments) {
  std::vector<char*> pointers;
  for (const std::string& argument : arguments) {
    pointers.push_back(const_cast<char*>(argument.c_str()));
  }
  pointers.push_back(nullptr);
  return pointers;
}

/** In the child; returns only if the program cannot be run. */
int Execute(const ChildSetup& setup, pid_t parent) {
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) return errno;
  if (getppid() != parent) {
    _exit(EXIT_FAILURE);  // it died before the signal was asked for
  }
  if (setup.detached) setsid();
  if (!Redirect(setup)) return errno;
  ChangeEnvironment(setup.environment);
  const std::vector<char*> arguments = Pointers(setup.arguments);
  sigaction(SIGCHLD, &setup.child_action, nullptr);
  sigprocmask(SIG_SETMASK, &setup.signal_mask, nullptr);
  execvp(setup.program != nullptr ? setup.program : arguments[0], arguments.data());
  return errno;
}

}  // namespace

pid_t StartChild(const ChildSetup& setup) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw StartError{errno};
  base::UniqueFd read_end(ends[0]);
  base::UniqueFd low_end(ends[1]);
  base::UniqueFd write_end(fcntl(low_end.get(), F_DUPFD_CLOEXEC, kFirstSafeFd));
  low_end.Reset();
  if (!write_end) throw StartError{errno};

  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child < 0) throw StartError{errno};
  if (child == 0) {
    const int reason = Execute(setup, parent);
    const ssize_t written = write(write_end.get(), &reason, sizeof reason);
    _exit(written == sizeof reason ? EXIT_FAILURE : EXIT_FAILURE + 1);
  }
  write_end.Reset();
  int reason = 0;
  ssize_t size;
  do {
    size = read(read_end.get(), &reason, sizeof reason);
  } while (size < 0 && errno == EINTR);
  if (size != sizeof reason) {
    return child;  // this end was closed on exec, when the program began to run
  }
  waitpid(child, nullptr, 0);
  throw StartError{reason};
}

}  // namespace sim
