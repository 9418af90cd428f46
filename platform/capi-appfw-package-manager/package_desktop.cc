// SPDX-License-Identifier: Apache-2.0
#include "package_desktop.h"

#include <errno.h>
#include <fcntl.h>
#include <glib.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <string>
#include <string_view>

#include "generation.h"
#include "package_store.h"
#include "snapshot_reader.h"
#include "unique_fd.h"

using packages::Generation;
using packages::SnapshotRef;

namespace {

bool WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    text.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

// Puts a file with this content under `path` in one step.
bool Replace(const std::string& path, const std::string& temporary_pattern, std::string_view text) {
  std::string temporary = temporary_pattern;
  const base::UniqueFd fd(mkostemp(temporary.data(), O_CLOEXEC));
  if (!fd) return false;
  if (WriteAll(fd.get(), text) && fchmod(fd.get(), 0644) == 0 &&
      rename(temporary.c_str(), path.c_str()) == 0) {
    return true;
  }
  unlink(temporary.c_str());
  return false;
}

std::string KeyFilePath(const std::string& dir, const char* package_id) {
  return dir + "/" + package_id + std::string(packages::kKeyFileSuffix);
}

}  // namespace

int package_desktop_install(const char* dir, const char* package_id, const char* key_file) try {
  if (!dir || !*dir || !package_id || !key_file) return -EINVAL;
  if (!packages::IsPackageId(package_id)) return -EINVAL;
  package_info_s parsed;
  std::string complaint;
  if (!packages::ParsePackage(package_id, key_file, &parsed, &complaint)) return -EINVAL;

  if (g_mkdir_with_parents(dir, 0755) != 0) return -EIO;
  // Hidden, and without the suffix: no reader takes it for a package.
  const std::string temporary = std::string(dir) + "/.new-XXXXXX";
  if (!Replace(KeyFilePath(dir, package_id), temporary, key_file)) return -EIO;
  Generation::Bump(dir);
  return 0;
} catch (const std::exception&) {
  return -ENOMEM;
}

int package_desktop_remove(const char* dir, const char* package_id) try {
  if (!dir || !*dir || !package_id || !packages::IsPackageId(package_id)) return -EINVAL;
  if (unlink(KeyFilePath(dir, package_id).c_str()) != 0) {
    return errno == ENOENT || errno == ENOTDIR ? -EINVAL : -EIO;
  }
  Generation::Bump(dir);
  return 0;
} catch (const std::exception&) {
  return -ENOMEM;
}

int package_desktop_check_client(const char* server, const char* client) try {
  if (!server || !client) return -EINVAL;
  SnapshotRef snapshot;
  if (const int error = packages::LatestSnapshot(&snapshot)) return error;
  const app_info_s* application = snapshot->FindApplication(server);
  if (!application) return -EINVAL;
  const package_info_s& package = *application->package;
  const auto admits = [client](const std::string& pattern) {
    return g_pattern_match_simple(pattern.c_str(), client);
  };
  const auto& patterns = package.admitted_clients;
  return package.admits_all || std::any_of(patterns.begin(), patterns.end(), admits) ? 0 : -EACCES;
} catch (const std::exception&) {
  return -ENOMEM;
}
