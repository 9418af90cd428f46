// SPDX-License-Identifier: Apache-2.0
#include "service/packages.h"

#include <glib.h>
#include <package_desktop.h>
#include <package_info.h>
#include <stdlib.h>

#include <vector>

#include "common/platform_error.h"
#include "owned.h"

namespace sim {
namespace {

void SetList(GKeyFile* file, const char* group, const char* key,
             const std::vector<std::string>& texts) {
  std::vector<const char*> pointers;
  for (const std::string& text : texts) pointers.push_back(text.c_str());
  g_key_file_set_string_list(file, group, key, pointers.data(), pointers.size());
}

std::string KeyFileOf(const Package& package) {
  const base::Owned<GKeyFile, g_key_file_unref> file(g_key_file_new());
  g_key_file_set_string(file.get(), "Package", "Version", package.version.c_str());
  if (package.clients) SetList(file.get(), "Package", "Clients", *package.clients);
  const std::string application = "Application " + package.id;
  for (const auto& [key, value] : package.metadata) {
    g_key_file_set_string(file.get(), application.c_str(), key.c_str(), value.c_str());
  }
  const base::Owned<char, g_free> text(g_key_file_to_data(file.get(), nullptr, nullptr));
  return text.get();
}

}  // namespace

int InstallPackage(const char* folder, const Package& package) {
  return package_desktop_install(folder, package.id.c_str(), KeyFileOf(package).c_str());
}

std::string InstalledVersion(const std::string& id) {
  package_info_h opened = nullptr;
  Check(package_info_create(id.c_str(), &opened), "cannot look up the agent's package");
  const base::Owned<package_info_s, package_info_destroy> info(opened);
  char* version = nullptr;
  Check(package_info_get_version(opened, &version), "cannot tell the agent's version");
  const base::Malloced<char> owner(version);
  return version;
}

}  // namespace sim
