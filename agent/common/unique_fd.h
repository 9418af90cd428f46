// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_COMMON_UNIQUE_FD_H
#define AGENT_COMMON_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace sim {

/** Owns a file descriptor. */
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    Reset(std::exchange(other.fd_, -1));
    return *this;
  }
  ~UniqueFd() { Reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

  void Reset(int fd = -1) {
    if (fd_ >= 0) {
      close(fd_);
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace sim

#endif  // AGENT_COMMON_UNIQUE_FD_H
