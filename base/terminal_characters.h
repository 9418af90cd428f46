// SPDX-License-Identifier: Apache-2.0
#ifndef BASE_TERMINAL_CHARACTERS_H_
#define BASE_TERMINAL_CHARACTERS_H_

#include <algorithm>
#include <iterator>

namespace base {

struct CharacterRange {
  char32_t first;
  char32_t last;
};

// Ascending, for the search below.
inline constexpr CharacterRange kUnsafeOnTerminal[] = {
    {0x0000, 0x001F},    // control characters, among them the start of every escape sequence
    {0x007F, 0x009F},    // delete, and the control characters that need no escape
    {0x00AD, 0x00AD},    // soft hyphen
    {0x034F, 0x034F},    // combining grapheme joiner
    {0x061C, 0x061C},    // Arabic letter mark
    {0x115F, 0x1160},    // Hangul fillers
    {0x17B4, 0x17B5},    // inherent vowels of Khmer
    {0x180B, 0x180F},    // Mongolian variation selectors and vowel separator
    {0x200B, 0x200F},    // space without width, joiners, left-to-right and right-to-left marks
    {0x2028, 0x202E},    // line and paragraph separators, embeddings and overrides of direction
    {0x2060, 0x206F},    // word joiner, invisible operators, isolates of direction
    {0x3164, 0x3164},    // Hangul filler
    {0xFE00, 0xFE0F},    // variation selectors
    {0xFEFF, 0xFEFF},    // byte order mark
    {0xFFA0, 0xFFA0},    // half-width Hangul filler
    {0xFFF0, 0xFFFB},    // ignored ones, and interlinear annotations
    {0x1BCA0, 0x1BCA3},  // format controls of shorthand
    {0x1D173, 0x1D17A},  // format controls of music
    {0xE0000, 0xE0FFF},  // tags, and further variation selectors
};
static_assert(std::ranges::is_sorted(kUnsafeOnTerminal, {}, &CharacterRange::first));

/**
 * Whether a character from outside may not reach a terminal as it stands: one that controls it,
 * reorders a line, or is invisible, so that two different IDs look alike. Line feeds and tabs are
 * among them; where they are layout, the caller lets them pass.
 *
 * Joiners and variation selectors are no exception, though some scripts and emoji are written with
 * them.
 */
constexpr bool IsUnsafeOnTerminal(char32_t c) {
  const auto at = std::ranges::lower_bound(kUnsafeOnTerminal, c, {}, &CharacterRange::last);
  return at != std::end(kUnsafeOnTerminal) && at->first <= c;
}

}  // namespace base

#endif  // BASE_TERMINAL_CHARACTERS_H_
