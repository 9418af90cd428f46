// SPDX-License-Identifier: Apache-2.0
#include "stacks.h"

#include <cstdio>
#include <cstdlib>

namespace faults {
namespace {

std::size_t HashOf(const Stack& stack) {
  std::uint64_t hash = stack.function;
  for (const std::uintptr_t frame : stack.caller.frames) {
    hash = (hash ^ frame) * 0x9e3779b97f4a7c15U;
    hash ^= hash >> 29;
  }
  return static_cast<std::size_t>(hash);
}

}  // namespace

StackTable::Number StackTable::NumberOf(const Stack& stack) {
  for (std::size_t at = HashOf(stack);; ++at) {
    Number& slot = slots_[at % slots_.size()];
    if (slot == 0) {
      if (count_ == kMost) {
        std::fputs("too many stacks\n", stderr);
        std::abort();
      }
      stacks_[count_] = stack;
      slot = ++count_;
    }
    const Stack& known = stacks_[slot - 1U];
    if (known.function == stack.function && known.caller.frames == stack.caller.frames) {
      return static_cast<Number>(slot - 1);
    }
  }
}

void StackTable::Clear() {
  count_ = 0;
  slots_.fill(0);
}

}  // namespace faults
