// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SUPPORT_LINES_H_
#define TESTS_SUPPORT_LINES_H_

#include <sstream>
#include <string>
#include <vector>

/** The lines of a text, without their ends. */
inline std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

#endif  // TESTS_SUPPORT_LINES_H_
