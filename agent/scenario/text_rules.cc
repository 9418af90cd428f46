// SPDX-License-Identifier: Apache-2.0
#include "scenario/text_rules.h"

#include <fnmatch.h>

#include <cstddef>

namespace sim {
namespace {

constexpr std::size_t kLongestName = 200;
constexpr std::size_t kLongestModelName = 2048;  // a client keeps no more than that

#define LETTERS_AND_DIGITS "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"

std::optional<std::string> OnlyOf(const std::string& text, const char* characters,
                                  const char* said) {
  if (!text.empty() && text.size() <= kLongestName &&
      text.find_first_not_of(characters) == std::string::npos) {
    return std::nullopt;
  }
  return "\"" + text + "\" must be 1 to " + std::to_string(kLongestName) + " of " + said;
}

}  // namespace

std::optional<std::string> NotEmpty(const std::string& text) {
  return text.empty() ? std::optional<std::string>("must not be empty") : std::nullopt;
}

std::optional<std::string> ApplicationId(const std::string& text) {
  if (auto reason = OnlyOf(text, LETTERS_AND_DIGITS "._-", "letters, digits, '.', '_', '-'")) {
    return reason;
  }
  if (text.front() == '.' || text.front() == '-') {
    return "\"" + text + "\" must begin with a letter, a digit or '_'";
  }
  return std::nullopt;
}

std::optional<std::string> PackageVersion(const std::string& text) {
  return OnlyOf(text, LETTERS_AND_DIGITS ".+~_-", "letters, digits, '.', '+', '~', '_', '-'");
}

std::optional<std::string> MetadataKey(const std::string& text) {
  return OnlyOf(text, LETTERS_AND_DIGITS "-", "letters, digits, '-'");
}

std::optional<std::string> ModelName(const std::string& text) {
  if (text.size() > kLongestModelName) {
    return "must not be longer than " + std::to_string(kLongestModelName) +
           " bytes: no client can name it";
  }
  return NotEmpty(text);
}

std::optional<std::string> Pattern(const std::string& text) {
  return OnlyOf(text, LETTERS_AND_DIGITS "._-*?", "letters, digits, '.', '_', '-', '*', '?'");
}

#undef LETTERS_AND_DIGITS

bool Matches(const std::string& pattern, const std::string& text) {
  return fnmatch(pattern.c_str(), text.c_str(), FNM_NOESCAPE) == 0;
}

}  // namespace sim
