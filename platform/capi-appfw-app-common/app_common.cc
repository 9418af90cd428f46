// SPDX-License-Identifier: Apache-2.0
#include "app_common.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <string_view>

#include "copy_text.h"
#include "package_codes.h"

namespace {

constexpr char kUnknownVersion[] = "0.0.0";

std::string FromEnvironment(const char* name) {
  const char* value = secure_getenv(name);
  return value ? value : "";
}

// Empty where /proc is not mounted.
std::string Executable() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  if (length <= 0 || length == static_cast<ssize_t>(sizeof path)) return "";
  std::string executable(path, static_cast<size_t>(length));
  // The kernel marks an executable that was replaced while it runs.
  constexpr std::string_view kDeleted = " (deleted)";
  if (executable.ends_with(kDeleted)) executable.resize(executable.size() - kDeleted.size());
  return executable;
}

bool IsIdCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// An ID doubles as a bus name, whose elements must not start with a digit.
std::string IdOfExecutable() {
  const std::string executable = Executable();
  std::string element = executable.substr(executable.rfind('/') + 1);
  for (char& c : element) {
    if (!IsIdCharacter(c)) c = '_';
  }
  if (element.empty() || (element[0] >= '0' && element[0] <= '9')) element.insert(0, "_");
  return "org.desktop." + element;
}

std::string ParentFolder(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

std::string RootOfExecutable() {
  const std::string folder = ParentFolder(Executable());
  const bool in_bin = folder.substr(folder.rfind('/') + 1) == "bin";
  return in_bin ? ParentFolder(folder) : folder;
}

// Without trailing slashes, so empty for the root folder, which counts only if it is named.
std::optional<std::string> ApplicationRoot() {
  std::string root = FromEnvironment("VELMORA_APP_ROOT");
  const bool is_named = !root.empty();
  if (!is_named) root = RootOfExecutable();
  while (!root.empty() && root.back() == '/') root.pop_back();
  if (root.empty() && !is_named) return std::nullopt;
  return root;
}

}  // namespace

int app_get_id(char** id) try {
  if (!id) return -EINVAL;
  const std::string given = FromEnvironment("VELMORA_APP_ID");
  return platform::CopyText((given.empty() ? IdOfExecutable() : given).c_str(), id);
} catch (...) {
  return -ENOMEM;
}

int app_get_version(char** version) try {
  if (!version) return -EINVAL;
  const std::string given = FromEnvironment("VELMORA_APP_VERSION");
  return platform::CopyText(given.empty() ? kUnknownVersion : given.c_str(), version);
} catch (...) {
  return -ENOMEM;
}

// Null rather than a guess: the caller walks through everything below the folder.
char* app_get_resource_path(void) try {
  const auto root = ApplicationRoot();
  return root ? strdup((*root + "/res/").c_str()) : nullptr;
} catch (...) {
  return nullptr;
}

char* get_error_message(int code) {
  if (code == platform::kNoSuchPackage) return const_cast<char*>("No such package");
  // Platform codes are negated errno values; the texts are static and not translated.
  const char* text = code <= 0 && code > INT_MIN ? strerrordesc_np(-code) : nullptr;
  return const_cast<char*>(text ? text : "Unknown error");
}
