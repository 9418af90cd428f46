// SPDX-License-Identifier: Apache-2.0
#include "kept.h"

#include <algorithm>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "internal.h"

// Of svcmgr::KeptBlocks and svcmgr::KeepStorage, svcmgr::KeepLink, by the names that the linker knows.
// A program without the library's objects has none of them.
extern "C" {
void __real__ZN6svcmgr10KeptBlocks3AddEPv(void* self, void* block) __attribute__((weak));
void __real__ZN6svcmgr11KeepStorageEPv(void* storage) __attribute__((weak));
void __real__ZN6svcmgr8KeepLinkEPv(void* link) __attribute__((weak));

void __wrap__ZN6svcmgr10KeptBlocks3AddEPv(void* self, void* block);
void __wrap__ZN6svcmgr11KeepStorageEPv(void* storage);
void __wrap__ZN6svcmgr8KeepLinkEPv(void* link);
}

namespace fake {

using internal::Guard;
using internal::state;

namespace {

struct KeptLedger {
  std::map<Kept, std::size_t> counts;
  std::map<Kept, std::size_t> expected;
  std::set<const void*> blocks;
};

KeptLedger& kept_ledger() {
  static auto* const forever = new KeptLedger;
  return *forever;
}

std::set<Kept>& let_be() {
  static auto* const forever = new std::set<Kept>;
  return *forever;
}

const char* NameOf(Kept what) {
  switch (what) {
    case Kept::kFormerText:
      return "former text(s)";
    case Kept::kRecord:
      return "converted record(s)";
    case Kept::kStorage:
      return "list storage(s)";
    case Kept::kAppInfo:
      return "app info(s)";
  }
  return "?";
}

Kept KindOf(const void* block) {
  if (state().objects.count(block) > 0) return Kept::kAppInfo;
  return internal::OriginOf(block) == "calloc" ? Kept::kRecord : Kept::kFormerText;
}

void Note(const void* block) {
  kept_ledger().blocks.insert(block);
  if (internal::hooks.on_kept != nullptr) internal::hooks.on_kept(block);
}

void Note(const void* block, Kept what) {
  if (!kept_ledger().blocks.insert(block).second) Fault("a block is kept twice");
  ++kept_ledger().counts[what];
  Note(block);
}

}  // namespace

void ExpectKept(Kept what, std::size_t n) {
  const Guard guard;
  kept_ledger().expected[what] = n;
}

void LetBeKept(std::initializer_list<Kept> kinds) {
  const Guard guard;
  let_be().insert(kinds);
}

std::size_t CountKept(Kept what) {
  const Guard guard;
  return kept_ledger().counts[what];
}

namespace internal {

namespace {

/** What a record that is kept holds is kept with it. */
std::set<const void*> WithContents(const std::set<const void*>& kept,
                                   const std::vector<Block>& blocks) {
  std::set<const void*> all = kept;
  for (const Block& block : blocks) {
    if (kept.count(block.pointer) == 0 || block.origin != "calloc") continue;
    const auto* const fields = static_cast<const void* const*>(block.pointer);
    all.insert(fields, fields + block.size / sizeof *fields);
  }
  return all;
}

std::size_t Expected(Kept what) {
  const std::size_t expected = kept_ledger().expected[what];
  return expected == kEachThatLives ? static_cast<std::size_t>(LiveObjects(Kind::kAppInfo))
                                    : expected;
}

}  // namespace

void JudgeKept(std::ostream& verdict) {
  KeptLedger& l = kept_ledger();
  for (const Kept what : {Kept::kFormerText, Kept::kRecord, Kept::kStorage, Kept::kAppInfo}) {
    if (let_be().count(what) > 0 || l.counts[what] == Expected(what)) continue;
    verdict << "\n  " << l.counts[what] << ' ' << NameOf(what) << " kept, " << Expected(what)
            << " expected";
  }
  const std::vector<Block> blocks = LiveBlocks();
  const std::set<const void*> kept = WithContents(l.blocks, blocks);
  for (const Block& block : blocks) {
    if (kept.count(block.pointer) > 0) continue;
    verdict << "\n  lost: " << block.size << " bytes of " << block.origin << ": \"" << block.Text()
            << '"';
  }
}

void ResetKept() { kept_ledger() = {}; }

void ForgetKept(const void* block) { kept_ledger().blocks.erase(block); }

}  // namespace internal
}  // namespace fake

void __wrap__ZN6svcmgr10KeptBlocks3AddEPv(void* self, void* block) {
  {
    const fake::internal::Guard guard;
    fake::Note(block, fake::KindOf(block));
  }
  if (__real__ZN6svcmgr10KeptBlocks3AddEPv != nullptr) {
    __real__ZN6svcmgr10KeptBlocks3AddEPv(self, block);
  }
}

void __wrap__ZN6svcmgr11KeepStorageEPv(void* storage) {
  {
    const fake::internal::Guard guard;
    fake::Note(storage, fake::Kept::kStorage);
  }
  if (__real__ZN6svcmgr11KeepStorageEPv != nullptr) __real__ZN6svcmgr11KeepStorageEPv(storage);
}

void __wrap__ZN6svcmgr8KeepLinkEPv(void* link) {
  {
    const fake::internal::Guard guard;
    fake::Note(link);
  }
  __real__ZN6svcmgr8KeepLinkEPv(link);
}
