// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_KEPT_BLOCKS_H_
#define SVCMGR_KEPT_BLOCKS_H_

#include <algorithm>
#include <cstddef>
#include <new>
#include <vector>

// What the library keeps on purpose stays reachable from it, in one chain that is never walked and
// never shortened: a leak checker then reports what the application has forgotten, and nothing else.
//
// All threads. What cannot be chained for want of memory is kept unreachably.

namespace svcmgr {

// The linker can put a ledger in the place of each function that is not inline: the tests do.

// Makes a link of memory that nobody uses any more. It has room for a pointer at least; a stale
// pointer in it would hide a leak of the application.
void KeepStorage(void* storage) noexcept;

// The same for memory that was made to be a link.
void KeepLink(void* link) noexcept;

// Of a list whose elements have been released.
template <typename T>
void KeepStorageOf(std::vector<T*>& elements) noexcept {
  if (elements.capacity() == 0) return;
  elements.assign(elements.capacity(), nullptr);
  KeepStorage(elements.data());
}

// Keeps what is added, up to the number that was announced, in one link.
class KeptBlocks {
 public:
  explicit KeptBlocks(std::size_t most) noexcept {
    if (most == 0) return;
    auto* const link = static_cast<void**>(operator new((most + 1) * sizeof(void*), std::nothrow));
    if (link == nullptr) return;
    std::fill_n(link, most + 1, nullptr);
    KeepLink(link);
    next_ = link + 1;
    end_ = next_ + most;
  }
  void Add(void* block) noexcept;

 private:
  void** next_ = nullptr;
  void** end_ = nullptr;
};

inline void KeepBlock(void* block) noexcept {
  if (block != nullptr) KeptBlocks(1).Add(block);
}

}  // namespace svcmgr

#endif  // SVCMGR_KEPT_BLOCKS_H_
