// SPDX-License-Identifier: Apache-2.0
// The markers that the build makes: the library's own, and the object that marks a program.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>

#include "support/readelf.h"

namespace {

using binutils::OutputOf;
using binutils::Quote;
using ::testing::SizeIs;

namespace fs = std::filesystem;

/** Level 11, version 2.3.182. */
const std::string kMarker("\x4b\x59\x52\x00\x00\x00\x01\x00\x0b\x00\x02\x00\x03\x00\xb6\x00", 16);

void ExpectOneMarker(const std::string& file) {
  const auto sections = binutils::SectionsNamed(".kyr", file);
  ASSERT_THAT(sections, SizeIs(1)) << file;
  EXPECT_EQ(sections[0].type, "PROGBITS");
  EXPECT_EQ(sections[0].flags, "");
  ASSERT_EQ(sections[0].size, 16U);
  EXPECT_EQ(binutils::BytesAt(file, sections[0].offset, 16), kMarker);
}

struct Workshop : ::testing::Test {
  void SetUp() override {
    const char* const base = std::getenv("TMPDIR");
    std::string path = std::string(base == nullptr ? "/tmp" : base) + "/marker-XXXXXX";
    ASSERT_NE(mkdtemp(path.data()), nullptr);
    folder = path;
  }
  void TearDown() override { fs::remove_all(folder); }

  fs::path folder;
};

using TheLibrary = Workshop;

TEST_F(TheLibrary, HasOneMarker) { ExpectOneMarker(SVCMGR_LIBRARY); }

struct AStrippedLibrary : Workshop, ::testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(By, AStrippedLibrary,
                         ::testing::Values("-o", "--strip-all -o", "--strip-debug -o",
                                           "--strip-unneeded -o"));

TEST_P(AStrippedLibrary, StillHasItsMarker) {
  const fs::path copy = folder / "library.so";
  OutputOf(std::string(SVCMGR_STRIP " ") + GetParam() + ' ' + Quote(copy) + " " SVCMGR_LIBRARY);
  ExpectOneMarker(copy);
}

struct Linking {
  const char* name;
  const char* options;
  bool is_program = true;
  int times = 1;  // that the marker is linked
};

void PrintTo(const Linking& linking, std::ostream* out) { *out << linking.options; }

const Linking kLinkings[] = {
    {"Plain", ""},
    {"Collected", "-Wl,--gc-sections"},
    {"CollectedAndStripped", "-Wl,--gc-sections -s"},
    {"WithoutPie", "-no-pie -Wl,--gc-sections"},
    {"Static", "-static"},
    {"StaticAndCollected", "-static -Wl,--gc-sections"},
    {"Shared", "-shared", false},
    {"SharedAndCollected", "-shared -Wl,--gc-sections", false},
    {"SharedAndStripped", "-shared -s -Wl,--gc-sections", false},
#ifndef __clang__  // whose objects for this need a plug-in of the linker
    {"OptimisedWhenLinked", "-flto -ffat-lto-objects -Wl,--gc-sections"},
    {"SharedAndOptimisedWhenLinked", "-flto -ffat-lto-objects -shared -Wl,--gc-sections", false},
#endif
    {"Twice", "-Wl,--gc-sections", true, 2},
    {"ThreeTimes", "-shared", false, 3},
};

struct AMarkedFile : Workshop, ::testing::WithParamInterface<std::tuple<const char*, Linking>> {
  void SetUp() override {
    Workshop::SetUp();
    const std::string linker = std::get<0>(GetParam());
    const std::string trial = SVCMGR_CC " -shared -x c /dev/null -fuse-ld=" + linker + " -o ";
    if (std::system((trial + Quote(folder / "trial") + " 2>/dev/null").c_str()) != 0) {
      GTEST_SKIP() << "the compiler finds no ld." << linker;
    }
  }

  static const Linking& How() { return std::get<1>(GetParam()); }

  /** Writes a source file; its path, quoted. */
  std::string Source(const char* name, const char* text) const {
    std::ofstream(folder / name) << text;
    return Quote(folder / name);
  }

  std::string Source() const {
    return How().is_program ? Source("source.c", "int main(void) { return 0; }\n")
                            : Source("source.c", "int f(int i) { return i; }\n");
  }

  /** Runs the compiler; the path of what it makes. */
  fs::path Compile(const char* output, const std::string& arguments) const {
    OutputOf(SVCMGR_CC " -fPIC -O2 -ffunction-sections -o " + Quote(folder / output) + ' ' +
             arguments);
    return folder / output;
  }

  fs::path Link(const char* output, const std::string& arguments) const {
    return Compile(output, std::string("-fuse-ld=") + std::get<0>(GetParam()) + ' ' + arguments);
  }
};

INSTANTIATE_TEST_SUITE_P(LinkedBy, AMarkedFile,
                         ::testing::Combine(::testing::Values("bfd", "gold", "lld"),
                                            ::testing::ValuesIn(kLinkings)),
                         [](const auto& row) {
                           return std::string(std::get<0>(row.param)) + "_" +
                                  std::get<1>(row.param).name;
                         });

TEST_P(AMarkedFile, HasOneMarkerHoweverItIsLinked) {
  std::string markers;
  for (int i = 0; i < How().times; ++i) markers += " " SVCMGR_MARKER_OBJECT;
  const fs::path file = Link("file", How().options + (' ' + Source()) + markers);
  ExpectOneMarker(file);
  OutputOf(SVCMGR_STRIP " --strip-all " + Quote(file));
  ExpectOneMarker(file);
}

TEST_P(AMarkedFile, HasOneMarkerWhenAPartOfItHasOneToo) {
  const fs::path raw = Compile("raw.o", "-c " + Source("part.c", "int part(void) { return 1; }\n"));
  const fs::path part = Link("part.o", "-r -nostdlib " + Quote(raw) + " " SVCMGR_MARKER_OBJECT);
  ExpectOneMarker(Link(
      "file", How().options + (' ' + Source()) + ' ' + Quote(part) + " " SVCMGR_MARKER_OBJECT));
}

TEST_F(Workshop, MakesTheMarkerFromItsSourceAlone) {
  const fs::path object = folder / "kyr-marker.o";
  OutputOf(SVCMGR_CC " -c -o " + Quote(object) + " " SVCMGR_MARKER_SOURCE);
  const auto sections = binutils::SectionsNamed(".kyr", object);
  ASSERT_THAT(sections, SizeIs(1));
  EXPECT_EQ(binutils::BytesAt(object, sections[0].offset, 16), kMarker);
}

}  // namespace
