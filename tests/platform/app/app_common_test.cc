// SPDX-License-Identifier: Apache-2.0
#include <app_common.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>

// Where the kernel says that the executable is: empty for no /proc, absent for the truth.
std::optional<std::string> executable;

// The program's own definition takes precedence over that of the C library.
extern "C" __attribute__((visibility("default"))) ssize_t readlink(const char* path, char* buffer,
                                                                   size_t size) {
  if (!executable || strcmp(path, "/proc/self/exe") != 0) {
    return syscall(SYS_readlinkat, AT_FDCWD, path, buffer, size);
  }
  if (executable->empty()) {
    errno = ENOENT;
    return -1;
  }
  return static_cast<ssize_t>(executable->copy(buffer, size));
}

namespace {

namespace fs = std::filesystem;

std::string Take(char* text) {
  std::string copy = text ? text : "(null)";
  free(text);
  return copy;
}

std::string Id() {
  char* id = nullptr;
  EXPECT_EQ(app_get_id(&id), 0);
  return Take(id);
}

std::string Version() {
  char* version = nullptr;
  EXPECT_EQ(app_get_version(&version), 0);
  return Take(version);
}

std::string ResourcePath() { return Take(app_get_resource_path()); }

class AnApplication : public testing::Test {
 protected:
  AnApplication() {
    for (const char* name : {"VELMORA_APP_ID", "VELMORA_APP_VERSION", "VELMORA_APP_ROOT"}) {
      unsetenv(name);
    }
  }
};

// A program that says who it is, under a path and a name that the test chooses.
class AnExecutable : public AnApplication {
 protected:
  AnExecutable() {
    std::string pattern = testing::TempDir() + "/app-XXXXXX";
    top_ = fs::canonical(mkdtemp(pattern.data()));
  }
  ~AnExecutable() override { fs::remove_all(top_); }

  static std::string WhatItSays(const fs::path& path, const char* argument = "") {
    fs::create_directories(path.parent_path());
    fs::copy_file(APP_PROBE, path);
    FILE* output = popen(("'" + path.string() + "' " + argument).c_str(), "re");
    std::string text;
    for (int c; (c = fgetc(output)) != EOF;) text += static_cast<char>(c);
    EXPECT_EQ(pclose(output), 0) << text;
    return text;
  }

  std::string ResourcesIn(const std::string& folder) const {
    return (top_ / folder / "res/").string();
  }

  fs::path top_;
};

TEST_F(AnApplication, IsWhatItsEnvironmentSays) {
  setenv("VELMORA_APP_ID", "com.example.notes", 1);
  setenv("VELMORA_APP_VERSION", "4.5.6", 1);
  setenv("VELMORA_APP_ROOT", "/opt/notes", 1);
  EXPECT_EQ(Id(), "com.example.notes");
  EXPECT_EQ(Version(), "4.5.6");
  EXPECT_EQ(ResourcePath(), "/opt/notes/res/");
}

TEST_F(AnApplication, HasOneSlashBeforeItsResources) {
  setenv("VELMORA_APP_ROOT", "/opt/notes//", 1);
  EXPECT_EQ(ResourcePath(), "/opt/notes/res/");
}

TEST_F(AnApplication, OfWhichNobodyKnowsTheFolderHasNoResources) {
  for (const char* nowhere : {"", "/app", "/bin/app", "/app (deleted)"}) {
    executable = nowhere;
    EXPECT_EQ(ResourcePath(), "(null)") << nowhere;
  }
  executable = "/usr/bin/app";
  EXPECT_EQ(ResourcePath(), "/usr/res/");
}

TEST_F(AnApplication, HasTheResourcesThatItsEnvironmentNamesWhereverItsExecutableIs) {
  for (const char* nowhere : {"", "/app", "/bin/app"}) {
    executable = nowhere;
    setenv("VELMORA_APP_ROOT", "/opt/notes", 1);
    EXPECT_EQ(ResourcePath(), "/opt/notes/res/") << nowhere;
    // Whoever names the root folder means it.
    setenv("VELMORA_APP_ROOT", "/", 1);
    EXPECT_EQ(ResourcePath(), "/res/") << nowhere;
  }
}

TEST_F(AnApplication, WithoutAVersionHasVersionZero) { EXPECT_EQ(Version(), "0.0.0"); }

TEST_F(AnApplication, WithEmptyVariablesIsItsExecutable) {
  const std::string id = Id();
  const std::string path = ResourcePath();
  setenv("VELMORA_APP_ID", "", 1);
  setenv("VELMORA_APP_VERSION", "", 1);
  setenv("VELMORA_APP_ROOT", "", 1);
  EXPECT_EQ(Id(), id);
  EXPECT_EQ(Version(), "0.0.0");
  EXPECT_EQ(ResourcePath(), path);
}

TEST_F(AnApplication, RefusesNullArguments) {
  EXPECT_EQ(app_get_id(nullptr), -22);
  EXPECT_EQ(app_get_version(nullptr), -22);
}

TEST_F(AnExecutable, GivesItsNameAndFolder) {
  EXPECT_EQ(WhatItSays(top_ / "a" / "notes"), "org.desktop.notes " + ResourcesIn("a"));
}

TEST_F(AnExecutable, InABinFolderHasItsRootAbove) {
  EXPECT_EQ(WhatItSays(top_ / "a" / "bin" / "notes"), "org.desktop.notes " + ResourcesIn("a"));
  EXPECT_EQ(WhatItSays(top_ / "a" / "sbin" / "notes"),
            "org.desktop.notes " + ResourcesIn("a/sbin"));
}

TEST_F(AnExecutable, OfAnOddNameHasAValidId) {
  EXPECT_EQ(WhatItSays(top_ / "a" / "7 my-notes.\xc3\xa4"),
            "org.desktop._7_my_notes___ " + ResourcesIn("a"));
}

TEST_F(AnExecutable, ThatWasReplacedKeepsItsId) {
  EXPECT_EQ(WhatItSays(top_ / "a" / "notes", "unlink"), "org.desktop.notes " + ResourcesIn("a"));
}

TEST(AnErrorMessage, SaysWhatTheCodeMeans) {
  EXPECT_STREQ(get_error_message(0), "Success");
  EXPECT_STREQ(get_error_message(-22), "Invalid argument");
  EXPECT_STREQ(get_error_message(-12), "Cannot allocate memory");
  EXPECT_STREQ(get_error_message(-5), "Input/output error");
  EXPECT_STREQ(get_error_message(-13), "Permission denied");
  EXPECT_STREQ(get_error_message(static_cast<int>(0xFEEB0071)), "No such package");
}

TEST(AnErrorMessage, IsNeverNull) {
  for (const int code : {1, 22, -100000, INT_MAX, INT_MIN, INT_MIN + 1, -1073741825}) {
    EXPECT_STREQ(get_error_message(code), "Unknown error") << code;
  }
  for (int code = -200; code < 10; ++code) EXPECT_NE(get_error_message(code), nullptr) << code;
}

TEST(AnErrorMessage, IsTheSameTextEachTime) {
  EXPECT_EQ(get_error_message(-22), get_error_message(-22));
  EXPECT_EQ(get_error_message(12345), get_error_message(54321));
}

}  // namespace
