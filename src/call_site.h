// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_CALL_SITE_H_
#define SVCMGR_CALL_SITE_H_

#include <cstddef>
#include <type_traits>

namespace svcmgr {

// Where a log record comes from. Helpers that log in the name of their caller take one: inside a
// helper or a lambda __func__ would name that.
struct CallSite {
  const char* file;
  const char* function;
  int line;
};

constexpr std::size_t BaseNameOffset(const char* path) {
  std::size_t offset = 0;
  for (std::size_t i = 0; path[i] != '\0'; ++i) {
    if (path[i] == '/') offset = i + 1;
  }
  return offset;
}

}  // namespace svcmgr

// The base name of the current source file, found at compile time.
#define SVCMGR_FILE_NAME \
  (&__FILE__[std::integral_constant<std::size_t, svcmgr::BaseNameOffset(__FILE__)>::value])

#define SVCMGR_HERE (svcmgr::CallSite{SVCMGR_FILE_NAME, __func__, __LINE__})

#endif  // SVCMGR_CALL_SITE_H_
