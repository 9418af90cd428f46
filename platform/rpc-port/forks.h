// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_FORKS_H_
#define RPC_PORT_FORKS_H_

#include <atomic>
#include <mutex>

#include "unique_fd.h"

/*
 * A forked child keeps none of its parent's connections. Both would read from one stream, and
 * whoever shuts it down ends it for both. So the child closes its copies of the descriptors as soon
 * as it exists; the handles are invalid in it, and its main loop drops the sources. The objects
 * stay as they are: threads that the child does not have may have been inside them.
 */

namespace rpc_port_desktop {

// How many forks lie between this process and the one that loaded the library.
inline std::atomic<unsigned> fork_count{0};

// Distinguishes what this process made from what it inherited.
class Birth {
 public:
  bool IsInherited() const { return forks_ != fork_count.load(std::memory_order_relaxed); }

 private:
  unsigned forks_ = fork_count.load(std::memory_order_relaxed);
};

// Guards what a forked child must find consistent and unlocked: all handles, and the list of
// descriptors. Held only briefly, and no other lock is taken meanwhile.
inline std::mutex fork_mutex;

// Owns a descriptor that a forked child closes.
class OwnFd {
 public:
  explicit OwnFd(base::UniqueFd fd);
  ~OwnFd();
  OwnFd(const OwnFd&) = delete;
  OwnFd& operator=(const OwnFd&) = delete;

  // -1 in a forked child.
  int get() const { return fd_.get(); }

  // For the child, under the mutex.
  static void CloseAll();

 private:
  base::UniqueFd fd_;
  OwnFd* before_ = nullptr;
  OwnFd* behind_ = nullptr;
};

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_FORKS_H_
