// SPDX-License-Identifier: Apache-2.0
#include "coarse_clock.h"

#include <dlfcn.h>
#include <time.h>

#include <atomic>

namespace {

std::atomic<long> passed_ms{0};

}  // namespace

// The platform calls this instead of the C library's.
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock,
                                                                    timespec* now) {
  if (clock != CLOCK_MONOTONIC_COARSE) {
    using Function = int(clockid_t, timespec*);
    // Where a time is wider than a word, the function has another name.
    static auto* const real = reinterpret_cast<Function*>(
        dlsym(RTLD_NEXT, sizeof(time_t) > sizeof(long) ? "__clock_gettime64" : "clock_gettime"));
    return real(clock, now);
  }
  const long ms = passed_ms.load();
  *now = {1000 + ms / 1000, ms % 1000 * 1000000};
  return 0;
}

void LetPass(int milliseconds) { passed_ms += milliseconds; }
