// SPDX-License-Identifier: Apache-2.0
// What the library keeps below the face is a question of the unit tests: one call of the face makes
// several of the library's, and how many depends on how often it looks at the connection and on how
// far a request came that it gives up. A number here would state how the face works, not what it
// promises. And a main loop keeps descriptors of its own.

#include "kept.h"

namespace {

[[maybe_unused]] const bool is_let_be = [] {
  fake::LetBeKept();
  return true;
}();

}  // namespace
