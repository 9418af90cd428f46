// SPDX-License-Identifier: Apache-2.0
#include "kept_blocks.h"

#include <atomic>

namespace svcmgr {

namespace {

// The first word of each link is the link before it.
std::atomic<void*> newest_link{nullptr};

}  // namespace

void KeepStorage(void* storage) noexcept {
  void* before = newest_link.load(std::memory_order_relaxed);
  do {
    *static_cast<void**>(storage) = before;
  } while (!newest_link.compare_exchange_weak(before, storage, std::memory_order_release,
                                              std::memory_order_relaxed));
}

}  // namespace svcmgr
