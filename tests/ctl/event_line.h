// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_CTL_EVENT_LINE_H_
#define TESTS_CTL_EVENT_LINE_H_

#include <gmock/gmock.h>

#include <string>

/** Matches a line for people about work that is followed: the time so far, and this text. */
inline auto Says(const std::string& text) {
  return testing::AllOf(testing::MatchesRegex(" *[0-9]+\\.[0-9] s  .*"),
                        testing::EndsWith(" s  " + text));
}

#endif  // TESTS_CTL_EVENT_LINE_H_
