// SPDX-License-Identifier: Apache-2.0
// Half of the tests of the face are answered with lists, and each keeps its storage and its records:
// what the library's conversion does with them is a question of the unit tests, which state it to the
// block. What is kept otherwise, each test here states as well.

#include "kept.h"

namespace {

[[maybe_unused]] const bool is_let_be = [] {
  fake::LetBeKept({fake::Kept::kRecord, fake::Kept::kStorage});
  return true;
}();

}  // namespace
