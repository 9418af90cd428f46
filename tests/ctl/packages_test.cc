// SPDX-License-Identifier: Apache-2.0
#include "packages.h"

#include <gtest/gtest.h>

namespace svcmgrctl {
namespace {

TEST(AVersion, IsComparedByItsFirstTwoNumbers) {
  for (const char* version : {"2.3", "2.3.0", "2.10", "3", "3.0", "2.3.182-rc1", "10.0"})
    EXPECT_TRUE(IsAtLeast(version, 2, 3)) << version;
  for (const char* version : {"", "x", "2", "2.2.99", "1.7", "-3", "2.", "2.-5"})
    EXPECT_FALSE(IsAtLeast(version, 2, 3)) << version;
}

}  // namespace
}  // namespace svcmgrctl
