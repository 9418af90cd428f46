// SPDX-License-Identifier: Apache-2.0
#include "packages.h"

#include <package_info.h>
#include <package_manager.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <type_traits>

#include "owned.h"

namespace svcmgrctl {
namespace {

using PackageInfo = base::Owned<std::remove_pointer_t<package_info_h>, package_info_destroy>;

bool Count(package_info_h, void* count) {
  ++*static_cast<std::size_t*>(count);
  return true;
}

bool TakeId(package_info_h info, void* ids) {
  char* text = nullptr;
  if (package_info_get_package(info, &text) == 0 && text != nullptr)
    static_cast<std::vector<std::string>*>(ids)->emplace_back(base::Malloced<char>(text).get());
  return true;
}

// As the library reads it: strtol's idea of a number, within bounds.
long TakeNumber(const char*& text) {
  char* end = nullptr;
  const long number = std::strtol(text, &end, 10);
  text = end;
  constexpr long kMost = 100000;
  return std::clamp(number, -kMost, kMost);
}

}  // namespace

Package FindAgentPackage() { return FindPackage(AGENT_PACKAGE_ID); }

Package FindPackage(const std::string& id) {
  constexpr std::uint32_t kNoSuchPackage = 0xFEEB0071;
  Package package;
  package_info_h info = nullptr;
  const int result = package_info_create(id.c_str(), &info);
  const PackageInfo owner(info);
  if (static_cast<std::uint32_t>(result) == kNoSuchPackage) package.is_installed = false;
  if (result != 0 || owner == nullptr) return package;
  package.is_installed = true;
  char* text = nullptr;
  if (package_info_get_version(owner.get(), &text) != 0 || text == nullptr) return package;
  package.version = base::Malloced<char>(text).get();
  return package;
}

std::optional<std::size_t> CountPackages() {
  std::size_t count = 0;
  if (package_manager_foreach_package_info(Count, &count) != 0) return std::nullopt;
  return count;
}

std::vector<std::string> PackageIds() {
  std::vector<std::string> ids;
  package_manager_foreach_package_info(TakeId, &ids);
  return ids;
}

const char* AgentPackageId() { return AGENT_PACKAGE_ID; }

bool IsAtLeast(const std::string& version, int major, int minor) {
  const char* text = version.c_str();
  const long first = TakeNumber(text);
  const long second = *text == '.' ? TakeNumber(++text) : 0;
  return first * 10000 + second >= major * 10000 + minor;
}

}  // namespace svcmgrctl
