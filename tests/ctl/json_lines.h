// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_CTL_JSON_LINES_H_
#define TESTS_CTL_JSON_LINES_H_

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/lines.h"

/** The documents of a text that has one in each line. */
inline std::vector<nlohmann::json> JsonLines(const std::string& text) {
  std::vector<nlohmann::json> documents;
  for (const std::string& line : Lines(text)) documents.push_back(nlohmann::json::parse(line));
  return documents;
}

#endif  // TESTS_CTL_JSON_LINES_H_
