// SPDX-License-Identifier: Apache-2.0
// The library itself: its size without symbols, and how long it takes to load.

#include <dlfcn.h>
#include <elf.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "bench_world.h"
#include "promises.h"

namespace {

// What strip leaves: the bytes of the loaded segments, without symbols, debug records and linker
// notes.
std::size_t LoadedSize(const char* path) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  Elf64_Ehdr header;
  Require(bytes.size() >= sizeof header, "read the library");
  std::memcpy(&header, bytes.data(), sizeof header);
  std::size_t end = 0;
  for (std::size_t i = 0; i < header.e_phnum; ++i) {
    Elf64_Phdr segment;
    std::memcpy(&segment, bytes.data() + header.e_phoff + i * sizeof segment, sizeof segment);
    if (segment.p_type == PT_LOAD) {
      end = std::max<std::size_t>(end, segment.p_offset + segment.p_filesz);
    }
  }
  return end;
}

// In a new process each time; microseconds.
double LoadTime(const char* path, bool platform_first) {
  int ends[2];
  Require(pipe(ends) == 0, "make a pipe");
  const pid_t pid = fork();
  Require(pid >= 0, "start a process");
  if (pid == 0) {
    for (const char* library : {BENCH_PLATFORM_LIBRARIES}) {
      if (platform_first && dlopen(library, RTLD_NOW | RTLD_GLOBAL) == nullptr) _exit(1);
    }
    const auto start = std::chrono::steady_clock::now();
    void* const handle = dlopen(path, RTLD_NOW);
    const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - start;
    const double microseconds = handle == nullptr ? -1 : time.count();
    _exit(write(ends[1], &microseconds, sizeof microseconds) == sizeof microseconds ? 0 : 1);
  }
  close(ends[1]);
  double microseconds = -1;
  Require(
      read(ends[0], &microseconds, sizeof microseconds) == sizeof microseconds && microseconds >= 0,
      "load the library");
  close(ends[0]);
  waitpid(pid, nullptr, 0);
  return microseconds;
}

double MedianLoadTime(const char* path, bool platform_first) {
  std::vector<double> times(41);
  for (double& time : times) time = LoadTime(path, platform_first);
  std::nth_element(times.begin(), times.begin() + 20, times.end());
  return times[20];
}

}  // namespace

int main(int argc, char** argv) {
  PrepareProcess();
  if (argc > 1) {
    // Another build of it: only how long that takes to load.
    std::printf("%.1f\n", MedianLoadTime(argv[1], true));
    return 0;
  }
  WarnOfBuild();
  PrintPromise("size of the stripped library",
               static_cast<double>(LoadedSize(BENCH_LIBRARY)) / 1024, " KB", 200);
  PrintPromise("loading the library, platform loaded", MedianLoadTime(BENCH_LIBRARY, true) / 1000,
               " ms", 1);
  std::printf("       loading it with the platform = %.2f ms\n",
              MedianLoadTime(BENCH_LIBRARY, false) / 1000);
}
