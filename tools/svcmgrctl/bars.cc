// SPDX-License-Identifier: Apache-2.0
#include "bars.h"

#include <algorithm>
#include <cmath>

#include "clock.h"
#include "table.h"
#include "terminal_text.h"

namespace svcmgrctl {
namespace {

using terminal_text::CellWidth;
using terminal_text::FirstCells;
using terminal_text::Fitted;

constexpr char kWholeName[] = "total";
constexpr std::size_t kLongestName = 40;
constexpr std::size_t kShortestName = 5;
constexpr std::size_t kShortestBar = 5;
constexpr std::size_t kLongestBar = 30;
// All of a line but its name and its bar: brackets, percentage, spaces, pace.
constexpr std::size_t kRest = 38;
// Brackets, percentage and spaces; and what stands before the pace.
constexpr std::size_t kMarks = 10;
constexpr std::size_t kGap = 2;

std::string Padded(const std::string& text, std::size_t cells) {
  std::string padded = Fitted(text, cells);
  padded.append(cells - CellWidth(padded), ' ');
  return padded;
}

/** How the cells of a line are shared. */
struct Shares {
  std::size_t name;
  std::size_t bar;
  std::size_t remark;
};

Shares Share(std::size_t longest_name, std::size_t columns) {
  // A line that fills the last column would wrap on some terminals.
  const std::size_t cells = columns > 0 ? columns - 1 : 0;
  const auto left = [cells](std::size_t taken) { return cells > taken ? cells - taken : 0; };
  Shares shares = {};
  shares.name =
      std::min({longest_name, kLongestName, std::max(left(kMarks + kShortestBar), kShortestName)});
  const std::size_t taken = shares.name + kRest;
  shares.bar = std::clamp(columns > taken ? columns - taken : 0, kShortestBar, kLongestBar);
  shares.bar = std::min(shares.bar, std::max<std::size_t>(left(shares.name + kMarks), 1));
  shares.remark = left(shares.name + kMarks + shares.bar + kGap);
  return shares;
}

std::string Line(const std::string& name, int percent, const Shares& shares,
                 const std::string& remark, bool color) {
  const std::size_t full = shares.bar * static_cast<std::size_t>(percent) / 100;
  const std::string number = std::to_string(percent);
  std::string line = name + "  [" +
                     Painted(std::string(full, '#'), Tone::kGood, color && full > 0) +
                     std::string(shares.bar - full, '-') + "] " +
                     std::string(3 - number.size(), ' ') + number + " %";
  const std::string shown = FirstCells(remark, shares.remark);
  if (!shown.empty()) line += "  " + shown;
  return line;
}

}  // namespace

std::string Duration(double seconds) {
  const auto whole = static_cast<long long>(std::ceil(seconds));
  if (whole < 60) return std::to_string(whole) + " s";
  if (whole < 3600) return std::to_string(whole / 60) + " min " + std::to_string(whole % 60) + " s";
  return std::to_string(whole / 3600) + " h " + std::to_string(whole % 3600 / 60) + " min";
}

std::string Pace(const WorkProgress& progress, double now) {
  constexpr double kTooLongToTell = 100 * 3600;
  if (const auto silence = progress.StallAt(now))
    return "stalled for " + Duration(std::floor(*silence));
  const auto rate = progress.RateAt(now);
  if (!rate) return {};
  std::string pace = Tenths(*rate) + " %/s";
  const auto remaining = progress.RemainingAt(now);
  if (remaining && *remaining < kTooLongToTell) pace += ", " + Duration(*remaining) + " left";
  return pace;
}

std::vector<std::string> Bars(const std::vector<std::string>& names, const WorkProgress& progress,
                              double now, Space space, bool color) {
  std::size_t width = CellWidth(kWholeName);
  for (const std::string& name : names) width = std::max(width, CellWidth(name));
  const Shares shares = Share(width, space.columns);
  // One row for the whole, one for the cursor.
  const std::size_t fitting = std::max<std::size_t>(space.rows, 3) - 2;
  const std::size_t shown = std::min(names.size(), fitting);
  const std::size_t before = std::min(progress.Current(), shown / 2);
  const std::size_t first = std::min(progress.Current() - before, names.size() - shown);
  std::vector<std::string> lines;
  for (std::size_t i = first; i < first + shown; ++i)
    lines.push_back(Line(Padded(names[i], shares.name), progress.PercentOf(i), shares, "", color));
  lines.push_back(
      Line(Padded(kWholeName, shares.name), progress.Total(), shares, Pace(progress, now), color));
  return lines;
}

}  // namespace svcmgrctl
