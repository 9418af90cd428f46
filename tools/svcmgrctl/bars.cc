// SPDX-License-Identifier: Apache-2.0
#include "bars.h"

#include <algorithm>
#include <cmath>

#include "clock.h"
#include "terminal_text.h"

namespace svcmgrctl {
namespace {

using terminal_text::CellWidth;
using terminal_text::FirstCells;

constexpr char kWholeName[] = "total";
constexpr std::size_t kLongestName = 40;
constexpr std::size_t kShortestBar = 5;
constexpr std::size_t kLongestBar = 30;
// All of a line but its name and its bar: brackets, percentage, spaces, pace.
constexpr std::size_t kRest = 38;

std::string Padded(const std::string& text, std::size_t cells) {
  std::string padded = FirstCells(text, cells);
  padded.append(cells - CellWidth(padded), ' ');
  return padded;
}

std::string Line(const std::string& name, int percent, std::size_t bar, const std::string& remark) {
  const std::size_t full = bar * static_cast<std::size_t>(percent) / 100;
  const std::string number = std::to_string(percent);
  std::string line = name + "  [" + std::string(full, '#') + std::string(bar - full, '-') + "] " +
                     std::string(3 - number.size(), ' ') + number + " %";
  if (!remark.empty()) line += "  " + remark;
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
                              double now, Space space) {
  std::size_t width = CellWidth(kWholeName);
  for (const std::string& name : names) width = std::max(width, CellWidth(name));
  width = std::min(width, kLongestName);
  const std::size_t taken = width + kRest;
  const std::size_t bar =
      std::clamp(space.columns > taken ? space.columns - taken : 0, kShortestBar, kLongestBar);
  // One row for the whole, one for the cursor.
  const std::size_t fitting = std::max<std::size_t>(space.rows, 3) - 2;
  const std::size_t shown = std::min(names.size(), fitting);
  const std::size_t before = std::min(progress.Current(), shown / 2);
  const std::size_t first = std::min(progress.Current() - before, names.size() - shown);
  std::vector<std::string> lines;
  for (std::size_t i = first; i < first + shown; ++i)
    lines.push_back(Line(Padded(names[i], width), progress.PercentOf(i), bar, ""));
  lines.push_back(Line(Padded(kWholeName, width), progress.Total(), bar, Pace(progress, now)));
  return lines;
}

}  // namespace svcmgrctl
