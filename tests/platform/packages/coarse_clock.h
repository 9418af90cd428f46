// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_PLATFORM_PACKAGES_COARSE_CLOCK_H_
#define TESTS_PLATFORM_PACKAGES_COARSE_CLOCK_H_

// The platform's coarse clock (CLOCK_MONOTONIC_COARSE) stands still in a program that links this,
// except for what a test lets pass.
void LetPass(int milliseconds);

// After this, a look-up sees what was done by hand in a folder that the desktop's tools write.
inline void LetNewsBeHeard() { LetPass(10); }

#endif  // TESTS_PLATFORM_PACKAGES_COARSE_CLOCK_H_
