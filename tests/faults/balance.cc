// SPDX-License-Identifier: Apache-2.0
#include "balance.h"

#include <link.h>
#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <vector>

#include "fake_platform.h"
#include "injection.h"
#include "internal.h"
#include "owners.h"

namespace faults {
namespace {

using fake::internal::Guard;

/** All of it hidden from the search. */
struct Account {
  std::map<const void*, Caller> judged;  // blocks of the library's, by who made them
  std::set<const void*> given;
  std::set<const void*> released;
  std::set<const void*> kept;
  std::set<int> open;
  std::set<const void*> let_go;  // of objects: the platform may have refused to take them
};

Account& account() {
  static auto* const forever = new Account;
  return *forever;
}

thread_local int at_work = 0;

void OnBlock(void* block) {
  account().judged.erase(block);
  account().given.erase(block);
  account().released.erase(block);
  if (at_work == 0) return;
  const Caller caller = FindCaller();
  if (caller.owner == Owner::kLibrary) account().judged[block] = caller;
}

/** Something that lives: a block, or an object of the platform, of which only the handle counts. */
struct Thing {
  std::uintptr_t start;
  std::uintptr_t size;
  const fake::Block* block;  // or
  const fake::internal::Object* object;
  bool reached;
};

class Search {
 public:
  Search(const std::vector<fake::Block>& blocks) {
    for (const fake::Block& block : blocks) {
      things_.push_back(
          {Address(block.pointer), std::max<std::size_t>(block.size, 1), &block, nullptr, false});
    }
    for (const auto& [handle, object] : fake::internal::state().objects) {
      if (object->alive) things_.push_back({Address(handle), 1, nullptr, object.get(), false});
    }
    std::sort(things_.begin(), things_.end(),
              [](const Thing& a, const Thing& b) { return a.start < b.start; });
  }

  /** From what is not judged, and from what has been given away or is kept. */
  void StartFromOwned() {
    for (Thing& thing : things_) {
      const void* const pointer = reinterpret_cast<const void*>(thing.start);
      const bool judged = thing.object != nullptr || account().judged.count(pointer) > 0;
      const bool let_go = account().let_go.count(pointer) > 0;
      if (!judged || let_go || account().given.count(pointer) > 0 ||
          account().kept.count(pointer) > 0) {
        Reach(thing);
      }
    }
    Follow();
  }

  void StartFromProgram() {
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* self) {
          for (int i = 0; i < info->dlpi_phnum; ++i) {
            const auto& segment = info->dlpi_phdr[i];
            if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) == 0) continue;
            static_cast<Search*>(self)->Scan(info->dlpi_addr + segment.p_vaddr, segment.p_memsz);
          }
          return 1;  // the program itself comes first
        },
        this);
    Follow();
  }

  void StartFromStack(const void* frames) {
    pthread_attr_t attributes;
    void* lowest = nullptr;
    std::size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) return;
    pthread_attr_getstack(&attributes, &lowest, &size);
    pthread_attr_destroy(&attributes);
    Scan(Address(frames), Address(lowest) + size - Address(frames));
    Follow();
  }

  std::vector<const Thing*> Lost() const {
    std::vector<const Thing*> lost;
    for (const Thing& thing : things_) {
      if (!thing.reached) lost.push_back(&thing);
    }
    return lost;
  }

 private:
  static std::uintptr_t Address(const void* pointer) {
    return reinterpret_cast<std::uintptr_t>(pointer);
  }

  void Reach(Thing& thing) {
    if (thing.reached) return;
    thing.reached = true;
    if (thing.block != nullptr) open_.push_back(&thing);
  }

  void Follow() {
    while (!open_.empty()) {
      const Thing* const thing = open_.back();
      open_.pop_back();
      Scan(thing->start, thing->size);
    }
  }

  __attribute__((no_sanitize("address"))) void Scan(std::uintptr_t start, std::uintptr_t size) {
    const std::uintptr_t end = start + size;
    start = (start + sizeof(void*) - 1) / sizeof(void*) * sizeof(void*);
    for (; start + sizeof(void*) <= end; start += sizeof(void*)) {
      const std::uintptr_t word = *reinterpret_cast<const std::uintptr_t*>(start);
      auto after = std::upper_bound(things_.begin(), things_.end(), word,
                                    [](std::uintptr_t w, const Thing& t) { return w < t.start; });
      if (after == things_.begin()) continue;
      --after;
      if (word < after->start + after->size) Reach(*after);
    }
  }

  std::vector<Thing> things_;
  std::vector<Thing*> open_;
};

}  // namespace

void WatchBalance() {
  account();  // before it hears of blocks
  fake::internal::hooks.on_block = OnBlock;
  // Also what cannot be chained for want of memory.
  fake::internal::hooks.on_kept = [](const void* block) {
    const Guard guard;
    account().kept.insert(block);
  };
  fake::internal::hooks.on_release = [](const void* handle) {
    const Guard guard;
    account().let_go.insert(handle);
  };
  fake::internal::hooks.on_callback = [](bool begins) { at_work += begins ? 1 : -1; };
  fake::internal::TrackNew();
}

void RestartBalance() {
  const Guard guard;
  account() = {};
}

void GiveToApplication(const void* block) {
  const Guard guard;
  account().given.insert(block);
}

void TakeFromApplication(const void* block) {
  const Guard guard;
  account().given.erase(block);
  account().released.insert(block);
}

bool IsReleased(const void* block) {
  const Guard guard;
  return account().released.count(block) > 0;
}

void NoteOpened(int descriptor) {
  const Guard guard;
  account().open.insert(descriptor);
}

void NoteClosed(int descriptor) {
  const Guard guard;
  account().open.erase(descriptor);
}

Judged::Judged() { ++at_work; }
Judged::~Judged() { --at_work; }

bool LibraryIsAtWork() { return at_work > 0; }

void JudgeBalance(const void* frames) {
  const Guard guard;
  if (!account().open.empty()) FindAt({}, "lost: a descriptor");
  const std::vector<fake::Block> blocks = fake::LiveBlocks();
  Search search(blocks);
  search.StartFromOwned();
  search.StartFromProgram();
  search.StartFromStack(frames);
  for (const auto* const lost : search.Lost()) {
    if (lost->object != nullptr) {
      FindAt({}, "lost: %s", fake::internal::KindName(lost->object->kind));
    } else {
      FindAt(account().judged[lost->block->pointer], "lost: a block of %s",
             lost->block->origin.c_str());
    }
  }
}

}  // namespace faults
