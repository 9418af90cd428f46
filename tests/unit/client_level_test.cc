// SPDX-License-Identifier: Apache-2.0
// The client API level: the exported function, the search, and the reading of one file.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <optional>
#include <stdexcept>
#include <vector>

#include "client_level_support.h"
#include "exhaustion.h"
#include "model_support.h"

namespace {

/** Bytes of a file, from `first` up to but not including `end`. */
struct Span {
  std::size_t first;
  std::size_t end;
};

/** What the library does with files, and what happens to it meanwhile. */
struct Files {
  bool recording = true;  // of what is opened, which takes memory
  std::vector<std::string> opened;
  int stats = 0;
  int reads = 0;
  std::size_t bytes_read = 0;
  std::function<int(const std::string&)> on_open;  // before a file is opened; an errno, or 0
  std::function<int(struct stat64&)> on_stat;      // after the call; an errno, or 0
  std::function<void()> on_read;                   // before a read
  std::vector<Span> unreadable;                    // what no read gets
  int interruptions = 0;                           // how many reads a signal ends
  bool walk_fails = false;
};

Files& files() {
  static Files* const forever = new Files;
  return *forever;
}

}  // namespace

// Linked in place of the C library's functions (-Wl,--wrap).
extern "C" {
int __real_open64(const char* path, int flags, ...);
int __real_fstat64(int descriptor, struct stat64* status);
ssize_t __real_pread64(int descriptor, void* bytes, size_t size, off64_t offset);
int __real_nftw64(const char* path, __nftw64_func_t step, int descriptors, int flags);

int __wrap_open64(const char* path, int flags, ...) {
  if (files().recording) files().opened.emplace_back(path);
  const int error = files().on_open ? files().on_open(path) : 0;
  if (error == 0) return __real_open64(path, flags);
  errno = error;
  return -1;
}

int __wrap_fstat64(int descriptor, struct stat64* status) {
  ++files().stats;
  const int result = __real_fstat64(descriptor, status);
  const int error = files().on_stat ? files().on_stat(*status) : 0;
  if (error == 0) return result;
  errno = error;
  return -1;
}

ssize_t __wrap_pread64(int descriptor, void* bytes, size_t size, off64_t offset) {
  ++files().reads;
  if (files().on_read) files().on_read();
  if (files().interruptions-- > 0) {
    errno = EINTR;
    return -1;
  }
  const auto start = static_cast<std::size_t>(offset);
  for (const Span& span : files().unreadable) {
    if (start + size <= span.first || start >= span.end) continue;
    if (start >= span.first) {
      errno = EIO;
      return -1;
    }
    size = span.first - start;
  }
  const ssize_t count = __real_pread64(descriptor, bytes, size, offset);
  if (count > 0) files().bytes_read += static_cast<std::size_t>(count);
  if (count >= 0) errno = EINTR;  // which then says nothing
  return count;
}

int __wrap_nftw64(const char* path, __nftw64_func_t step, int descriptors, int flags) {
  EXPECT_EQ(descriptors, 0);
  EXPECT_EQ(flags, FTW_PHYS | FTW_DEPTH);
  EXPECT_EQ(flags, 9);
  const int result = __real_nftw64(path, step, descriptors, flags);
  return files().walk_fails ? -1 : result;
}
}

namespace {

using client_level::Found;
using client_level::kNoMarker;
using client_level::kReader;
using client_level::kScannerFile;
using client_level::kWalk;
using client_level::fs::path;
using elf::Builder;
using elf::Bytes;
using elf::Kind;
using elf::Marker;
using fake::Allocator;
using fake::FailingAllocation;
using fake::IsError;
using fake::IsInfo;
using models::NameOfRow;
using models::Steps;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace fs = std::filesystem;

constexpr char kEntryFile[] = "velmora_svcmgr.cc";
constexpr char kEntry[] = "velmora_svcmgr_get_client_api_level";
constexpr int kUntouched = 4321;
const Found kNothing = {};
const Found kOwn = {11, 2, 3, 182};

Found OwnOfLevel(int level) { return {level, 2, 3, 182}; }

struct AnApplicationFolder : client_level::AnApplicationFolder {
  void TearDown() override {
    files() = {};
    client_level::AnApplicationFolder::TearDown();
  }

  using client_level::AnApplicationFolder::SearchIn;
  Found SearchIn(const Builder& file) const { return SearchIn(file.Build()); }

  static void ExpectNoMarkerLogged() {
    EXPECT_THAT(fake::Logs(), ElementsAre(IsError(kScannerFile, kWalk, kNoMarker)));
  }
};

// ---- The exported function ----------------------------------------------------------------------

struct TheClientLevel : AnApplicationFolder {
  static int Ask(int* level) { return velmora_svcmgr_get_client_api_level(level); }

  static ::testing::Matcher<const fake::LogRecord&> Failed() {
    return IsInfo(kEntryFile, kEntry, "Failed to get latest KYR section.\n");
  }

  static void ExpectNotSupported(const ::testing::Matcher<const fake::LogRecord&>& reason) {
    int level = kUntouched;
    EXPECT_EQ(Ask(&level), SVCMGR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(level, kUntouched);
    EXPECT_THAT(fake::Logs(), ElementsAre(reason, Failed()));
    EXPECT_THAT(fake::LiveBlocks(), IsEmpty());
  }

  static void SetResourcePath(const std::optional<std::string>& path) {
    fake::Application application;
    application.resource_path = path;
    fake::SetApplication(application);
  }
};

TEST_F(TheClientLevel, IsThatOfTheNewestMarker) {
  Write("bin/app", Marker{10});
  Write("lib/library.so", Marker{12});
  Write("lib/other.so", Marker{9});
  int level = 0;
  EXPECT_EQ(Ask(&level), SVCMGR_ERROR_NONE);
  EXPECT_EQ(level, 12);
  EXPECT_THAT(Steps(),
              ElementsAre("package_info_create", "package_info_destroy", "app_get_resource_path"));
  EXPECT_THAT(fake::Logs(), IsEmpty());
  EXPECT_THAT(fake::LiveBlocks(), IsEmpty());
}

TEST_F(TheClientLevel, IsInvalidWhenThePlatformThrows) {
  fake::Next("app_get_resource_path", fake::Throw(std::runtime_error("thrown")));
  int level = kUntouched;
  EXPECT_EQ(Ask(&level), SVCMGR_ERROR_INVALID_OPERATION);
  EXPECT_EQ(level, kUntouched);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsError(kEntryFile, kEntry, "Unknown Exception")));
}

using TheClientLevelDeathTest = TheClientLevel;

TEST_F(TheClientLevelDeathTest, AbortsWithoutAResourcePath) {
  SetResourcePath(std::nullopt);
  int level = 0;
  EXPECT_EXIT(Ask(&level), ::testing::KilledBySignal(SIGABRT), "Assertion .res_path. failed");
}

TEST_F(TheClientLevelDeathTest, AbortsWhenThereIsNoMemoryForTheRootPath) {
  const auto ask = [] {
    int level = 0;
    const FailingAllocation failing(Allocator::kStrndup);
    Ask(&level);
  };
  EXPECT_EXIT(ask(), ::testing::KilledBySignal(SIGABRT), "Assertion .root_path. failed");
}

TEST_F(TheClientLevel, IsSearchedForInTheResourcePathWithoutItsLastFourCharacters) {
  Write("app/file", Marker{7});
  for (const char* resources : {"app/res/", "app/abc/", "appres/", "app////", "appXXXX"}) {
    SetResourcePath((Root() / resources).string());
    int level = 0;
    EXPECT_EQ(Ask(&level), SVCMGR_ERROR_NONE) << resources;
    EXPECT_EQ(level, 7) << resources;
  }
}

TEST_F(TheClientLevel, IsNotSearchedForAboveTheRootPath) {
  Write("file", Marker{});
  fs::create_directories(Root() / "app");
  SetResourcePath((Root() / "app/res/").string());
  ExpectNotSupported(IsError(kScannerFile, kWalk, kNoMarker));
}

TEST_F(TheClientLevel, IsNotSupportedWhenTheWalkFails) {
  const std::string missing = (Root() / "missing/").string();
  SetResourcePath(missing + "res/");
  ExpectNotSupported(IsError(kScannerFile, kWalk, "Failed to travel " + missing));
}

TEST_F(TheClientLevel, IsNotSupportedWhenTheWalkFailsBehindAMarker) {
  Write("app", Marker{});
  files().walk_fails = true;
  ExpectNotSupported(IsError(kScannerFile, kWalk, "Failed to travel " + Root().string() + "/"));
}

TEST_F(TheClientLevel, IsNotSupportedWhenTheResourcePathIsTooShort) {
  for (const char* resources : {"", "/", "r", "res", "res/", "abcd"}) {
    fake::ClearRecord();
    SetResourcePath(resources);
    ExpectNotSupported(IsError(kScannerFile, kWalk, "Failed to travel "));
  }
}

TEST_F(TheClientLevel, IsNotSupportedWithoutAMarker) {
  ExpectNotSupported(IsError(kScannerFile, kWalk, kNoMarker));
  fake::ClearRecord();
  Write("app", Builder(Kind::k64).Section(Bytes(16, 'x')).Build());
  ExpectNotSupported(IsError(kScannerFile, kWalk, kNoMarker));
}

TEST_F(TheClientLevel, IsNotSupportedWhenThereIsNoMemoryForTheRecord) {
  Write("app", Marker{});
  const FailingAllocation failing(Allocator::kMalloc);
  ExpectNotSupported(IsError(kScannerFile, kWalk, "malloc failed"));
}

TEST_F(TheClientLevel, IsSearchedForAnewEachTime) {
  Write("app", Marker{12});
  int level = 0;
  EXPECT_EQ(Ask(&level), SVCMGR_ERROR_NONE);
  EXPECT_EQ(level, 12);
  Write("app", Marker{9});
  EXPECT_EQ(Ask(&level), SVCMGR_ERROR_NONE);
  EXPECT_EQ(level, 9);
  fs::remove(Root() / "app");
  ExpectNotSupported(IsError(kScannerFile, kWalk, kNoMarker));
}

TEST_F(TheClientLevel, IsThatOfTheNewestMarkerOrAnErrorWhateverMemoryIsMissing) {
  // The tables lie beyond what the first read of a file brings.
  for (const unsigned level : {7U, 12U, 9U}) {
    Builder builder(Kind::k64);
    for (int i = 0; i < 1000; ++i) builder.Section("text");
    Write("level" + std::to_string(level), builder.Section(Marker{level}).Build());
  }
  files().recording = false;
  int level = 0;
  int result = 0;
  for (const Allocator which : {Allocator::kNew, Allocator::kMalloc}) {
    const int failures = exhaustion::ForEachFailingAllocation(
        [&] { level = kUntouched; }, [&] { result = Ask(&level); },
        [&](bool failed) {
          if (!failed) {
            EXPECT_EQ(result, SVCMGR_ERROR_NONE);
          }
          EXPECT_THAT(result, ::testing::AnyOf(SVCMGR_ERROR_NONE, SVCMGR_ERROR_NOT_SUPPORTED,
                                               SVCMGR_ERROR_INVALID_OPERATION));
          EXPECT_EQ(level, result == SVCMGR_ERROR_NONE ? 12 : kUntouched);
          EXPECT_THAT(fake::LiveBlocks(), IsEmpty());
        },
        which);
    EXPECT_LT(failures, 49);
  }
}

// ---- The order of markers -----------------------------------------------------------------------

struct TwoMarkers {
  std::string name;
  Marker newer;
  Marker older;
};

void PrintTo(const TwoMarkers& row, std::ostream* out) { *out << row.name; }

struct TheNewerOfTwo : AnApplicationFolder, ::testing::WithParamInterface<TwoMarkers> {};

INSTANTIATE_TEST_SUITE_P(
    By, TheNewerOfTwo,
    ::testing::Values(TwoMarkers{"Patch", {11, 2, 3, 183}, {11, 2, 3, 182}},
                      TwoMarkers{"Minor", {11, 2, 4, 0}, {11, 2, 3, 0xffff}},
                      TwoMarkers{"Major", {11, 3, 0, 0}, {11, 2, 0xffff, 0xffff}},
                      TwoMarkers{"Level", {12, 0, 0, 0}, {11, 0xffff, 0xffff, 0xffff}},
                      TwoMarkers{"UnsignedLevel", {0x8000, 0, 0, 0}, {0x7fff, 1, 1, 1}},
                      TwoMarkers{"TheLargestLevel", {0xffff, 0, 0, 0}, {1, 0, 0, 0}},
                      TwoMarkers{"UnsignedMajor", {1, 0xffff, 0, 0}, {1, 1, 0, 0}},
                      TwoMarkers{"UnsignedMinor", {1, 0, 0xffff, 0}, {1, 0, 1, 0}},
                      TwoMarkers{"UnsignedPatch", {1, 0, 0, 0xffff}, {1, 0, 0, 1}},
                      TwoMarkers{"UpperBytes", {0x0100, 0, 0, 0}, {0x00ff, 0, 0, 0}},
                      TwoMarkers{"LevelWhateverTheFormat", {2, 0, 0, 0, 0}, {1, 0, 0, 0, 0xffff}}),
    NameOfRow());

Found AsFound(const Marker& marker) {
  return {static_cast<int>(marker.api_level), static_cast<int>(marker.version_major),
          static_cast<int>(marker.version_minor), static_cast<int>(marker.version_patch)};
}

TEST_P(TheNewerOfTwo, IsTakenWhereverTheyStand) {
  for (const auto& [newer, older] : {std::pair("a", "b"), std::pair("b", "a"),
                                     std::pair("sub/a", "b"), std::pair("b", "sub/a")}) {
    fs::remove_all(Root() / "app");
    Write(path("app") / newer, GetParam().newer);
    Write(path("app") / older, GetParam().older);
    EXPECT_EQ(Search(Root() / "app"), AsFound(GetParam().newer)) << newer;
  }
}

TEST_F(AnApplicationFolder, OfEqualMarkersHasTheFirstThatIsMet) {
  // They differ in the format, which orders nothing; which is met first is up to the file system.
  const std::string names[] = {"a", "b", "c/d", "c/e"};
  for (unsigned turn = 0; turn < 4; ++turn) {
    for (unsigned i = 0; i < 4; ++i) Write(names[i], Marker{11, 2, 3, 182, (i + turn) % 4});
    files().opened.clear();
    const svcmgr::OwnedKyrRecord record = kyr_section_get_latest(Root().c_str());
    ASSERT_NE(record, nullptr);
    ASSERT_THAT(files().opened, SizeIs(4));
    const auto* const first = std::find_if(std::begin(names), std::end(names), [&](const auto& it) {
      return (Root() / it).string() == files().opened.front();
    });
    EXPECT_EQ(record->format, (first - std::begin(names) + turn) % 4);
  }
}

TEST_F(AnApplicationFolder, HasAsItsMarkerAllOfItsBytes) {
  Write("app", Marker{0x0102, 0x0304, 0x0506, 0x0708, 0x090a});
  const svcmgr::OwnedKyrRecord record = kyr_section_get_latest(Root().c_str());
  ASSERT_NE(record, nullptr);
  const auto blocks = fake::LiveBlocks();
  ASSERT_THAT(blocks, SizeIs(1));
  EXPECT_EQ(blocks[0].pointer, record.get());
  EXPECT_EQ(blocks[0].origin, "malloc");
  EXPECT_EQ(blocks[0].size, 16U);
  EXPECT_EQ(Bytes(std::begin(record->magic), std::end(record->magic)), Bytes("KYR\0", 4));
  EXPECT_EQ(record->reserved, 0);
  EXPECT_EQ(record->format, 0x090a);
  EXPECT_EQ(record->api_level, 0x0102);
  EXPECT_EQ(record->version_major, 0x0304);
  EXPECT_EQ(record->version_minor, 0x0506);
  EXPECT_EQ(record->version_patch, 0x0708);
}

TEST_F(AnApplicationFolder, OfAMarkerOfLevelZeroHasNone) {
  for (const Marker& none : {Marker{0, 0, 0, 0}, Marker{0, 0xffff, 0xffff, 0xffff}}) {
    fake::ClearRecord();
    Write("app", none);
    EXPECT_EQ(Search(), kNothing);
    ExpectNoMarkerLogged();
  }
  Write("other", Marker{1, 0, 0, 0});
  EXPECT_EQ(Search(), (Found{1, 0, 0, 0}));
}

// ---- One file -----------------------------------------------------------------------------------

struct AnElfFile : AnApplicationFolder, ::testing::WithParamInterface<Kind> {
  static Builder New() { return Builder(GetParam()); }
};

struct NameOfKind {
  std::string operator()(const ::testing::TestParamInfo<Kind>& row) const {
    return row.param == Kind::k32 ? "32" : "64";
  }
};

INSTANTIATE_TEST_SUITE_P(Of, AnElfFile, ::testing::Values(Kind::k32, Kind::k64), NameOfKind());

TEST_P(AnElfFile, HasAMarker) {
  EXPECT_EQ(SearchIn(New().Section(Marker{})), kOwn);
  EXPECT_THAT(fake::Logs(), IsEmpty());
}

TEST_P(AnElfFile, HasAMarkerWhateverStandsInWhatNobodyLooksAt) {
  struct Field {
    const char* name;
    std::vector<std::uint32_t> values;
    std::function<void(Builder&, std::uint32_t)> set;
  };
  const Field fields[] = {
      {"names, types and the like",
       {0x00, 0x01, 0x08, 0x7f, 0xff},
       [](Builder& file, auto value) {
         file.FillHeaders(static_cast<char>(value)).FillFileHeader(static_cast<char>(value));
       }},
      {"the byte order", {0, 1, 2, 255}, &Builder::DataByte},
      {"the size of an entry", {0, 1, 39, 40, 41, 64, 65535}, &Builder::ClaimEntrySize},
      {"upper halves of numbers", {1, 0x80000000U, 0xffffffffU}, &Builder::UpperHalves},
  };
  for (const Field& field : fields) {
    for (const std::uint32_t value : field.values) {
      for (const bool alone : {true, false}) {
        Builder file = New();
        field.set(file, value);
        if (!alone) file.Section("a");
        EXPECT_EQ(SearchIn(file.Section(Marker{})), kOwn) << field.name << ": " << value;
      }
    }
  }
}

TEST_P(AnElfFile, OfAMachineWithTheOtherByteOrderHasNone) {
  EXPECT_EQ(SearchIn(New().OtherByteOrder().Section(Marker{})), kNothing);
}

TEST_P(AnElfFile, OfClass1IsReadAsOneOf32BitsAndOfAnotherAsOneOf64Bits) {
  for (const int class_byte : {0, 1, 2, 3, 4, 127, 255}) {
    const Kind read_as = class_byte == 1 ? Kind::k32 : Kind::k64;
    EXPECT_EQ(SearchIn(New().ClassByte(class_byte).Section(Marker{})),
              GetParam() == read_as ? kOwn : kNothing)
        << class_byte;
  }
}

TEST_P(AnElfFile, HasItsFirstMarkerAlone) {
  EXPECT_EQ(SearchIn(New().Section(Marker{5}).Section(Marker{9})), OwnOfLevel(5));
  EXPECT_EQ(SearchIn(New().Section(Marker{9}).Section(Marker{5})), OwnOfLevel(9));
  EXPECT_EQ(SearchIn(New().Section(Marker{0, 0, 0, 0}).Section(Marker{9})), kNothing);
  Builder wrong_ones = New().Section("").Section(Bytes(16, 'x')).SectionClaiming(17, "KYR");
  EXPECT_EQ(SearchIn(wrong_ones.Section(Marker{5}).Section(Marker{9})), OwnOfLevel(5));
}

TEST_P(AnElfFile, HasAMarkerAtAnyPlaceOfItsTable) {
  for (const int before : {0, 1, 2, 50, 200}) {
    for (const int behind : {0, 1, 200}) {
      Builder builder = New();
      for (int i = 0; i < before; ++i) builder.Section(Bytes(16, 'x'));
      builder.Section(Marker{});
      for (int i = 0; i < behind; ++i) builder.Section(Bytes(16, 'x'));
      EXPECT_EQ(SearchIn(builder), kOwn) << before << ' ' << behind;
      EXPECT_EQ(SearchIn(builder.TableFirst()), kOwn) << before << ' ' << behind;
    }
  }
}

TEST_P(AnElfFile, HasAMarkerWhereverItStandsAroundAPage) {
  const std::size_t header = New().HeaderSize();
  const std::size_t entry = New().EntrySize();
  for (std::size_t end = 4096 - 20; end <= 4096 + 20; ++end) {
    const auto contents = New().GapBeforeContents(end - 16 - header).Section(Marker{});
    EXPECT_EQ(SearchIn(contents), kOwn) << end;
    EXPECT_EQ(SearchIn(Builder(contents).TableFirst()), kOwn) << end;
  }
  for (std::size_t end = 4096 - 2 * entry; end <= 4096 + 2 * entry; ++end) {
    Builder table = New();
    table.Section("x").Section(Marker{}).GapBeforeTable(end - header - 17 - 2 * entry);
    EXPECT_EQ(SearchIn(table), kOwn) << end;
  }
}

TEST_P(AnElfFile, HasAMarkerFarBehind) {
  EXPECT_EQ(
      SearchIn(New().GapBeforeContents(1'000'003).Section(Marker{}).GapBeforeTable(1'000'003)),
      kOwn);
}

TEST_P(AnElfFile, MayHaveItsMarkerInsideOtherParts) {
  // In the table, in the header: wherever a header says.
  const Bytes marker = Marker{}.ToBytes();
  Builder inside = New().Section(marker + Bytes(100, 'x'));
  inside.Header(New().HeaderSize(), 16);
  EXPECT_EQ(SearchIn(inside), kOwn);
}

TEST_P(AnElfFile, HasNoMarkerOfAnotherSize) {
  const Bytes bytes = Marker{}.ToBytes() + Bytes(64, '\0');
  for (const std::size_t size : {0U, 1U, 4U, 15U, 17U, 32U, 64U}) {
    EXPECT_EQ(SearchIn(New().SectionClaiming(size, bytes)), kNothing) << size;
  }
  EXPECT_EQ(SearchIn(New().SectionClaiming(16, bytes)), kOwn);
}

TEST_P(AnElfFile, HasNoMarkerOfAnotherMagic) {
  const Bytes right = Marker{}.ToBytes();
  for (std::size_t i = 0; i < right.size(); ++i) {
    for (const int change : {1, 0x20, 0x80, 0xff}) {
      Bytes wrong = right;
      wrong[i] = static_cast<char>(wrong[i] ^ change);
      const Found found = SearchIn(New().Section(wrong));
      if (i < 6) {
        EXPECT_EQ(found, kNothing) << i;
      } else if (i < 8) {
        EXPECT_EQ(found, kOwn) << "the format is not looked at";
      } else {
        EXPECT_FALSE(found == kNothing || found == kOwn) << i;
      }
    }
  }
}

TEST_P(AnElfFile, IsNoneWithAnotherMagicAndSaysNothing) {
  const Bytes right = New().Section(Marker{}).Build();
  for (std::size_t i = 0; i < 4; ++i) {
    Bytes wrong = right;
    wrong[i] = static_cast<char>(wrong[i] ^ 1);
    fake::ClearRecord();
    EXPECT_EQ(SearchIn(wrong), kNothing);
    ExpectNoMarkerLogged();
  }
}

TEST_P(AnElfFile, MayBeCutAnywhere) {
  const Bytes whole = New().Section("some text").Section(Marker{}).Section("more").Build();
  const std::size_t last_entry = whole.size() - New().EntrySize();
  for (std::size_t size = 0; size < whole.size(); ++size) {
    fake::ClearRecord();
    // Without the last header the table still holds the marker's.
    EXPECT_EQ(SearchIn(whole.substr(0, size)), size < last_entry ? kNothing : kOwn) << size;
    const bool no_header = size >= 52 && size < New().HeaderSize();
    EXPECT_EQ(fake::Logs().size(), (no_header ? 1U : 0U) + (size < last_entry ? 1U : 0U)) << size;
    if (no_header) {
      EXPECT_THAT(fake::Logs().front(),
                  IsError(kScannerFile, kReader, "Failed to read ELF header"));
    }
  }
}

TEST_P(AnElfFile, MayBeCutAnywhereWithItsTableFirst) {
  const Bytes whole = New().Section("some text").Section(Marker{}).TableFirst().Build();
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_EQ(SearchIn(whole.substr(0, size)), kNothing) << size;
  }
  EXPECT_EQ(SearchIn(whole), kOwn);
}

TEST_P(AnElfFile, HasAsManySectionsAsItClaims) {
  const auto with_count = [](std::uint64_t count) {
    return New().Section(Marker{7}).Section(Marker{8}).ClaimCount(count).Build();
  };
  EXPECT_EQ(SearchIn(with_count(0)), kNothing);
  EXPECT_EQ(SearchIn(with_count(1)), OwnOfLevel(7));
  EXPECT_EQ(SearchIn(with_count(65535)), OwnOfLevel(7));
  EXPECT_EQ(SearchIn(New().Section("x").Section(Marker{}).ClaimCount(1)), kNothing);
  EXPECT_EQ(SearchIn(New().Section("x").Section(Marker{}).ClaimCount(65535)), kOwn);
}

TEST_P(AnElfFile, OfTheMostSectionsHasAMarkerInItsLast) {
  Builder builder = New();
  for (int i = 1; i < 65535; ++i) builder.Header(0, 16);
  EXPECT_EQ(SearchIn(builder.Section(Marker{})), kOwn);
}

TEST_P(AnElfFile, MayPlaceItsTableAnywhere) {
  const std::size_t size = New().Section(Marker{}).Build().size();
  const std::uint64_t offsets[] = {0,          1,          size - 1,   size,      size + 1,
                                   0x7fffffff, 0x80000000, 0xfffffff0, 0xffffffff};
  for (const std::uint64_t offset : offsets) {
    Builder file = New().Section(Marker{}).ClaimTable(offset);
    EXPECT_EQ(SearchIn(file), kNothing) << offset;
    EXPECT_EQ(SearchIn(file.ClaimCount(65535)), kNothing) << offset;
  }
}

TEST_P(AnElfFile, MayPlaceItsSectionsAnywhere) {
  const std::size_t size = New().Header(0, 0).Section(Marker{}).Build().size();
  const std::uint64_t offsets[] = {0,          size - 16,  size - 15,  size,
                                   0x7fffffff, 0x80000000, 0xfffffff0, 0xffffffff};
  for (const std::uint64_t offset : offsets) {
    for (const std::uint64_t claimed : std::initializer_list<std::uint64_t>{
             0, 1, 16, 0x7fffffff, 0x80000000, 0xfffffff0, 0xffffffff}) {
      Builder file = New().Header(offset, claimed);
      EXPECT_EQ(SearchIn(file), kNothing) << offset << ' ' << claimed;
      EXPECT_EQ(SearchIn(file.Section(Marker{})), kOwn) << offset << ' ' << claimed;
    }
  }
}

// ---- Which files are read -----------------------------------------------------------------------

TEST_F(AnApplicationFolder, IsSearchedToItsDepth) {
  Write("a/b/c/d/e/f/g/h/i/j/k/l/m/n/o/p/file", Marker{});
  EXPECT_EQ(Search(), kOwn);
}

TEST_F(AnApplicationFolder, MayBeOneFile) { EXPECT_EQ(Search(Write("file", Marker{})), kOwn); }

TEST_F(AnApplicationFolder, MayHaveFilesOfAnyName) {
  Write(".hidden/.file", Marker{5});
  Write("%s %n \n \xff\xfe", Marker{6});
  Write(std::string(255, 'x'), Marker{7});
  EXPECT_EQ(Search(), OwnOfLevel(7));
}

TEST_F(AnApplicationFolder, HasFilesBelow52BytesThatAreNotOpened) {
  for (const std::size_t size : {0U, 1U, 4U, 51U}) {
    Write("file" + std::to_string(size), (elf::kMagic + Bytes(51, 'x')).substr(0, size));
  }
  EXPECT_EQ(Search(), kNothing);
  EXPECT_THAT(files().opened, IsEmpty());
  Write("file52", Bytes(52, 'x'));
  EXPECT_EQ(Search(), kNothing);
  EXPECT_THAT(files().opened, ElementsAre((Root() / "file52").string()));
}

TEST_F(AnApplicationFolder, HasFilesOfAnotherKindThatAreReadInSilence) {
  Write("text", Bytes(52, 'x'));
  Write("page", Bytes(4096, 'x'));
  Write("long", Bytes(100'000, '\0'));
  EXPECT_EQ(Search(), kNothing);
  ExpectNoMarkerLogged();
}

TEST_F(AnApplicationFolder, HasSymbolicLinksThatAreNotFollowed) {
  client_level::TemporaryFolder elsewhere;
  const std::string target = (elsewhere.path() / "file").string();
  std::ofstream(target, std::ios::binary) << elf::FileWith(Marker{});
  fs::create_symlink(target, Root() / "link");
  fs::create_directory_symlink(elsewhere.path(), Root() / "folder");
  fs::create_symlink(Root(), Root() / "loop");
  fs::create_symlink(std::string(100, 'x'), Root() / "dangling");
  EXPECT_EQ(Search(), kNothing);
  EXPECT_THAT(files().opened, IsEmpty());
  ExpectNoMarkerLogged();
}

TEST_F(AnApplicationFolder, HasFifosSocketsAndDevicesThatAreNotOpened) {
  ASSERT_EQ(mkfifo((Root() / "fifo").c_str(), 0600), 0);
  const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string name = (Root() / "socket").string();
  ASSERT_LT(name.size(), sizeof address.sun_path);
  std::memcpy(address.sun_path, name.c_str(), name.size() + 1);
  ASSERT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  Write("file", Marker{});
  EXPECT_EQ(Search(), kOwn);
  EXPECT_THAT(files().opened, SizeIs(1));
  close(descriptor);
}

TEST_F(AnApplicationFolder, IsNotChanged) {
  const path file = Write("file", Marker{});
  const auto written = fs::last_write_time(file);
  EXPECT_EQ(Search(), kOwn);
  EXPECT_EQ(fs::last_write_time(file), written);
  EXPECT_EQ(std::distance(fs::recursive_directory_iterator(Root()), {}), 1);
}

struct AStepOfTheWalk : AnApplicationFolder, ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(OfType, AStepOfTheWalk,
                         ::testing::Values(FTW_D, FTW_DNR, FTW_DP, FTW_NS, FTW_SL, FTW_SLN));

TEST_P(AStepOfTheWalk, OpensNothing) {
  const path file = Write("file", Marker{});
  struct stat status{};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(kyr_section_read_file(file.c_str(), &status, GetParam(), nullptr), 0);
  EXPECT_THAT(files().opened, IsEmpty());
  EXPECT_EQ(kyr_section_read_file(file.c_str(), &status, FTW_F, nullptr), 0);
  EXPECT_THAT(files().opened, SizeIs(1));
}

// ---- Files that cannot be read ------------------------------------------------------------------

struct AFileThatCannotBeOpened : AnApplicationFolder, ::testing::WithParamInterface<int> {
  ::testing::Matcher<const fake::LogRecord&> FailedToOpen(const std::string& name, int error) {
    return IsError(kScannerFile, kReader,
                   "Failed to open " + (Root() / name).string() + " : " + std::strerror(error));
  }

  /** Runs before the file is opened, once. */
  void BeforeOpening(const std::string& name, const std::function<void(const path&)>& action) {
    files().on_open = [=](const std::string& opened) {
      if (path(opened).filename() == name) action(opened);
      return 0;
    };
  }
};

INSTANTIATE_TEST_SUITE_P(BecauseOf, AFileThatCannotBeOpened,
                         ::testing::Values(EACCES, EMFILE, ENOENT, EIO));

TEST_P(AFileThatCannotBeOpened, IsLoggedAndPassedOver) {
  Write("app/bad", Marker{99});
  Write("app/good", Marker{});
  files().on_open = [](const std::string& opened) {
    return path(opened).filename() == "bad" ? GetParam() : 0;
  };
  EXPECT_EQ(Search(), kOwn);
  EXPECT_THAT(fake::Logs(), ElementsAre(FailedToOpen("app/bad", GetParam())));
}

using AFileThatChanges = AFileThatCannotBeOpened;

TEST_F(AFileThatChanges, IntoSomethingElseIsLoggedAndPassedOver) {
  client_level::TemporaryFolder elsewhere;
  const path target = elsewhere.path() / "file";
  std::ofstream(target, std::ios::binary) << elf::FileWith(Marker{99});
  const auto no_header = IsError(kScannerFile, kReader, "Failed to read ELF header");
  struct Change {
    std::function<void(const path&)> make;
    ::testing::Matcher<const fake::LogRecord&> record;
  };
  const std::vector<Change> changes = {
      {[](const path&) {}, FailedToOpen("app/bad", ENOENT)},
      {[&](const path& file) { fs::create_symlink(target, file); }, FailedToOpen("app/bad", ELOOP)},
      {[](const path& file) { EXPECT_EQ(mkfifo(file.c_str(), 0600), 0); }, no_header},
      {[](const path& file) { fs::create_directory(file); }, no_header},
  };
  for (const Change& change : changes) {
    fs::remove_all(Root() / "app");
    Write("app/bad", Marker{99});
    Write("app/good", Marker{});
    BeforeOpening("bad", [&](const path& file) {
      fs::remove(file);
      change.make(file);
    });
    fake::ClearRecord();
    EXPECT_EQ(Search(), kOwn);
    EXPECT_THAT(fake::Logs(), ElementsAre(change.record));
  }
}

TEST_F(AFileThatChanges, IntoAShorterOneIsReadToItsEnd) {
  const Bytes whole = Builder(Kind::k64).GapBeforeContents(8000).Section(Marker{}).Build();
  for (const std::size_t size : {0U, 51U, 63U, 64U, 8000U, 8070U, 8120U}) {
    Write("app/bad", whole);
    BeforeOpening("bad", [size](const path& file) { fs::resize_file(file, size); });
    fake::ClearRecord();
    EXPECT_EQ(Search(), kNothing);
    EXPECT_EQ(fake::Logs().size(), size < 64 ? 2U : 1U) << size;
  }
}

TEST_F(AFileThatChanges, WhileItIsReadDoesNoHarm) {
  const Bytes whole = Builder(Kind::k64).GapBeforeContents(8000).Section(Marker{}).Build();
  for (int at = 1; at <= 3; ++at) {
    const path file = Write("app/bad", whole);
    files().reads = 0;
    files().on_read = [file, at] {
      if (files().reads == at) fs::resize_file(file, 70);
    };
    EXPECT_EQ(Search(), kNothing) << at;
  }
}

TEST_F(AFileThatChanges, IntoAShorterOneIsAskedForNoMoreThanItHas) {
  Builder builder(Kind::k64);
  for (int i = 0; i < 65535; ++i) builder.Header(0xfffffff0U, 16);
  const path file = Write("app/bad", builder.Build());
  files().reads = 0;
  files().on_read = [file] {
    if (files().reads == 2) fs::resize_file(file, 70);
  };
  EXPECT_EQ(Search(), kNothing);
  EXPECT_LE(files().reads, 5);
}

TEST_F(AFileThatChanges, IntoAFifoLeavesWhatIsInItToItsReader) {
  const Bytes message = Builder(Kind::k64).Section(Marker{99}).TableFirst().Build();
  Write("app/bad", message);
  Write("app/good", Marker{});
  int fifo = -1;
  BeforeOpening("bad", [&](const path& file) {
    fs::remove(file);
    EXPECT_EQ(mkfifo(file.c_str(), 0600), 0);
    fifo = __real_open64(file.c_str(), O_RDWR | O_NONBLOCK);
    EXPECT_EQ(write(fifo, message.data(), message.size()), static_cast<ssize_t>(message.size()));
  });
  EXPECT_EQ(Search(), kOwn);
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsError(kScannerFile, kReader, "Failed to read ELF header")));
  Bytes left(message.size(), '\0');
  EXPECT_EQ(read(fifo, left.data(), left.size()), static_cast<ssize_t>(message.size()));
  EXPECT_EQ(left, message);
  close(fifo);
}

/** From one size to another, with the parts of the marker's file in one order or the other. */
struct AFileThatGrows : AFileThatCannotBeOpened {
  static std::vector<Bytes> LargeOnes() {
    std::vector<Bytes> all;
    for (const Kind kind : {Kind::k32, Kind::k64}) {
      for (const std::size_t gap : {0U, 200U, 3960U, 4096U, 9000U, 1'000'000U}) {
        all.push_back(Builder(kind).GapBeforeContents(gap).Section(Marker{}).Build());
        all.push_back(Builder(kind).Section(Marker{}).GapBeforeTable(gap).Build());
        all.push_back(Builder(kind).GapBeforeContents(gap).Section(Marker{}).TableFirst().Build());
      }
    }
    return all;
  }

  static std::vector<std::size_t> SizesBelow(std::size_t size) {
    std::vector<std::size_t> sizes = {size - 16, size - 1};
    for (const std::size_t other : {52U, 64U, 100U, 4095U, 4096U, 4097U, 8192U}) {
      if (other < size) sizes.push_back(other);
    }
    return sizes;
  }
};

TEST_F(AFileThatGrows, OrIsReplacedBeforeItIsOpenedIsReadAsItIsThen) {
  for (const Bytes& large : LargeOnes()) {
    for (const std::size_t size : SizesBelow(large.size())) {
      Write("app/file", large.substr(0, size));
      BeforeOpening("file", [&](const path&) { Write("app/file", large); });
      EXPECT_EQ(Search(), kOwn) << size << " of " << large.size();
      Write("app/file", Bytes(size, 'x'));
      BeforeOpening("file", [&](const path& file) { fs::rename(Write("new", large), file); });
      EXPECT_EQ(Search(), kOwn) << size << " of " << large.size();
    }
  }
  EXPECT_THAT(fake::Logs(), IsEmpty());
}

TEST_F(AFileThatGrows, HasNothingBehindItsNewEnd) {
  const Bytes large = Builder(Kind::k64).GapBeforeContents(9000).Section(Marker{}).Build();
  for (std::size_t size = 9064; size < large.size(); ++size) {
    Write("app/file", large.substr(0, 100));
    BeforeOpening("file", [&](const path&) { Write("app/file", large.substr(0, size)); });
    EXPECT_EQ(Search(), kNothing) << size;
  }
}

TEST_F(AFileThatGrows, HasNothingWhenItTurnsOutToBeNoFileOrItsSizeIsUnknown) {
  // No real device has both the front of a file and a size, so what fstat says is made up.
  const Bytes large = Builder(Kind::k64).GapBeforeContents(9000).Section(Marker{}).Build();
  const std::pair<mode_t, int> answers[] = {
      {S_IFREG, 0}, {S_IFBLK, 0}, {S_IFCHR, 0}, {S_IFREG, EIO}, {S_IFBLK, EIO}};
  for (const auto& answer : answers) {
    Write("app/file", large.substr(0, 100));
    BeforeOpening("file", [&](const path&) { Write("app/file", large); });
    files().on_stat = [answer](struct stat64& status) {
      status.st_mode = answer.first;
      return answer.second;
    };
    EXPECT_EQ(Search(), answer.first == S_IFREG && answer.second == 0 ? kOwn : kNothing)
        << answer.first << ' ' << answer.second;
  }
}

TEST_F(AFileThatChanges, TimeAfterTimeIsReadWithoutInterruption) {
  // Signals that interrupt reads, as often as they can.
  struct sigaction action{};
  action.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
  for (int i = 0; i < 200; ++i) Write("app/" + std::to_string(i), Marker{});
  const itimerval often = {{0, 100}, {0, 100}};
  ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
  const Found found = Search();
  const itimerval never = {};
  setitimer(ITIMER_REAL, &never, nullptr);
  EXPECT_EQ(found, kOwn);
  EXPECT_THAT(fake::Logs(), IsEmpty());
}

struct ATable : AnElfFile {
  static constexpr std::size_t kCount = 1500;

  /** A table whose headers, from `first` on, are all of markers, each with its number as level. */
  static Bytes WithMarkersFrom(std::size_t first) {
    Builder builder = New();
    for (std::size_t i = 0; i < kCount; ++i) {
      if (i < first) {
        builder.Section("text");
      } else {
        builder.Section(Marker{static_cast<unsigned>(i)});
      }
    }
    return builder.Build();
  }

  static std::size_t EntrySize() { return New().EntrySize(); }

  /** The place of a header in such a file. */
  static std::size_t Place(const path& file, std::size_t entry) {
    return static_cast<std::size_t>(fs::file_size(file)) - (kCount - entry) * EntrySize();
  }
};

INSTANTIATE_TEST_SUITE_P(Of, ATable, ::testing::Values(Kind::k32, Kind::k64), NameOfKind());

TEST_P(ATable, WithHeadersThatCannotBeReadHasAMarkerBehindThem) {
  for (const std::size_t count : {1U, 2U, 100U, 500U}) {
    for (const std::size_t first : {1U, 2U, 63U, 64U, 102U, 255U, 256U, 409U, 900U}) {
      files() = {};
      const std::size_t from = Place(Write("file", WithMarkersFrom(first)), first);
      files().unreadable = {{from, from + count * EntrySize()}};
      EXPECT_EQ(Search(), OwnOfLevel(static_cast<int>(first + count)));
      EXPECT_LE(files().reads, 1 + 1500 + 1);
    }
  }
  EXPECT_THAT(fake::Logs(), IsEmpty());
}

TEST_P(ATable, WithAHeaderThatCannotBeReadToItsEndHasAMarkerBehindIt) {
  const std::size_t header = Place(Write("file", WithMarkersFrom(300)), 300);
  for (std::size_t byte = 0; byte < EntrySize(); ++byte) {
    files().unreadable = {{header + byte, header + byte + 1}};
    EXPECT_EQ(Search(), OwnOfLevel(301)) << byte;
  }
}

TEST_P(ATable, WithHeadersThatCannotBeReadHereAndThereHasTheMarkersOfTheOthers) {
  const path file = Write("file", WithMarkersFrom(kCount - 1));
  for (std::size_t entry = 0; entry < kCount - 1; entry += 7) {
    const std::size_t from = Place(file, entry);
    files().unreadable.push_back({from, from + 1});
  }
  EXPECT_EQ(Search(), OwnOfLevel(kCount - 1));
}

TEST_P(ATable, AtTheFrontWithHeadersThatCannotBeReadHasAMarkerBehindThem) {
  for (const std::size_t first : {0U, 1U, 20U, 62U, 63U, 64U, 100U}) {
    Builder builder = New();
    for (std::size_t i = 0; i < first; ++i) builder.Section("text");
    const std::size_t from = builder.HeaderSize() + first * EntrySize();
    files().unreadable = {{from, from + EntrySize() + 1}};
    builder.Section(Marker{99}).Section(Marker{98}).Section(Marker{}).TableFirst();
    EXPECT_EQ(SearchIn(builder), kOwn) << first;
  }
  EXPECT_THAT(fake::Logs(), IsEmpty());
}

TEST_P(ATable, IsReadAlthoughSignalsInterruptTheReading) {
  Write("file", WithMarkersFrom(kCount - 1));
  files().interruptions = 3;
  EXPECT_EQ(Search(), OwnOfLevel(kCount - 1));
  EXPECT_EQ(fake::Logs().size(), 0U);
}

TEST_P(ATable, WithoutAReadableHeaderHasNoMarker) {
  const path file = Write("file", WithMarkersFrom(0));
  files().unreadable = {{Place(file, 0), Place(file, kCount)}};
  EXPECT_EQ(Search(), kNothing);
  EXPECT_LE(files().reads, 1 + 1500);
}

TEST_P(ATable, HasTheMarkerBehindOneThatCannotBeRead) {
  Builder builder = New().Section(Bytes(5000, 'x')).Section(Marker{99}).Section(Marker{98});
  const std::size_t from = builder.HeaderSize() + 5000;
  files().unreadable = {{from, from + 1}, {from + 31, from + 32}};
  EXPECT_EQ(SearchIn(builder.Section(Marker{})), kOwn);
}

/** Runs `work` in a process without root's rights; returns its result. */
int WithoutRights(const std::function<int()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    constexpr uid_t kNobody = 65534;
    if (geteuid() == 0 && (setgid(kNobody) != 0 || setuid(kNobody) != 0)) _exit(250);
    _exit(work());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(AFileThatChanges, MayBeOneWithoutTheRightToReadIt) {
  fs::permissions(Root(), fs::perms(0755));
  Write("app/good", Marker{});
  fs::permissions(Write("app/bad", Marker{99}), fs::perms::none);
  const int result = WithoutRights([this] {
    if (!(Search() == kOwn)) return 1;
    const auto logs = fake::Logs();
    if (logs.size() != 1) return 2;
    return ::testing::Matches(FailedToOpen("app/bad", EACCES))(logs[0]) ? 0 : 3;
  });
  EXPECT_EQ(result, 0);
}

TEST_F(AFileThatChanges, MayLieInAFolderThatCannotBeRead) {
  fs::permissions(Root(), fs::perms(0755));
  Write("app/good", Marker{});
  Write("app/closed/bad", Marker{99});
  fs::permissions(Root() / "app/closed", fs::perms::none);
  const int result = WithoutRights([this] { return Search() == kOwn ? 0 : 1; });
  EXPECT_EQ(result, 0);
  fs::permissions(Root() / "app/closed", fs::perms(0755));
}

// ---- What a search costs ------------------------------------------------------------------------

std::ptrdiff_t OpenDescriptors() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), {});
}

// A table is read in pieces of 256 headers; what comes before it takes one more read.
constexpr int kReadsOfTheMostSections = 1 + 65536 / 256;

using ASearch = AnApplicationFolder;

TEST_F(ASearch, FindsAFileThatIsOpenedInThePlaceOfTheStandardInput) {
  Write("app/file", Marker{});
  files().on_open = [](const std::string&) { return close(STDIN_FILENO), 0; };
  EXPECT_EQ(Search(), kOwn);
}

TEST_F(ASearch, TakesOneReadOfAFileOfAnotherKind) {
  for (const std::size_t size : {52U, 64U, 4095U, 4096U, 4097U, 100'000U}) {
    files() = {};
    SearchIn(Bytes(size, 'x'));
    EXPECT_EQ(files().reads, 1) << size;
    EXPECT_EQ(files().stats, 0) << size;
    EXPECT_LE(files().bytes_read, 4096U);
  }
}

TEST_F(ASearch, TakesAtMostOneReadMoreForTheTableAndOneForEachCandidate) {
  for (const Kind kind : {Kind::k32, Kind::k64}) {
    Builder small(kind);
    SearchIn(small.Section("text").Section(Marker{}));
    EXPECT_EQ(files().reads, 1);
    EXPECT_EQ(files().stats, 0);
    files() = {};
    Builder large(kind);
    for (int i = 0; i < 100; ++i) large.Section(Bytes(1000, 'x'));
    EXPECT_EQ(SearchIn(large.Section(Marker{})), kOwn);
    EXPECT_EQ(files().reads, 3);
    EXPECT_EQ(files().stats, 0);
    files() = {};
    Builder with_candidates(kind);
    for (int i = 0; i < 100; ++i) with_candidates.Section(Bytes(100, 'x')).Section(Bytes(16, 'x'));
    SearchIn(with_candidates);
    EXPECT_LE(files().reads, 1 + 1 + 100);
    files() = {};
  }
}

TEST_F(ASearch, ReadsNothingBehindTheEndOfAFile) {
  Builder builder(Kind::k64);
  for (int i = 0; i < 65535; ++i) builder.Header(0xfffffff0U, 16);
  EXPECT_EQ(SearchIn(builder), kNothing);
  EXPECT_EQ(files().reads, kReadsOfTheMostSections);
  EXPECT_EQ(files().stats, 1);
}

TEST_F(ASearch, TakesLittleOfAFileThatClaimsMuch) {
  // 65,535 sections of 4 GiB, in a file that takes no room on the disk.
  Builder builder(Kind::k64);
  const path file = Write("file", builder.ClaimTable(64).ClaimCount(65535).Build());
  fs::resize_file(file, 4U << 20U);
  EXPECT_EQ(Search(), kNothing);  // sections of size 0
  std::string header(24, '\0');
  header += elf::Little(0, 8) + elf::Little(0xffffffffU, 8) + std::string(24, '\0');
  {
    std::fstream out(file, std::ios::in | std::ios::out | std::ios::binary);
    out.seekp(64);
    for (int i = 0; i < 65535; ++i) out << header;
  }
  files() = {};
  {
    const FailingAllocation failing(Allocator::kMalloc);
    EXPECT_EQ(Search(), kNothing);
    EXPECT_FALSE(failing.Happened());
  }
  std::size_t most = 0;
  files().on_read = [&most] {
    std::size_t total = 0;
    for (const fake::Block& block : fake::LiveBlocks()) total += block.size;
    most = std::max(most, total);
  };
  files().reads = 0;
  files().bytes_read = 0;
  {
    const fake::NewTracking tracking;
    EXPECT_EQ(Search(), kNothing);
  }
  EXPECT_LE(most, 64U << 10U);
  EXPECT_EQ(files().reads, kReadsOfTheMostSections);
  EXPECT_LE(files().bytes_read, (4U << 20U) + 4096U);
}

TEST_F(ASearch, TakesLittleOfAFileWhoseTableLiesInAHole) {
  for (const std::uint64_t offset : {std::uint64_t{64}, std::uint64_t{0xf0000000U}}) {
    const path file =
        Write("file", Builder(Kind::k64).ClaimTable(offset).ClaimCount(65535).Build());
    std::error_code no_room;
    fs::resize_file(file, 1ULL << 33U, no_room);
    if (no_room) GTEST_SKIP() << "no file of 8 GiB can be made here: " << no_room.message();
    files() = {};
    EXPECT_EQ(Search(), kNothing);
    EXPECT_LE(files().bytes_read, (4U << 20U) + 4096U);
    EXPECT_EQ(files().reads, kReadsOfTheMostSections);
  }
}

TEST_F(ASearch, LeavesNoDescriptorOpen) {
  const auto before = OpenDescriptors();
  Write("text", Bytes(100, 'x'));
  Write("short", Builder(Kind::k64).Build().substr(0, 60));
  Write("marker", Marker{});
  Write("a/b/c/d/none", Builder(Kind::k32).Section("x").Build());
  Write("bad", Marker{99});
  files().on_open = [](const std::string& opened) {
    return path(opened).filename() == "bad" ? EACCES : 0;
  };
  EXPECT_EQ(Search(), kOwn);
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_EQ(Search(Root() / "missing"), kNothing);
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(ASearch, NeedsFewDescriptorsHoweverDeepTheFolders) {
  path deep = "app";
  for (int i = 0; i < 100; ++i) deep /= "folder";
  Write(deep / "file", Marker{});
  std::ptrdiff_t most = 0;
  files().on_read = [&] { most = std::max(most, OpenDescriptors()); };
  const auto before = OpenDescriptors();
  EXPECT_EQ(Search(), kOwn);
  EXPECT_LE(most, before + 3);
}

/** 40 folders of 500 entries each, with everything that a search has to get around. */
struct AManifoldFolder : ASearch {
  static constexpr int kFolders = 40;

  void SetUp() override {
    ASearch::SetUp();
    fs::permissions(Root(), fs::perms::all);
    const path text = Write("text", Bytes(52, 'x'));
    const path vanishing = Write("elsewhere/vanishing", Marker{98});
    for (int folder = 0; folder < kFolders; ++folder) {
      // First or last: whichever way a file system lists them, some come after what vanishes.
      if (folder % 2 == 0) WriteNewest(folder);
      fs::create_directories(Folder(folder));
      fs::permissions(Folder(folder), fs::perms::all);
      for (int i = 0; i < 490; ++i) fs::create_hard_link(text, Folder(folder) / std::to_string(i));
      for (int i = 0; i < 5; ++i) fs::create_hard_link(vanishing, Folder(folder) / Vanishing(i));
      fs::create_symlink(Root(), Folder(folder) / "loop");
      fs::create_symlink(vanishing, Folder(folder) / "link");
      fs::create_symlink("missing", Folder(folder) / "dangling");
      ASSERT_EQ(mkfifo((Folder(folder) / "fifo").c_str(), 0600), 0);
      fs::create_directories(Folder(folder) / "closed");
      fs::create_hard_link(vanishing, Folder(folder) / "closed/marker");
      fs::permissions(Folder(folder) / "closed", fs::perms::none);
      if (folder % 2 != 0) WriteNewest(folder);
    }
    files().on_open = [this](const std::string& opened) {
      // All of them, and thus the one that is being opened.
      if (path(opened).filename().string().rfind("vanishing", 0) != 0) return 0;
      ++vanished_;
      for (int i = 0; i < 5; ++i) fs::remove(path(opened).parent_path() / Vanishing(i));
      return 0;
    };
  }

  void TearDown() override {
    for (int folder = 0; folder < kFolders; ++folder) {
      fs::permissions(Folder(folder) / "closed", fs::perms::owner_all);
    }
    ASearch::TearDown();
  }

  path Many() const { return Root() / "many"; }
  path Folder(int folder) const { return Many() / std::to_string(folder); }
  int Vanished() const { return vanished_; }
  static std::string Vanishing(int i) { return "vanishing" + std::to_string(i); }

  /** The newest of a folder, and newer than those of the folders before. */
  static Found Newest(int folder) { return {12, 2, 3, folder}; }

 private:
  void WriteNewest(int folder) const {
    Write(Folder(folder) / ("newest" + std::to_string(folder)),
          Marker{12, 2, 3, static_cast<unsigned>(folder)});
  }

  int vanished_ = 0;
};

TEST_F(AManifoldFolder, HasTheNewestMarkerThatStaysAndCanBeRead) {
  const int failed = WithoutRights([this] {
    const auto before = OpenDescriptors();
    EXPECT_EQ(Search(Many()), Newest(kFolders - 1));
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(Vanished(), kFolders);
    EXPECT_EQ(files().opened.size(), kFolders * (490U + 1U + 1U));
    EXPECT_EQ(static_cast<std::size_t>(files().reads), files().opened.size() - kFolders);
    EXPECT_EQ(fake::Logs().size(), static_cast<std::size_t>(kFolders));
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(failed, 0);
}

TEST_F(AManifoldFolder, HasFoldersOfWhichEachHasItsOwn) {
  const int failed = WithoutRights([this] {
    for (int folder = 0; folder < kFolders; ++folder) {
      EXPECT_EQ(Search(Folder(folder)), Newest(folder));
      EXPECT_EQ(Vanished(), folder + 1);
    }
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(failed, 0);
}

}  // namespace
