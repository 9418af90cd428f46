// SPDX-License-Identifier: Apache-2.0
#include "forks.h"

#include <pthread.h>

namespace rpc_port_desktop {
namespace {

OwnFd* first_own_fd = nullptr;

void BeforeFork() { fork_mutex.lock(); }

void InParent() { fork_mutex.unlock(); }

void InChild() {
  ++fork_count;
  OwnFd::CloseAll();
  fork_mutex.unlock();
}

// Before there can be a second thread, which might fork.
__attribute__((constructor)) void PrepareForForks() {
  pthread_atfork(BeforeFork, InParent, InChild);
}

}  // namespace

OwnFd::OwnFd(base::UniqueFd fd) : fd_(std::move(fd)) {
  const std::lock_guard<std::mutex> lock(fork_mutex);
  behind_ = first_own_fd;
  if (behind_ != nullptr) behind_->before_ = this;
  first_own_fd = this;
}

OwnFd::~OwnFd() {
  const std::lock_guard<std::mutex> lock(fork_mutex);
  (before_ == nullptr ? first_own_fd : before_->behind_) = behind_;
  if (behind_ != nullptr) behind_->before_ = before_;
  // Under the lock: after it, a fork could still hand the descriptor on.
  fd_.Reset();
}

void OwnFd::CloseAll() {
  for (OwnFd* own = first_own_fd; own != nullptr; own = own->behind_) own->fd_.Reset();
}

}  // namespace rpc_port_desktop
