// SPDX-License-Identifier: Apache-2.0
#ifndef BENCH_SERVERS_H_
#define BENCH_SERVERS_H_

#include <sys/types.h>

// A process that serves the agent's port, with nothing behind it.
class ServerProcess {
 public:
  // Serves the agent's port. To be called before the first use of GLib; waits until clients can
  // connect.
  static ServerProcess Agent();

  ServerProcess(ServerProcess&& other) noexcept : pid_(other.pid_) { other.pid_ = -1; }
  ~ServerProcess();

  pid_t pid() const { return pid_; }

 private:
  explicit ServerProcess(pid_t pid) : pid_(pid) {}

  pid_t pid_;
};

#endif  // BENCH_SERVERS_H_
