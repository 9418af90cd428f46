// SPDX-License-Identifier: Apache-2.0
#include "common/report.h"

#include <cstdio>

#include "terminal_text.h"

namespace sim {

using terminal_text::ForTerminal;
using terminal_text::Layout;

std::string Quotable(std::string_view text) { return ForTerminal(text); }

void Report(std::string_view message) { ReportLines("svcmgr-sim: " + std::string(message)); }

void ReportLines(std::string_view lines) {
  std::fprintf(stderr, "%s\n", ForTerminal(lines, Layout::kKeep).c_str());
}

}  // namespace sim
