// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SWEEP_PLACES_H_
#define TESTS_SWEEP_PLACES_H_

#include <string>
#include <vector>

#include "failing_allocations.h"

namespace sweep {

/** Whether this address is in a shared library whose file name begins so. */
bool IsIn(const void* address, const char* library);

/** Whether this address is in an exported function of this name. */
bool IsOf(const void* address, const char* function);

/** Identifies the shared library, or program, that contains this address. */
const void* LibraryOf(const void* address);

/** Whether code at this address is the client library's or the desktop platform's. */
bool IsOfThisTree(const void* address);

/** A stack of this process in words, "function (file:line)", outermost last. */
std::vector<std::string> Describe(const Stack& stack);

/** A text that is the same for the same stack in every process of this program. */
std::string Fingerprint(const Stack& stack);

/**
 * The frame of a described stack that a reader looks for: the innermost of this tree's libraries.
 */
std::string PlaceOf(const Stack& stack);

}  // namespace sweep

#endif  // TESTS_SWEEP_PLACES_H_
