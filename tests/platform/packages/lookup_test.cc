// SPDX-License-Identifier: Apache-2.0
// Whether look-ups are cheap and never stale.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <package_desktop.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <ostream>
#include <thread>

#include "coarse_clock.h"
#include "package_world.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// What a look-up has to make do with.
struct Way {
  const char* name;
  int asked;  // look-ups before each change: after many, each way of asking is in use
  long refused_system_call;
};
std::ostream& operator<<(std::ostream& out, const Way& way) { return out << way.name; }
std::string NameOf(const testing::TestParamInfo<Way>& info) { return info.param.name; }

constexpr long kNone = -1;
constexpr Way kOnce = {"Once", 1, kNone};
constexpr Way kOften = {"Often", 200, kNone};
constexpr Way kOnceWithoutWatch = {"OnceWithoutWatch", 1, SYS_inotify_init1};

// Decides what becomes of one system call of this process and its children, from here on. True on
// success.
bool Filter(long system_call, unsigned if_so, unsigned if_not) {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(system_call), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, if_so),
      BPF_STMT(BPF_RET | BPF_K, if_not),
  };
  sock_fprog program = {sizeof filter / sizeof *filter, filter};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// Whoever writes the folder, and however often it was asked for before, each look-up that follows a
// change must see it. Only changes by hand in a folder that the desktop's tools also write may take
// 10 ms.
class ALookUp : public PackageWorld, public testing::WithParamInterface<Way> {
 protected:
  ALookUp() {
    const long refused = GetParam().refused_system_call;
    if (refused == kNone) return;
    EXPECT_TRUE(Filter(refused, SECCOMP_RET_ERRNO | EMFILE, SECCOMP_RET_ALLOW));
  }
  int Install(const char* id, const std::string& version) const {
    return package_desktop_install(folder_.c_str(), id, KeyFile(version).c_str());
  }
  void InstallElsewhere(const char* id, const std::string& version) const {
    ASSERT_EQ(RunProgram({PACKAGE_WRITER, "install", folder_, id, KeyFile(version)}), 0);
  }
  void Ask(const char* id) const {
    const std::string version = VersionOf(id);
    for (int i = 1; i < GetParam().asked; ++i) ASSERT_EQ(VersionOf(id), version);
  }
};
INSTANTIATE_TEST_SUITE_P(Asked, ALookUp, testing::Values(kOnce, kOften, kOnceWithoutWatch), NameOf);

TEST_P(ALookUp, SeesWhatAnotherProcessInstalls) {
  for (int i = 0; i < 20; ++i) {
    Ask("a");
    ASSERT_NO_FATAL_FAILURE(InstallElsewhere("a", std::to_string(i)));
    ASSERT_EQ(VersionOf("a"), std::to_string(i));
  }
  Ask("a");
  ASSERT_EQ(RunProgram({PACKAGE_WRITER, "remove", folder_, "a"}), 0);
  EXPECT_EQ(VersionOf("a"), "");
}

TEST_P(ALookUp, SeesWithin10MsWhatIsChangedByHandInAFolderOfThePlatform) {
  ASSERT_EQ(Install("a", "1"), 0);
  for (int i = 0; i < 20; ++i) {
    Ask("a");
    WriteByHand("a", KeyFile(std::to_string(i)));
    LetNewsBeHeard();
    ASSERT_EQ(VersionOf("a"), std::to_string(i));
  }
  Ask("a");
  std::filesystem::remove(PathOf("a"));
  LetNewsBeHeard();
  EXPECT_EQ(VersionOf("a"), "");
}

TEST_P(ALookUp, SeesAtOnceWhatAToolInstallsAfterAChangeByHand) {
  ASSERT_EQ(Install("a", "1"), 0);
  Ask("a");
  WriteByHand("b", KeyFile("2"));
  ASSERT_NO_FATAL_FAILURE(InstallElsewhere("a", "3"));
  EXPECT_EQ(VersionOf("a"), "3");
  EXPECT_EQ(VersionOf("b"), "2");
}

TEST_P(ALookUp, SeesWhatIsChangedByHandInAFolderWithoutAGeneration) {
  for (int i = 0; i < 20; ++i) {
    WriteByHand("a", KeyFile(std::to_string(i)));
    ASSERT_EQ(VersionOf("a"), std::to_string(i));
    Ask("a");
  }
  std::filesystem::rename(PathOf("a"), PathOf("b"));
  EXPECT_THAT(AllIds(), ElementsAre("b"));
}

TEST_P(ALookUp, SeesWhatIsWrittenThroughAnotherLinkOfAKeyFile) {
  ASSERT_EQ(Install("other", "1"), 0);
  const auto elsewhere = top_ / "elsewhere";
  std::ofstream(elsewhere) << KeyFile("0");
  std::filesystem::create_hard_link(elsewhere, PathOf("a"));
  LetNewsBeHeard();
  for (int i = 1; i < 20; ++i) {
    Ask("a");
    std::ofstream(elsewhere) << KeyFile(std::to_string(i));
    ASSERT_EQ(VersionOf("a"), std::to_string(i));
  }
  // A broken file is seen, too.
  std::ofstream(elsewhere) << "broken";
  ASSERT_EQ(VersionOf("a"), "");
  Ask("a");
  std::ofstream(elsewhere) << KeyFile("20");
  ASSERT_EQ(VersionOf("a"), "20");
  std::filesystem::remove(elsewhere);
  Ask("a");
  WriteByHand("a", KeyFile("21"));
  LetNewsBeHeard();
  EXPECT_EQ(VersionOf("a"), "21");
}

TEST_P(ALookUp, SeesAFolderThatIsCreatedLater) {
  folder_ = top_ / "one" / "two" / "packages";
  setenv("VELMORA_PACKAGE_DIR", folder_.c_str(), 1);
  Ask("a");
  std::filesystem::create_directory(top_ / "one");
  Ask("a");
  std::filesystem::create_directory(top_ / "one" / "two");
  Ask("a");
  WriteByHand("a", KeyFile("1"));
  EXPECT_EQ(VersionOf("a"), "1");
}

TEST_P(ALookUp, SeesAFolderThatGoesAndComesBack) {
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(Install("a", std::to_string(i)), 0);
    ASSERT_EQ(VersionOf("a"), std::to_string(i));
    Ask("a");
    std::filesystem::remove_all(folder_);
    LetNewsBeHeard();
    ASSERT_EQ(VersionOf("a"), "");
    Ask("a");
  }
}

TEST_P(ALookUp, SeesAFolderThatIsReplaced) {
  ASSERT_EQ(Install("a", "1"), 0);
  const auto other = top_ / "other";
  ASSERT_EQ(package_desktop_install(other.c_str(), "b", KeyFile("2").c_str()), 0);
  EXPECT_THAT(AllIds(), ElementsAre("a"));
  Ask("a");
  std::filesystem::rename(folder_, top_ / "old");
  LetNewsBeHeard();
  EXPECT_THAT(AllIds(), IsEmpty());
  Ask("a");
  std::filesystem::rename(other, folder_);
  LetNewsBeHeard();
  EXPECT_THAT(AllIds(), ElementsAre("b"));
  Ask("b");
  ASSERT_NO_FATAL_FAILURE(InstallElsewhere("c", "3"));
  EXPECT_THAT(AllIds(), ElementsAre("b", "c"));
}

TEST_P(ALookUp, SeesAFolderAboveThatIsReplaced) {
  const auto above = top_ / "above";
  folder_ = above / "packages";
  setenv("VELMORA_PACKAGE_DIR", folder_.c_str(), 1);
  ASSERT_EQ(Install("a", "1"), 0);
  Ask("a");
  std::filesystem::rename(above, top_ / "old");
  LetNewsBeHeard();
  EXPECT_EQ(VersionOf("a"), "");
  Ask("a");
  ASSERT_EQ(Install("a", "2"), 0);
  EXPECT_EQ(VersionOf("a"), "2");
}

TEST_P(ALookUp, SeesAFolderFarAboveThatIsReplaced) {
  folder_ = top_ / "one" / "two" / "three" / "packages";
  setenv("VELMORA_PACKAGE_DIR", (top_.string() + "/one//two/.//three//packages//").c_str(), 1);
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(Install("a", std::to_string(i)), 0);
    EXPECT_EQ(VersionOf("a"), std::to_string(i));
    Ask("a");
    std::filesystem::rename(top_ / "one", top_ / ("old" + std::to_string(i)));
    LetNewsBeHeard();
    EXPECT_EQ(VersionOf("a"), "");
    Ask("a");
  }
  std::filesystem::rename(top_ / "old1", top_ / "one");
  LetNewsBeHeard();
  EXPECT_EQ(VersionOf("a"), "1");
  Ask("a");
  std::filesystem::remove_all(top_ / "one");
  LetNewsBeHeard();
  EXPECT_EQ(VersionOf("a"), "");
}

TEST_P(ALookUp, SeesAFolderThatIsRemovedWhileSomebodyIsInIt) {
  ASSERT_EQ(Install("a", "1"), 0);
  Ask("a");
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(folder_);
  std::filesystem::remove_all(folder_);
  LetNewsBeHeard();
  EXPECT_EQ(VersionOf("a"), "");
  Ask("a");
  WriteByHand("a", KeyFile("2"));
  EXPECT_EQ(VersionOf("a"), "2");
  std::filesystem::current_path(before);
}

TEST_P(ALookUp, SeesASymbolicLinkThatIsTurned) {
  for (const char* name : {"one", "two"}) {
    const auto folder = top_ / name;
    ASSERT_EQ(package_desktop_install(folder.c_str(), name, KeyFile("1").c_str()), 0);
  }
  std::filesystem::create_directory_symlink(top_ / "one", folder_);
  EXPECT_THAT(AllIds(), ElementsAre("one"));
  Ask("one");
  std::filesystem::create_directory_symlink(top_ / "two", top_ / "link");
  std::filesystem::rename(top_ / "link", folder_);
  LetNewsBeHeard();
  EXPECT_THAT(AllIds(), ElementsAre("two"));
  Ask("two");
  std::filesystem::rename(top_ / "two", top_ / "three");
  LetNewsBeHeard();
  EXPECT_THAT(AllIds(), IsEmpty());
}

TEST_P(ALookUp, SeesAFolderThatBecomesASymbolicLink) {
  const auto above = top_ / "above";
  folder_ = above / "packages";
  setenv("VELMORA_PACKAGE_DIR", folder_.c_str(), 1);
  ASSERT_EQ(Install("a", "1"), 0);
  Ask("a");
  const auto other = top_ / "other" / "packages";
  ASSERT_EQ(package_desktop_install(other.c_str(), "b", KeyFile("1").c_str()), 0);
  std::filesystem::rename(above, top_ / "old");
  std::filesystem::create_directory_symlink(top_ / "other", above);
  LetNewsBeHeard();
  EXPECT_THAT(AllIds(), ElementsAre("b"));
  Ask("b");
  std::filesystem::remove(above);
  std::filesystem::rename(top_ / "old", above);
  LetNewsBeHeard();
  EXPECT_THAT(AllIds(), ElementsAre("a"));
}

TEST_P(ALookUp, SeesChangesWhenTheGenerationFileComesGoesOrIsReplaced) {
  WriteByHand("a", KeyFile("1"));
  Ask("a");
  ASSERT_NO_FATAL_FAILURE(InstallElsewhere("a", "2"));
  ASSERT_EQ(VersionOf("a"), "2");
  Ask("a");
  std::filesystem::remove(folder_ / ".generation");
  LetNewsBeHeard();
  Ask("a");
  ASSERT_NO_FATAL_FAILURE(InstallElsewhere("a", "3"));
  ASSERT_EQ(VersionOf("a"), "3");
  Ask("a");
  std::ofstream(folder_ / "other") << "12345678";
  std::filesystem::rename(folder_ / "other", folder_ / ".generation");
  LetNewsBeHeard();
  Ask("a");
  ASSERT_NO_FATAL_FAILURE(InstallElsewhere("a", "4"));
  ASSERT_EQ(VersionOf("a"), "4");
}

TEST_P(ALookUp, SurvivesAGenerationFileThatIsEmptied) {
  ASSERT_EQ(Install("a", "1"), 0);
  Ask("a");
  std::filesystem::resize_file(folder_ / ".generation", 0);
  LetNewsBeHeard();
  Ask("a");
  WriteByHand("a", KeyFile("2"));
  ASSERT_EQ(VersionOf("a"), "2");
  ASSERT_EQ(Install("a", "3"), 0);
  EXPECT_EQ(VersionOf("a"), "3");
}

TEST_P(ALookUp, SurvivesAGenerationFileThatIsNone) {
  std::filesystem::create_directories(folder_ / ".generation");
  ASSERT_EQ(Install("a", "1"), 0);
  Ask("a");
  ASSERT_EQ(Install("a", "2"), 0);
  EXPECT_EQ(VersionOf("a"), "2");
}

TEST_P(ALookUp, IsFreshOnBothSidesOfAFork) {
  ASSERT_EQ(Install("a", "1"), 0);
  Ask("a");
  const pid_t child = fork();
  if (child == 0) {
    // The child's look-ups must not take news that the parent has yet to read.
    bool fresh = VersionOf("a") == "1";
    for (int i = 0; i < 100; ++i) {
      WriteByHand("a", KeyFile(std::to_string(i)));
      LetNewsBeHeard();
      fresh = fresh && VersionOf("a") == std::to_string(i);
    }
    _exit(fresh ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  LetNewsBeHeard();
  EXPECT_EQ(VersionOf("a"), "99");
}

TEST_P(ALookUp, LeavesNoDescriptorBehindAndHandsNoneToOtherPrograms) {
  ASSERT_EQ(Install("a", "1"), 0);
  // A process opens its last descriptor only after many look-ups.
  for (int i = 0; i < 200; ++i) ASSERT_EQ(VersionOf("a"), "1");
  const int before = OpenDescriptors();
  for (int i = 0; i < 50; ++i) {
    WriteByHand("a", KeyFile(std::to_string(i)));
    LetNewsBeHeard();
    Ask("a");
    std::filesystem::remove_all(folder_);
    LetNewsBeHeard();
    Ask("a");
    ASSERT_EQ(Install("a", "1"), 0);
    Ask("a");
  }
  EXPECT_EQ(OpenDescriptors(), before);
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const std::string target = std::filesystem::read_symlink(entry.path());
    if (target.rfind("anon_inode:", 0) != 0) continue;
    EXPECT_TRUE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC) << target;
  }
}

class LookUps : public ALookUp {
 protected:
  // Three threads look up a package whose version is raised by `install`, one by one.
  static void ExpectRightAnswersDuring(const std::function<void(int)>& install) {
    constexpr int kChanges = 300;
    std::atomic<int> installed{0};
    const auto ask = [&] {
      for (int before = 0; before < kChanges;) {
        before = installed.load();
        const std::string version = VersionOf("a");
        const int after = installed.load();
        // What is being installed right now may be seen or not.
        ASSERT_GE(std::stoi(version), before);
        ASSERT_LE(std::stoi(version), after + 1);
      }
    };
    std::thread readers[] = {std::thread(ask), std::thread(ask), std::thread(ask)};
    for (int i = 1; i <= kChanges; ++i) {
      install(i);
      installed.store(i);
    }
    for (std::thread& reader : readers) reader.join();
  }
};
INSTANTIATE_TEST_SUITE_P(Asked, LookUps, testing::Values(kOften, kOnceWithoutWatch), NameOf);

TEST_P(LookUps, AreRightInAllThreadsWhileAToolChangesTheFolder) {
  ASSERT_EQ(Install("a", "0"), 0);
  ExpectRightAnswersDuring([this](int i) { EXPECT_EQ(Install("a", std::to_string(i)), 0); });
}

TEST_P(LookUps, AreRightInAllThreadsWhileSomebodyChangesAFolderWithoutAGeneration) {
  WriteByHand("a", KeyFile("0"));
  ExpectRightAnswersDuring([this](int i) {
    // In one step: a half-written file would count as none for a moment.
    std::ofstream(folder_ / "new") << KeyFile(std::to_string(i));
    std::filesystem::rename(folder_ / "new", PathOf("a"));
  });
}

TEST_P(LookUps, OfThreadsThatEndLeaveNothingBehind) {
  ASSERT_EQ(Install("a", "1"), 0);
  Ask("a");
  for (int i = 0; i < 50; ++i) std::thread([this] { Ask("a"); }).join();
  EXPECT_EQ(VersionOf("a"), "1");
}

class ManyLookUps : public PackageWorld {};

TEST_F(ManyLookUps, HearOfAChangeByHandOnlyWhenTenMillisecondsHavePassed) {
  ASSERT_EQ(package_desktop_install(folder_.c_str(), "a", KeyFile("1").c_str()), 0);
  ASSERT_EQ(VersionOf("a"), "1");
  for (const char* version : {"2", "3"}) {
    const std::string before = VersionOf("a");
    WriteByHand("a", KeyFile(version));
    LetPass(9);
    EXPECT_EQ(VersionOf("a"), before);
    LetPass(1);
    EXPECT_EQ(VersionOf("a"), version);
  }
}

TEST_F(ManyLookUps, OfAllThreadsHearOfAChangeByHandTogether) {
  ASSERT_EQ(package_desktop_install(folder_.c_str(), "a", KeyFile("1").c_str()), 0);
  ASSERT_EQ(VersionOf("a"), "1");
  WriteByHand("a", KeyFile("2"));
  std::thread([] {
    EXPECT_EQ(VersionOf("a"), "1");
    LetNewsBeHeard();
    EXPECT_EQ(VersionOf("a"), "2");
  }).join();
  EXPECT_EQ(VersionOf("a"), "2");
}

// Sanitizers make their own system calls.
#ifndef SANITIZED

// From here on the calling process is killed at any system call but its exit.
void ForbidSystemCalls() {
  const rlimit no_core = {0, 0};
  setrlimit(RLIMIT_CORE, &no_core);
  if (!Filter(SYS_exit_group, SECCOMP_RET_ALLOW, SECCOMP_RET_KILL_PROCESS)) _exit(3);
}

TEST_F(ManyLookUps, MakeNoSystemCallWhileNothingChangesInAFolderOfThePlatform) {
  ASSERT_EQ(package_desktop_install(folder_.c_str(), "a", KeyFile("1").c_str()), 0);
  const auto look_up = [this](bool forbidden) {
    const pid_t child = fork();
    if (child == 0) {
      package_info_h info = nullptr;
      for (int i = 0; i < 200; ++i) {
        if (package_info_create("a", &info) == 0) package_info_destroy(info);
      }
      // What happens further up is ignored.
      std::ofstream(top_.parent_path() / (top_.filename().string() + "-noise")) << "noise";
      std::filesystem::remove(top_.string() + "-noise");
      if (forbidden) ForbidSystemCalls();
      bool right = true;
      for (int i = 0; i < 10000; ++i) {
        right = right && package_info_create("a", &info) == 0 && package_info_destroy(info) == 0;
        right = right && package_info_create("b", &info) == kNoSuchPackage;
      }
      _exit(right ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
  };
  EXPECT_EQ(look_up(false), 0);
  EXPECT_EQ(look_up(true), 0);
}

TEST_F(ManyLookUps, AreToldFromSystemCallsByTheFilterOfTheTestAbove) {
  const pid_t child = fork();
  if (child == 0) {
    ForbidSystemCalls();
    getppid();
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status)) << status;
}

#endif  // SANITIZED

}  // namespace
