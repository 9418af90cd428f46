// SPDX-License-Identifier: Apache-2.0
#include "model_versions.h"

#include <cstring>

namespace svcmgrctl {

bool IsNewer(const std::string& a, const std::string& b) {
  const std::size_t end_a = a.find('-');
  const std::size_t end_b = b.find('-');
  const int order = strverscmp(a.substr(0, end_a).c_str(), b.substr(0, end_b).c_str());
  if (order != 0) return order > 0;
  if (end_a == std::string::npos || end_b == std::string::npos)
    return end_a == std::string::npos && end_b != std::string::npos;
  return strverscmp(a.c_str() + end_a, b.c_str() + end_b) > 0;
}

std::optional<std::string> NewestOf(const std::vector<Model>& versions) {
  std::optional<std::string> newest;
  for (const Model& each : versions)
    if (each.version && !each.version->empty() && (!newest || IsNewer(*each.version, *newest)))
      newest = each.version;
  return newest;
}

std::optional<std::string> InstalledVersion(const std::vector<Model>& usable,
                                            const std::string& id) {
  for (const Model& each : usable)
    if (each.id == id) return each.version;
  return std::nullopt;
}

}  // namespace svcmgrctl
