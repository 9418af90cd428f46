// SPDX-License-Identifier: Apache-2.0
// Says what the platform's libraries have taken from the environment, and logs a record.

#include <app_common.h>
#include <dlog.h>
#include <limits.h>
#include <package_info.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <string>

#include "runtime_folder.h"
#include "unique_fd.h"

namespace {

void Say(const char* what, const char* text) { printf("%s=%s\n", what, text); }

std::string RuntimeFolder() {
  base::UniqueFd folder;
  if (rpc_port_desktop::OpenRuntimeFolder(rpc_port_desktop::IfMissing::kFail, &folder) != 0) {
    return "none";
  }
  const std::string link = "/proc/self/fd/" + std::to_string(folder.get());
  char path[PATH_MAX] = {};
  return readlink(link.c_str(), path, sizeof path - 1) > 0 ? path : "unknown";
}

std::string VersionOfProbePackage() {
  package_info_h info = nullptr;
  if (package_info_create("probe", &info) != 0) return "none";
  char* version = nullptr;
  std::string copy = package_info_get_version(info, &version) == 0 ? version : "unknown";
  free(version);
  package_info_destroy(info);
  return copy;
}

}  // namespace

int main() {
  char* text = nullptr;
  Say("secure", getauxval(AT_SECURE) != 0 ? "yes" : "no");
  Say("id", app_get_id(&text) == 0 ? text : "failed");
  free(text);
  Say("version", app_get_version(&text) == 0 ? text : "failed");
  free(text);
  text = app_get_resource_path();
  Say("resources", text ? text : "failed");
  free(text);
  Say("runtime", RuntimeFolder().c_str());
  Say("package", VersionOfProbePackage().c_str());
  dlog_print(DLOG_VERBOSE, "PROBE", "verbose record");
  dlog_print(DLOG_ERROR, "PROBE", "error record");
  return 0;
}
