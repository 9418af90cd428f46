// SPDX-License-Identifier: Apache-2.0
#include "table.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "terminal_text.h"

namespace svcmgrctl {
namespace {

using terminal_text::CellWidth;
using terminal_text::FirstCells;
using terminal_text::Fitted;
using terminal_text::ForTerminal;

const char* EscapeOf(Tone tone) {
  switch (tone) {
    case Tone::kHeading:
      return "\x1b[1m";
    case Tone::kGood:
      return "\x1b[32m";
    case Tone::kBad:
      return "\x1b[31m";
    case Tone::kPlain:
      break;
  }
  return "";
}

}  // namespace

std::string Painted(std::string_view text, Tone tone, bool color) {
  std::string painted(text);
  if (!color || tone == Tone::kPlain) return painted;
  return EscapeOf(tone) + painted + "\x1b[0m";
}

std::string FirstPaintedCells(std::string_view text, std::size_t cells) {
  std::string out;
  while (!text.empty()) {
    const std::size_t plain = std::min(text.find('\x1b'), text.size());
    const std::string shown = FirstCells(text.substr(0, plain), cells);
    out += shown;
    cells -= CellWidth(shown);
    // What has begun to be coloured must end.
    const std::size_t end = std::min(text.find('m', plain), text.size() - 1) + 1;
    out += text.substr(plain, end - plain);
    text.remove_prefix(end);
  }
  return out;
}

void Table::AddRow(std::vector<Cell> row) {
  for (Cell& cell : row) cell.text = cell.text.empty() ? "-" : ForTerminal(cell.text);
  rows_.push_back(std::move(row));
}

void Table::AddHeading(const std::vector<std::string>& titles) {
  std::vector<Cell> row;
  for (const std::string& title : titles) row.push_back({title, Tone::kHeading});
  AddRow(std::move(row));
}

std::string Table::Render(bool color, std::size_t width) const {
  std::vector<std::size_t> widths;
  for (const auto& row : rows_) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i)
      widths[i] = std::max(widths[i], CellWidth(row[i].text));
  }
  std::size_t before_last = 0;
  for (std::size_t i = 0; i + 1 < widths.size(); ++i) before_last += widths[i] + 2;
  const std::size_t last = width > before_last ? width - before_last : 1;
  std::string out;
  for (const auto& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      const bool is_cut = width > 0 && i + 1 == row.size();
      out += Painted(is_cut ? Fitted(row[i].text, last) : row[i].text, row[i].tone, color);
      // Nothing is aligned to the last column, and spaces at a line's end only wrap it.
      if (i + 1 < row.size()) out.append(widths[i] - CellWidth(row[i].text) + 2, ' ');
    }
    out += '\n';
  }
  return out;
}

}  // namespace svcmgrctl
