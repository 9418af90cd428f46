// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_TEXT_H_
#define SVCMGR_TEXT_H_

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>

namespace svcmgr {

struct FreeDeleter {
  void operator()(void* memory) const noexcept { std::free(memory); }
};

// A text from the C allocator, which is where the platform's texts come from and where those for
// the application must come from.
using Text = std::unique_ptr<char, FreeDeleter>;

// Throws std::logic_error for a null text, std::bad_alloc when memory is exhausted.
inline Text CopyText(const char* text) {
  if (text == nullptr) throw std::logic_error("null text");
  Text copy(strdup(text));
  if (copy == nullptr) throw std::bad_alloc();
  return copy;
}

}  // namespace svcmgr

#endif  // SVCMGR_TEXT_H_
