// SPDX-License-Identifier: Apache-2.0
#include "kept_blocks.h"

#include <atomic>

namespace svcmgr {

namespace {

// The first word of each link is the link before it.
std::atomic<void*> newest_link{nullptr};

}  // namespace

void KeepLink(void* link) noexcept {
  void* before = newest_link.load(std::memory_order_relaxed);
  do {
    *static_cast<void**>(link) = before;
  } while (!newest_link.compare_exchange_weak(before, link, std::memory_order_release,
                                              std::memory_order_relaxed));
}

void KeepStorage(void* storage) noexcept { KeepLink(storage); }

void KeptBlocks::Add(void* block) noexcept {
  if (next_ != end_) *next_++ = block;
}

}  // namespace svcmgr
