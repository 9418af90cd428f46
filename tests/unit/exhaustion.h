/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_TESTS_UNIT_EXHAUSTION_H
#define SVCMGR_TESTS_UNIT_EXHAUSTION_H

/* Memory that runs out at each place where it can. */

#include <fake_platform.h>

#include <functional>
#include <new>
#include <string>

namespace exhaustion {

/**
 * Runs `work` with its first, second, third ... allocation failing, until a run gets all that it
 * asks for; `prepare` runs before each, `judge` after each, and is told whether one failed. Returns
 * how many could fail.
 */
inline int ForEachFailingAllocation(const std::function<void()>& prepare,
                                    const std::function<void()>& work,
                                    const std::function<void(bool)>& judge,
                                    fake::Allocator which = fake::Allocator::kAny) {
  constexpr int kMost = 500;
  for (int n = 1; n < kMost; ++n) {
    SCOPED_TRACE("allocation " + std::to_string(n));
    bool happened = false;
    prepare();
    {
      const fake::FailingAllocation failing(which, n);
      work();
      happened = failing.Happened();
    }
    judge(happened);
    if (!happened || testing::Test::HasFailure()) return n - 1;
  }
  ADD_FAILURE() << "the allocations do not end";
  return kMost;
}

/** Delivers a message; memory may run out outside the library too, in what delivers it. */
inline void Receive() {
  try {
    fake::Proxy().FireReceived();
  } catch (const std::bad_alloc&) {
  }
}

}  // namespace exhaustion

#endif  // SVCMGR_TESTS_UNIT_EXHAUSTION_H
