// SPDX-License-Identifier: Apache-2.0
// Looks through an application's files for the marker of its client API level, many times in a row:
//
//     scan_runs library|limit TIMES FOLDER
//
// prints the level, and then the nanoseconds of each time. The limit walks through the same files,
// reads the front of each, and of those in ELF the table of sections and what may be a marker.

#include <elf.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>
#include <velmora_svcmgr.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_world.h"
#include "times.h"

namespace {

int limit_level = 0;

int LookAt(const char* path, const struct stat* status, int type, struct FTW*) {
  if (type != FTW_F || !S_ISREG(status->st_mode)) return 0;
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  char front[4096];
  const ssize_t size = pread(fd, front, sizeof front, 0);
  Elf64_Ehdr header;
  if (size >= static_cast<ssize_t>(sizeof header) && std::memcmp(front, ELFMAG, SELFMAG) == 0) {
    std::memcpy(&header, front, sizeof header);
    Elf64_Shdr sections[64];
    const std::size_t table = header.e_shnum * sizeof(Elf64_Shdr);
    const auto offset = static_cast<off_t>(header.e_shoff);
    Require(table <= sizeof sections &&
                pread(fd, sections, table, offset) == static_cast<ssize_t>(table),
            "read a table");
    for (int i = 0; i < header.e_shnum; ++i) {
      char marker[16];
      if (sections[i].sh_size != sizeof marker) continue;
      if (pread(fd, marker, sizeof marker, static_cast<off_t>(sections[i].sh_offset)) != 16)
        continue;
      std::uint16_t level = 0;
      std::memcpy(&level, marker + 8, sizeof level);
      if (std::memcmp(marker, "KYR", 4) == 0 && level > limit_level) limit_level = level;
    }
  }
  close(fd);
  return 0;
}

int Scan(bool library, const char* folder) {
  int level = 0;
  if (library) {
    Require(velmora_svcmgr_get_client_api_level(&level) == 0, "find a marker");
  } else {
    limit_level = 0;
    Require(nftw(folder, LookAt, 0, FTW_PHYS | FTW_DEPTH) == 0, "walk through the files");
    level = limit_level;
  }
  return level;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s library|limit TIMES FOLDER\n", argv[0]);
    return 2;
  }
  const bool library = std::string(argv[1]) == "library";
  const BenchWorld world;
  setenv("VELMORA_APP_ROOT", argv[3], 1);
  std::vector<Clock::duration> times(std::strtoul(argv[2], nullptr, 10));
  int level = 0;
  for (Clock::duration& time : times) {
    const auto start = Clock::now();
    level = Scan(library, argv[3]);
    time = Clock::now() - start;
  }
  std::printf("%d\n", level);
  PrintTimes(times);
  return 0;
}
