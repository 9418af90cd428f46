// SPDX-License-Identifier: Apache-2.0
// An application's folder with whatever may lie in it, searched for markers while it changes.
//
// Input: steps that fill the folder. A byte chooses what is made, the next one its name; a marker has
// two more for its level and its patch, a link one for its target, a change two for the moment and for
// what happens to the file that is about to be opened then; the content of a plain file is a block.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <tuple>

#include "agent_stand_in.h"
#include "input.h"
#include "kyr-section.h"
#include "unit/elf_builder.h"

extern "C" {
int __real_open64(const char* path, int flags, ...);
int __wrap_open64(const char* path, int flags, ...);
}

namespace {

namespace fs = std::filesystem;

// Level and patch of a marker.
using Age = std::tuple<int, int>;

constexpr int kOutside = 999;  // the level of what no search may find
constexpr std::size_t kMostSteps = 64;
constexpr std::size_t kDeepest = 12;

elf::Bytes MarkedFile(int level, int patch, elf::Kind kind) {
  elf::Marker marker;
  marker.api_level = static_cast<unsigned>(level);
  marker.version_patch = static_cast<unsigned>(patch);
  return elf::FileWith(marker, kind);
}

void Write(const fs::path& path, std::string_view bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// The folders of this process, in memory where there is such a place.
class Home {
 public:
  Home() {
    const char* parent = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : std::getenv("TMPDIR");
    std::string path = std::string(parent != nullptr ? parent : "/tmp") + "/svcmgr-fuzz-XXXXXX";
    REQUIRE(mkdtemp(path.data()) != nullptr);
    path_ = path;
    fs::create_directory(Outside());
    Write(OutsideFile(), MarkedFile(kOutside, 0, elf::Kind::k64));
  }
  ~Home() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  Home(const Home&) = delete;
  Home& operator=(const Home&) = delete;

  fs::path Root() const { return path_ / "root"; }
  fs::path Outside() const { return path_ / "outside"; }
  fs::path OutsideFile() const { return Outside() / "marker"; }

 private:
  fs::path path_;
};

const Home& OwnHome() {
  static const Home home;
  return home;
}

// What happens to a file right before it is opened, instead of a step of another process.
enum class Change { kGoes, kBecomesPipe, kBecomesLink, kShrinks, kGrows, kBecomesFolder, kCount };

struct Tree {
  fs::path folder;  // in which the next step works
  std::size_t depth = 0;
  std::map<fs::path, Age> markers;        // of regular files
  std::map<std::size_t, Change> changes;  // by the number of the opening
  std::set<fs::path> changed;
  bool is_searched = false;
  std::size_t openings = 0;
};

Tree* tree = nullptr;  // of the input

fs::path NameFrom(std::uint8_t number) {
  static const std::array<std::string, 8> kNames = {
      "a", "b", ".hidden", "a name", "\x1b[2J", "-rf", std::string(255, 'n'), "libx.so.1"};
  return kNames[number % kNames.size()];
}

fs::path TargetFrom(std::uint8_t number) {
  switch (number % 5) {
    case 0:
      return OwnHome().OutsideFile();
    case 1:
      return OwnHome().Outside();
    case 2:
      return ".";
    case 3:
      return "..";
    default:
      return "nowhere";
  }
}

void MakeMarker(Input* input, const fs::path& path, elf::Kind kind, bool is_sparse) {
  const int level = input->Byte();
  const int patch = input->Byte();
  Write(path, MarkedFile(level, patch, kind));
  if (is_sparse) fs::resize_file(path, std::uintmax_t{1} << 33);
  tree->markers[path] = {level, patch};
}

void TakeStep(Input* input) {
  enum Step { kMarker64, kMarker32, kPlain, kFolder, kLeave, kLink, kPipe, kSparse, kChange };
  const auto step = static_cast<Step>(input->Byte() % 9);
  const std::uint8_t name = input->Byte();
  const fs::path path = tree->folder / NameFrom(name);
  const bool is_new = !fs::exists(fs::symlink_status(path));
  if (step == kLeave) {
    if (tree->depth > 0) tree->folder = tree->folder.parent_path();
    tree->depth -= tree->depth > 0 ? 1 : 0;
  } else if (step == kChange) {
    tree->changes[name % 16] =
        static_cast<Change>(input->Byte() % static_cast<int>(Change::kCount));
  } else if (step == kFolder && tree->depth < kDeepest) {
    if (is_new) fs::create_directory(path);
    if (!fs::is_directory(fs::symlink_status(path))) return;
    tree->folder = path;
    ++tree->depth;
  } else if (!is_new) {
    return;
  } else if (step == kPlain) {
    // Strange ELF files are another target's.
    const std::string_view content = input->Block();
    if (!content.starts_with(elf::kMagic)) Write(path, content);
  } else if (step == kLink) {
    fs::create_symlink(TargetFrom(input->Byte()), path);
  } else if (step == kPipe) {
    REQUIRE(mkfifo(path.c_str(), 0600) == 0);
  } else if (step != kFolder) {
    MakeMarker(input, path, step == kMarker32 ? elf::Kind::k32 : elf::Kind::k64, step == kSparse);
  }
}

void Apply(Change change, const fs::path& path) {
  tree->changed.insert(path);
  std::error_code ignored;
  if (change == Change::kShrinks) return fs::resize_file(path, 60, ignored);
  if (change == Change::kGrows) return fs::resize_file(path, 100000, ignored);
  fs::remove(path, ignored);
  if (change == Change::kBecomesPipe) REQUIRE(mkfifo(path.c_str(), 0600) == 0);
  if (change == Change::kBecomesLink) fs::create_symlink(OwnHome().OutsideFile(), path);
  if (change == Change::kBecomesFolder) fs::create_directory(path);
}

int LowestFreeDescriptor() {
  const int fd = __real_open64("/dev/null", O_RDONLY | O_CLOEXEC);
  REQUIRE(fd >= 0);
  close(fd);
  return fd;
}

// The newest marker of those that count, and that nothing happens to if only those are asked for.
Age Newest(bool unchanged_only) {
  Age newest = {0, 0};
  for (const auto& [path, age] : tree->markers)
    if (!unchanged_only || tree->changed.count(path) == 0) newest = std::max(newest, age);
  return std::get<0>(newest) == 0 ? Age{0, 0} : newest;
}

void Judge(Age found) {
  if (tree->changed.empty()) {
    REQUIRE(found == Newest(false));
    return;
  }
  REQUIRE(std::get<0>(found) != kOutside);
  REQUIRE(found >= Newest(true) && found <= Newest(false));
}

}  // namespace

int __wrap_open64(const char* path, int flags, ...) {
  std::va_list arguments;
  va_start(arguments, flags);
  const int mode = (flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0;
  va_end(arguments);
  if (tree != nullptr && tree->is_searched) {
    const auto change = tree->changes.find(tree->openings++);
    if (change != tree->changes.end()) Apply(change->second, path);
  }
  return __real_open64(path, flags, mode);
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  Tree of_input;
  tree = &of_input;
  const fs::path root = OwnHome().Root();
  fs::create_directory(root);
  tree->folder = root;
  for (std::size_t i = 0; i < kMostSteps && !input.empty(); ++i) TakeStep(&input);
  const int descriptor = LowestFreeDescriptor();
  tree->is_searched = true;
  const svcmgr::OwnedKyrRecord found = kyr_section_get_latest(root.c_str());
  REQUIRE(LowestFreeDescriptor() == descriptor);
  Judge(found == nullptr ? Age{0, 0} : Age{found->api_level, found->version_patch});
  tree = nullptr;
  fs::remove_all(root);
  return 0;
}
