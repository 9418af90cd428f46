// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <string>

#include "support.h"

int main(int argc, char** argv) {
  if (argc > 1 && std::string(argv[1]) == "--peer") return RunPeer({argv + 2, argv + argc});
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
