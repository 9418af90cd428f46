// SPDX-License-Identifier: Apache-2.0
#ifndef BENCH_BENCH_WORLD_H_
#define BENCH_BENCH_WORLD_H_

#include <cstdio>
#include <cstdlib>
#include <string>

// A private folder with an installed agent, which this process and its children live in.
class BenchWorld {
 public:
  enum class Packages {
    kManaged,  // written by the desktop's own tools
    kByHand,   // written by anybody
  };

  // Sets the environment. Ends the process if the folder cannot be made.
  explicit BenchWorld(Packages packages = Packages::kManaged);
  ~BenchWorld();
  BenchWorld(const BenchWorld&) = delete;
  BenchWorld& operator=(const BenchWorld&) = delete;

  const std::string& folder() const { return folder_; }

 private:
  std::string folder_;
};

// Ends the process with a message unless `done`.
inline void Require(bool done, const char* what) {
  if (done) return;
  std::fprintf(stderr, "cannot %s\n", what);
  std::_Exit(1);
}

#endif  // BENCH_BENCH_WORLD_H_
