// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SUPPORT_FORKED_CHILD_H_
#define TESTS_SUPPORT_FORKED_CHILD_H_

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

/** Does `work` in a forked child; whether all that is expected there is so. */
inline bool HoldsInAChild(const std::function<void()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    work();
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  return waitpid(child, &status, 0) == child && status == 0;
}

#endif  // TESTS_SUPPORT_FORKED_CHILD_H_
