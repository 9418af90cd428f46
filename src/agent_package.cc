// SPDX-License-Identifier: Apache-2.0
#include "agent_package.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "package_info_handle.h"

namespace svcmgr {

namespace {

// Takes a number off the front of a version text as scanf's %d does, but without wrapping.
bool TakeVersionNumber(const char*& text, std::int64_t& number) {
  constexpr long long kLimit = 1'000'000'000'000;
  char* end = nullptr;
  const long long value = std::strtoll(text, &end, 10);
  if (end == text) return false;
  text = end;
  number = std::clamp(value, -kLimit, kLimit);
  return true;
}

// The level of an agent of a version such as "2.3.182"; missing numbers count as 0, and all that
// follows the second is ignored.
int AgentLevelOfVersion(const char* version) {
  std::int64_t major = 0;
  std::int64_t minor = 0;
  if (TakeVersionNumber(version, major) && *version == '.') {
    TakeVersionNumber(++version, minor);
  }
  const std::int64_t value = major * 10000 + minor;
  if (value >= 20003) return kAgentLevelLists;
  return value >= 10007 ? kAgentLevelModels : kAgentLevelNone;
}

}  // namespace

bool IsAgentMissing() {
  constexpr std::uint32_t kNoSuchPackage = 0xFEEB0071;
  package_info_h info = nullptr;
  const int result = package_info_create(AGENT_PACKAGE_ID, &info);
  // The platform may hand out an object although it reports a failure.
  const PackageInfo owner(info);
  return static_cast<std::uint32_t>(result) == kNoSuchPackage;
}

int AgentLevel() {
  package_info_h info = nullptr;
  const int result = package_info_create(AGENT_PACKAGE_ID, &info);
  const PackageInfo owner(info);
  if (result != 0 || owner == nullptr) return kAgentLevelNone;
  const Text version = ReadPackageText(owner.get(), package_info_get_version);
  return version == nullptr ? kAgentLevelNone : AgentLevelOfVersion(version.get());
}

}  // namespace svcmgr
