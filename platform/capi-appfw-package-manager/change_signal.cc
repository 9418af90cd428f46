// SPDX-License-Identifier: Apache-2.0
#include "change_signal.h"

#include <poll.h>
#include <stddef.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace packages {

namespace {

// Head of the ring that lies where the context ID points to; the magic number and the features tell
// whether it is the layout that is known here.
struct RingHead {
  unsigned id;
  unsigned size;
  unsigned head;
  unsigned tail;
  unsigned magic;
  unsigned compatible_features;
  unsigned incompatible_features;
  unsigned header_length;
};
constexpr unsigned kRingMagic = 0xa10a10a1;

}  // namespace

bool ChangeSignal::Watch(int fd) {
  // A descriptor wakes its poll request with an unspecific call, which the kernel hands to a
  // worker; a poll set around it wakes with the events named, which completes before the waker goes
  // on.
  poll_set_ = UniqueFd(epoll_create1(EPOLL_CLOEXEC));
  epoll_event readable = {};
  readable.events = EPOLLIN;
  if (!poll_set_ || epoll_ctl(poll_set_.get(), EPOLL_CTL_ADD, fd, &readable) != 0) return false;
  if (syscall(SYS_io_setup, 1, &context_) != 0) return false;
  const auto* ring = reinterpret_cast<const RingHead*>(context_);
  if (ring->magic != kRingMagic || ring->incompatible_features != 0) return false;
  word_ = &ring->tail;
  Rearm();
  return word_ != nullptr;
}

ChangeSignal::Word ChangeSignal::Rearm() {
  const Word value = __atomic_load_n(word_, __ATOMIC_ACQUIRE);
  if (armed_ && value == armed_value_) return value;

  io_event completed;
  timespec no_wait = {};
  syscall(SYS_io_getevents, context_, 0, 1, &completed, &no_wait);
  iocb request = {};
  request.aio_lio_opcode = IOCB_CMD_POLL;
  request.aio_fildes = static_cast<unsigned>(poll_set_.get());
  request.aio_buf = POLLIN;
  iocb* requests[] = {&request};
  armed_value_ = value;
  armed_ = syscall(SYS_io_submit, context_, 1, requests) == 1;
  if (!armed_) word_ = nullptr;
  return value;
}

}  // namespace packages
