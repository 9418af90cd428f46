// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_COMMON_PACKAGE_CODES_H_
#define PLATFORM_COMMON_PACKAGE_CODES_H_

namespace platform {

// What a look-up answers for a package that is not installed, outside the range of errno codes.
inline constexpr int kNoSuchPackage = static_cast<int>(0xFEEB0071);

}  // namespace platform

#endif  // PLATFORM_COMMON_PACKAGE_CODES_H_
