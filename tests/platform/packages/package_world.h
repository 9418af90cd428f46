// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_PLATFORM_PACKAGES_PACKAGE_WORLD_H_
#define TESTS_PLATFORM_PACKAGES_PACKAGE_WORLD_H_

#include <gtest/gtest.h>
#include <package_info.h>
#include <package_manager.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/open_descriptors.h"

inline constexpr int kNoSuchPackage = static_cast<int>(0xFEEB0071);

// A private package folder, which the process under test uses.
class PackageWorld : public testing::Test {
 protected:
  PackageWorld() {
    std::string pattern = testing::TempDir() + "/packages-XXXXXX";
    top_ = mkdtemp(pattern.data());
    folder_ = top_ / "packages";
    setenv("VELMORA_PACKAGE_DIR", folder_.c_str(), 1);
    setenv("VELMORA_LOG_FILE", (top_ / "log").c_str(), 1);
  }
  ~PackageWorld() override { std::filesystem::remove_all(top_); }

  static std::string KeyFile(const std::string& version) {
    return "[Package]\nVersion=" + version + "\n";
  }

  std::filesystem::path PathOf(const std::string& id) const { return folder_ / (id + ".package"); }

  // As an editor would, not as the desktop's functions do.
  void WriteByHand(const std::string& id, const std::string& text) const {
    std::filesystem::create_directories(folder_);
    std::ofstream(PathOf(id)) << text;
  }

  std::string Log() const {
    std::ifstream log(top_ / "log");
    return {std::istreambuf_iterator<char>(log), {}};
  }

  std::filesystem::path top_;
  std::filesystem::path folder_;
};

// The package's version; empty if it is not installed, "error" if the look-up fails otherwise.
inline std::string VersionOf(const char* id) {
  package_info_h info = nullptr;
  const int result = package_info_create(id, &info);
  if (result == kNoSuchPackage) return "";
  if (result != 0) return "error";
  char* version = nullptr;
  EXPECT_EQ(package_info_get_version(info, &version), 0);
  EXPECT_EQ(package_info_destroy(info), 0);
  std::string copy = version;
  free(version);
  return copy;
}

inline std::vector<std::string> AllIds() {
  std::vector<std::string> ids;
  const auto collect = [](package_info_h info, void* user_data) {
    char* id = nullptr;
    EXPECT_EQ(package_info_get_package(info, &id), 0);
    static_cast<std::vector<std::string>*>(user_data)->emplace_back(id);
    free(id);
    return true;
  };
  EXPECT_EQ(package_manager_foreach_package_info(collect, &ids), 0);
  return ids;
}

// Exit status of a program that has run to its end.
inline int RunProgram(std::vector<std::string> words) {
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

#endif  // TESTS_PLATFORM_PACKAGES_PACKAGE_WORLD_H_
