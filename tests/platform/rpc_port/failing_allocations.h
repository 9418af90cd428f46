// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_PLATFORM_RPC_PORT_FAILING_ALLOCATIONS_H_
#define TESTS_PLATFORM_RPC_PORT_FAILING_ALLOCATIONS_H_

#include <cstddef>
#include <limits>

// While it exists, allocations of the ports fail: those that they ask for themselves, or through
// the C++ library. GLib's do not, because it would end the process; nor do the test's own, as long
// as its strings are short.
class FailingAllocations {
 public:
  // Only the n-th, counted from 1.
  static FailingAllocations Nth(int n) { return {n, n, 0}; }
  // The n-th, and each one after it.
  static FailingAllocations From(int n) { return {n, kNoEnd, 0}; }
  // All of at least this size.
  static FailingAllocations AtLeast(size_t size) { return {1, kNoEnd, size}; }
  ~FailingAllocations();
  FailingAllocations(const FailingAllocations&) = delete;

  // How many have failed so far.
  int count() const;

 private:
  static constexpr int kNoEnd = std::numeric_limits<int>::max();

  FailingAllocations(int first, int last, size_t at_least);
};

#endif  // TESTS_PLATFORM_RPC_PORT_FAILING_ALLOCATIONS_H_
