// SPDX-License-Identifier: Apache-2.0
#include "kyr-section.h"

#include <fcntl.h>
#include <unistd.h>
#include <velmora_svcmgr.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <tuple>

#include "frame.h"

// The library's own marker: 16 bytes, little-endian, in a section that is never loaded. It stands
// in this unit, which the library needs, so that the linker's garbage collection keeps it.
#define MARKER_TEXT(number) MARKER_TEXT_OF(number)
#define MARKER_TEXT_OF(number) #number
#define MARKER_UINT16(number) "(" MARKER_TEXT(number) ") & 255, (" MARKER_TEXT(number) ") >> 8"
// clang-format off
__asm__(
    ".pushsection .kyr, \"\", %progbits\n"
    ".ascii \"KYR\\0\"\n"
    ".byte 0, 0\n"  // reserved
    ".byte 1, 0\n"  // format
    ".byte " MARKER_UINT16(VELMORA_SVCMGR_API_LEVEL) "\n"
    ".byte " MARKER_UINT16(VELMORA_SVCMGR_VERSION_MAJOR) "\n"
    ".byte " MARKER_UINT16(VELMORA_SVCMGR_VERSION_MINOR) "\n"
    ".byte " MARKER_UINT16(VELMORA_SVCMGR_VERSION_PATCH) "\n"
    ".popsection\n");
// clang-format on

namespace svcmgr {

namespace {

// The newest record of the search that is under way.
KyrRecord latest_record;

constexpr std::size_t kHeaderSize32 = 52;
constexpr std::size_t kHeaderSize64 = 64;
// One read of this size serves the header and what else stands at the front of a file.
constexpr std::size_t kFrontSize = 4096;
// Tables are read in pieces of this size, which nearly all fit into. A buffer of their own size would
// have to be allocated, and a file be passed over when there is no memory.
constexpr std::size_t kTablePieceSize = 16384;

std::uint16_t Uint16At(const unsigned char* bytes) {
  return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
}

std::uint32_t Uint32At(const unsigned char* bytes) {
  return Uint16At(bytes) | static_cast<std::uint32_t>(Uint16At(bytes + 2)) << 16;
}

// Where the fields stand in the two kinds of ELF files. Of 64-bit values the low halves are read;
// the byte order that a file claims is not looked at.
struct Layout {
  std::size_t header_size;
  std::size_t table_offset;
  std::size_t entry_count;
  std::size_t entry_size;
  std::size_t section_offset;
  std::size_t section_size;
};

constexpr Layout kLayout32 = {kHeaderSize32, 32, 48, 40, 16, 20};
constexpr Layout kLayout64 = {kHeaderSize64, 40, 60, 64, 24, 32};

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
    struct stat status {};
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
  std::uint64_t offset = Uint32At(front.bytes() + layout.table_offset);
  std::size_t left = Uint16At(front.bytes() + layout.entry_count);
  while (left > 0) {
    const std::size_t size =
        front.file().Available(offset, std::min(left, most) * layout.entry_size);
    if (size < layout.entry_size) break;
    const std::size_t read = front.Read(offset, piece, size);
    std::size_t count = read / layout.entry_size;
    for (std::size_t entry = 0; entry < count; ++entry) {
      const unsigned char* section = piece + entry * layout.entry_size;
      if (Uint32At(section + layout.section_size) != sizeof(KyrRecord)) continue;
      if (auto record = ReadRecord(front, Uint32At(section + layout.section_offset))) return record;
    }
    if (read < size) ++count;  // the header that could not be read; those behind it may be
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
  constexpr unsigned char kElfMagic[] = {0x7f, 'E', 'L', 'F'};
  constexpr std::size_t kClassByte = 4;
  constexpr unsigned char kClass32 = 1;

  if (type != FTW_F || !S_ISREG(status->st_mode)) return 0;
  if (status->st_size < static_cast<off_t>(kHeaderSize32)) return 0;
  File file(path, static_cast<std::uint64_t>(status->st_size));
  if (!file.IsOpen()) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"  // %m is the C library's, and so the log's
    CLIENT_ERROR_F("Failed to open %s : %m", path);
#pragma GCC diagnostic pop
    return 0;
  }
  const FileFront front(file);
  if (front.size() < kHeaderSize32) {
    CLIENT_ERROR("Failed to read ELF header");
    return 0;
  }
  if (std::memcmp(front.bytes(), kElfMagic, sizeof kElfMagic) != 0) return 0;
  const Layout& layout = front.bytes()[kClassByte] == kClass32 ? kLayout32 : kLayout64;
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
