// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SUPPORT_FEW_DESCRIPTORS_H_
#define TESTS_SUPPORT_FEW_DESCRIPTORS_H_

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

/** While it exists, the process can open this many more descriptors and no others. */
class FewDescriptors {
 public:
  explicit FewDescriptors(int free) {
    // Filling up to the usual limit would take long where it is high.
    constexpr rlim_t kEnough = 256;
    if (getrlimit(RLIMIT_NOFILE, &before_) != 0) std::abort();
    const rlimit few = {kEnough, before_.rlim_max};
    if (setrlimit(RLIMIT_NOFILE, &few) != 0) std::abort();
    for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) taken_.push_back(fd);
    for (; free > 0 && !taken_.empty(); --free) {
      close(taken_.back());
      taken_.pop_back();
    }
  }
  ~FewDescriptors() {
    for (const int fd : taken_) close(fd);
    setrlimit(RLIMIT_NOFILE, &before_);
  }
  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;

 private:
  rlimit before_ = {};
  std::vector<int> taken_;
};

#endif  // TESTS_SUPPORT_FEW_DESCRIPTORS_H_
