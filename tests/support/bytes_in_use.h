// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SUPPORT_BYTES_IN_USE_H_
#define TESTS_SUPPORT_BYTES_IN_USE_H_

#include <malloc.h>

#include <cstddef>

/** What this process has allocated. 0 under sanitizers, which have their own allocators. */
inline std::size_t BytesInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

#endif  // TESTS_SUPPORT_BYTES_IN_USE_H_
