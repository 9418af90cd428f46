// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_PACKAGE_MANAGER_GENERATION_H_
#define PLATFORM_PACKAGE_MANAGER_GENERATION_H_

#include <stdint.h>
#include <sys/types.h>

#include <atomic>
#include <memory>
#include <string>

namespace packages {

// Name of the file in a package folder whose first eight bytes, never zeros, are drawn at random
// after each change that the functions of package_desktop.h make.
inline constexpr char kGenerationFile[] = ".generation";

// The generation word of a folder, mapped.
class Generation {
 public:
  using Word = std::atomic<uint64_t>;

  // Null if the folder has no usable generation file. Hands `current` back if it is still the one.
  static std::shared_ptr<const Generation> Open(const std::string& folder,
                                                std::shared_ptr<const Generation> current);

  // Tells readers of a change, and makes the file if it is missing. If that fails there is no file,
  // and readers ask the kernel instead.
  static void Bump(const std::string& folder);

  Generation(const Word* word, dev_t device, ino_t inode)
      : word_(word), device_(device), inode_(inode) {}
  Generation(const Generation&) = delete;
  Generation& operator=(const Generation&) = delete;
  ~Generation();

  uint64_t Load() const { return word_->load(std::memory_order_acquire); }

 private:
  const Word* const word_;
  const dev_t device_;
  const ino_t inode_;
};

}  // namespace packages

#endif  // PLATFORM_PACKAGE_MANAGER_GENERATION_H_
