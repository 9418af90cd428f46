// SPDX-License-Identifier: Apache-2.0
// What the library keeps below the face is a question of the unit tests, and a main loop keeps
// descriptors of its own.

#include "kept.h"

namespace {

[[maybe_unused]] const bool is_let_be = [] {
  fake::LetBeKept();
  return true;
}();

}  // namespace
