// SPDX-License-Identifier: Apache-2.0
// What all but the library use.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>

#include "owned.h"
#include "terminal_characters.h"
#include "unique_fd.h"

namespace base {
namespace {

int OpenSomething() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) >= 0; }

TEST(AnOwnerOfADescriptor, ClosesItAtItsEnd) {
  int fd = -1;
  {
    const UniqueFd owner(OpenSomething());
    fd = owner.get();
    ASSERT_TRUE(IsOpen(fd));
    EXPECT_TRUE(owner);
  }
  EXPECT_FALSE(IsOpen(fd));
}

TEST(AnOwnerOfADescriptor, HandsItOnWhenItIsMoved) {
  UniqueFd from(OpenSomething());
  const int fd = from.get();
  const UniqueFd to(std::move(from));
  EXPECT_EQ(to.get(), fd);
  EXPECT_TRUE(IsOpen(fd));
  // NOLINTBEGIN(bugprone-use-after-move,clang-analyzer-cplusplus.Move): that is what is asked
  EXPECT_FALSE(from);
  EXPECT_EQ(from.get(), -1);
  // NOLINTEND(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
}

TEST(AnOwnerOfADescriptor, ClosesWhatItHadAtOnceWhenItIsGivenAnother) {
  UniqueFd first(OpenSomething());
  UniqueFd second(OpenSomething());
  const int had = second.get();
  const int given = first.get();
  second = std::move(first);
  EXPECT_FALSE(IsOpen(had));
  EXPECT_TRUE(IsOpen(given));
  EXPECT_EQ(second.get(), given);

  second.Reset();
  EXPECT_FALSE(IsOpen(given));
  EXPECT_FALSE(second);
}

TEST(AnOwnerOfADescriptor, KeepsItWhenItIsMovedToItself) {
  UniqueFd owner(OpenSomething());
  const int fd = owner.get();
  UniqueFd& same = owner;
  owner = std::move(same);
  EXPECT_EQ(owner.get(), fd);
  EXPECT_TRUE(IsOpen(fd));
}

int released = 0;
int CountRelease(int* object) {
  released += *object;
  return 0;
}

TEST(AnOwnerOfACObject, ReleasesItOnceWithItsFunctionAndTakesNoRoomForThat) {
  int object = 1;
  {
    Owned<int, CountRelease> owner(&object);
    const Owned<int, CountRelease> last(std::move(owner));
    const Owned<int, CountRelease> none;
  }
  EXPECT_EQ(released, 1);
  static_assert(sizeof(Owned<int, CountRelease>) == sizeof(int*));
}

// The ranges one by one, where the search halves them.
bool IsInARange(char32_t c) {
  for (const CharacterRange& range : kUnsafeOnTerminal) {
    if (range.first <= c && c <= range.last) return true;
  }
  return false;
}

TEST(TheCharactersUnsafeOnATerminal, AreThoseOfTheRangesAndNoOthers) {
  for (char32_t c = 0; c <= 0x10FFFF; ++c) {
    ASSERT_EQ(IsUnsafeOnTerminal(c), IsInARange(c)) << std::hex << static_cast<unsigned>(c);
  }
}

TEST(TheCharactersUnsafeOnATerminal, HoldNoLetterOrSignThatIsSeen) {
  for (const char32_t c :
       U" az~\u00A0\u00E4\u0627\u05D0\u0915\u4E2D\u20AC\uFFFD\U0001F600\U0010FFFF") {
    if (c == U'\0') continue;
    EXPECT_FALSE(IsUnsafeOnTerminal(c)) << std::hex << static_cast<unsigned>(c);
  }
}

}  // namespace
}  // namespace base
