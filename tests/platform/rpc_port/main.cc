// SPDX-License-Identifier: Apache-2.0
#include <glib.h>
#include <gmock/gmock.h>

#include <string>

#include "support.h"

int main(int argc, char** argv) {
  // GLib only warns of what should never be asked of it.
  g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));
  if (argc > 1 && std::string(argv[1]) == "--peer") return RunPeer({argv + 2, argv + argc});
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
