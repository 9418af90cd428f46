// SPDX-License-Identifier: Apache-2.0
// Look-ups in threads that get no memory.

#include <fcntl.h>
#include <package_desktop.h>

#include <cerrno>
#include <csignal>
#include <thread>

#include "package_world.h"

namespace {

constexpr int kNever = -1;
thread_local bool memory_is_exhausted = false;
thread_local int allocations_before_failure = kNever;

// Whether the calling thread's next allocation fails.
bool Fails() {
  if (allocations_before_failure == kNever) return memory_is_exhausted;
  return allocations_before_failure-- == 0;
}

void* Refused() {
  errno = ENOMEM;
  return nullptr;
}

}  // namespace

// In place of the C library's, for everybody in the process.
#pragma GCC visibility push(default)
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* malloc(size_t size) { return Fails() ? Refused() : __libc_malloc(size); }
void* calloc(size_t count, size_t size) { return Fails() ? Refused() : __libc_calloc(count, size); }
void* realloc(void* block, size_t size) {
  return Fails() ? Refused() : __libc_realloc(block, size);
}
}
#pragma GCC visibility pop

namespace {

class AThreadWithoutMemory : public PackageWorld {
 protected:
  struct Results {
    int known = 1;
    int given_back = 1;
    int unknown = 1;
  };
  static Results LookUp() {
    Results results;
    package_info_h info = nullptr;
    results.known = package_info_create("a", &info);
    if (results.known == 0) results.given_back = package_info_destroy(info);
    results.unknown = package_info_create("b", &info);
    return results;
  }
  static void ExpectRightAnswers() {
    for (int i = 0; i < 3; ++i) {
      Results results;
      std::thread([&] {
        memory_is_exhausted = true;
        results = LookUp();
        memory_is_exhausted = false;
      }).join();
      EXPECT_EQ(results.known, 0);
      EXPECT_EQ(results.given_back, 0);
      EXPECT_EQ(results.unknown, kNoSuchPackage);
    }
  }
};

TEST_F(AThreadWithoutMemory, LooksUpWhatThePlatformHasInstalled) {
  ASSERT_EQ(package_desktop_install(folder_.c_str(), "a", KeyFile("1").c_str()), 0);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(VersionOf("a"), "1");
  ExpectRightAnswers();
}

TEST_F(AThreadWithoutMemory, LooksUpWhatIsInstalledByHand) {
  WriteByHand("a", KeyFile("1"));
  ASSERT_EQ(VersionOf("a"), "1");
  ExpectRightAnswers();
}

// In the first look-up after a change.
class AFailedAllocation : public PackageWorld {
 protected:
  // Looks "a" up with the `nth` allocation failing, and again with memory.
  static int LookUpTwice(int nth, const std::string& version) {
    package_info_h info = nullptr;
    allocations_before_failure = nth;
    const int result = package_info_create("a", &info);
    const bool failed = allocations_before_failure == kNever;
    allocations_before_failure = kNever;
    const bool right = (result == 0 || result == -12) && VersionOf("a") == version;
    return !right ? kWrong : failed ? kFailed : kDidNotFail;
  }
  // Looks "a" up after it has been changed, with the `nth` allocation failing.
  int LookUpAfterAChange(int nth) const {
    const int errors = open(Errors().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (dup2(errors, STDERR_FILENO) < 0 || VersionOf("a") != "1") return kWrong;
    std::filesystem::rename(folder_, top_ / "old");
    WriteByHand("a", KeyFile("2"));
    return LookUpTwice(nth, "2");
  }
  int StatusOf(pid_t child) const {
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    if (!WIFSIGNALED(status)) return WEXITSTATUS(status);
    // GLib ends a process that it has no memory for, by one signal or another, and says so.
    const bool deliberate = WTERMSIG(status) == SIGTRAP || WTERMSIG(status) == SIGABRT;
    return deliberate && Said().find(": failed to allocate ") != std::string::npos ? kFailed
                                                                                   : kWrong;
  }
  std::filesystem::path Errors() const { return top_ / "errors"; }
  std::string Said() const {
    std::ifstream errors(Errors());
    return {std::istreambuf_iterator<char>(errors), {}};
  }
  static constexpr int kDidNotFail = 0;
  static constexpr int kFailed = 10;
  static constexpr int kWrong = 11;
};

TEST_F(AFailedAllocation, HidesNoChangeFromTheNextLookUp) {
  int status = kFailed;
  int nth = 0;
  for (; status == kFailed && nth < 10000; ++nth) {
    WriteByHand("a", KeyFile("1"));
    const pid_t child = fork();
    if (child == 0) _exit(LookUpAfterAChange(nth));
    status = StatusOf(child);
    std::filesystem::remove_all(top_ / "old");
  }
  EXPECT_EQ(status, kDidNotFail) << nth << "\n" << Said();
  EXPECT_GT(nth, 10);
}

TEST_F(AThreadWithoutMemory, IsRefusedMemoryByTheTest) {
  void* block = &block;
  std::thread([&] {
    memory_is_exhausted = true;
    block = malloc(1);
    memory_is_exhausted = false;
  }).join();
  EXPECT_EQ(block, nullptr);
}

}  // namespace
