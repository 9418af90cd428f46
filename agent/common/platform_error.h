// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_COMMON_PLATFORM_ERROR_H_
#define AGENT_COMMON_PLATFORM_ERROR_H_

#include <stdexcept>
#include <string>

namespace sim {

/** The platform could not do something. */
class PlatformError : public std::runtime_error {
 public:
  PlatformError(const char* what, int code)
      : std::runtime_error(std::string(what) + ": platform error " + std::to_string(code)) {}
};

/** Throws PlatformError for any code but 0. */
inline void Check(int code, const char* what) {
  if (code != 0) throw PlatformError(what, code);
}

}  // namespace sim

#endif  // AGENT_COMMON_PLATFORM_ERROR_H_
