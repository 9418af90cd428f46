// SPDX-License-Identifier: Apache-2.0
#include "service/packages.h"

#include <glib.h>
#include <package_desktop.h>
#include <package_info.h>

#include <fstream>
#include <vector>

#include "owned.h"

namespace sim {
namespace {

constexpr char kPackageGroup[] = "Package";

using KeyFile = base::Owned<GKeyFile, g_key_file_unref>;

void SetList(GKeyFile* file, const char* group, const char* key,
             const std::vector<std::string>& texts) {
  std::vector<const char*> pointers;
  for (const std::string& text : texts) pointers.push_back(text.c_str());
  g_key_file_set_string_list(file, group, key, pointers.data(), pointers.size());
}

std::string TextIn(GKeyFile* file, const char* group, const char* key) {
  const base::Owned<char, g_free> text(g_key_file_get_string(file, group, key, nullptr));
  return text ? text.get() : "";
}

std::string GroupOf(const Package& package) {
  return "Application " + (package.application.empty() ? package.id : package.application);
}

std::string FileOf(const char* folder, const std::string& id) {
  return std::string(folder) + "/" + id + ".package";
}

std::string KeyFileOf(const Package& package) {
  const KeyFile file(g_key_file_new());
  g_key_file_set_string(file.get(), kPackageGroup, "Version", package.version.c_str());
  if (package.clients) SetList(file.get(), kPackageGroup, "Clients", *package.clients);
  const std::string application = GroupOf(package);
  for (const auto& [key, value] : package.metadata) {
    g_key_file_set_string(file.get(), application.c_str(), key.c_str(), value.c_str());
  }
  const base::Owned<char, g_free> text(g_key_file_to_data(file.get(), nullptr, nullptr));
  // GLib writes no group without a key.
  return text.get() + (package.metadata.empty() ? "\n[" + application + "]\n" : "");
}

}  // namespace

int InstallPackage(const char* folder, const Package& package) {
  const int result =
      package_desktop_install(folder, package.id.c_str(), KeyFileOf(package).c_str());
  if (result != 0 || package.readable) return result;
  // What is installed properly, and then damaged, is what a device with a bad disk has.
  std::ofstream(FileOf(folder, package.id), std::ios::trunc) << "[Package\n";
  return 0;
}

int RemovePackage(const char* folder, const std::string& id) {
  return package_desktop_remove(folder, id.c_str());
}

std::optional<Package> InstalledPackage(const char* folder, const std::string& id) {
  const KeyFile file(g_key_file_new());
  if (!g_key_file_load_from_file(file.get(), FileOf(folder, id).c_str(), G_KEY_FILE_NONE,
                                 nullptr)) {
    return std::nullopt;
  }
  Package package;
  package.id = id;
  package.version = TextIn(file.get(), kPackageGroup, "Version");
  const base::Owned<gchar*, g_strfreev> clients(
      g_key_file_get_string_list(file.get(), kPackageGroup, "Clients", nullptr, nullptr));
  if (clients) {
    package.clients.emplace();
    for (gchar** client = clients.get(); *client != nullptr; ++client) {
      package.clients->emplace_back(*client);
    }
  }
  const std::string group = GroupOf(package);
  const base::Owned<gchar*, g_strfreev> keys(
      g_key_file_get_keys(file.get(), group.c_str(), nullptr, nullptr));
  for (gchar** key = keys.get(); key != nullptr && *key != nullptr; ++key) {
    package.metadata[*key] = TextIn(file.get(), group.c_str(), *key);
  }
  return package;
}

std::string InstalledVersion(const std::string& id) {
  package_info_h opened = nullptr;
  if (package_info_create(id.c_str(), &opened) != 0) return "";
  const base::Owned<package_info_s, package_info_destroy> info(opened);
  char* version = nullptr;
  if (package_info_get_version(opened, &version) != 0) return "";
  const base::Malloced<char> owner(version);
  return version;
}

}  // namespace sim
