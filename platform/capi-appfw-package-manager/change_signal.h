// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_PACKAGE_MANAGER_CHANGE_SIGNAL_H_
#define PLATFORM_PACKAGE_MANAGER_CHANGE_SIGNAL_H_

#include <linux/aio_abi.h>

#include "unique_fd.h"

namespace packages {

// A word in memory that the kernel changes when a descriptor becomes readable, so that one can ask
// for news without a system call.
//
// The word is the tail of a completion ring that the kernel maps into the process for asynchronous
// input and output; the request in flight is a poll. Not every kernel or container offers it.
class ChangeSignal {
 public:
  using Word = unsigned;

  // Null until Watch has succeeded. The word stays mapped for the rest of the process.
  const Word* word() const { return word_; }

  // False if the kernel does not offer it.
  bool Watch(int fd);

  // Waits for the next news; news that already wait count at once. Returns the word's value as long
  // as there is none. After a failure word() is null.
  Word Rearm();

 private:
  UniqueFd poll_set_;
  aio_context_t context_ = 0;
  const Word* word_ = nullptr;
  bool armed_ = false;
  Word armed_value_ = 0;
};

}  // namespace packages

#endif  // PLATFORM_PACKAGE_MANAGER_CHANGE_SIGNAL_H_
