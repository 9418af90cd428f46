// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_UNIQUE_FD_H_
#define RPC_PORT_UNIQUE_FD_H_

#include <unistd.h>

#include <utility>

namespace rpc_port_desktop {

// Owns a file descriptor; a negative one stands for none.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    Reset();
    fd_ = std::exchange(other.fd_, -1);
    return *this;
  }
  ~UniqueFd() { Reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void Reset() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_UNIQUE_FD_H_
