// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <iterator>
#include <new>
#include <regex>
#include <set>
#include <string>

#include "failing_allocations.h"
#include "support/command.h"

namespace {

using testing::HasSubstr;

/* The allocation functions. */

struct Aligned {
  alignas(64) char bytes[64];
};

struct Function {
  const char* name;
  bool (*succeeds)();
};

void PrintTo(const Function& function, std::ostream* out) { *out << function.name; }

bool IsBlock(void* block) {
  free(block);
  return block != nullptr;
}

template <typename T>
bool IsNew(T* made) {
  // The optimiser may leave out what nobody looks at.
  T* volatile seen = made;
  delete seen;
  return seen != nullptr;
}

bool IsNewArray(char* made) {
  char* volatile seen = made;
  delete[] seen;
  return seen != nullptr;
}

template <typename Work>
bool DoesNotThrow(Work work) try {
  return work();
} catch (const std::bad_alloc&) {
  return false;
}

// The sizes are read at run time, so that no call is left out or replaced.
volatile std::size_t size = 24;
const char* volatile text = "text";

const Function kFunctions[] = {
    {"malloc", [] { return IsBlock(malloc(size)); }},
    {"calloc", [] { return IsBlock(calloc(2, size)); }},
    {"realloc", [] { return IsBlock(realloc(nullptr, size)); }},
    {"reallocarray", [] { return IsBlock(reallocarray(nullptr, 2, size)); }},
    {"strdup", [] { return IsBlock(strdup(text)); }},
    {"strndup", [] { return IsBlock(strndup(text, size)); }},
    {"memalign", [] { return IsBlock(memalign(64, size)); }},
    {"aligned_alloc", [] { return IsBlock(aligned_alloc(64, 64 * size)); }},
    {"posix_memalign",
     [] {
       void* block = nullptr;
       return posix_memalign(&block, 64, size) == 0 && IsBlock(block);
     }},
    {"asprintf",
     [] {
       char* made = nullptr;
       return asprintf(&made, "%s", text) >= 0 && IsBlock(made);
     }},
    {"new", [] { return DoesNotThrow([] { return IsNew(new int); }); }},
    {"new_nothrow", [] { return IsNew(new (std::nothrow) int); }},
    {"new_aligned", [] { return DoesNotThrow([] { return IsNew(new Aligned); }); }},
    {"new_aligned_nothrow", [] { return IsNew(new (std::nothrow) Aligned); }},
    {"new_array", [] { return DoesNotThrow([] { return IsNewArray(new char[size]); }); }},
    {"string", [] { return DoesNotThrow([] { return std::string(4 * size, 'x')[size] == 'x'; }); }},
};

class AnAllocationFunction : public testing::TestWithParam<Function> {
 protected:
  void TearDown() override { sweep::Disarm(); }

  bool SucceedsArmed(long first, long burst) {
    sweep::Arm(first, burst, &failures);
    const bool succeeds = GetParam().succeeds();
    sweep::Disarm();
    return succeeds;
  }

  sweep::Failures failures;
};

INSTANTIATE_TEST_SUITE_P(Each, AnAllocationFunction, testing::ValuesIn(kFunctions),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(AnAllocationFunction, SucceedsUnlessItIsItsTurn) {
  EXPECT_TRUE(GetParam().succeeds());
  EXPECT_TRUE(SucceedsArmed(100, 1));
  EXPECT_GE(failures.counted, 1);
  EXPECT_EQ(failures.failed, 0);
}

TEST_P(AnAllocationFunction, FailsWhenItIsItsTurnAndTellsItsStack) {
  EXPECT_FALSE(SucceedsArmed(1, 1));
  EXPECT_EQ(failures.failed, 1);
  EXPECT_GT(failures.first.depth, 2);
  EXPECT_NE(failures.callers[0], nullptr);
}

TEST_P(AnAllocationFunction, FailsInEachTurnOfABurst) {
  // An exception is an allocation, too, so that what throws takes two turns at a time.
  constexpr int kBurst = 4;
  sweep::Arm(1, kBurst, &failures);
  bool failed_in_all_turns = true;
  while (failures.failed < kBurst && failed_in_all_turns) {
    failed_in_all_turns = !GetParam().succeeds();
  }
  const bool succeeds_behind = GetParam().succeeds();
  sweep::Disarm();
  EXPECT_TRUE(failed_in_all_turns);
  EXPECT_TRUE(succeeds_behind);
  EXPECT_EQ(failures.failed, kBurst);
}

TEST_P(AnAllocationFunction, NeverFailsWhereItDoesNotCount) {
  sweep::Arm(1, 1000, &failures);
  bool succeeds = false;
  {
    const sweep::Uncounted uncounted;
    succeeds = GetParam().succeeds();
  }
  sweep::Disarm();
  EXPECT_TRUE(succeeds);
  EXPECT_EQ(failures.counted, 0);
}

TEST(LivingBlocks, AreCountedUntilTheyAreReleased) {
  static sweep::LiveBlocks places[64];
  const auto count = [] {
    long blocks = 0;
    const int count_of_places = sweep::CountLiveBlocks(places, 64);
    for (int i = 0; i < count_of_places; ++i) blocks += places[i].blocks;
    return blocks;
  };
  sweep::TrackBlocks();
  const long before = count();
  void* blocks[3];
  for (void*& block : blocks) block = malloc(size);
  blocks[0] = realloc(blocks[0], 100 * size);
  const long with_all = count();
  for (void* const block : blocks) free(block);
  const long after = count();
  EXPECT_EQ(with_all, before + 3);
  EXPECT_EQ(after, before);
}

/* The sweep itself. */

Ran Sweep(const std::string& arguments) { return RunCommand("'" SWEEP "' " + arguments + " 2>&1"); }

/** The names of exported functions in a text. */
std::set<std::string> FunctionsIn(const std::string& listing) {
  static const std::regex name("velmora_svcmgr_[a-z_]+");
  const std::sregex_token_iterator first(listing.begin(), listing.end(), name);
  return {first, std::sregex_token_iterator()};
}

TEST(TheSweep, CallsEachFunctionOfTheLibrary) {
  std::ifstream file(EXPORTS);
  const std::string exports{std::istreambuf_iterator<char>(file), {}};
  const auto all = FunctionsIn(exports);
  EXPECT_GT(all.size(), 40U);
  EXPECT_EQ(FunctionsIn(RunCommand("nm -D --undefined-only '" SWEEP "'").output), all);
}

TEST(TheSweep, FindsNothingInAShareOfTheAllocations) {
  const Ran swept = Sweep("--stride 29");
  EXPECT_EQ(swept.status, 0) << swept.output;
}

struct PlantedFault {
  const char* name;
  const char* found;
  int stride = 1;
};

void PrintTo(const PlantedFault& fault, std::ostream* out) { *out << fault.name; }

class APlantedFault : public testing::TestWithParam<PlantedFault> {};
INSTANTIATE_TEST_SUITE_P(
    Of, APlantedFault,
    testing::Values(PlantedFault{"block", "leaves blocks allocated"},
                    PlantedFault{"descriptor", "leaves 1 descriptors open"},
                    PlantedFault{"crash", "dies of Segmentation fault"},
                    // Each run waits for the answer.
                    PlantedFault{"request", "a request that was never sent was not answered", 5}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_P(APlantedFault, IsFound) {
  // Some of these fail without ending the process; others are GLib's.
  const Ran swept =
      Sweep("--from connection --burst 1 --first 55 --last 65 --workers 1 --plant " +
            std::string(GetParam().name) + " --stride " + std::to_string(GetParam().stride));
  EXPECT_EQ(swept.status, 1) << swept.output;
  EXPECT_THAT(swept.output, HasSubstr(GetParam().found));
}

TEST(AWrongOption, IsRefused) { EXPECT_EQ(Sweep("--stride none").status, 2); }

}  // namespace
