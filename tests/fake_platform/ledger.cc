// SPDX-License-Identifier: Apache-2.0
// The ledger of blocks: which blocks live, which were released, which allocation is to fail.

#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <set>
#include <type_traits>
#include <utility>
#include <vector>

#include "internal.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SVCMGR_FAKE_SANITIZED 1
#endif
#if __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define SVCMGR_FAKE_SANITIZED 1
#define SVCMGR_FAKE_KEEPS_NEW 1
#endif
#if __has_feature(memory_sanitizer)
#include <sanitizer/msan_interface.h>
#define SVCMGR_FAKE_MAKE_READABLE __msan_unpoison
#endif
#endif
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
#define SVCMGR_FAKE_SANITIZED 1
#endif

// Clang's ThreadSanitizer and MemorySanitizer bring an operator new that cannot be replaced.
#ifndef SVCMGR_FAKE_KEEPS_NEW
#define SVCMGR_FAKE_REPLACES_NEW 1
#endif

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* block, std::size_t size);
char* __real_strdup(const char* text);
char* __real_strndup(const char* text, std::size_t size);
void __real_free(void* block);

void* __wrap_malloc(std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size);
void* __wrap_realloc(void* block, std::size_t size);
char* __wrap_strdup(const char* text);
char* __wrap_strndup(const char* text, std::size_t size);
void __wrap_free(void* block);
}

namespace fake {
namespace {

using internal::Guard;

// Of a block that is lost nothing may ever have been written.
void MakeReadable([[maybe_unused]] const void* bytes, [[maybe_unused]] std::size_t size) {
#ifdef SVCMGR_FAKE_MAKE_READABLE
  SVCMGR_FAKE_MAKE_READABLE(bytes, size);
#endif
}

constexpr char kNewOrigin[] = "new";

struct Entry {
  std::size_t size;
  std::string origin;
  std::uint64_t order;
};

/** How many blocks of operator new the ledger holds; each delete looks here first. */
std::atomic<int> tracked_news{0};

struct Ledger {
  bool open = false;  // nothing is tracked before the first Reset
  std::map<void*, Entry> live;
  std::set<void*> released;
  std::uint64_t next_order = 0;
};

Ledger& ledger() {
  static Ledger* const forever = new Ledger;
  return *forever;
}

struct Armed {
  Allocator which = Allocator::kAny;
  int left = 0;  // allocations until the one that fails; 0: not armed
  bool fail_all = false;
  bool happened = false;
};

thread_local Armed armed;
thread_local int new_tracking = 0;
bool all_news = false;

bool ShouldFail(Allocator which) {
  if (internal::InsideFake()) return false;
  if (internal::hooks.on_allocation != nullptr && internal::hooks.on_allocation(which)) return true;
  if (armed.which != Allocator::kAny && armed.which != which) return false;
  if (armed.happened) return armed.fail_all;
  if (armed.left == 0) return false;
  --armed.left;
  if (armed.left > 0) return false;
  armed.happened = true;
  return true;
}

void* Enter(void* block, std::size_t size, const char* origin) {
  if (block == nullptr || internal::InsideFake()) return block;
  const Guard guard;
  if (!ledger().open) return block;
  ledger().released.erase(block);
  ledger().live[block] = {size, origin, ledger().next_order++};
  if (internal::hooks.on_block != nullptr) internal::hooks.on_block(block);
  return block;
}

/** Takes a block out of the ledger; false if it must not be released. */
bool Leave(void* block) {
  const Guard guard;
  if (internal::IsPoison(block)) {
    Fault("garbage is released");
    return false;
  }
  if (ledger().live.erase(block) > 0) {
    ledger().released.insert(block);
    internal::ForgetKept(block);
    return true;
  }
  if (ledger().released.count(block) == 0) return true;
  Fault("a block is released twice");
  return false;
}

/** Frees a released block or, where no sanitizer watches, keeps it, filled with a pattern. */
void Discard(void* block, std::size_t size) {
#ifdef SVCMGR_FAKE_SANITIZED
  static_cast<void>(size);
  __real_free(block);
#else
  std::memset(block, 0xdd, size);
#endif
}

[[maybe_unused]] void EnterNew(void* block, std::size_t size) {
  if (internal::InsideFake()) return;
  Enter(block, size, kNewOrigin);
  tracked_news.fetch_add(1, std::memory_order_relaxed);
}

[[maybe_unused]] void LeaveNew(void* block) {
  if (internal::InsideFake() || tracked_news.load(std::memory_order_relaxed) == 0) return;
  const Guard guard;
  internal::ForgetKept(block);
  if (ledger().live.erase(block) > 0) tracked_news.fetch_sub(1, std::memory_order_relaxed);
}

std::size_t LiveSize(void* block) {
  const Guard guard;
  const auto found = ledger().live.find(block);
  return found == ledger().live.end() ? 0 : found->second.size;
}

bool IsLive(void* block) {
  const Guard guard;
  return ledger().live.count(block) > 0;
}

}  // namespace

namespace internal {

void TrackNew() { all_news = true; }

void ResetLedger() {
  Ledger& l = ledger();
  l.open = true;
  l.live.clear();
  tracked_news = 0;
#ifndef SVCMGR_FAKE_SANITIZED
  for (void* block : l.released) __real_free(block);
#endif
  l.released.clear();
}

void ReleaseLiveBlocks() {
#ifdef SVCMGR_FAKE_SANITIZED
  // Through some of them the library leads leak checkers to what it keeps on purpose.
  static auto* const kept = new std::vector<std::map<void*, Entry>>;
  kept->push_back(std::exchange(ledger().live, {}));
#endif
  for (const auto& [block, entry] : ledger().live) {
    if (entry.origin == kNewOrigin) {
      ::operator delete(block);
    } else {
      __real_free(block);
    }
  }
  ledger().live.clear();
  tracked_news = 0;
}

std::string OriginOf(const void* block) {
  const auto found = ledger().live.find(const_cast<void*>(block));
  return found == ledger().live.end() ? "" : found->second.origin;
}

void* PoisonPointer() { return reinterpret_cast<void*>(0x5a5a5a5a5a5a5a5aUL); }

bool IsPoison(const void* pointer) { return pointer == PoisonPointer(); }

char* HandOut(const char* function, const std::string& text) {
  const Guard guard;
  auto* const copy = static_cast<char*>(__real_malloc(text.size() + 1));
  std::memcpy(copy, text.c_str(), text.size() + 1);
  if (ledger().open) {
    ledger().released.erase(copy);
    ledger().live[copy] = {text.size() + 1, function, ledger().next_order++};
    if (hooks.on_block != nullptr) hooks.on_block(copy);
  }
  return copy;
}

}  // namespace internal

std::string Block::Text() const {
  const auto* const bytes = static_cast<const char*>(pointer);
  MakeReadable(bytes, size);
  return {bytes, std::find(bytes, bytes + size, '\0')};
}

std::vector<Block> LiveBlocks() {
  const Guard guard;
  std::map<std::uint64_t, Block> ordered;
  for (const auto& [pointer, entry] : ledger().live) {
    ordered[entry.order] = {pointer, entry.size, entry.origin};
  }
  std::vector<Block> blocks;
  for (const auto& [order, block] : ordered) blocks.push_back(block);
  return blocks;
}

bool SeesOperatorNew() {
#ifdef SVCMGR_FAKE_REPLACES_NEW
  return true;
#else
  return false;
#endif
}

NewTracking::NewTracking() { ++new_tracking; }
NewTracking::~NewTracking() { --new_tracking; }

FailingAllocation::FailingAllocation(Allocator which, int n, Then then) {
  armed = {which, n, then == Then::kFailAll, false};
}

FailingAllocation::~FailingAllocation() { armed = {}; }

bool FailingAllocation::Happened() const { return armed.happened; }

}  // namespace fake

using fake::Allocator;

void* __wrap_malloc(std::size_t size) {
  if (fake::ShouldFail(Allocator::kMalloc)) return nullptr;
  return fake::Enter(__real_malloc(size), size, "malloc");
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
  if (fake::ShouldFail(Allocator::kCalloc)) return nullptr;
  return fake::Enter(__real_calloc(count, size), count * size, "calloc");
}

void* __wrap_realloc(void* block, std::size_t size) {
  if (fake::ShouldFail(Allocator::kRealloc)) return nullptr;
  if (block == nullptr) return fake::Enter(__real_malloc(size), size, "realloc");
  if (!fake::IsLive(block)) return __real_realloc(block, size);
  void* const moved = __real_malloc(size);
  if (moved == nullptr) return nullptr;
  std::memcpy(moved, block, std::min(size, fake::LiveSize(block)));
  __wrap_free(block);
  return fake::Enter(moved, size, "realloc");
}

char* __wrap_strdup(const char* text) {
  if (fake::ShouldFail(Allocator::kStrdup)) return nullptr;
  char* const copy = __real_strdup(text);
  if (copy != nullptr) fake::Enter(copy, std::strlen(copy) + 1, "strdup");
  return copy;
}

char* __wrap_strndup(const char* text, std::size_t size) {
  if (fake::ShouldFail(Allocator::kStrndup)) return nullptr;
  char* const copy = __real_strndup(text, size);
  if (copy != nullptr) fake::Enter(copy, std::strlen(copy) + 1, "strndup");
  return copy;
}

void __wrap_free(void* block) {
  if (block == nullptr) return;
  const bool tracked = fake::IsLive(block);
  const std::size_t size = fake::LiveSize(block);
  if (!fake::Leave(block)) return;
  if (tracked) {
    fake::Discard(block, size);
  } else {
    __real_free(block);
  }
}

#ifdef SVCMGR_FAKE_REPLACES_NEW
/*
 * The global operator new and delete. They call the next definition, so that a sanitizer still
 * tells blocks of new from blocks of malloc.
 */

namespace {

// A symbol's name spells out its parameters' types, and std::size_t is not the same type
// everywhere.
constexpr const char* kNewSymbol = std::is_same_v<std::size_t, unsigned long> ? "_Znwm" : "_Znwj";

template <typename Function>
Function NextDefinition(const char* symbol) {
  void* const next = dlsym(RTLD_NEXT, symbol);
  if (next == nullptr) std::abort();
  return reinterpret_cast<Function>(next);
}

void* NextNew(std::size_t size) {
  static const auto next = NextDefinition<void* (*)(std::size_t)>(kNewSymbol);
  return next(size);
}

void NextDelete(void* block) {
  static const auto next = NextDefinition<void (*)(void*)>("_ZdlPv");
  next(block);
}

}  // namespace

void* operator new(std::size_t size) {
  if (fake::ShouldFail(Allocator::kNew)) throw std::bad_alloc();
  void* const block = NextNew(size);
  if (fake::new_tracking > 0 || fake::all_news) fake::EnterNew(block, size);
  return block;
}

void operator delete(void* block) noexcept {
  if (block == nullptr) return;
  fake::LeaveNew(block);
  NextDelete(block);
}

void operator delete(void* block, std::size_t) noexcept { ::operator delete(block); }

// Sanitizers have one of their own, which would not come here.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return ::operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
#endif  // SVCMGR_FAKE_REPLACES_NEW
