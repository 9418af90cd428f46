// SPDX-License-Identifier: Apache-2.0
#include "failing_allocations.h"

#include <execinfo.h>
#include <malloc.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <new>

// The C library's own, below the names that are defined here.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);
}

namespace sweep {
namespace {

thread_local int uncounted = 0;

std::atomic<bool> armed{false};
long first_to_fail = 0;
long last_to_fail = 0;
Failures* told = nullptr;
bool (*counts_for)(void* caller) = nullptr;

/** Where living blocks were asked for: an open-addressing table, because it must not allocate. */
struct Block {
  void* address;
  void* caller;
  int stack;  // from 1; 0: not kept
};

constexpr std::size_t kBlocks = std::size_t{1} << 16;
constexpr int kStacks = 4096;
void* const kReleased = reinterpret_cast<void*>(1);

bool tracking = false;
Block blocks[kBlocks];
void* kept_caller = nullptr;
Stack stacks[kStacks];
int stack_count = 0;
std::atomic_flag busy;

class Lock {
 public:
  Lock() {
    while (busy.test_and_set(std::memory_order_acquire)) continue;
  }
  ~Lock() { busy.clear(std::memory_order_release); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
};

std::size_t Slot(const void* address) {
  const auto value = reinterpret_cast<std::uintptr_t>(address) >> 4;
  return static_cast<std::size_t>(value * 2654435761U) % kBlocks;
}

void Enter(void* address, void* caller) {
  if (!tracking || address == nullptr || uncounted > 0) return;
  int stack = 0;
  if (caller == kept_caller && stack_count < kStacks) {
    const Uncounted own;
    stacks[stack_count].Capture();
    stack = ++stack_count;
  }
  const Lock lock;
  std::size_t slot = Slot(address);
  for (std::size_t tried = 0; tried < kBlocks; ++tried, slot = (slot + 1) % kBlocks) {
    Block& block = blocks[slot];
    if (block.address != nullptr && block.address != kReleased) continue;
    block = {address, caller, stack};
    return;
  }
  abort();
}

void Leave(void* address) {
  if (!tracking || address == nullptr) return;
  const Lock lock;
  std::size_t slot = Slot(address);
  for (std::size_t tried = 0; tried < kBlocks; ++tried, slot = (slot + 1) % kBlocks) {
    Block& block = blocks[slot];
    if (block.address == nullptr) return;
    if (block.address != address) continue;
    block.address = kReleased;
    return;
  }
}

bool Fails(void* caller) {
  if (uncounted > 0 || !armed.load(std::memory_order_relaxed)) return false;
  const Uncounted own;
  if (counts_for != nullptr && !counts_for(caller)) return false;
  const long number = told->counted.fetch_add(1) + 1;
  if (number < first_to_fail || number > last_to_fail) return false;
  const long index = told->failed.fetch_add(1);
  told->last.Capture();
  if (index == 0) {
    told->first_doing = told->doing;
    told->first = told->last;
  }
  if (index < Failures::kMostCallers) told->callers[index] = caller;
  errno = ENOMEM;
  return true;
}

template <typename Work>
void* Allocate(void* caller, Work work) {
  if (Fails(caller)) return nullptr;
  void* const block = work();
  Enter(block, caller);
  return block;
}

void* Reallocate(void* caller, void* block, std::size_t size) {
  if (Fails(caller)) return nullptr;
  Leave(block);
  void* const moved = __libc_realloc(block, size);
  Enter(moved, caller);
  return moved;
}

char* Copy(void* caller, const char* text, std::size_t length) {
  auto* const copy =
      static_cast<char*>(Allocate(caller, [&] { return __libc_malloc(length + 1); }));
  if (copy == nullptr) return nullptr;
  memcpy(copy, text, length);
  copy[length] = '\0';
  return copy;
}

void* New(void* caller, std::size_t size, std::size_t alignment) {
  return Allocate(caller, [&] {
    const std::size_t least = std::max<std::size_t>(size, 1);
    return alignment == 0 ? __libc_malloc(least) : __libc_memalign(alignment, least);
  });
}

void* NewOrThrow(void* caller, std::size_t size, std::size_t alignment = 0) {
  void* const block = New(caller, size, alignment);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void Release(void* block) {
  Leave(block);
  __libc_free(block);
}

}  // namespace

void Stack::Capture() {
  // Leaves out this function.
  void* all[kMost + 1];
  depth = std::max(0, backtrace(all, kMost + 1) - 1);
  std::copy(all + 1, all + 1 + depth, frames);
}

void Arm(long first, long burst, Failures* failures, bool (*counts)(void* caller)) {
  first_to_fail = first;
  last_to_fail = first + burst - 1;
  told = failures;
  counts_for = counts;
  armed = true;
}

void Disarm() { armed = false; }
void Rearm() { armed = told != nullptr; }

Uncounted::Uncounted() { ++uncounted; }
Uncounted::~Uncounted() { --uncounted; }

void TrackBlocks() { tracking = true; }

int CountLiveBlocks(LiveBlocks* places, int most) {
  const Lock lock;
  int count = 0;
  for (const Block& block : blocks) {
    if (block.address == nullptr || block.address == kReleased) continue;
    LiveBlocks* const end = places + count;
    LiveBlocks* const place =
        std::find_if(places, end, [&](const auto& each) { return each.caller == block.caller; });
    if (place != end) {
      ++place->blocks;
    } else if (count < most) {
      places[count++] = {block.caller, 1};
    }
  }
  return count;
}

void KeepStacksOf(void* caller) { kept_caller = caller; }

Stack StackOfLiveBlock(void* caller) {
  const Lock lock;
  const Block* newest = nullptr;
  for (const Block& block : blocks) {
    if (block.address == nullptr || block.address == kReleased || block.caller != caller) continue;
    if (newest == nullptr || block.stack > newest->stack) newest = &block;
  }
  return newest == nullptr || newest->stack == 0 ? Stack{} : stacks[newest->stack - 1];
}

}  // namespace sweep

// The libraries, too, are to call these.
#pragma GCC visibility push(default)

#define CALLER __builtin_extract_return_addr(__builtin_return_address(0))

extern "C" {

void* malloc(std::size_t size) noexcept {
  return sweep::Allocate(CALLER, [&] { return __libc_malloc(size); });
}

void* calloc(std::size_t count, std::size_t size) noexcept {
  return sweep::Allocate(CALLER, [&] { return __libc_calloc(count, size); });
}

void* realloc(void* block, std::size_t size) noexcept {
  return sweep::Reallocate(CALLER, block, size);
}

void* reallocarray(void* block, std::size_t count, std::size_t size) noexcept {
  std::size_t all = 0;
  if (__builtin_mul_overflow(count, size, &all)) {
    errno = ENOMEM;
    return nullptr;
  }
  return sweep::Reallocate(CALLER, block, all);
}

void* memalign(std::size_t alignment, std::size_t size) noexcept {
  return sweep::Allocate(CALLER, [&] { return __libc_memalign(alignment, size); });
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  return sweep::Allocate(CALLER, [&] { return __libc_memalign(alignment, size); });
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) noexcept {
  if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0) return EINVAL;
  const int before = errno;
  void* const made = sweep::Allocate(CALLER, [&] { return __libc_memalign(alignment, size); });
  errno = before;
  if (made == nullptr) return ENOMEM;
  *block = made;
  return 0;
}

// The C library's macros of these names would be in the way.
#undef strdup
#undef strndup

char* strdup(const char* text) noexcept { return sweep::Copy(CALLER, text, strlen(text)); }

char* strndup(const char* text, std::size_t size) noexcept {
  return sweep::Copy(CALLER, text, strnlen(text, size));
}

void free(void* block) noexcept { sweep::Release(block); }

}  // extern "C"

void* operator new(std::size_t size) { return sweep::NewOrThrow(CALLER, size); }
void* operator new[](std::size_t size) { return sweep::NewOrThrow(CALLER, size); }
void* operator new(std::size_t size, std::align_val_t alignment) {
  return sweep::NewOrThrow(CALLER, size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return sweep::NewOrThrow(CALLER, size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return sweep::New(CALLER, size, 0);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return sweep::New(CALLER, size, 0);
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return sweep::New(CALLER, size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return sweep::New(CALLER, size, static_cast<std::size_t>(alignment));
}

void operator delete(void* block) noexcept { sweep::Release(block); }
void operator delete[](void* block) noexcept { sweep::Release(block); }
void operator delete(void* block, std::size_t) noexcept { sweep::Release(block); }
void operator delete[](void* block, std::size_t) noexcept { sweep::Release(block); }
void operator delete(void* block, std::align_val_t) noexcept { sweep::Release(block); }
void operator delete[](void* block, std::align_val_t) noexcept { sweep::Release(block); }
void operator delete(void* block, std::size_t, std::align_val_t) noexcept { sweep::Release(block); }
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept {
  sweep::Release(block);
}

#pragma GCC visibility pop
