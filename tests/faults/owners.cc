// SPDX-License-Identifier: Apache-2.0
#include "owners.h"

#include <link.h>
#include <unwind.h>

#include <algorithm>
#include <fstream>
#include <ios>
#include <string>
#include <utility>
#include <vector>

namespace faults {
namespace {

struct Range {
  std::uintptr_t start;
  std::uintptr_t end;
  Owner owner;
};

std::vector<Range>& Ranges() {
  static auto* const forever = new std::vector<Range>;
  return *forever;
}

std::uintptr_t LoadAddress() {
  static const std::uintptr_t address = [] {
    std::uintptr_t found = 0;
    // The program itself comes first.
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* out) {
          *static_cast<std::uintptr_t*>(out) = info->dlpi_addr;
          return 1;
        },
        &found);
    return found;
  }();
  return address;
}

const Range* RangeOf(std::uintptr_t place) {
  const auto& ranges = Ranges();
  auto after =
      std::upper_bound(ranges.begin(), ranges.end(), place,
                       [](std::uintptr_t p, const Range& range) { return p < range.start; });
  if (after == ranges.begin()) return nullptr;
  --after;
  return place < after->end ? &*after : nullptr;
}

_Unwind_Reason_Code Step(_Unwind_Context* context, void* data) {
  // Containers of the standard library, at most, lie between the library and what it calls.
  constexpr int kMostFrames = 64;
  auto* const walk = static_cast<std::pair<Caller, int>*>(data);
  Caller& caller = walk->first;
  const std::uintptr_t place = _Unwind_GetIP(context) - 1 - LoadAddress();
  const Range* const range = RangeOf(place);
  if (range != nullptr) {
    if (caller.depth == 0) caller.owner = range->owner;
    caller.frames[static_cast<std::size_t>(caller.depth++)] = place;
  }
  const bool enough = caller.owner == Owner::kTest || caller.depth == Caller::kMost;
  return enough || ++walk->second == kMostFrames ? _URC_END_OF_STACK : _URC_NO_REASON;
}

}  // namespace

bool LoadOwners(const char* file) {
  std::ifstream in(file);
  if (!in) return false;
  std::uintptr_t start = 0;
  std::uintptr_t size = 0;
  char owner = 0;
  std::string rest;
  while (in >> std::hex >> start >> size >> owner && std::getline(in, rest)) {
    Ranges().push_back({start, start + size, owner == 'L' ? Owner::kLibrary : Owner::kTest});
  }
  std::sort(Ranges().begin(), Ranges().end(),
            [](const Range& a, const Range& b) { return a.start < b.start; });
  LoadAddress();
  return !Ranges().empty();
}

Caller FindCaller() {
  std::pair<Caller, int> walk;
  _Unwind_Backtrace(Step, &walk);
  return walk.first;
}

bool IsIn(std::uintptr_t place, const void* function) {
  const Range* const range = RangeOf(place);
  return range != nullptr &&
         range->start == reinterpret_cast<std::uintptr_t>(function) - LoadAddress();
}

}  // namespace faults
