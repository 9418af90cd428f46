// SPDX-License-Identifier: Apache-2.0
#include "table.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <sstream>
#include <utility>

#include "terminal_text.h"

namespace svcmgrctl {
namespace {

using terminal_text::CellWidth;
using terminal_text::FirstCells;
using terminal_text::Fitted;
using terminal_text::ForTerminal;

constexpr std::size_t kGap = 2;

/** Makes columns narrower, until a line fits into so many cells or none can be narrower. */
void Fit(std::vector<std::size_t>* widths, std::size_t width) {
  constexpr std::size_t kLeastLast = 8;
  if (widths->empty()) return;
  std::size_t needed =
      std::accumulate(widths->begin(), widths->end(), std::size_t{0}) + (widths->size() - 1) * kGap;
  const auto shrink = [&](std::size_t* column, std::size_t least) {
    const std::size_t excess = needed > width ? needed - width : 0;
    const std::size_t less = std::min(excess, *column > least ? *column - least : 0);
    *column -= less;
    needed -= less;
    return less > 0;
  };
  shrink(&widths->back(), kLeastLast);
  for (bool goes_on = true; goes_on;) {
    const auto widest = std::max_element(widths->begin(), widths->end());
    goes_on = shrink(&*widest, std::max<std::size_t>(*widest, 2) - 1);
  }
}

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

std::string Paragraph(std::string label, std::string_view text, std::size_t indent,
                      std::size_t width) {
  std::string paragraph;
  std::string line = std::move(label);
  bool is_first = true;
  std::istringstream words{std::string(text)};
  for (std::string word; words >> word; is_first = false) {
    if (!is_first && width > 0 && CellWidth(line) + 1 + CellWidth(word) > width) {
      paragraph += line + "\n";
      line = std::string(indent, ' ');
      is_first = true;
    }
    line += (is_first ? "" : " ") + word;
  }
  return paragraph + line + "\n";
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
  if (width > 0) Fit(&widths, width);
  std::string out;
  for (const auto& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      const std::string text = Fitted(row[i].text, widths[i]);
      out += Painted(text, row[i].tone, color);
      // Nothing is aligned to the last column, and spaces at a line's end only wrap it.
      if (i + 1 < row.size()) out.append(widths[i] - CellWidth(text) + kGap, ' ');
    }
    out += '\n';
  }
  return out;
}

}  // namespace svcmgrctl
