// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_PACKAGE_INFO_HANDLE_H_
#define SVCMGR_PACKAGE_INFO_HANDLE_H_

#include <package_info.h>

#include <memory>
#include <type_traits>

#include "text.h"

namespace svcmgr {

struct PackageInfoDeleter {
  void operator()(package_info_h info) const noexcept { package_info_destroy(info); }
};

using PackageInfo = std::unique_ptr<std::remove_pointer_t<package_info_h>, PackageInfoDeleter>;

// Reads one text of a package; null if the platform fails, whatever it left in its output.
inline Text ReadPackageText(package_info_h info, int (*get)(package_info_h, char**)) {
  char* text = nullptr;
  return get(info, &text) == 0 ? Text(text) : nullptr;
}

}  // namespace svcmgr

#endif  // SVCMGR_PACKAGE_INFO_HANDLE_H_
