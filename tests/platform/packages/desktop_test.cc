// SPDX-License-Identifier: Apache-2.0
// What the desktop's own functions write and decide.

#include <gmock/gmock.h>
#include <package_desktop.h>

#include "package_world.h"

using testing::ElementsAre;

namespace {

class PackageInstall : public PackageWorld {
 protected:
  int Install(const char* id, const std::string& text) const {
    return package_desktop_install(folder_.c_str(), id, text.c_str());
  }
  int Remove(const char* id) const { return package_desktop_remove(folder_.c_str(), id); }
};
class PackageRemoval : public PackageInstall {};
class AClient : public PackageInstall {};

TEST_F(PackageInstall, MakesTheFolderAndThePackage) {
  ASSERT_EQ(Install("com.example.notes", KeyFile("1")), 0);
  EXPECT_EQ(VersionOf("com.example.notes"), "1");
  const auto mode = std::filesystem::status(PathOf("com.example.notes")).permissions();
  EXPECT_EQ(static_cast<int>(mode), 0644);
}

TEST_F(PackageInstall, ReplacesAPackageAndLeavesNoOtherFileBehind) {
  ASSERT_EQ(Install("a", KeyFile("1")), 0);
  ASSERT_EQ(Install("a", KeyFile("2")), 0);
  EXPECT_EQ(VersionOf("a"), "2");
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
    names.push_back(entry.path().filename());
  }
  EXPECT_THAT(names, testing::UnorderedElementsAre("a.package", ".generation"));
}

TEST_F(PackageInstall, RefusesATextThatIsNoPackage) {
  for (const char* text : {"", "nonsense", "[Package]\n", "[Package]\nVersion=\xff\n"}) {
    EXPECT_EQ(Install("a", text), -22) << text;
  }
  EXPECT_FALSE(std::filesystem::exists(folder_));
}

TEST_F(PackageInstall, RefusesAnIdThatIsNoFileName) {
  const std::string too_long(250, 'x');
  for (const char* id : {"", ".", "..", ".hidden", "a/b", "/", "a\nb", "\xff", too_long.c_str()}) {
    EXPECT_EQ(Install(id, KeyFile("1")), -22) << id;
    EXPECT_EQ(Remove(id), -22) << id;
  }
}

TEST_F(PackageInstall, RefusesNullArguments) {
  EXPECT_EQ(package_desktop_install(nullptr, "a", "[Package]\nVersion=1\n"), -22);
  EXPECT_EQ(package_desktop_install("", "a", "[Package]\nVersion=1\n"), -22);
  EXPECT_EQ(package_desktop_install(folder_.c_str(), nullptr, "[Package]\nVersion=1\n"), -22);
  EXPECT_EQ(package_desktop_install(folder_.c_str(), "a", nullptr), -22);
  EXPECT_EQ(package_desktop_remove(nullptr, "a"), -22);
  EXPECT_EQ(package_desktop_remove(folder_.c_str(), nullptr), -22);
}

TEST_F(PackageInstall, FailsWhereNoFolderCanBe) {
  std::ofstream(folder_) << "a file";
  EXPECT_EQ(Install("a", KeyFile("1")), -5);
  EXPECT_EQ(Remove("a"), -22);
}

TEST_F(PackageInstall, FailsWhereAFolderHasTheFilesName) {
  std::filesystem::create_directories(PathOf("a") / "full");
  EXPECT_EQ(Install("a", KeyFile("1")), -5);
  EXPECT_EQ(Install("b", KeyFile("1")), 0);
  EXPECT_THAT(AllIds(), ElementsAre("b"));
}

TEST_F(PackageInstall, LeavesNoDescriptorOpen) {
  ASSERT_EQ(Install("a", KeyFile("1")), 0);
  const int before = OpenDescriptors();
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(Install("a", KeyFile("1")), 0);
    EXPECT_EQ(Install("a", "nonsense"), -22);
    EXPECT_EQ(Remove("a"), 0);
    EXPECT_EQ(Remove("a"), -22);
  }
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(PackageRemoval, IsSeenByTheNextLookUp) {
  ASSERT_EQ(Install("a", KeyFile("1")), 0);
  EXPECT_EQ(VersionOf("a"), "1");
  EXPECT_EQ(Remove("a"), 0);
  EXPECT_EQ(VersionOf("a"), "");
}

TEST_F(PackageRemoval, FailsForAPackageThatIsNotThere) {
  EXPECT_EQ(Remove("a"), -22);
  ASSERT_EQ(Install("a", KeyFile("1")), 0);
  EXPECT_EQ(Remove("b"), -22);
  EXPECT_EQ(VersionOf("a"), "1");
}

TEST_F(PackageRemoval, MayComeFromInsideAnIteration) {
  for (const char* id : {"a", "b", "c"}) ASSERT_EQ(Install(id, KeyFile("1")), 0);
  struct Visit {
    const char* folder;
    std::vector<std::string> seen;
  } visit = {folder_.c_str(), {}};
  const auto remove_it = [](package_info_h info, void* user_data) {
    auto* v = static_cast<Visit*>(user_data);
    char* id = nullptr;
    EXPECT_EQ(package_info_get_package(info, &id), 0);
    v->seen.emplace_back(id);
    EXPECT_EQ(package_desktop_remove(v->folder, id), 0);
    EXPECT_EQ(VersionOf(id), "");
    EXPECT_EQ(package_desktop_install(v->folder, ("new-" + std::string(id)).c_str(),
                                      "[Package]\nVersion=1\n"),
              0);
    free(id);
    return true;
  };
  EXPECT_EQ(package_manager_foreach_package_info(remove_it, &visit), 0);
  EXPECT_THAT(visit.seen, ElementsAre("a", "b", "c"));
  EXPECT_THAT(AllIds(), ElementsAre("new-a", "new-b", "new-c"));
}

TEST_F(AClient, IsAdmittedByAPackageThatNamesNone) {
  ASSERT_EQ(Install("server", KeyFile("1")), 0);
  EXPECT_EQ(package_desktop_check_client("server", "anyone"), 0);
}

TEST_F(AClient, IsAdmittedWhereAPatternMatches) {
  ASSERT_EQ(Install("server", KeyFile("1") + "Clients=com.example.*;org.?.notes;exact\n"), 0);
  for (const char* client : {"com.example.a", "com.example.", "org.x.notes", "exact"}) {
    EXPECT_EQ(package_desktop_check_client("server", client), 0) << client;
  }
  for (const char* client :
       {"com.exampleX", "org.xy.notes", "exact2", "Exact", "", "xcom.example.a"}) {
    EXPECT_EQ(package_desktop_check_client("server", client), -13) << client;
  }
}

TEST_F(AClient, IsNotAdmittedByAnEmptyList) {
  ASSERT_EQ(Install("server", KeyFile("1") + "Clients=\n"), 0);
  EXPECT_EQ(package_desktop_check_client("server", "anyone"), -13);
}

TEST_F(AClient, FindsTheServerByItsApplication) {
  ASSERT_EQ(Install("package", KeyFile("1") + "Clients=friend\n[Application server]\n"), 0);
  EXPECT_EQ(package_desktop_check_client("server", "friend"), 0);
  EXPECT_EQ(package_desktop_check_client("server", "stranger"), -13);
  EXPECT_EQ(package_desktop_check_client("package", "friend"), -22);
  EXPECT_EQ(package_desktop_check_client("missing", "friend"), -22);
  EXPECT_EQ(package_desktop_check_client(nullptr, "friend"), -22);
  EXPECT_EQ(package_desktop_check_client("server", nullptr), -22);
}

}  // namespace
