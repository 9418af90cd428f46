// SPDX-License-Identifier: Apache-2.0
// What the folder of key files means.

#include <app_info.h>
#include <gmock/gmock.h>
#include <package_desktop.h>
#include <sys/stat.h>

#include <utility>

#include "package_world.h"
#include "support/bytes_in_use.h"

using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

namespace {

class AnInstalledPackage : public PackageWorld {};
class ABrokenKeyFile : public PackageWorld {};
class AnInstalledApplication : public PackageWorld {};

using Metadata = std::vector<std::pair<std::string, std::string>>;

bool CollectMetadata(const char* key, const char* value, void* user_data) {
  static_cast<Metadata*>(user_data)->emplace_back(key, value);
  return true;
}

Metadata MetadataOf(const char* application) {
  app_info_h info = nullptr;
  EXPECT_EQ(app_info_create(application, &info), 0) << application;
  Metadata metadata;
  EXPECT_EQ(app_info_foreach_metadata(info, CollectMetadata, &metadata), 0);
  EXPECT_EQ(app_info_destroy(info), 0);
  return metadata;
}

TEST_F(AnInstalledPackage, HasItsIdAndVersion) {
  WriteByHand("com.example.notes", KeyFile("1.2.3"));
  package_info_h info = nullptr;
  ASSERT_EQ(package_info_create("com.example.notes", &info), 0);
  char* id = nullptr;
  char* version = nullptr;
  EXPECT_EQ(package_info_get_package(info, &id), 0);
  EXPECT_EQ(package_info_get_version(info, &version), 0);
  EXPECT_STREQ(id, "com.example.notes");
  EXPECT_STREQ(version, "1.2.3");
  free(id);
  free(version);
  EXPECT_EQ(package_info_destroy(info), 0);
}

TEST_F(AnInstalledPackage, IsNotFoundUnderAnyOtherName) {
  WriteByHand("com.example.notes", KeyFile("1"));
  for (const char* id : {"com.example.note", "com.example.notes2", "", "COM.EXAMPLE.NOTES",
                         "com.example.notes.package", "../packages/com.example.notes"}) {
    int untouched = 0;
    auto info = reinterpret_cast<package_info_h>(&untouched);
    EXPECT_EQ(package_info_create(id, &info), kNoSuchPackage) << id;
    EXPECT_EQ(info, reinterpret_cast<package_info_h>(&untouched)) << id;
  }
}

TEST_F(AnInstalledPackage, IsOneSnapshotWhateverIsInstalledLater) {
  WriteByHand("com.example.notes", KeyFile("1"));
  package_info_h info = nullptr;
  ASSERT_EQ(package_info_create("com.example.notes", &info), 0);
  WriteByHand("com.example.notes", KeyFile("2"));
  EXPECT_EQ(VersionOf("com.example.notes"), "2");
  std::filesystem::remove_all(folder_);
  EXPECT_EQ(VersionOf("com.example.notes"), "");
  char* version = nullptr;
  EXPECT_EQ(package_info_get_version(info, &version), 0);
  EXPECT_STREQ(version, "1");
  free(version);
  package_info_destroy(info);
}

TEST_F(AnInstalledPackage, RefusesNullArguments) {
  WriteByHand("com.example.notes", KeyFile("1"));
  package_info_h info = nullptr;
  char* text = nullptr;
  EXPECT_EQ(package_info_create(nullptr, &info), -22);
  EXPECT_EQ(package_info_create("com.example.notes", nullptr), -22);
  EXPECT_EQ(package_info_destroy(nullptr), -22);
  EXPECT_EQ(package_info_get_package(nullptr, &text), -22);
  EXPECT_EQ(package_info_get_version(nullptr, &text), -22);
  EXPECT_EQ(package_manager_foreach_package_info(nullptr, nullptr), -22);
  ASSERT_EQ(package_info_create("com.example.notes", &info), 0);
  EXPECT_EQ(package_info_get_package(info, nullptr), -22);
  EXPECT_EQ(package_info_get_version(info, nullptr), -22);
  package_info_destroy(info);
}

TEST_F(AnInstalledPackage, ComesInTheOrderOfIds) {
  for (const char* id : {"org.b", "com.z", "org.a", "com.A", "com.a"})
    WriteByHand(id, KeyFile("1"));
  EXPECT_THAT(AllIds(), ElementsAre("com.A", "com.a", "com.z", "org.a", "org.b"));
}

TEST_F(AnInstalledPackage, EndsTheIterationWhenTheCallbackSaysSo) {
  for (const char* id : {"a", "b", "c"}) WriteByHand(id, KeyFile("1"));
  int calls = 0;
  const auto stop_at_two = [](package_info_h, void* count) {
    return ++*static_cast<int*>(count) < 2;
  };
  EXPECT_EQ(package_manager_foreach_package_info(stop_at_two, &calls), 0);
  EXPECT_EQ(calls, 2);
}

TEST_F(AnInstalledPackage, IsIgnoredInFilesOfOtherNames) {
  for (const char* name : {"a.package~", ".hidden.package", ".package", "a.txt", "package"}) {
    std::filesystem::create_directories(folder_);
    std::ofstream(folder_ / name) << KeyFile("1");
  }
  EXPECT_THAT(AllIds(), IsEmpty());
  EXPECT_EQ(Log(), "");
}

TEST_F(AnInstalledPackage, IsAbsentInAFolderThatIsNot) {
  EXPECT_EQ(VersionOf("com.example.notes"), "");
  EXPECT_THAT(AllIds(), IsEmpty());
}

TEST_F(AnInstalledPackage, IsFoundByHomeWhenNoFolderIsGiven) {
  unsetenv("VELMORA_PACKAGE_DIR");
  setenv("XDG_DATA_HOME", top_.c_str(), 1);
  folder_ = top_ / "velmora" / "packages";
  WriteByHand("com.example.notes", KeyFile("7"));
  EXPECT_EQ(VersionOf("com.example.notes"), "7");
}

TEST_F(AnInstalledPackage, IsFoundInARelativeFolderAlsoAfterTheWorkingFolderHasChanged) {
  std::filesystem::current_path(top_);
  setenv("VELMORA_PACKAGE_DIR", "packages/", 1);
  WriteByHand("com.example.notes", KeyFile("1"));
  EXPECT_EQ(VersionOf("com.example.notes"), "1");
  std::filesystem::current_path("/");
  WriteByHand("com.example.notes", KeyFile("2"));
  EXPECT_EQ(VersionOf("com.example.notes"), "2");
}

TEST_F(ABrokenKeyFile, HidesNoOtherPackage) {
  const std::string texts[] = {
      "",
      "Version=1\n",
      "[Package]\n",
      "[Package\nVersion=1\n",
      "[Other]\nVersion=1\n",
      "[Package]\nVersion=\xff\xfe\n",
      std::string("[Package]\nVersion=1\0\n", 20),
      "[Package]\nVersion=1\\q\n",
      "[Package]\nVersion=1\nClients=\xff\n",
      "[Package]\nVersion=1\n[Application a]\nkey=\xff\n",
      "[Package]\nVersion=1\n#" + std::string(2 << 20, 'x'),
  };
  int number = 0;
  for (const std::string& text : texts) WriteByHand("broken" + std::to_string(++number), text);
  WriteByHand("com.example.notes", KeyFile("1"));
  EXPECT_THAT(AllIds(), ElementsAre("com.example.notes"));
  for (; number > 0; --number) {
    EXPECT_THAT(Log(), HasSubstr("broken" + std::to_string(number) + ".package"));
  }
  EXPECT_THAT(Log(), ContainsRegex(" E PACKAGE_MANAGER [0-9]+: Left out a broken package: " +
                                   PathOf("broken7").string() + ": holds a NUL\n"));
  EXPECT_THAT(Log(), HasSubstr("broken11.package: not a regular file of at most 1 MiB\n"));
}

TEST_F(ABrokenKeyFile, IsLoggedOnce) {
  WriteByHand("broken", "nonsense");
  for (int i = 0; i < 5; ++i) {
    WriteByHand("com.example.notes", KeyFile(std::to_string(i)));
    EXPECT_EQ(VersionOf("com.example.notes"), std::to_string(i));
  }
  const std::string log = Log();
  EXPECT_THAT(log, HasSubstr("broken.package"));
  EXPECT_EQ(log.find("broken.package"), log.rfind("broken.package"));
}

TEST_F(ABrokenKeyFile, MayBeAnythingButARegularFile) {
  std::filesystem::create_directories(folder_);
  std::filesystem::create_directory(PathOf("folder"));
  ASSERT_EQ(mkfifo(PathOf("fifo").c_str(), 0600), 0);
  std::filesystem::create_symlink("/dev/zero", PathOf("device"));
  std::filesystem::create_symlink(PathOf("loop"), PathOf("loop"));
  WriteByHand("com.example.notes", KeyFile("1"));
  EXPECT_THAT(AllIds(), ElementsAre("com.example.notes"));
  EXPECT_THAT(Log(), HasSubstr("fifo.package: not a regular file of at most 1 MiB\n"));
  EXPECT_THAT(Log(), HasSubstr("device.package: Too many levels of symbolic links\n"));
}

TEST_F(ABrokenKeyFile, IsAPackageOnceItIsRepaired) {
  WriteByHand("com.example.notes", "nonsense");
  EXPECT_EQ(VersionOf("com.example.notes"), "");
  WriteByHand("com.example.notes", KeyFile("1"));
  EXPECT_EQ(VersionOf("com.example.notes"), "1");
}

TEST_F(AnInstalledApplication, HasItsMetadataInStoredOrder) {
  WriteByHand("com.example.notes", KeyFile("1") +
                                       "[Application com.example.notes.writer]\nzeta=1\nalpha=two "
                                       "words\nai-agent-category=text\n"
                                       "[Application com.example.notes.reader]\nkey=value\n");
  EXPECT_THAT(MetadataOf("com.example.notes.writer"),
              ElementsAre(Pair("zeta", "1"), Pair("alpha", "two words"),
                          Pair("ai-agent-category", "text")));
  EXPECT_THAT(MetadataOf("com.example.notes.reader"), ElementsAre(Pair("key", "value")));
}

TEST_F(AnInstalledApplication, HasThePackagesIdWhereThePackageNamesNone) {
  WriteByHand("com.example.notes", KeyFile("1"));
  EXPECT_THAT(MetadataOf("com.example.notes"), IsEmpty());
}

TEST_F(AnInstalledApplication, IsNotThePackageWhereThePackageNamesOthers) {
  WriteByHand("com.example.notes", KeyFile("1") + "[Application com.example.writer]\n");
  int untouched = 0;
  auto info = reinterpret_cast<app_info_h>(&untouched);
  EXPECT_EQ(app_info_create("com.example.notes", &info), -22);
  EXPECT_EQ(info, reinterpret_cast<app_info_h>(&untouched));
}

TEST_F(AnInstalledApplication, BelongsToTheFirstPackageThatNamesIt) {
  WriteByHand("b", KeyFile("1") + "[Application shared]\nfrom=b\n");
  WriteByHand("a", KeyFile("1") + "[Application shared]\nfrom=a\n");
  EXPECT_THAT(MetadataOf("shared"), ElementsAre(Pair("from", "a")));
}

TEST_F(AnInstalledApplication, EndsTheIterationWhenTheCallbackSaysSo) {
  WriteByHand("a", KeyFile("1") + "[Application a]\none=1\ntwo=2\nthree=3\n");
  app_info_h info = nullptr;
  ASSERT_EQ(app_info_create("a", &info), 0);
  int calls = 0;
  const auto stop_at_two = [](const char*, const char*, void* count) {
    return ++*static_cast<int*>(count) < 2;
  };
  EXPECT_EQ(app_info_foreach_metadata(info, stop_at_two, &calls), 0);
  EXPECT_EQ(calls, 2);
  app_info_destroy(info);
}

TEST_F(AnInstalledApplication, IsOneSnapshotWhateverIsInstalledLater) {
  WriteByHand("a", KeyFile("1") + "[Application a]\nkey=old\n");
  app_info_h info = nullptr;
  ASSERT_EQ(app_info_create("a", &info), 0);
  WriteByHand("a", KeyFile("1") + "[Application a]\nkey=new\n");
  EXPECT_THAT(MetadataOf("a"), ElementsAre(Pair("key", "new")));
  Metadata metadata;
  app_info_foreach_metadata(info, CollectMetadata, &metadata);
  EXPECT_THAT(metadata, ElementsAre(Pair("key", "old")));
  app_info_destroy(info);
}

TEST_F(AnInstalledApplication, LeavesNothingBehind) {
  size_t first = 0;
  for (int i = 0; i < 40; ++i) {
    const std::string text =
        KeyFile(std::to_string(i)) + "[Application a]\nkey=" + std::string(500000, 'x') + "\n";
    // At first without a generation, then with one.
    int result = 0;
    if (i < 20) {
      WriteByHand("a", text);
    } else {
      result = package_desktop_install(folder_.c_str(), "a", text.c_str());
    }
    ASSERT_EQ(result, 0);
    app_info_h info = nullptr;
    ASSERT_EQ(app_info_create("a", &info), 0);
    ASSERT_EQ(app_info_destroy(info), 0);
    if (i == 1) first = BytesInUse();
  }
  EXPECT_LT(BytesInUse(), first + (5 << 20));
}

TEST_F(AnInstalledApplication, RefusesNullArguments) {
  WriteByHand("a", KeyFile("1"));
  app_info_h info = nullptr;
  EXPECT_EQ(app_info_create(nullptr, &info), -22);
  EXPECT_EQ(app_info_create("a", nullptr), -22);
  EXPECT_EQ(app_info_destroy(nullptr), -22);
  EXPECT_EQ(app_info_foreach_metadata(nullptr, CollectMetadata, nullptr), -22);
  ASSERT_EQ(app_info_create("a", &info), 0);
  EXPECT_EQ(app_info_foreach_metadata(info, nullptr, nullptr), -22);
  app_info_destroy(info);
}

}  // namespace
