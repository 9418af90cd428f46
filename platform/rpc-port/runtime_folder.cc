// SPDX-License-Identifier: Apache-2.0
#include "runtime_folder.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "codes.h"

namespace rpc_port_desktop {
namespace {

// Fits into a socket address after "/proc/self/fd/" and the longest number.
constexpr size_t kMaxSocketName = 80;

const char* NonEmpty(const char* variable) {
  const char* value = secure_getenv(variable);
  return value != nullptr && *value != '\0' ? value : nullptr;
}

std::string RuntimeFolderPath() {
  if (const char* folder = NonEmpty("VELMORA_RUNTIME_DIR")) return folder;
  if (const char* parent = NonEmpty("XDG_RUNTIME_DIR")) return std::string(parent) + "/velmora";
  return "/tmp/velmora-" + std::to_string(geteuid());
}

int OpenFailure() {
  // With O_NOFOLLOW, a symbolic link gives one of the last two.
  const bool untrusted = errno == EACCES || errno == EPERM || errno == ENOTDIR || errno == ELOOP;
  return untrusted ? kPermissionDenied : kIoError;
}

// Letters, digits and a few marks stand for themselves, all else as %XX: nothing that a path or a
// shell would take for more than a name.
void AppendEscaped(std::string_view text, std::string* name) {
  constexpr std::string_view kPlain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
  for (const char c : text) {
    if (kPlain.find(c) != std::string_view::npos) {
      *name += c;
      continue;
    }
    char escaped[4];
    std::snprintf(escaped, sizeof escaped, "%%%02X", static_cast<unsigned char>(c));
    *name += escaped;
  }
}

uint64_t Fnv1a(std::string_view text) {
  uint64_t hash = 0xCBF29CE484222325;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3;
  return hash;
}

}  // namespace

int OpenRuntimeFolder(IfMissing if_missing, base::UniqueFd* folder) {
  std::string path = RuntimeFolderPath();
  // With a slash at its end, a symbolic link would be followed.
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  if (if_missing == IfMissing::kMake && mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    return OpenFailure();
  }
  base::UniqueFd opened(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!opened) return OpenFailure();
  struct stat status;
  if (fstat(opened.get(), &status) != 0) return kIoError;
  if (status.st_uid != geteuid() || (status.st_mode & 0077) != 0) return kPermissionDenied;
  *folder = std::move(opened);
  return kOk;
}

std::string SocketName(std::string_view app_id, std::string_view port_name) {
  std::string name;
  AppendEscaped(app_id, &name);
  name += ':';
  AppendEscaped(port_name, &name);
  if (name.size() <= kMaxSocketName) return name;
  char hash[18];
  std::snprintf(hash, sizeof hash, "~%016llx", static_cast<unsigned long long>(Fnv1a(name)));
  return name.substr(0, kMaxSocketName - 17) + hash;
}

}  // namespace rpc_port_desktop
