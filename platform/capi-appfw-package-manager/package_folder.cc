// SPDX-License-Identifier: Apache-2.0
#include "package_folder.h"

#include <limits.h>
#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

namespace packages {

namespace {

// Null for an empty variable, and for all of them where the environment cannot be trusted.
const char* FromEnvironment(const char* variable) {
  const char* value = secure_getenv(variable);
  return value && *value ? value : nullptr;
}

std::string HomeFolder() {
  if (const char* home = FromEnvironment("HOME")) return home;
  passwd user;
  passwd* found = nullptr;
  char texts[4096];
  getpwuid_r(geteuid(), &user, texts, sizeof texts, &found);
  return found ? found->pw_dir : "/";
}

std::string GivenFolder() {
  if (const char* folder = FromEnvironment("VELMORA_PACKAGE_DIR")) return folder;
  if (const char* data = FromEnvironment("XDG_DATA_HOME")) {
    return std::string(data) + "/velmora/packages";
  }
  return HomeFolder() + "/.local/share/velmora/packages";
}

}  // namespace

std::string PackageFolder() {
  std::string given = GivenFolder();
  if (given[0] == '/') return given;
  char current[PATH_MAX];
  return std::string(getcwd(current, sizeof current) ? current : "") + "/" + given;
}

}  // namespace packages
