// SPDX-License-Identifier: Apache-2.0
// The search for markers in real files, compared with what readelf says about them.

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>
#include <vector>

#include "client_level_support.h"
#include "support/readelf.h"

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

bool IsElf(const fs::path& file) { return binutils::BytesAt(file, 0, 4) == elf::kMagic; }

std::vector<std::string> ElfFilesBelow(const fs::path& folder) {
  std::vector<std::string> files;
  for (auto at =
           fs::recursive_directory_iterator(folder, fs::directory_options::skip_permission_denied);
       at != fs::recursive_directory_iterator(); ++at) {
    if (!at->is_symlink() && at->is_regular_file() && IsElf(at->path())) {
      files.push_back(at->path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

Found ToFound(const Bytes& record) {
  const auto number = [&](std::size_t at) {
    return static_cast<unsigned char>(record[at]) | static_cast<unsigned char>(record[at + 1]) << 8;
  };
  return {number(8), number(10), number(12), number(14)};
}

/** The record of a file, by what readelf says about its sections. */
Found RecordOf(const std::string& file, const std::vector<binutils::Section>& sections) {
  for (const binutils::Section& section : sections) {
    if (section.size != 16) continue;
    const Bytes bytes = binutils::BytesAt(file, section.offset, 16);
    if (bytes.size() == 16 && bytes.compare(0, 6, Bytes{'K', 'Y', 'R', '\0', '\0', '\0'}) == 0) {
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

/** The record of each file. */
using Records = std::map<std::string, Found>;

/** The newest record of the files below a folder. */
Found NewestBelow(const fs::path& folder, const Records& records) {
  const std::string prefix = folder.string() + '/';
  Found newest;
  for (auto at = records.lower_bound(prefix);
       at != records.end() && at->first.compare(0, prefix.size(), prefix) == 0; ++at) {
    if (IsNewer(at->second, newest)) newest = at->second;
  }
  return newest.api_level == 0 ? Found{} : newest;
}

using Sections = std::vector<std::pair<std::string, Bytes>>;

struct RealFiles : AnApplicationFolder {
  /** Compares each file with what readelf says, and returns that. */
  Records Check(const std::vector<std::string>& files) {
    Bytes list;
    for (const std::string& file : files) list += file + '\0';
    const std::string list_file = (lists_.path() / "list").string();
    std::ofstream(list_file, std::ios::binary) << list;
    const auto sections = binutils::SectionsOfListed(list_file);
    Records records;
    fake::SetRecording(false);
    for (const std::string& file : files) {
      const auto its = sections.find(file);
      EXPECT_NE(its, sections.end()) << file;
      if (its == sections.end()) continue;
      const Found record = RecordOf(file, its->second);
      EXPECT_EQ(Search(file), record.api_level == 0 ? Found{} : record) << file;
      records[file] = record;
    }
    fake::SetRecording(true);
    return records;
  }

  /** Puts sections into a copy of a file when RunPlans is called; returns the copy's path. */
  std::string Plan(const std::string& source, const fs::path& name, const Sections& sections) {
    const fs::path target = Root() / name;
    fs::create_directories(target.parent_path());
    plans_ += SVCMGR_OBJCOPY;
    for (const auto& [section, bytes] : sections) {
      plans_ += " --add-section " + Quote(section + '=' + FileOf(bytes));
    }
    plans_ += ' ' + source + ' ' + Quote(target) + " 2>/dev/null\n";
    return target;
  }

  /** Runs what is planned, all of which must succeed unless the shell is told otherwise. */
  void RunPlans(const std::string& options = "-e") {
    const std::string script = (lists_.path() / "script").string();
    std::ofstream(script) << plans_ + "true\n";
    binutils::OutputOf("sh " + options + ' ' + Quote(script));
    plans_.clear();
  }

  std::string Plant(const std::string& source, const fs::path& name, const Sections& sections) {
    std::string target = Plan(Quote(source), name, sections);
    RunPlans();
    return target;
  }

  /** A file outside the application's folder. */
  std::string FileOf(const Bytes& bytes) {
    std::string& file = contents_[bytes];
    if (file.empty()) {
      file = (lists_.path() / std::to_string(contents_.size())).string();
      std::ofstream(file, std::ios::binary) << bytes;
    }
    return file;
  }

 private:
  client_level::TemporaryFolder lists_;
  std::map<Bytes, std::string> contents_;
  std::string plans_;
};

TEST_F(RealFiles, OfTheSystemHoldWhatReadelfSays) {
  const auto files = ElfFilesBelow(SVCMGR_SYSTEM_LIBRARIES);
  EXPECT_THAT(files, Not(IsEmpty()));
  Check(files);
}

TEST_F(RealFiles, OfTheSystemHoldWhatIsPlantedIntoThem) {
  constexpr std::size_t kMost = 100;
  auto files = ElfFilesBelow(SVCMGR_SYSTEM_LIBRARIES);
  const auto is_large = [](const std::string& file) { return fs::file_size(file) > 200'000; };
  files.erase(std::remove_if(files.begin(), files.end(), is_large), files.end());
  const std::size_t count = std::min(files.size(), kMost);
  std::vector<std::string> planted;
  Records expected;
  for (std::size_t i = 0; i < count; ++i) {
    // What objcopy cannot copy is left out.
    const std::string target =
        Plan(Quote(files[i * files.size() / count]), std::to_string(i),
             {{".kyr", Marker{20, 1, 1, static_cast<unsigned>(i)}.ToBytes()}});
    planted.push_back(target);
    expected[target] = {20, 1, 1, static_cast<int>(i)};
  }
  RunPlans("");
  const auto is_missing = [](const std::string& file) { return !fs::exists(file); };
  planted.erase(std::remove_if(planted.begin(), planted.end(), is_missing), planted.end());
  EXPECT_THAT(planted, SizeIs(::testing::Ge(count / 2)));
  for (const auto& [file, record] : Check(planted)) EXPECT_EQ(record, expected[file]) << file;
}

/** Where a section is added among others. */
struct Place {
  const char* name;
  Sections before;
  Sections behind;
};

TEST_F(RealFiles, WithPlantedSectionsHoldWhatReadelfSays) {
  const std::string order = elf::kNativeOrder == ELFDATA2LSB ? "little" : "big";
  // What objcopy is told to copy, quoted.
  const std::pair<const char*, std::string> sources[] = {
      {"program", Quote(SVCMGR_PLANT_PROGRAM)},
      {"object", Quote(SVCMGR_PLANT_OBJECT)},
      {"library", Quote(SVCMGR_PLANT_LIBRARY)},
      {"32", "-I binary -O elf32-" + order + ' ' + Quote(FileOf("data"))},
  };
  const Place places[] = {
      {"alone", {}, {}},
      {"first", {}, {{"other", "text"}, {"another", Bytes(16, 'x')}}},
      {"last", {{"other", "text"}, {"another", Bytes(16, 'x')}}, {}},
      {"between", {{"other", Bytes(100'000, 'x')}}, {{"another", Bytes(5000, 'x')}}},
  };
  const char* const names[] = {".kyr", "kyr", ".comment2", ".note.kyr", "a name", ".kyr.kyr.kyr"};
  std::vector<std::string> files;
  Records expected;
  unsigned n = 0;
  for (const auto& [kind, source] : sources) {
    for (const Place& place : places) {
      for (const char* const name : names) {
        ++n;
        const Bytes record = Marker{20, 2, 3, n}.ToBytes();
        const Found whole = {20, 2, 3, static_cast<int>(n)};
        const Found format = {10, 2, 3, static_cast<int>(n)};
        const std::tuple<const char*, Bytes, Found> contents[] = {
            {"whole", record, whole},
            {"format", Marker{10, 2, 3, n, 7}.ToBytes(), format},
            {"short", record.substr(0, 15), {}},
            {"long", record + '\0', {}},
            {"twice", record + record, {}},
            {"one", "K", {}},
            {"zeros", Bytes(16, '\0'), {}},
            {"magic", Bytes("KYS\0", 4) + record.substr(4), {}},
            {"reserved", Marker{21, 2, 3, n, 1, 1}.ToBytes(), {}},
            {"level0", Marker{0, 9, 9, n}.ToBytes(), {0, 9, 9, static_cast<int>(n)}},
        };
        for (const auto& [what, bytes, found] : contents) {
          Sections sections = place.before;
          sections.emplace_back(name, bytes);
          sections.insert(sections.end(), place.behind.begin(), place.behind.end());
          files.push_back(Plan(source, fs::path(kind) / place.name / what / name, sections));
          expected[files.back()] = found;
        }
      }
    }
  }
  RunPlans();
  EXPECT_THAT(files, SizeIs(4 * 4 * 6 * 10));
  const Records records = Check(files);
  EXPECT_EQ(records, expected);
  fake::SetRecording(false);
  int folders = 0;
  for (const auto& entry : fs::recursive_directory_iterator(Root())) {
    if (!entry.is_directory()) continue;
    ++folders;
    EXPECT_EQ(Search(entry.path()), NewestBelow(entry.path(), records)) << entry.path();
  }
  fake::SetRecording(true);
  EXPECT_EQ(folders, 4 + 4 * 4 + 4 * 4 * 10);
  EXPECT_EQ(Search(), (Found{20, 2, 3, 4 * 4 * 6}));
}

TEST_F(RealFiles, WithTwoPlantedMarkersHaveTheFirst) {
  const Bytes newer = Marker{31}.ToBytes();
  const Bytes older = Marker{30}.ToBytes();
  int n = 0;
  for (const char* const source :
       {SVCMGR_PLANT_PROGRAM, SVCMGR_PLANT_OBJECT, SVCMGR_PLANT_LIBRARY}) {
    for (const auto& [first, second] : {std::pair(newer, older), std::pair(older, newer)}) {
      const std::string file =
          Plant(source, std::to_string(n++), {{".kyr", first}, {"second", second}});
      // Whichever objcopy puts first.
      EXPECT_THAT(Check({file})[file].api_level, ::testing::AnyOf(30, 31));
    }
  }
}

TEST_F(RealFiles, KeepAPlantedMarkerWhenTheyAreStripped) {
  const std::string file = Plant(SVCMGR_PLANT_PROGRAM, "program", {{".kyr", Marker{9}.ToBytes()}});
  binutils::OutputOf(SVCMGR_STRIP " --strip-all " + Quote(file));
  EXPECT_EQ(Check({file})[file], (Found{9, 2, 3, 182}));
}

TEST_F(RealFiles, OfThisBuildHaveTheLibrarysMarker) {
  const std::string library = fs::canonical(SVCMGR_LIBRARY);
  EXPECT_EQ(Check({library})[library], (Found{11, 2, 3, 182}));
}

}  // namespace
