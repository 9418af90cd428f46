// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_COMMON_COPY_TEXT_H_
#define PLATFORM_COMMON_COPY_TEXT_H_

#include <errno.h>
#include <string.h>

namespace platform {

// Hands the caller of an exported function a text to be released with free. Returns 0, or -ENOMEM
// with `*out` left alone.
inline int CopyText(const char* text, char** out) {
  char* copy = strdup(text);
  if (!copy) return -ENOMEM;
  *out = copy;
  return 0;
}

}  // namespace platform

#endif  // PLATFORM_COMMON_COPY_TEXT_H_
