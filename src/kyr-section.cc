// SPDX-License-Identifier: Apache-2.0
#include "kyr-section.h"

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <tuple>

#include "frame.h"

namespace svcmgr {

namespace {

// The newest record of the search that is under way.
KyrRecord latest_record;

// One read of this size serves the header and what else stands at the front of a file.
constexpr std::size_t kFrontSize = 4096;
// Tables are read in pieces of this size, which nearly all fit into. A buffer of their own size would
// have to be allocated, and a file be passed over when there is no memory.
constexpr std::size_t kTablePieceSize = 16384;

// The numbers of a record begin with the low byte, whatever the machine.
std::uint16_t Uint16At(const unsigned char* bytes) {
  return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
}

// The others are in the machine's own byte order, as in each file that it can load; the order that a
// file claims is not looked at.
template <typename Number>
Number NativeAt(const unsigned char* bytes) {
  Number number;
  std::memcpy(&number, bytes, sizeof number);
  return number;
}

// Where the fields stand in the two kinds of ELF files. Of 64-bit values the low halves are read.
struct Layout {
  std::size_t header_size;
  std::size_t table_offset;
  std::size_t entry_count;
  std::size_t entry_size;
  std::size_t section_offset;
  std::size_t section_size;
};

template <typename Header, typename Section>
constexpr Layout LayoutOf() {
  constexpr std::size_t kLowHalf =
      __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? sizeof(Section::sh_size) - sizeof(std::uint32_t) : 0;
  return {sizeof(Header),
          offsetof(Header, e_shoff) + kLowHalf,
          offsetof(Header, e_shnum),
          sizeof(Section),
          offsetof(Section, sh_offset) + kLowHalf,
          offsetof(Section, sh_size) + kLowHalf};
}

constexpr Layout kLayout32 = LayoutOf<Elf32_Ehdr, Elf32_Shdr>();
constexpr Layout kLayout64 = LayoutOf<Elf64_Ehdr, Elf64_Shdr>();

// A file that the walk has come upon. It may have become another since then: what the descriptor
// gives counts. The walk's word for its size only saves asking for it as long as all that is looked
// for lies within.
class File {
 public:
  // Not a FIFO or a device, even if the file has become one: opening it must not wait.
  File(const char* path, std::uint64_t size_seen)
      : descriptor_(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW)),
        size_(size_seen) {}
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() {
    if (descriptor_ >= 0) close(descriptor_);
  }

  bool IsOpen() const { return descriptor_ >= 0; }

  // How many of `size` bytes at an offset lie in the file.
  std::size_t Available(std::uint64_t offset, std::size_t size) {
    if (offset + size > size_ && !size_is_known_) AskForSize();
    return offset < size_ ? static_cast<std::size_t>(std::min<std::uint64_t>(size, size_ - offset))
                          : 0;
  }

  // Reads up to `size` bytes; less at the end of the file or after a failure. Positions are given
  // with each read, which so fails on a FIFO instead of taking what others are to get.
  std::size_t Read(std::uint64_t offset, unsigned char* bytes, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
      const ssize_t count =
          pread(descriptor_, bytes + done, size - done, static_cast<off_t>(offset + done));
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) break;
      done += static_cast<std::size_t>(count);
      if (count == 0) SetSize(offset + done);
      if (offset + done == size_) break;
    }
    return done;
  }

 private:
  void AskForSize() {
    struct stat status{};
    const bool is_file = fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode);
    SetSize(is_file ? static_cast<std::uint64_t>(status.st_size) : 0);
  }

  void SetSize(std::uint64_t size) {
    size_ = size;
    size_is_known_ = true;
  }

  const int descriptor_;
  std::uint64_t size_;
  bool size_is_known_ = false;
};

// The front of a file, and reads that are served from it where they can be.
class FileFront {
 public:
  explicit FileFront(File& file) : file_(file), size_(file.Read(0, bytes_, sizeof bytes_)) {}

  std::size_t size() const { return size_; }
  const unsigned char* bytes() const { return bytes_; }

  // Reads up to `size` bytes, of which all are known to lie in the file.
  std::size_t Read(std::uint64_t offset, unsigned char* bytes, std::size_t size) const {
    if (offset + size > size_) return file_.Read(offset, bytes, size);
    std::memcpy(bytes, bytes_ + offset, size);
    return size;
  }

  File& file() const { return file_; }

 private:
  File& file_;
  unsigned char bytes_[kFrontSize];
  const std::size_t size_;
};

std::optional<KyrRecord> ReadRecord(const FileFront& front, std::uint64_t offset) {
  constexpr unsigned char kMagicAndReserved[] = {'K', 'Y', 'R', '\0', 0, 0};
  unsigned char bytes[sizeof(KyrRecord)];
  if (front.file().Available(offset, sizeof bytes) != sizeof bytes) return std::nullopt;
  if (front.Read(offset, bytes, sizeof bytes) != sizeof bytes) return std::nullopt;
  if (std::memcmp(bytes, kMagicAndReserved, sizeof kMagicAndReserved) != 0) return std::nullopt;
  return KyrRecord{{'K', 'Y', 'R', '\0'}, 0,
                   Uint16At(bytes + 6),   Uint16At(bytes + 8),
                   Uint16At(bytes + 10),  Uint16At(bytes + 12),
                   Uint16At(bytes + 14)};
}

// The first section of the file that is a record, whatever its name. The table may claim anything:
// what does not lie in the file is passed over, and nothing is allocated for what a section claims.
std::optional<KyrRecord> FindRecord(const FileFront& front, const Layout& layout) {
  unsigned char piece[kTablePieceSize];
  const std::size_t most = sizeof piece / layout.entry_size;
  std::uint64_t offset = NativeAt<std::uint32_t>(front.bytes() + layout.table_offset);
  std::size_t left = NativeAt<std::uint16_t>(front.bytes() + layout.entry_count);
  while (left > 0) {
    const std::size_t size =
        front.file().Available(offset, std::min(left, most) * layout.entry_size);
    if (size < layout.entry_size) break;
    const std::size_t read = front.Read(offset, piece, size);
    std::size_t count = read / layout.entry_size;
    for (std::size_t entry = 0; entry < count; ++entry) {
      const unsigned char* section = piece + entry * layout.entry_size;
      if (NativeAt<std::uint32_t>(section + layout.section_size) != sizeof(KyrRecord)) continue;
      const auto place = NativeAt<std::uint32_t>(section + layout.section_offset);
      if (auto record = ReadRecord(front, place)) return record;
    }
    if (read < size) ++count;  // the header that could not be read; those after it may be readable
    offset += count * layout.entry_size;
    left -= count;
  }
  return std::nullopt;
}

bool IsNewer(const KyrRecord& a, const KyrRecord& b) {
  return std::tie(a.api_level, a.version_major, a.version_minor, a.version_patch) >
         std::tie(b.api_level, b.version_major, b.version_minor, b.version_patch);
}

}  // namespace

}  // namespace svcmgr

int kyr_section_read_file(const char* path, const struct stat* status, int type, struct FTW*) try {
  using namespace svcmgr;
  if (type != FTW_F || !S_ISREG(status->st_mode)) return 0;
  // No ELF file is smaller.
  if (status->st_size < static_cast<off_t>(kLayout32.header_size)) return 0;
  File file(path, static_cast<std::uint64_t>(status->st_size));
  if (!file.IsOpen()) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"  // %m is the C library's, and so the log's
    CLIENT_ERROR_F("Failed to open %s : %m", path);
#pragma GCC diagnostic pop
    return 0;
  }
  const FileFront front(file);
  if (front.size() < kLayout32.header_size) {
    CLIENT_ERROR("Failed to read ELF header");
    return 0;
  }
  if (std::memcmp(front.bytes(), ELFMAG, SELFMAG) != 0) return 0;
  const Layout& layout = front.bytes()[EI_CLASS] == ELFCLASS32 ? kLayout32 : kLayout64;
  if (front.size() < layout.header_size) {
    CLIENT_ERROR("Failed to read ELF header");
    return 0;
  }
  const auto record = FindRecord(front, layout);
  if (record && IsNewer(*record, latest_record)) latest_record = *record;
  return 0;
}
RETURN_ON_EXCEPTION(0);

svcmgr::OwnedKyrRecord kyr_section_get_latest(const char* root_path) {
  using svcmgr::KyrRecord;
  using svcmgr::latest_record;
  latest_record = {};
  // One descriptor at a time for folders, however deep they lie.
  if (nftw(root_path, kyr_section_read_file, 0, FTW_PHYS | FTW_DEPTH) == -1) {
    CLIENT_ERROR_F("Failed to travel %s", root_path);
    return nullptr;
  }
  RETURN_ERROR_IF(latest_record.api_level == 0, "There is no file having .kyr section", nullptr);
  svcmgr::OwnedKyrRecord copy(static_cast<KyrRecord*>(std::malloc(sizeof(KyrRecord))));
  RETURN_ERROR_IF(copy == nullptr, "malloc failed", nullptr);
  *copy = latest_record;
  return copy;
}
