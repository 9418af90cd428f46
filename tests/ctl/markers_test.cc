// SPDX-License-Identifier: Apache-2.0
#include "markers.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "../agent/temp_folder.h"
#include "../unit/elf_builder.h"

namespace svcmgrctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

/** A file as a linker makes it. */
std::string Finished(elf::Bytes file) {
  file[6] = 1;  // the version of the format
  return file;
}

std::string MarkedBytes(const elf::Marker& marker, elf::Kind kind = elf::Kind::k64) {
  return Finished(elf::FileWith(marker, kind));
}

elf::Marker MarkerOf(unsigned level, unsigned major = 2, unsigned minor = 3, unsigned patch = 182) {
  elf::Marker marker;
  marker.api_level = level;
  marker.version_major = major;
  marker.version_minor = minor;
  marker.version_patch = patch;
  return marker;
}

class AFolder : public testing::Test {
 protected:
  std::vector<MarkedFile> Find() { return FindMarkers(folder_.path()); }
  const TempFolder folder_;
};

using Markers = AFolder;

TEST_F(Markers, AreFoundInFilesOfBothKindsWhereverTheyLie) {
  std::filesystem::create_directories(folder_.path() + "/lib/deep");
  folder_.Write("lib/deep/a.so", MarkedBytes(MarkerOf(11, 2, 3, 182)));
  folder_.Write("b", MarkedBytes(MarkerOf(8, 1, 7, 65535), elf::Kind::k32));
  std::vector<MarkedFile> files = Find();
  ASSERT_THAT(files, SizeIs(2));
  if (files[0].path == "b") std::swap(files[0], files[1]);
  EXPECT_EQ(files[0].path, "lib/deep/a.so");
  ASSERT_THAT(files[0].markers, SizeIs(1));
  EXPECT_EQ(files[0].markers[0].api_level, 11);
  EXPECT_EQ(files[1].path, "b");
  ASSERT_THAT(files[1].markers, SizeIs(1));
  const Marker& marker = files[1].markers[0];
  EXPECT_THAT((std::vector<int>{marker.api_level, marker.version_major, marker.version_minor,
                                marker.version_patch}),
              ElementsAre(8, 1, 7, 65535));
  EXPECT_EQ(files[1].problem, "");
}

TEST_F(Markers, CountWhateverTheirSectionsAreCalled) {
  folder_.Write("nameless", MarkedBytes(MarkerOf(1)));
  EXPECT_EQ(Find().at(0).markers.at(0).section, "");
}

TEST_F(Markers, OfOneFileAreAllShownTheFirstOneFirst) {
  folder_.Write("a", Finished(elf::Builder(elf::Kind::k64)
                                  .Section("something else")
                                  .Section(MarkerOf(3))
                                  .Section(MarkerOf(11))
                                  .Build()));
  const std::vector<MarkedFile> files = Find();
  ASSERT_THAT(files, SizeIs(1));
  ASSERT_THAT(files[0].markers, SizeIs(2));
  EXPECT_EQ(files[0].markers[0].api_level, 3);
  EXPECT_EQ(files[0].markers[1].api_level, 11);
  EXPECT_EQ(Newest(files)->markers[0].api_level, 3) << "the first one counts";
}

TEST_F(Markers, AreNotWhatOnlyLooksLikeThem) {
  elf::Marker wrong_magic;
  wrong_magic.magic = elf::Bytes("KYRX", 4);
  elf::Marker reserved;
  reserved.reserved = 1;
  folder_.Write("magic", MarkedBytes(wrong_magic));
  folder_.Write("reserved", MarkedBytes(reserved));
  folder_.Write("longer", Finished(elf::Builder(elf::Kind::k64)
                                       .Section(elf::Marker().ToBytes() + std::string(1, '\0'))
                                       .Build()));
  folder_.Write("text", elf::Marker().ToBytes() + std::string(100, 'x'));
  folder_.Write("empty", "");
  EXPECT_THAT(Find(), IsEmpty());
}

TEST_F(Markers, AreNotLookedForInWhatIsNoRegularFile) {
  const TempFolder elsewhere;
  const std::string file = elsewhere.Write("a", MarkedBytes(MarkerOf(11)));
  std::filesystem::create_symlink(file, folder_.path() + "/link");
  std::filesystem::create_symlink(elsewhere.path(), folder_.path() + "/folder");
  ASSERT_EQ(mkfifo((folder_.path() + "/fifo").c_str(), 0600), 0);
  EXPECT_THAT(Find(), IsEmpty());
}

TEST_F(Markers, CannotBeToldOfADamagedFileWhichIsNoEnd) {
  folder_.Write(
      "far",
      Finished(elf::Builder(elf::Kind::k64).Section(MarkerOf(11)).ClaimTable(1 << 30).Build()));
  folder_.Write("short", MarkedBytes(MarkerOf(11)).substr(0, 60));
  folder_.Write("kind",
                Finished(elf::Builder(elf::Kind::k64).ClassByte(9).Section(MarkerOf(11)).Build()));
  folder_.Write("right", MarkedBytes(MarkerOf(7)));
  const std::vector<MarkedFile> files = Find();
  EXPECT_THAT(files, SizeIs(4));
  for (const MarkedFile& file : files) {
    if (file.path == "right")
      EXPECT_EQ(file.problem, "");
    else
      EXPECT_THAT(file.problem, StartsWith("damaged: ")) << file.path;
  }
  ASSERT_NE(Newest(files), nullptr);
  EXPECT_EQ(Newest(files)->path, "right");
}

TEST_F(Markers, AreNotReadFromFilesWithTheOtherByteOrder) {
  folder_.Write(
      "a", Finished(elf::Builder(elf::Kind::k64).OtherByteOrder().Section(MarkerOf(11)).Build()));
  const std::vector<MarkedFile> files = Find();
  ASSERT_THAT(files, SizeIs(1));
  EXPECT_THAT(files[0].problem, HasSubstr("passed over"));
  EXPECT_THAT(files[0].markers, IsEmpty());
}

TEST_F(Markers, CostLittleInAFileThatClaimsAlot) {
  elf::Builder builder(elf::Kind::k64);
  builder.TableFirst();
  for (int i = 0; i < 2000; ++i) builder.Header(0xffffffff, 0xffffffff);
  folder_.Write("a", Finished(builder.Section(MarkerOf(5)).Build()));
  const std::vector<MarkedFile> files = Find();
  ASSERT_THAT(files, SizeIs(1));
  EXPECT_THAT(files[0].markers, SizeIs(1));
}

TEST_F(Markers, CannotBeToldOfAFileThatIsClosedToTheUser) {
  if (geteuid() == 0) GTEST_SKIP() << "nothing is closed to root";
  const std::string file = folder_.Write("a", MarkedBytes(MarkerOf(11)));
  chmod(file.c_str(), 0);
  ASSERT_THAT(Find(), SizeIs(1));
  EXPECT_THAT(Find()[0].problem, HasSubstr("cannot be opened: Permission denied"));
}

MarkedFile Marked(const char* path, std::uint16_t level, std::uint16_t major, std::uint16_t minor,
                  std::uint16_t patch) {
  return {path, {{level, major, minor, patch, ".kyr"}}, ""};
}

TEST(TheNewestMarker, IsDecidedByLevelThenMajorThenMinorThenPatch) {
  const std::vector<MarkedFile> rising = {
      Marked("a", 1, 9, 9, 9), Marked("b", 2, 1, 9, 9),     Marked("c", 2, 2, 0, 9),
      Marked("d", 2, 2, 1, 0), Marked("e", 2, 2, 1, 65535),
  };
  for (std::size_t i = 1; i < rising.size(); ++i) {
    EXPECT_EQ(Newest({rising[i - 1], rising[i]})->path, rising[i].path) << "as unsigned numbers";
    const std::vector<MarkedFile> other_way = {rising[i], rising[i - 1]};
    EXPECT_EQ(Newest(other_way), other_way.data());
  }
}

TEST(TheNewestMarker, IsTheFirstOfEqualsAndNeverOneOfLevelZero) {
  const std::vector<MarkedFile> files = {Marked("zero", 0, 9, 9, 9),
                                         Marked("first", 1, 2, 3, 4),
                                         Marked("second", 1, 2, 3, 4),
                                         {"bad", {}, "damaged"}};
  EXPECT_EQ(Newest(files)->path, "first");
  EXPECT_EQ(Newest({files[0], files[3]}), nullptr);
  EXPECT_EQ(Newest({}), nullptr);
}

}  // namespace
}  // namespace svcmgrctl
