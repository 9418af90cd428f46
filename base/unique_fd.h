// SPDX-License-Identifier: Apache-2.0
#ifndef BASE_UNIQUE_FD_H_
#define BASE_UNIQUE_FD_H_

#include <unistd.h>

#include <utility>

namespace base {

/** Owns a file descriptor; a negative one stands for none. A new one replaces the one it had, which
 *  is closed at once. */
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
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace base

#endif  // BASE_UNIQUE_FD_H_
