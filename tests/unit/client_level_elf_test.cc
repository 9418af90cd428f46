// SPDX-License-Identifier: Apache-2.0
// The search for markers in real files, held against what readelf says about them.

#include <algorithm>
#include <tuple>
#include <vector>

#include "client_level_support.h"
#include "readelf.h"

namespace {

using binutils::Quote;
using client_level::AnApplicationFolder;
using client_level::Found;
using elf::Bytes;
using elf::Marker;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

namespace fs = std::filesystem;

bool IsElf(const fs::path& file) {
  return binutils::BytesAt(file, 0, 4) ==
         "\x7f"
         "ELF";
}

/** Up to `most` ELF files below a folder, evenly chosen. */
std::vector<std::string> ElfFilesBelow(const fs::path& folder, std::size_t most) {
  std::vector<std::string> files;
  for (auto at =
           fs::recursive_directory_iterator(folder, fs::directory_options::skip_permission_denied);
       at != fs::recursive_directory_iterator(); ++at) {
    if (!at->is_symlink() && at->is_regular_file() && IsElf(at->path())) {
      files.push_back(at->path());
    }
  }
  std::sort(files.begin(), files.end());
  if (files.size() <= most) return files;
  std::vector<std::string> chosen;
  for (std::size_t i = 0; i < most; ++i) chosen.push_back(files[i * files.size() / most]);
  return chosen;
}

Found ToFound(const Bytes& record) {
  const auto number = [&](std::size_t at) {
    return static_cast<unsigned char>(record[at]) | static_cast<unsigned char>(record[at + 1]) << 8;
  };
  return {number(8), number(10), number(12), number(14)};
}

/** The record of a file, by readelf's word about its sections. */
Found RecordOf(const std::string& file, const std::vector<binutils::Section>& sections) {
  for (const binutils::Section& section : sections) {
    if (section.size != 16) continue;
    const Bytes bytes = binutils::BytesAt(file, section.offset, 16);
    if (bytes.size() == 16 && bytes.compare(0, 6, Bytes("KYR\0\0\0", 6)) == 0) {
      return ToFound(bytes);
    }
  }
  return {};
}

bool IsNewer(const Found& a, const Found& b) {
  const auto keys = [](const Found& found) {
    return std::tuple(found.api_level, found.version_major, found.version_minor,
                      found.version_patch);
  };
  return keys(a) > keys(b);
}

struct RealFiles : AnApplicationFolder {
  /** Holds each file against readelf; returns the newest record of all. */
  Found Check(const std::vector<std::string>& files) {
    Bytes list;
    for (const std::string& file : files) list += file + '\0';
    const std::string list_file = (lists_.path() / "list").string();
    std::ofstream(list_file, std::ios::binary) << list;
    const auto sections = binutils::SectionsOfListed(list_file);
    Found newest;
    fake::SetRecording(false);
    for (const std::string& file : files) {
      const auto its = sections.find(file);
      EXPECT_NE(its, sections.end()) << file;
      if (its == sections.end()) continue;
      const Found expected = RecordOf(file, its->second);
      EXPECT_EQ(Search(file), expected.api_level == 0 ? Found{} : expected) << file;
      if (IsNewer(expected, newest)) newest = expected;
    }
    fake::SetRecording(true);
    return newest;
  }

  /** Puts sections into a copy of an ELF file; the copy's path. */
  std::string Plant(const std::string& source, const fs::path& name,
                    const std::vector<std::pair<std::string, Bytes>>& sections) {
    const fs::path target = Root() / name;
    fs::create_directories(target.parent_path());
    std::string command = SVCMGR_OBJCOPY;
    int n = 0;
    for (const auto& [section, bytes] : sections) {
      const fs::path content = lists_.path() / ("content" + std::to_string(n++));
      std::ofstream(content, std::ios::binary) << bytes;
      command += " --add-section " + Quote(section + '=' + content.string());
    }
    binutils::OutputOf(command + ' ' + Quote(source) + ' ' + Quote(target) + " 2>/dev/null");
    return target;
  }

 private:
  client_level::TemporaryFolder lists_;
};

TEST_F(RealFiles, OfTheSystemHoldWhatReadelfSays) {
  const auto files = ElfFilesBelow("/usr/lib", 1500);
  EXPECT_THAT(files, Not(IsEmpty()));
  Check(files);
}

TEST_F(RealFiles, WithPlantedSectionsHoldWhatReadelfSays) {
  const std::string sources[] = {SVCMGR_PLANT_PROGRAM, SVCMGR_PLANT_OBJECT, SVCMGR_PLANT_LIBRARY};
  const std::string names[] = {".kyr", "kyr", ".comment2", ".note.kyr", "a name", ".kyr.kyr.kyr"};
  const Bytes record = Marker{20}.ToBytes();
  const std::pair<const char*, Bytes> contents[] = {
      {"whole", record},
      {"short", record.substr(0, 15)},
      {"long", record + '\0'},
      {"twice", record + record},
      {"one", "K"},
      {"zeros", Bytes(16, '\0')},
      {"magic", Bytes("KYS\0", 4) + record.substr(4)},
      {"reserved", Marker{21, 2, 3, 182, 1, 1}.ToBytes()},
      {"format", Marker{22, 2, 3, 182, 7}.ToBytes()},
      {"level0", Marker{0, 9, 9, 9}.ToBytes()},
  };
  std::vector<std::string> files;
  int n = 0;
  for (const std::string& source : sources) {
    for (const std::string& name : names) {
      for (const auto& [what, bytes] : contents) {
        // Not every combination; each name and each content with each source.
        if (++n % 3 != 0) continue;
        const fs::path folder = fs::path("planted") / std::to_string(n % 7) / what;
        files.push_back(Plant(source, folder / std::to_string(n), {{name, bytes}}));
      }
    }
    files.push_back(Plant(source, "first/" + std::to_string(n),
                          {{"first", Marker{30}.ToBytes()}, {".kyr", Marker{31}.ToBytes()}}));
    files.push_back(Plant(source, "second/" + std::to_string(n),
                          {{"first", "text"}, {".kyr", Marker{29, 1}.ToBytes()}}));
  }
  EXPECT_THAT(files, SizeIs(66));
  const Found newest = Check(files);
  EXPECT_THAT(newest.api_level, ::testing::AnyOf(30, 31));  // whichever objcopy puts first
  EXPECT_EQ(Search(), newest);
}

TEST_F(RealFiles, KeepAPlantedMarkerWhenTheyAreStripped) {
  const std::string file = Plant(SVCMGR_PLANT_PROGRAM, "program", {{".kyr", Marker{9}.ToBytes()}});
  binutils::OutputOf(SVCMGR_STRIP " --strip-all " + Quote(file));
  EXPECT_EQ(Search(), Check({file}));
}

TEST_F(RealFiles, OfThisBuildHaveTheLibrarysMarker) {
  EXPECT_EQ(Check({fs::canonical(SVCMGR_LIBRARY)}), (Found{11, 2, 3, 182}));
}

}  // namespace
