// SPDX-License-Identifier: Apache-2.0
#include "generation.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "unique_fd.h"

namespace packages {

namespace {

static_assert(sizeof(Generation::Word) == 8 && Generation::Word::is_always_lock_free,
              "the word is shared between processes");

std::string PathIn(const std::string& folder) { return folder + "/" + kGenerationFile; }

// Null if the file is not a regular one that holds the word.
Generation::Word* Map(int fd, int protection, struct stat* about) {
  if (fstat(fd, about) != 0 || !S_ISREG(about->st_mode)) return nullptr;
  if (about->st_size < static_cast<off_t>(sizeof(Generation::Word))) return nullptr;
  void* mapped = mmap(nullptr, sizeof(Generation::Word), protection, MAP_SHARED, fd, 0);
  return mapped == MAP_FAILED ? nullptr : static_cast<Generation::Word*>(mapped);
}

bool TryBump(const std::string& path) {
  const UniqueFd fd(
      open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644));
  if (!fd) return false;
  struct stat about;
  Generation::Word* word = Map(fd.get(), PROT_READ | PROT_WRITE, &about);
  if (!word) {
    // A new file. Two writers that extend it at once do the same.
    if (ftruncate(fd.get(), sizeof(Generation::Word)) != 0) return false;
    word = Map(fd.get(), PROT_READ | PROT_WRITE, &about);
  }
  if (!word) return false;
  word->fetch_add(1, std::memory_order_release);
  munmap(word, sizeof *word);
  return true;
}

}  // namespace

std::shared_ptr<const Generation> Generation::Open(const std::string& folder,
                                                   std::shared_ptr<const Generation> current) {
  const UniqueFd fd(open(PathIn(folder).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!fd) return nullptr;
  struct stat about;
  Word* word = Map(fd.get(), PROT_READ, &about);
  if (!word) return nullptr;
  if (current && current->device_ == about.st_dev && current->inode_ == about.st_ino) {
    munmap(word, sizeof *word);
    return current;
  }
  return std::make_shared<Generation>(word, about.st_dev, about.st_ino);
}

void Generation::Bump(const std::string& folder) {
  const std::string path = PathIn(folder);
  if (!TryBump(path)) unlink(path.c_str());
}

Generation::~Generation() { munmap(word_, sizeof *word_); }

}  // namespace packages
