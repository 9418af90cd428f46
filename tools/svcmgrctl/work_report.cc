// SPDX-License-Identifier: Apache-2.0
#include "work_report.h"

#include "clock.h"

namespace svcmgrctl {

void WorkReport::Begin() { begin_ = Now(); }

double WorkReport::Elapsed() const { return Now() - begin_; }

void WorkReport::Print(const char* event, const Json& more, const std::string& text) {
  const double elapsed = Elapsed();
  Json json = {{"time", WallTime()}, {"elapsed", Rounded(elapsed)}, {"event", event}};
  json.update(more);
  console_.Line(json, text.empty() || console_.quiet() ? "" : Stamped(elapsed, text));
}

std::string Listed(const std::vector<std::string>& names) {
  std::string list;
  for (const std::string& name : names) list += (list.empty() ? "" : ", ") + name;
  return list;
}

}  // namespace svcmgrctl
