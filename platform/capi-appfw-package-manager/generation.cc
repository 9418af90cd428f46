// SPDX-License-Identifier: Apache-2.0
#include "generation.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "unique_fd.h"

namespace packages {

namespace {

static_assert(sizeof(Generation::Word) == 8 && Generation::Word::is_always_lock_free,
              "the word is shared between processes");

std::string PathIn(const std::string& folder) { return folder + "/" + kGenerationFile; }

// Whether the file begins with a word that has storage: reading a hole through a mapping asks for
// storage, of which there may be none. Holes read as zeros.
bool HoldsWord(int fd, struct stat* about) {
  uint64_t word = 0;
  return fstat(fd, about) == 0 && S_ISREG(about->st_mode) &&
         pread(fd, &word, sizeof word, 0) == static_cast<ssize_t>(sizeof word) && word != 0;
}

// Never through a mapping, which can report a full file system only by ending the process. Random
// words need no lock between writers: none comes twice.
bool WriteNewWord(const std::string& path) {
  const base::UniqueFd fd(
      open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644));
  if (!fd) return false;
  uint64_t word = 0;
  while (word == 0) {
    if (getrandom(&word, sizeof word, 0) != static_cast<ssize_t>(sizeof word)) return false;
  }
  return pwrite(fd.get(), &word, sizeof word, 0) == static_cast<ssize_t>(sizeof word);
}

}  // namespace

std::shared_ptr<const Generation> Generation::Open(const std::string& folder,
                                                   std::shared_ptr<const Generation> current) {
  const base::UniqueFd fd(
      open(PathIn(folder).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!fd) return nullptr;
  struct stat about;
  if (!HoldsWord(fd.get(), &about)) return nullptr;
  if (current && current->device_ == about.st_dev && current->inode_ == about.st_ino) {
    return current;
  }
  void* mapped = mmap(nullptr, sizeof(Word), PROT_READ, MAP_SHARED, fd.get(), 0);
  if (mapped == MAP_FAILED) return nullptr;
  return std::make_shared<Generation>(static_cast<const Word*>(mapped), about.st_dev, about.st_ino);
}

void Generation::Bump(const std::string& folder) {
  const std::string path = PathIn(folder);
  if (!WriteNewWord(path)) unlink(path.c_str());
}

Generation::~Generation() { munmap(const_cast<Word*>(word_), sizeof *word_); }

}  // namespace packages
