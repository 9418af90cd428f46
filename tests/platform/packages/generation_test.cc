// SPDX-License-Identifier: Apache-2.0
// The generation file where the file system has no room for it, or somebody else has touched it.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <package_desktop.h>

#include <cerrno>
#include <cstring>

#include "package_world.h"
#include "support/own_mounts.h"

using testing::HasSubstr;

namespace {

// How many bytes a write may take: with none, it fails with ENOSPC.
constexpr size_t kUnlimited = SIZE_MAX;
size_t room = kUnlimited;
// While it is true, no file ends.
bool files_grow = false;

}  // namespace

// The platform calls this instead of the C library's.
extern "C" __attribute__((visibility("default"))) ssize_t pwrite(int fd, const void* data,
                                                                 size_t size, off_t offset) {
  using Function = ssize_t(int, const void*, size_t, off_t);
  static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "pwrite64"));
  if (room == 0) {
    errno = ENOSPC;
    return -1;
  }
  return real(fd, data, size < room ? size : room, offset);
}

extern "C" __attribute__((visibility("default"))) ssize_t read(int fd, void* data, size_t size) {
  using Function = ssize_t(int, void*, size_t);
  static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "read"));
  if (!files_grow) return real(fd, data, size);
  memset(data, '#', size);
  return static_cast<ssize_t>(size);
}

namespace {

class AGeneration : public PackageWorld {
 protected:
  ~AGeneration() override { room = kUnlimited; }
  int Install(const char* id, const std::string& version) const {
    return package_desktop_install(folder_.c_str(), id, KeyFile(version).c_str());
  }
  std::filesystem::path Path() const { return folder_ / ".generation"; }
  std::string Content() const {
    std::ifstream file(Path());
    return {std::istreambuf_iterator<char>(file), {}};
  }
};

using AGrowingKeyFile = PackageWorld;

TEST_F(AGeneration, IsAnotherOneAfterEachChange) {
  ASSERT_EQ(Install("a", "1"), 0);
  const std::string first = Content();
  EXPECT_EQ(first.size(), 8u);
  ASSERT_EQ(Install("a", "2"), 0);
  const std::string second = Content();
  EXPECT_EQ(second.size(), 8u);
  EXPECT_NE(first, second);
  ASSERT_EQ(package_desktop_remove(folder_.c_str(), "a"), 0);
  EXPECT_NE(Content(), second);
}

TEST_F(AGeneration, IsLeftOutWhereItCannotBeWritten) {
  for (const size_t bytes : {size_t{0}, size_t{5}}) {
    room = bytes;
    ASSERT_EQ(Install("a", std::to_string(bytes)), 0);
    EXPECT_FALSE(std::filesystem::exists(Path())) << bytes;
    EXPECT_EQ(VersionOf("a"), std::to_string(bytes));
    WriteByHand("a", KeyFile("by hand"));
    EXPECT_EQ(VersionOf("a"), "by hand");
  }
  room = kUnlimited;
  ASSERT_EQ(Install("a", "3"), 0);
  EXPECT_EQ(Content().size(), 8u);
  EXPECT_EQ(VersionOf("a"), "3");
}

TEST_F(AGeneration, GoesWhereItCannotBeWrittenAnyMore) {
  ASSERT_EQ(Install("a", "1"), 0);
  ASSERT_EQ(VersionOf("a"), "1");
  room = 0;
  ASSERT_EQ(package_desktop_remove(folder_.c_str(), "a"), 0);
  EXPECT_FALSE(std::filesystem::exists(Path()));
}

TEST_F(AGeneration, GoesWhereItIsALinkThatNobodyFollows) {
  ASSERT_EQ(Install("a", "1"), 0);
  std::filesystem::remove(Path());
  std::filesystem::create_symlink("elsewhere", Path());
  ASSERT_EQ(Install("a", "2"), 0);
  EXPECT_FALSE(std::filesystem::is_symlink(Path()));
  EXPECT_EQ(VersionOf("a"), "2");
}

TEST_F(AGrowingKeyFile, IsNotReadForEver) {
  WriteByHand("a", KeyFile("1"));
  files_grow = true;
  EXPECT_EQ(VersionOf("a"), "");
  files_grow = false;
  EXPECT_THAT(Log(), HasSubstr("a.package: still growing\n"));
}

// A file system in memory for the folder, as small as they come.
class AFullFileSystem : public AGeneration {
 protected:
  void SetUp() override {
    std::filesystem::create_directory(folder_);
    std::string reason = EnterOwnMounts();
    if (reason.empty()) reason = MountMemory(folder_, kSmallest);
    mounted_ = reason.empty();
    if (!mounted_) GTEST_SKIP() << reason;
  }
  void TearDown() override {
    if (mounted_) {
      EXPECT_EQ(umount2(folder_.c_str(), MNT_DETACH), 0);
    }
  }
  bool IsFull() const {
    std::ofstream file(folder_ / "more");
    file << "more" << std::flush;
    const bool full = !file.good();
    std::filesystem::remove(folder_ / "more");
    return full;
  }
  static constexpr size_t kSmallest = 4096;
  bool mounted_ = false;
};

TEST_F(AFullFileSystem, TakesAPackageAndNoGeneration) {
  ASSERT_EQ(Install("a", "1"), 0);
  ASSERT_TRUE(IsFull());
  EXPECT_FALSE(std::filesystem::exists(Path()));
  EXPECT_EQ(VersionOf("a"), "1");
  EXPECT_EQ(package_desktop_remove(folder_.c_str(), "a"), 0);
  EXPECT_EQ(VersionOf("a"), "");
}

TEST_F(AFullFileSystem, IsAskedInsteadOfAGenerationThatIsAHole) {
  std::ofstream(Path()).flush();
  std::filesystem::resize_file(Path(), 8);
  WriteByHand("a", KeyFile("1"));
  ASSERT_TRUE(IsFull());
  EXPECT_EQ(VersionOf("a"), "1");
  std::filesystem::remove(PathOf("a"));
  EXPECT_EQ(VersionOf("a"), "");
}

}  // namespace
