// SPDX-License-Identifier: Apache-2.0
// Looks through the sections of an application's files with what others would take for it, many times
// in a row:
//
//     scan_peer readelf|libelf|scanelf TIMES FOLDER
//
// prints what it has found, and then the nanoseconds of each time: libelf the marker's level; the two
// commands the files of which they have read sections, since they cannot look for a marker. What they
// print goes nowhere, and the time that such a process takes to start and to end is left out.

#include <fcntl.h>
#include <ftw.h>
#include <gelf.h>
#include <libelf.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_world.h"
#include "times.h"

namespace {

// ---- libelf -------------------------------------------------------------------------------------

int level = 0;

void LookAtSections(Elf* elf) {
  for (Elf_Scn* section = nullptr; (section = elf_nextscn(elf, section)) != nullptr;) {
    GElf_Shdr header;
    if (gelf_getshdr(section, &header) == nullptr || header.sh_size != 16) continue;
    const Elf_Data* const data = elf_rawdata(section, nullptr);
    if (data == nullptr || data->d_size != 16 || std::memcmp(data->d_buf, "KYR", 4) != 0) continue;
    std::uint16_t found = 0;
    std::memcpy(&found, static_cast<const char*>(data->d_buf) + 8, sizeof found);
    if (found > level) level = found;
  }
}

int LookAt(const char* path, const struct stat*, int type, struct FTW*) {
  if (type != FTW_F) return 0;
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  Require(fd >= 0, "open a file");
  Elf* const elf = elf_begin(fd, ELF_C_READ, nullptr);
  if (elf_kind(elf) == ELF_K_ELF) LookAtSections(elf);
  elf_end(elf);
  close(fd);
  return 0;
}

Clock::duration ScanByLibelf(const char* folder) {
  const auto start = Clock::now();
  level = 0;
  Require(nftw(folder, LookAt, 16, FTW_PHYS) == 0, "walk through the files");
  return Clock::now() - start;
}

// ---- Commands -----------------------------------------------------------------------------------

std::vector<std::string> files;

int NoteFile(const char* path, const struct stat*, int type, struct FTW*) {
  if (type == FTW_F) files.emplace_back(path);
  return 0;
}

class Command {
 public:
  explicit Command(std::vector<std::string> words) : words_(std::move(words)) {
    for (std::string& word : words_) arguments_.push_back(word.data());
    arguments_.push_back(nullptr);
  }

  // With its standard output and errors at `output`.
  pid_t Start(int output) const {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output, STDERR_FILENO);
    pid_t pid = -1;
    Require(posix_spawnp(&pid, arguments_[0], &actions, nullptr, arguments_.data(), environ) == 0,
            "start a command");
    posix_spawn_file_actions_destroy(&actions);
    return pid;
  }

  Clock::duration Run() const {
    static const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
    const auto start = Clock::now();
    waitpid(Start(nowhere), nullptr, 0);
    return Clock::now() - start;
  }

  std::string Output() const {
    int ends[2];
    Require(pipe2(ends, O_CLOEXEC) == 0, "make a pipe");
    const pid_t pid = Start(ends[1]);
    close(ends[1]);
    std::string output;
    std::array<char, 65536> some;
    for (ssize_t size; (size = read(ends[0], some.data(), some.size())) > 0;) {
      output.append(some.data(), static_cast<std::size_t>(size));
    }
    close(ends[0]);
    waitpid(pid, nullptr, 0);
    return output;
  }

 private:
  std::vector<std::string> words_;
  mutable std::vector<char*> arguments_;
};

// One process for all files, which somebody else has found already.
Command Readelf(const char* folder) {
  Require(nftw(folder, NoteFile, 16, FTW_PHYS) == 0, "walk through the files");
  std::vector<std::string> words = {"readelf", "--section-headers", "--wide"};
  words.insert(words.end(), files.begin(), files.end());
  return Command(words);
}

Command Scanelf(const char* folder, const char* section) {
  return Command({"scanelf", "--nocolor", "--quiet", "--recursive", "--section", section, folder});
}

std::size_t CountLines(const std::string& output, const std::string& beginning) {
  std::size_t count = output.starts_with(beginning) ? 1 : 0;
  for (std::size_t at = 0; (at = output.find("\n" + beginning, at)) != std::string::npos; ++at) {
    ++count;
  }
  return count;
}

// -------------------------------------------------------------------------------------------------

void Print(std::size_t found, const std::vector<Clock::duration>& times) {
  std::printf("%zu\n", found);
  PrintTimes(times);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s readelf|libelf|scanelf TIMES FOLDER\n", argv[0]);
    return 2;
  }
  const std::string with = argv[1];
  const char* const folder = argv[3];
  std::vector<Clock::duration> times(std::strtoul(argv[2], nullptr, 10));
  if (with == "libelf") {
    Require(elf_version(EV_CURRENT) != EV_NONE, "use libelf");
    for (auto& time : times) time = ScanByLibelf(folder);
    Print(static_cast<std::size_t>(level), times);
    return 0;
  }
  const bool is_readelf = with == "readelf";
  Require(is_readelf || with == "scanelf", "look with that");
  // A name that no section has, so that all are looked at; the files' own name is in each one in ELF.
  const Command command = is_readelf ? Readelf(folder) : Scanelf(folder, ".kyr");
  const Command start = Command({with, "--version"});
  for (auto& time : times) time = command.Run() - start.Run();
  Print(is_readelf ? CountLines(command.Output(), "Section Headers:")
                   : CountLines(Scanelf(folder, "KYR").Output(), "KYR "),
        times);
  return 0;
}
