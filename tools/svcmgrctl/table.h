// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_TABLE_H_
#define TOOLS_SVCMGRCTL_TABLE_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace svcmgrctl {

/** What a piece of output means, which decides its colour. */
enum class Tone { kPlain, kHeading, kGood, kBad };

/** A text in the colour of its tone. The text itself must be safe for a terminal already. */
std::string Painted(std::string_view text, Tone tone, bool color);

/** As much of a text, parts of which are painted, as fits into so many cells; colours take none. */
std::string FirstPaintedCells(std::string_view text, std::size_t cells);

/** A text behind a label, in lines of at most so many cells, 0 for no limit. The lines after the first
 *  begin with `indent` spaces. Both texts must be safe for a terminal. */
std::string Paragraph(std::string label, std::string_view text, std::size_t indent,
                      std::size_t width);

/** A table for people: columns as wide as their widest cell on the terminal, two spaces between. */
class Table {
 public:
  struct Cell {
    /** As it came; the table makes it safe. An empty cell is shown as "-". */
    std::string text;
    Tone tone = Tone::kPlain;
  };

  /** All rows must have the same number of cells. */
  void AddRow(std::vector<Cell> row);
  void AddHeading(const std::vector<std::string>& titles);

  /** @param width  The cells into which each line fits, at the cost of its last column, and where that
   *                does not suffice of the widest ones; 0 for no limit. */
  std::string Render(bool color, std::size_t width = 0) const;

 private:
  std::vector<std::vector<Cell>> rows_;
};

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_TABLE_H_
