/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_TESTS_FAULTS_STACKS_H_
#define SVCMGR_TESTS_FAULTS_STACKS_H_

/* From where which functions were called, in memory that processes share. */

#include <array>
#include <cstddef>
#include <cstdint>

#include "owners.h"

namespace faults {

/** A function that may fail, by its index in FunctionNames(). */
using Function = std::uint8_t;

struct Stack {
  Function function;
  Caller caller;
};

/** A set of stacks, each with a number; all zeros is an empty one. */
class StackTable {
 public:
  static constexpr std::size_t kMost = 1 << 14;
  using Number = std::uint16_t;

  /** Adds the stack if it is a new one; ends the process if there is no room for it. */
  Number NumberOf(const Stack& stack);
  const Stack& operator[](Number number) const { return stacks_[number]; }
  Number Count() const { return count_; }
  void Clear();

 private:
  Number count_;
  std::array<Stack, kMost> stacks_;
  std::array<Number, 2 * kMost> slots_;  // by hash: a stack's number and 1, or 0 for none
};

}  // namespace faults

#endif  // SVCMGR_TESTS_FAULTS_STACKS_H_
