// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_PLATFORM_RPC_PORT_FAILING_ALLOCATIONS_H_
#define TESTS_PLATFORM_RPC_PORT_FAILING_ALLOCATIONS_H_

#include <cstddef>

// While it exists, allocations of the ports fail: those that they ask for themselves, or through
// the C++ library. GLib's do not, because it would end the process; nor do the test's own, as long
// as its strings are short.
class FailingAllocations {
 public:
  // Only the n-th, counted from 1.
  static FailingAllocations Nth(int n) { return {n, 0}; }
  // All of at least this size.
  static FailingAllocations AtLeast(size_t size) { return {0, size}; }
  ~FailingAllocations();
  FailingAllocations(const FailingAllocations&) = delete;

  // How many have failed so far.
  int count() const;

 private:
  FailingAllocations(int nth, size_t at_least);
};

#endif  // TESTS_PLATFORM_RPC_PORT_FAILING_ALLOCATIONS_H_
