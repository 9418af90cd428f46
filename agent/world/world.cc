// SPDX-License-Identifier: Apache-2.0
#include "world/world.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "common/platform_error.h"
#include "common/report.h"
#include "service/control.h"
#include "service/packages.h"
#include "world/expect.h"

namespace sim {
namespace {

namespace fs = std::filesystem;

std::string Tmpdir() {
  const char* tmpdir = getenv("TMPDIR");
  const std::string folder = tmpdir != nullptr ? tmpdir : "";
  std::error_code error;
  const bool usable = !folder.empty() && folder.front() == '/' && fs::is_directory(folder, error);
  return usable ? folder : "/tmp";
}

void MakePrivateFolder(const std::string& path) {
  if (mkdir(path.c_str(), 0700) != 0) throw std::system_error(errno, std::generic_category(), path);
}

/** A folder that cannot be entered or written keeps its content from being removed. */
void MakeRemovable(const std::string& folder) {
  std::error_code error;
  fs::permissions(folder, fs::perms::owner_all, fs::perm_options::add, error);
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    std::error_code entry_error;
    if (it->symlink_status(entry_error).type() == fs::file_type::directory) {
      MakeRemovable(it->path().string());
    }
  }
}

}  // namespace

std::string MakeWorldFolder() {
  std::string folder = Tmpdir() + "/svcmgr-sim-XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) throw NoWorldFolder(errno);
  return folder;
}

std::system_error NoWorldFolder(int reason) {
  return std::system_error(reason, std::generic_category(),
                           "cannot make a folder for the world in \"" + Quotable(Tmpdir()) + "\"");
}

bool RemoveTree(const std::string& folder) {
  constexpr int kAttempts = 100;
  std::error_code error;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    fs::remove_all(folder, error);
    if (!error) return true;
    MakeRemovable(folder);
  }
  return false;
}

World::World(const Scenario& scenario, const std::string& folder) : folder_(folder) {
  try {
    Furnish(scenario);
  } catch (...) {
    RemoveTree(folder_);
    throw;
  }
}

World::~World() {
  if (!kept_) RemoveTree(folder_);
}

void World::Furnish(const Scenario& scenario) {
  for (const char* name : {"run", "packages", "app", "app/res", "xdg", "xdg/config", "xdg/data",
                           "xdg/cache", "xdg/state", "xdg/run"}) {
    MakePrivateFolder(folder_ + "/" + name);
  }
  if (scenario.agent.installed) Install(scenario.agent.package);
  for (const Package& package : scenario.packages) Install(package);
}

void World::Install(const Package& package) const {
  const std::string packages = folder_ + "/packages";
  Check(InstallPackage(packages.c_str(), package),
        ("cannot install the package " + package.id).c_str());
}

std::string World::bus_address() const {
  constexpr std::size_t kLongestPath = 100;
  constexpr char kPlain[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-/.";
  const std::string path = folder_ + "/bus";
  if (path.size() > kLongestPath) return "unix:abstract=" + fs::path(folder_).filename().string();
  std::string address = "unix:path=";
  for (const char c : path) {
    if (std::string_view(kPlain).find(c) != std::string_view::npos) {
      address += c;
    } else {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "%%%02x", static_cast<unsigned char>(c));
      address += escaped;
    }
  }
  return address;
}

EnvironmentChanges World::ClientEnvironment(const Client& client) const {
  EnvironmentChanges changes;
  changes.set = {
      {"VELMORA_RUNTIME_DIR", folder_ + "/run"},
      {"VELMORA_PACKAGE_DIR", folder_ + "/packages"},
      {"VELMORA_APP_ID", client.id},
      {"VELMORA_APP_VERSION", client.version},
      {"VELMORA_APP_ROOT", client.root.empty() ? folder_ + "/app" : client.root},
      {"DBUS_SESSION_BUS_ADDRESS", bus_address()},
      {kControlVariable, control_file()},
      {kTraceVariable, trace_file()},
  };
  return changes;
}

EnvironmentChanges World::AgentEnvironment(const Agent& agent) const {
  const std::string xdg = folder_ + "/xdg";
  EnvironmentChanges changes;
  changes.set = {
      {"VELMORA_RUNTIME_DIR", folder_ + "/run"},
      {"VELMORA_PACKAGE_DIR", folder_ + "/packages"},
      {"VELMORA_APP_ID", agent.package.id},
      {"VELMORA_APP_VERSION", agent.package.version},
      {"VELMORA_APP_ROOT", folder_ + "/app"},
      {"XDG_CONFIG_HOME", xdg + "/config"},
      {"XDG_DATA_HOME", xdg + "/data"},
      {"XDG_CACHE_HOME", xdg + "/cache"},
      {"XDG_STATE_HOME", xdg + "/state"},
      {"XDG_RUNTIME_DIR", xdg + "/run"},
      {"DBUS_SESSION_BUS_ADDRESS", bus_address()},
  };
  changes.unset = {"VELMORA_LOG_FILE"};  // the client's
  return changes;
}

}  // namespace sim
