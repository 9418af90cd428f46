// SPDX-License-Identifier: Apache-2.0
#include "world/guardian.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <vector>

#include "world/world.h"

namespace sim {
namespace {

constexpr pid_t kDismissed = 0;  // in place of a process ID
constexpr int kPatienceMs = 10000;
constexpr int kLifelineFd = STDERR_FILENO + 1;

struct Watched {
  pid_t pid;
  base::UniqueFd handle;
};

void CloseAllBut(int kept) {
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (nothing < 0) {
      close(fd);
    } else {
      dup2(nothing, fd);
    }
  }
  if (kept != kLifelineFd) dup2(kept, kLifelineFd);
  const unsigned first = kLifelineFd + 1;
  if (syscall(SYS_close_range, first, ~0u, 0u) != 0) {
    for (int fd = static_cast<int>(first); fd < sysconf(_SC_OPEN_MAX); ++fd) close(fd);
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

/** The children come and go; a handle of one that has ended is of no use. */
void ForgetEnded(std::vector<Watched>* children) {
  children->erase(std::remove_if(children->begin(), children->end(),
                                 [](const Watched& child) {
                                   pollfd ended = {child.handle.get(), POLLIN, 0};
                                   return poll(&ended, 1, 0) > 0;
                                 }),
                  children->end());
}

/** Makes the folder and tells its name, or the errno, as one message. */
std::string TellFolder(int lifeline) {
  std::string folder;
  std::string message;
  try {
    folder = MakeWorldFolder();
    message = folder;
  } catch (const std::system_error& error) {
    message = std::to_string(error.code().value());
  }
  send(lifeline, message.data(), message.size(), MSG_NOSIGNAL);
  return folder;
}

[[noreturn]] void Guard(int lifeline) {
  std::vector<Watched> children;
  const std::string folder = TellFolder(lifeline);
  if (folder.empty()) _exit(EXIT_FAILURE);
  for (;;) {
    pid_t child = kDismissed;
    const ssize_t size = read(lifeline, &child, sizeof child);
    if (size < 0 && errno == EINTR) continue;
    if (size == sizeof child && child != kDismissed) {
      const auto handle = static_cast<int>(syscall(SYS_pidfd_open, child, 0u));
      ForgetEnded(&children);
      children.push_back({child, base::UniqueFd(handle)});
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

Guardian::Guardian() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot make a socket");
  }
  base::UniqueFd theirs(ends[0]);
  lifeline_.Reset(ends[1]);
  pid_ = fork();
  if (pid_ < 0) throw std::system_error(errno, std::generic_category(), "cannot make a process");
  if (pid_ == 0) {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, nullptr);
    setsid();
    prctl(PR_SET_NAME, "svcmgr-sim-wait");
    CloseAllBut(theirs.get());
    if (chdir("/") != 0) _exit(EXIT_FAILURE);
    Guard(kLifelineFd);
  }
  theirs.Reset();
  AwaitFolder();
}

void Guardian::AwaitFolder() {
  char message[PATH_MAX];
  ssize_t size;
  do {
    size = recv(lifeline_.get(), message, sizeof message, 0);
  } while (size < 0 && errno == EINTR);
  folder_.assign(message, static_cast<std::size_t>(size > 0 ? size : 0));
  if (folder_.empty() || folder_.front() != '/') {
    waitpid(pid_, nullptr, 0);
    throw NoWorldFolder(std::atoi(folder_.c_str()));
  }
}

Guardian::~Guardian() {
  send(lifeline_.get(), &kDismissed, sizeof kDismissed, MSG_NOSIGNAL);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

void Guardian::Watch(pid_t child) { send(lifeline_.get(), &child, sizeof child, MSG_NOSIGNAL); }

}  // namespace sim
