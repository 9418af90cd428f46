// SPDX-License-Identifier: Apache-2.0
// Look-ups in threads that get no memory.

#include <package_desktop.h>

#include <cerrno>
#include <thread>

#include "package_world.h"

namespace {

thread_local bool memory_is_exhausted = false;

void* Refused() {
  errno = ENOMEM;
  return nullptr;
}

}  // namespace

// The C library's allocations, which everybody in the process makes.
#pragma GCC visibility push(default)
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* malloc(size_t size) { return memory_is_exhausted ? Refused() : __libc_malloc(size); }
void* calloc(size_t count, size_t size) {
  return memory_is_exhausted ? Refused() : __libc_calloc(count, size);
}
void* realloc(void* block, size_t size) {
  return memory_is_exhausted ? Refused() : __libc_realloc(block, size);
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
