// SPDX-License-Identifier: Apache-2.0
// A file that the search for markers comes upon, compared with a second reading of the format.
//
// Input: a byte that says how the file behaves while it is read, two bytes that the size which the
// walk has seen differs by (a size below zero is that of no file: the walk fails), and the file's
// content. The file is the input itself: no descriptor
// stands behind it.

#include <elf.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

#include "agent_stand_in.h"
#include "input.h"
#include "kyr-section.h"

// Visible, because a sanitizer's library names some of them, too.
#pragma GCC visibility push(default)
extern "C" {
int __real_open64(const char* path, int flags, ...);
int __real_fstat64(int descriptor, struct stat64* status);
ssize_t __real_pread64(int descriptor, void* bytes, size_t size, off64_t offset);
int __real_close(int descriptor);
int __real_nftw64(const char* path, __nftw_func_t step, int descriptors, int flags);

int __wrap_open64(const char* path, int flags, ...);
int __wrap_fstat64(int descriptor, struct stat64* status);
ssize_t __wrap_pread64(int descriptor, void* bytes, size_t size, off64_t offset);
int __wrap_close(int descriptor);
int __wrap_nftw64(const char* path, __nftw_func_t step, int descriptors, int flags);
}
#pragma GCC visibility pop

namespace {

constexpr char kPath[] = "the folder/the file";
constexpr int kDescriptor = 100000;

// What a record says beside its magic: level and version.
using Said = std::tuple<int, int, int, int>;

// The file of one input.
struct File {
  explicit File(Input* input) {
    const std::uint8_t behaviour = input->Byte();
    piece = behaviour % 4 == 0 ? 0 : std::size_t{1} << (behaviour % 4 * 4);
    is_interrupted = (behaviour & 4) != 0;
    becomes_another = (behaviour & 8) != 0;
    if ((behaviour & 16) != 0) good_reads = behaviour >> 5;
    const int low = input->Byte();
    const auto difference = static_cast<std::int16_t>(low | input->Byte() << 8);
    bytes = input->Rest();
    seen_size = static_cast<off64_t>(bytes.size()) + difference;
    // What is read in pieces may end where it was seen to end; it has then not changed.
    if (piece != 0) seen_size = std::max(seen_size, static_cast<off64_t>(bytes.size()));
  }

  bool IsTroubled() const { return becomes_another || good_reads >= 0; }

  std::string_view bytes;
  off64_t seen_size = 0;
  std::size_t piece = 0;  // how much one read gives at most; 0 for all
  bool is_interrupted = false;
  bool becomes_another = false;
  int good_reads = -1;  // how many reads succeed; all if negative
  bool is_open = false;
};

File* file = nullptr;

std::uint64_t NumberAt(std::string_view bytes, std::uint64_t offset, std::size_t size) {
  std::uint64_t number = 0;
  for (std::size_t i = size; i-- > 0;)
    number = number << 8 | static_cast<std::uint8_t>(bytes[static_cast<std::size_t>(offset) + i]);
  return number;
}

bool Holds(std::string_view bytes, std::uint64_t offset, std::uint64_t size) {
  return offset + size <= bytes.size();
}

// The record at a place, if one is there.
std::optional<Said> RecordAt(std::string_view bytes, std::uint64_t offset) {
  if (!Holds(bytes, offset, 16)) return std::nullopt;
  const std::string_view record = bytes.substr(static_cast<std::size_t>(offset), 16);
  if (record.substr(0, 6) != std::string_view("KYR\0\0\0", 6)) return std::nullopt;
  const auto number = [&](std::uint64_t at) { return static_cast<int>(NumberAt(record, at, 2)); };
  return Said{number(8), number(10), number(12), number(14)};
}

struct Places {
  std::size_t header, table, count, entry, offset, size, word;
};
constexpr Places kPlaces32 = {52, 32, 48, 40, 16, 20, 4};
constexpr Places kPlaces64 = {64, 40, 60, 64, 24, 32, 8};

// The records of all sections in their order.
std::vector<Said> RecordsOf(std::string_view bytes) {
  if (bytes.size() < kPlaces32.header || bytes.substr(0, 4) != ELFMAG) return {};
  const Places& places = bytes[EI_CLASS] == ELFCLASS32 ? kPlaces32 : kPlaces64;
  if (bytes.size() < places.header) return {};
  std::vector<Said> records;
  std::uint64_t entry = NumberAt(bytes, places.table, 4);
  for (auto left = NumberAt(bytes, places.count, 2); left > 0; --left, entry += places.entry) {
    if (!Holds(bytes, entry, places.entry)) break;
    if (NumberAt(bytes, entry + places.size, 4) != 16) continue;
    if (const auto record = RecordAt(bytes, NumberAt(bytes, entry + places.offset, 4)))
      records.push_back(*record);
  }
  return records;
}

// What the search must find; the file has nothing to say at level 0.
std::optional<Said> Expected() {
  if (file->seen_size < 52) return std::nullopt;
  const std::vector<Said> records = RecordsOf(file->bytes);
  if (records.empty() || std::get<0>(records.front()) == 0) return std::nullopt;
  return records.front();
}

}  // namespace

int __wrap_open64(const char* path, int flags, ...) {
  if (file == nullptr) return __real_open64(path, flags);
  REQUIRE(std::strcmp(path, kPath) == 0 && !file->is_open);
  // Whatever the file has become by now: opening it neither waits nor has an effect.
  for (const int flag : {O_CLOEXEC, O_NONBLOCK, O_NOCTTY, O_NOFOLLOW}) REQUIRE((flags & flag) != 0);
  REQUIRE((flags & (O_ACCMODE | O_CREAT)) == O_RDONLY);
  file->is_open = true;
  return kDescriptor;
}

int __wrap_fstat64(int descriptor, struct stat64* status) {
  if (file == nullptr) return __real_fstat64(descriptor, status);
  REQUIRE(descriptor == kDescriptor && file->is_open);
  *status = {};
  status->st_mode = file->becomes_another ? S_IFIFO : S_IFREG;
  status->st_size = static_cast<off64_t>(file->bytes.size());
  return 0;
}

ssize_t __wrap_pread64(int descriptor, void* bytes, size_t size, off64_t offset) {
  if (file == nullptr) return __real_pread64(descriptor, bytes, size, offset);
  REQUIRE(descriptor == kDescriptor && file->is_open && offset >= 0);
  if (std::exchange(file->is_interrupted, false)) {
    errno = EINTR;
    return -1;
  }
  if (file->good_reads == 0) {
    errno = EIO;
    return -1;
  }
  if (file->good_reads > 0) --file->good_reads;
  if (file->piece != 0) size = std::min(size, file->piece);
  const auto place = std::min(static_cast<std::size_t>(offset), file->bytes.size());
  return static_cast<ssize_t>(file->bytes.copy(static_cast<char*>(bytes), size, place));
}

int __wrap_close(int descriptor) {
  if (file == nullptr || descriptor != kDescriptor) return __real_close(descriptor);
  REQUIRE(std::exchange(file->is_open, false));
  return 0;
}

int __wrap_nftw64(const char* path, __nftw_func_t step, int descriptors, int flags) {
  if (file == nullptr) return __real_nftw64(path, step, descriptors, flags);
  REQUIRE((flags & FTW_PHYS) != 0);
  if (file->seen_size < 0) return -1;
  struct stat status = {};
  status.st_mode = S_IFREG;
  status.st_size = file->seen_size;
  FTW place = {};
  return step(kPath, &status, FTW_F, &place);
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  File of_input(&input);
  file = &of_input;
  const svcmgr::OwnedKyrRecord found = kyr_section_get_latest("the folder");
  REQUIRE(!file->is_open);
  std::optional<Said> said;
  if (found != nullptr) {
    said = {found->api_level, found->version_major, found->version_minor, found->version_patch};
    REQUIRE(std::memcmp(found->magic, "KYR", 4) == 0 && found->reserved == 0);
  }
  if (!file->IsTroubled()) {
    REQUIRE(said == Expected());
  } else if (said) {
    // A section that could not be read is passed over; nothing is made up.
    const std::vector<Said> records = RecordsOf(file->bytes);
    REQUIRE(std::find(records.begin(), records.end(), *said) != records.end());
  }
  file = nullptr;
  return 0;
}
