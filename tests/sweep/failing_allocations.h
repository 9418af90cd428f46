// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SWEEP_FAILING_ALLOCATIONS_H_
#define TESTS_SWEEP_FAILING_ALLOCATIONS_H_

#include <atomic>
#include <cstddef>

/*
 * The allocation functions of the whole process: malloc, calloc, realloc, strdup, strndup, the
 * aligned forms and each operator new, defined by the program that links this, so that every shared
 * library calls them. They count allocations, and let some fail.
 */
namespace sweep {

/** Return addresses, innermost first. */
struct Stack {
  static constexpr int kMost = 40;
  int depth = 0;
  void* frames[kMost] = {};

  /** The stack of its caller. */
  void Capture();
};

/** What is known of the allocations that failed; may be in shared memory. */
struct Failures {
  static constexpr int kMostCallers = 64;
  std::atomic<long> counted{0};
  std::atomic<long> failed{0};
  /** What the process does, as it says itself, and what it did when the first one failed. */
  const char* doing = "";
  const char* first_doing = "";
  Stack first;
  Stack last;
  /** The callers of the first allocations that failed. */
  void* callers[kMostCallers] = {};
};

/**
 * From now on allocations count, if `counts` is true of their callers; number `first` (from 1) and
 * the next ones, `burst` in all, fail.
 */
void Arm(long first, long burst, Failures* failures, bool (*counts)(void* caller) = nullptr);
/** Nothing fails any more; Rearm continues the count where it was. */
void Disarm();
void Rearm();

/** While one exists, this thread's allocations neither count nor fail. */
class Uncounted {
 public:
  Uncounted();
  ~Uncounted();
  Uncounted(const Uncounted&) = delete;
  Uncounted& operator=(const Uncounted&) = delete;
};

/** From now on the living blocks are tracked. */
void TrackBlocks();

/** How many living blocks one place has asked for. */
struct LiveBlocks {
  void* caller;
  long blocks;
};

/** Counts them by place, in no order; returns how many places there are, at most `most`. */
int CountLiveBlocks(LiveBlocks* places, int most);

/** From now on the stack of each allocation that `caller` asks for is kept. */
void KeepStacksOf(void* caller);
/** The stack of one living block that `caller` asked for; empty if there is none. */
Stack StackOfLiveBlock(void* caller);

}  // namespace sweep

#endif  // TESTS_SWEEP_FAILING_ALLOCATIONS_H_
