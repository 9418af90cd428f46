// SPDX-License-Identifier: Apache-2.0
#include "guardian.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <vector>

#include "world.h"

namespace sim {
namespace {

constexpr pid_t kDismissed = 0;  // in place of a process ID
constexpr int kPatienceMs = 10000;

struct Watched {
  pid_t pid;
  UniqueFd handle;
};

void CloseAllBut(int kept) {
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    dup2(nothing, fd);
  }
  constexpr int kNewPlace = STDERR_FILENO + 1;
  if (kept != kNewPlace) {
    dup2(kept, kNewPlace);
  }
  const unsigned first = kNewPlace + 1;
  if (syscall(SYS_close_range, first, ~0u, 0u) != 0) {
    for (int fd = static_cast<int>(first); fd < sysconf(_SC_OPEN_MAX); ++fd) {
      close(fd);
    }
  }
}

void EndWatched(const std::vector<Watched>& children) {
  for (const Watched& child : children) {
    if (child.handle) {
      syscall(SYS_pidfd_send_signal, child.handle.get(), SIGKILL, nullptr, 0u);
      pollfd ended = {child.handle.get(), POLLIN, 0};
      poll(&ended, 1, kPatienceMs);
    }
  }
}

[[noreturn]] void Guard(int lifeline, const std::string& folder) {
  std::vector<Watched> children;
  for (;;) {
    pid_t child = kDismissed;
    const ssize_t size = read(lifeline, &child, sizeof child);
    if (size < 0 && errno == EINTR) {
      continue;
    }
    if (size == sizeof child && child != kDismissed) {
      const auto handle = static_cast<int>(syscall(SYS_pidfd_open, child, 0u));
      children.push_back({child, UniqueFd(handle)});
      continue;
    }
    if (size != sizeof child) {
      EndWatched(children);
      RemoveTree(folder);
    }
    _exit(EXIT_SUCCESS);
  }
}

}  // namespace

Guardian::Guardian(const std::string& folder) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    return;
  }
  UniqueFd theirs(ends[0]);
  UniqueFd ours(ends[1]);
  pid_ = fork();
  if (pid_ == 0) {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, nullptr);
    setsid();
    prctl(PR_SET_NAME, "svcmgr-sim-wait");
    CloseAllBut(theirs.get());
    if (chdir("/") != 0) {
      _exit(EXIT_FAILURE);
    }
    Guard(STDERR_FILENO + 1, folder);
  }
  if (pid_ > 0) {
    lifeline_ = std::move(ours);
  }
}

Guardian::~Guardian() {
  if (pid_ <= 0) {
    return;
  }
  send(lifeline_.get(), &kDismissed, sizeof kDismissed, MSG_NOSIGNAL);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

void Guardian::Watch(pid_t child) {
  if (pid_ > 0) {
    send(lifeline_.get(), &child, sizeof child, MSG_NOSIGNAL);
  }
}

}  // namespace sim
