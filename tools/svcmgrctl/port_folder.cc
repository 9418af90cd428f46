// SPDX-License-Identifier: Apache-2.0
#include "port_folder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "packages.h"

namespace svcmgrctl {
namespace {

namespace fs = std::filesystem;

std::string FromEnvironment(const char* variable) {
  const char* value = std::getenv(variable);
  return value == nullptr ? "" : value;
}

std::string PathOfFolder() {
  if (std::string folder = FromEnvironment("VELMORA_RUNTIME_DIR"); !folder.empty()) return folder;
  if (const std::string parent = FromEnvironment("XDG_RUNTIME_DIR"); !parent.empty())
    return parent + "/velmora";
  return "/tmp/velmora-" + std::to_string(geteuid());
}

bool HasPortOfAgent(const std::string& folder) {
  const std::string beginning = std::string(AgentPackageId()) + ":";
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error))
    if (entry->path().filename().string().starts_with(beginning) && entry->is_socket(error))
      return true;
  return false;
}

}  // namespace

PortFolder LookAtPortFolder() {
  PortFolder folder = {PathOfFolder(), PortFolder::State::kPort};
  struct stat status = {};
  if (lstat(folder.path.c_str(), &status) != 0)
    folder.state = errno == EACCES ? PortFolder::State::kNotTrusted : PortFolder::State::kNoFolder;
  else if (!S_ISDIR(status.st_mode) || status.st_uid != geteuid() || (status.st_mode & 0077) != 0)
    folder.state = PortFolder::State::kNotTrusted;
  else if (!HasPortOfAgent(folder.path))
    folder.state = PortFolder::State::kNoPort;
  return folder;
}

}  // namespace svcmgrctl
