// SPDX-License-Identifier: Apache-2.0
#include "terminal_text.h"

#include <glib.h>

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <utility>

#include "terminal_characters.h"

namespace terminal_text {
namespace {

// What is above it are GLib's marks for bytes that are no character.
constexpr gunichar kLastCharacter = 0x10FFFF;

std::string ByteNumber(unsigned byte) {
  char shown[16];
  std::snprintf(shown, sizeof shown, "\\x%02X", byte);
  return shown;
}

std::string CharacterNumber(unsigned c) {
  char shown[16];
  std::snprintf(shown, sizeof shown, "\\u%04X", c);
  return shown;
}

std::string Escaped(gunichar c) {
  if (c == '\n') return "\\n";
  if (c == '\r') return "\\r";
  if (c == '\t') return "\\t";
  return c < 0x80 ? ByteNumber(c) : CharacterNumber(c);
}

std::size_t CellsOf(gunichar c) {
  if (g_unichar_iszerowidth(c)) return 0;
  return g_unichar_iswide(c) ? 2 : 1;
}

/** How many characters have to be replaced, put in, taken out, or exchanged with their neighbour. */
std::size_t EditDistance(std::string_view a, std::string_view b) {
  using Row = std::vector<std::size_t>;
  Row row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  Row above;
  Row two_above;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    two_above = std::exchange(above, row);
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t replaced = above[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      row[j] = std::min({above[j] + 1, row[j - 1] + 1, replaced});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        row[j] = std::min(row[j], two_above[j - 2] + 1);
    }
  }
  return row[b.size()];
}

}  // namespace

std::string ForTerminal(std::string_view text, Layout layout) {
  std::string safe;
  safe.reserve(text.size());
  while (!text.empty()) {
    const auto first = static_cast<guchar>(text[0]);
    const gunichar c =
        first < 0x80 ? first
                     : g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
    const bool valid = c <= kLastCharacter;
    const std::size_t length = valid ? static_cast<std::size_t>(g_unichar_to_utf8(c, nullptr)) : 1;
    if (!valid)
      safe += ByteNumber(first);
    else if (base::IsUnsafeOnTerminal(c) && !(layout == Layout::kKeep && (c == '\n' || c == '\t')))
      safe += Escaped(c);
    else
      safe += text.substr(0, length);
    text.remove_prefix(length);
  }
  return safe;
}

std::size_t CellWidth(std::string_view text) {
  std::size_t cells = 0;
  const char* const end = text.data() + text.size();
  for (const char* p = text.data(); p < end; p = g_utf8_next_char(p))
    cells += CellsOf(g_utf8_get_char(p));
  return cells;
}

std::string FirstCells(std::string_view text, std::size_t cells) {
  const char* const begin = text.data();
  const char* const end = begin + text.size();
  const char* p = begin;
  for (std::size_t left = cells; p < end; p = g_utf8_next_char(p)) {
    const std::size_t width = CellsOf(g_utf8_get_char(p));
    if (width > left) break;
    left -= width;
  }
  return std::string(begin, p);
}

std::string Shortened(std::string_view message) {
  constexpr std::size_t kBegin = 400;
  constexpr std::size_t kEnd = 100;
  if (message.size() <= kBegin + kEnd) return std::string(message);
  // No character has more than three bytes that go on with it.
  const auto goes_on = [&](std::size_t at) {
    return (static_cast<unsigned char>(message[at]) & 0xC0) == 0x80;
  };
  std::size_t begin = kBegin;
  while (begin > kBegin - 3 && goes_on(begin)) --begin;
  std::size_t end = message.size() - kEnd;
  while (end < message.size() - kEnd + 3 && goes_on(end)) ++end;
  return std::string(message.substr(0, begin)) + "\u2026" + std::string(message.substr(end));
}

std::vector<std::string> SimilarTo(std::string_view word,
                                   const std::vector<std::string>& candidates) {
  constexpr std::size_t kAtMost = 3;
  // The cost of comparing grows with the product of the lengths, and nobody mistypes a whole page.
  constexpr std::size_t kLongest = 256;
  const std::size_t tolerance = std::max<std::size_t>(1, word.size() / 3);
  std::vector<std::pair<std::size_t, std::string>> ranked;
  for (const std::string& candidate : candidates) {
    if (candidate.empty() || word.size() > kLongest || candidate.size() > kLongest) continue;
    const std::size_t distance = EditDistance(word, candidate);
    if (distance <= tolerance) ranked.emplace_back(distance, candidate);
  }
  std::sort(ranked.begin(), ranked.end());
  ranked.erase(std::unique(ranked.begin(), ranked.end()), ranked.end());
  std::vector<std::string> similar;
  for (auto& [distance, candidate] : ranked)
    if (similar.size() < kAtMost) similar.push_back(std::move(candidate));
  return similar;
}

std::string DidYouMean(const std::vector<std::string>& similar) {
  std::string question;
  for (const std::string& each : similar)
    question += (question.empty() ? "; did you mean '" : " or '") + each + "'";
  return question;
}

std::string Fitted(std::string_view text, std::size_t cells) {
  if (CellWidth(text) <= cells) return std::string(text);
  return cells == 0 ? "" : FirstCells(text, cells - 1) + "\u2026";
}

}  // namespace terminal_text
