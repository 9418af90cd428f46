// SPDX-License-Identifier: Apache-2.0
#include "kept_blocks.h"

#include <algorithm>
#include <atomic>
#include <new>

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

KeptBlocks::KeptBlocks(std::size_t most) noexcept {
  if (most == 0) return;
  auto* const link = static_cast<void**>(operator new((most + 1) * sizeof(void*), std::nothrow));
  if (link == nullptr) return;
  std::fill_n(link, most + 1, nullptr);
  KeepStorage(link);
  next_ = link + 1;
  end_ = next_ + most;
}

void KeptBlocks::Add(void* block) noexcept {
  if (next_ != end_) *next_++ = block;
}

}  // namespace svcmgr
