// SPDX-License-Identifier: Apache-2.0
// Feeds a target with files, or the files of folders, in builds without a fuzzer.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "input.h"

namespace fs = std::filesystem;

namespace {

std::vector<fs::path> FilesOf(const fs::path& place) {
  if (!fs::is_directory(place)) return {place};
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(place)) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

bool Replay(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  // A vector's storage ends where the input ends, so that sanitizers see reading beyond it.
  std::vector<char> input{std::istreambuf_iterator<char>(stream), {}};
  if (!stream) return false;
  input.shrink_to_fit();
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    for (const fs::path& file : FilesOf(argv[i])) {
      if (!Replay(file)) {
        std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return 1;
      }
      ++count;
    }
  }
  std::printf("%zu inputs\n", count);
  return count > 0 ? 0 : 1;
}
