// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_SPACE_H_
#define TOOLS_SVCMGRCTL_SPACE_H_

#include <cstddef>

namespace svcmgrctl {

/** The size of a terminal, in cells. */
struct Space {
  std::size_t rows = 24;
  std::size_t columns = 80;
};

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_SPACE_H_
