// SPDX-License-Identifier: Apache-2.0
#ifndef BENCH_SERVERS_H_
#define BENCH_SERVERS_H_

#include <sys/types.h>

#include <cstdint>
#include <string>

// Two processes that answer the same requests with the same content: one serves the agent's port,
// one has nothing but a socket.

enum class Content : std::uint8_t { kInt32, kLicence, kTenModels, kHundredModels, kThousandModels };

constexpr int kLevel = 11;
constexpr std::size_t kLicenceSize = 20 * 1024;

class ServerProcess {
 public:
  // Serves the agent's port. To be called before the first use of GLib; waits until clients can
  // connect.
  static ServerProcess Agent();
  // Answers a frame, whose first byte is a Content, with one frame. The other end is `socket`.
  static ServerProcess Raw(int* socket);

  ServerProcess(ServerProcess&& other) noexcept : pid_(other.pid_) { other.pid_ = -1; }
  ~ServerProcess();

  pid_t pid() const { return pid_; }

 private:
  explicit ServerProcess(pid_t pid) : pid_(pid) {}

  pid_t pid_;
};

#endif  // BENCH_SERVERS_H_
