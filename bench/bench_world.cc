// SPDX-License-Identifier: Apache-2.0
#include "bench_world.h"

#include <package_desktop.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

BenchWorld::BenchWorld(Packages packages) {
  constexpr char kKeyFile[] = "[Package]\nVersion=2.3.182\n";
  const char* parent = std::getenv("TMPDIR");
  folder_ = std::string(parent != nullptr ? parent : "/tmp") + "/svcmgr-bench-XXXXXX";
  Require(mkdtemp(folder_.data()) != nullptr, "make a folder");
  const std::string installed = folder_ + "/packages";
  setenv("VELMORA_RUNTIME_DIR", folder_.c_str(), 1);
  setenv("VELMORA_PACKAGE_DIR", installed.c_str(), 1);
  setenv("VELMORA_APP_ID", "com.example.client", 1);
  setenv("VELMORA_APP_VERSION", "1.0.0", 1);
  if (packages == Packages::kManaged) {
    Require(package_desktop_install(installed.c_str(), AGENT_PACKAGE_ID, kKeyFile) == 0,
            "install the agent");
  } else {
    std::filesystem::create_directory(installed);
    std::ofstream(installed + "/" AGENT_PACKAGE_ID ".package") << kKeyFile;
  }
}

BenchWorld::~BenchWorld() {
  std::error_code error;
  std::filesystem::remove_all(folder_, error);
}
