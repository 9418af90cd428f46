// SPDX-License-Identifier: Apache-2.0
#include "markers.h"

#include <fcntl.h>
#include <ftw.h>
#include <gelf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstring>
#include <optional>
#include <system_error>
#include <tuple>

#include "owned.h"
#include "unique_fd.h"

namespace svcmgrctl {
namespace {

constexpr std::size_t kMarkerSize = 16;
// No ELF file is smaller.
constexpr off_t kLeastFile = 52;
// The library reads files of this machine's byte order alone.
constexpr bool kLowByteFirst = std::endian::native == std::endian::little;
constexpr unsigned char kNativeOrder = kLowByteFirst ? ELFDATA2LSB : ELFDATA2MSB;

using ElfFile = base::Owned<Elf, elf_end>;

std::string ElfProblem() { return std::string("damaged: ") + elf_errmsg(-1); }

bool HasElfMagic(int fd) {
  char magic[SELFMAG];
  return pread(fd, magic, sizeof magic, 0) == SELFMAG && std::memcmp(magic, ELFMAG, SELFMAG) == 0;
}

std::uint16_t Uint16At(const unsigned char* bytes) {
  return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
}

// The library reads the low halves of a section's place and size.
std::optional<Marker> ReadMarker(int fd, const GElf_Shdr& header) {
  constexpr GElf_Xword kLow = 0xffffffff;
  constexpr unsigned char kBegin[] = {'K', 'Y', 'R', '\0', 0, 0};
  unsigned char bytes[kMarkerSize];
  if ((header.sh_size & kLow) != kMarkerSize) return std::nullopt;
  const auto offset = static_cast<off_t>(header.sh_offset & kLow);
  if (pread(fd, bytes, sizeof bytes, offset) != static_cast<ssize_t>(sizeof bytes))
    return std::nullopt;
  if (std::memcmp(bytes, kBegin, sizeof kBegin) != 0) return std::nullopt;
  return Marker{Uint16At(bytes + 8), Uint16At(bytes + 10), Uint16At(bytes + 12),
                Uint16At(bytes + 14), ""};
}

std::string NameOf(Elf* elf, const GElf_Shdr& header) {
  std::size_t names = 0;
  if (elf_getshdrstrndx(elf, &names) != 0) return {};
  const char* name = elf_strptr(elf, names, header.sh_name);
  return name == nullptr ? "" : name;
}

void ReadSections(int fd, Elf* elf, std::size_t count, MarkedFile* file) {
  for (std::size_t i = 0; i < count; ++i) {
    GElf_Shdr header;
    if (gelf_getshdr(elf_getscn(elf, i), &header) == nullptr) {
      file->problem = ElfProblem();
      return;
    }
    if (auto marker = ReadMarker(fd, header)) {
      marker->section = NameOf(elf, header);
      file->markers.push_back(*marker);
    }
  }
}

void ReadFile(const char* path, MarkedFile* file) {
  // A file may have become a FIFO since it was found: opening it must not wait.
  const base::UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW));
  if (fd.get() < 0) {
    file->problem = "cannot be opened: " + std::generic_category().message(errno);
    return;
  }
  struct stat status = {};
  if (fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode) || !HasElfMagic(fd.get())) return;
  const ElfFile elf(elf_begin(fd.get(), ELF_C_READ, nullptr));
  GElf_Ehdr header;
  if (elf == nullptr || elf_kind(elf.get()) != ELF_K_ELF ||
      gelf_getehdr(elf.get(), &header) == nullptr) {
    file->problem = elf != nullptr && elf_kind(elf.get()) != ELF_K_ELF ? "damaged: no ELF header"
                                                                       : ElfProblem();
    return;
  }
  if (header.e_ident[EI_DATA] != kNativeOrder) {
    file->problem = kLowByteFirst ? "passed over: its numbers begin with the high byte"
                                  : "passed over: its numbers begin with the low byte";
    return;
  }
  ReadSections(fd.get(), elf.get(), header.e_shnum, file);
}

// The walk has no argument for the caller's data.
struct {
  std::size_t root_size;
  std::vector<MarkedFile>* files;
} walk;

int OnFile(const char* path, const struct stat* status, int type, struct FTW*) {
  if (type != FTW_F || !S_ISREG(status->st_mode) || status->st_size < kLeastFile) return 0;
  MarkedFile file = {path + walk.root_size, {}, ""};
  ReadFile(path, &file);
  if (!file.markers.empty() || !file.problem.empty()) walk.files->push_back(std::move(file));
  return 0;
}

auto Keys(const Marker& marker) {
  return std::tie(marker.api_level, marker.version_major, marker.version_minor,
                  marker.version_patch);
}

}  // namespace

std::vector<MarkedFile> FindMarkers(const std::string& folder) {
  elf_version(EV_CURRENT);
  std::vector<MarkedFile> files;
  const std::string root = folder.back() == '/' ? folder : folder + "/";
  walk = {root.size(), &files};
  // As the library walks, so that equal markers come in the same order.
  nftw(root.c_str(), OnFile, 0, FTW_PHYS | FTW_DEPTH);
  walk = {};
  return files;
}

const MarkedFile* Newest(const std::vector<MarkedFile>& files) {
  const MarkedFile* newest = nullptr;
  for (const MarkedFile& file : files) {
    if (file.markers.empty() || file.markers.front().api_level == 0) continue;
    if (newest == nullptr || Keys(file.markers.front()) > Keys(newest->markers.front()))
      newest = &file;
  }
  return newest;
}

bool SameAge(const Marker& a, const Marker& b) { return Keys(a) == Keys(b); }

}  // namespace svcmgrctl
