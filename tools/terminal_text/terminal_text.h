// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_TERMINAL_TEXT_TERMINAL_TEXT_H_
#define TOOLS_TERMINAL_TEXT_TERMINAL_TEXT_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace terminal_text {

/** Whether line feeds and tabs of a text are layout that is wanted. */
enum class Layout { kEscape, kKeep };

/**
 * A text from outside, made safe for a terminal: what could steer the terminal, reorder a line or
 * hide in it is shown by its number. Bytes that are not UTF-8 become \xNN, control characters \xNN
 * or \uNNNN, characters that reorder the line or have no picture \uNNNN or \uNNNNN. All else is
 * passed on, spaces and letters that resemble others too.
 */
std::string ForTerminal(std::string_view text, Layout layout = Layout::kEscape);

/** How many cells of a terminal a text takes, which ForTerminal has made safe. */
std::size_t CellWidth(std::string_view text);

/** As much of a text, which ForTerminal has made safe, as fits into so many cells. */
std::string FirstCells(std::string_view text, std::size_t cells);

/** A message for people, not longer than they read: of a long one the beginning and the end, which
 *  tells what to do. It may still be unsafe for a terminal. */
std::string Shortened(std::string_view message);

/** Those of `candidates` that differ little enough from `word` to be what was meant, best first, at
 *  most three. */
std::vector<std::string> SimilarTo(std::string_view word,
                                   const std::vector<std::string>& candidates);

/** "; did you mean 'a' or 'b'" for what SimilarTo has found; empty if that is nothing. */
std::string DidYouMean(const std::vector<std::string>& similar);

/** A text, which ForTerminal has made safe, in at most so many cells: what does not fit is replaced by
 *  an ellipsis. */
std::string Fitted(std::string_view text, std::size_t cells);

}  // namespace terminal_text

#endif  // TOOLS_TERMINAL_TEXT_TERMINAL_TEXT_H_
