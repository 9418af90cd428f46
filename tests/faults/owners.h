/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_TESTS_FAULTS_OWNERS_H_
#define SVCMGR_TESTS_FAULTS_OWNERS_H_

/* Whose code is at work: the library's, or the test's that uses it. */

#include <array>
#include <cstdint>

namespace faults {

enum class Owner { kNobody, kLibrary, kTest };

/** Where a call came from: the frames of the library's and of the test's code, innermost first. */
struct Caller {
  static constexpr int kMost = 8;

  /** Whose the innermost is; nobody's if there is no such frame within reach. */
  Owner owner = Owner::kNobody;
  int depth = 0;
  /** Relative to where the program is loaded, and inside the instruction of the call. */
  std::array<std::uintptr_t, kMost> frames{};
};

/**
 * Reads what belongs to whom: lines that begin with "START SIZE OWNER", in hexadecimal digits, the
 * owner L or T. False if the file cannot be read.
 */
bool LoadOwners(const char* file);

/** Who calls, seen from the caller of this function; allocates nothing of the ledger's. */
Caller FindCaller();

/** Whether a place lies in the function at `function`. */
bool IsIn(std::uintptr_t place, const void* function);

}  // namespace faults

#endif  // SVCMGR_TESTS_FAULTS_OWNERS_H_
