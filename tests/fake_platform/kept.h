/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_FAKE_PLATFORM_KEPT_H_
#define SVCMGR_FAKE_PLATFORM_KEPT_H_

/*
 * The ledger of what the library keeps on purpose. The linker puts it in the place of the functions
 * through which the library keeps something. Verify() compares it with what the test expects of it,
 * and fails the test for each difference and for each block that lives without standing in it.
 */

#include <cstddef>
#include <initializer_list>
#include <limits>

namespace fake {

/** What is kept; each is a place in the library that has its reason in a comment. */
enum class Kept {
  kFormerText,  // of a model, when a setter replaces it
  kRecord,      // the temporary one of each model that is converted
  kStorage,     // of a list that is destroyed
  kAppInfo,     // of each package that a search for a category examines
};

/** Instead of a number: each app info that lives, and no other. */
inline constexpr std::size_t kEachThatLives = std::numeric_limits<std::size_t>::max();

/** Expects so many, no more and no fewer; none of each by default. */
void ExpectKept(Kept what, std::size_t n);
/**
 * From here on, in all tests of the program, any number of these may be kept: for what stands on the
 * library and does not say how much it uses it. What is lost is a failure all the same.
 */
void LetBeKept(std::initializer_list<Kept> kinds);
/** How many have been kept so far. */
std::size_t CountKept(Kept what);

}  // namespace fake

#endif  // SVCMGR_FAKE_PLATFORM_KEPT_H_
