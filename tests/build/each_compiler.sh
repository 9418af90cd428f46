#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the library and the unit tests with each compiler that is here, and runs the tests.
#
#   each_compiler.sh FOLDER [COMPILER...]
#
# A COMPILER is a name such as g++-13 or clang++-16, with /libc++ behind it for LLVM's C++ library.
# GoogleTest is built with it, too. Without any: all that this machine has. Warnings are errors.
set -euo pipefail
. "$(dirname "$(readlink -f "$0")")/own_googletest.sh"
[ $# -gt 0 ] || { sed -n '4,8s/^# \{0,1\}//p' "$0" >&2; exit 2; }
mkdir -p "$1"
folder=$(cd "$1" && pwd)  # CMake takes no relative one for a prefix
shift

here() {
  local name
  for name in g++-{12,13,14} clang++-{14,15,16,17,18,19}; do
    ! command -v "$name" >/dev/null || printf '%s\n' "$name"
  done
  for name in clang++-{14,15,16,17,18,19}; do
    if command -v "$name" >/dev/null &&
      echo '#include <version>' | "$name" -stdlib=libc++ -E -x c++ - >/dev/null 2>&1; then
      printf '%s/libc++\n' "$name"
    fi
  done
}

try() {  # COMPILER
  local cxx=${1%/libc++} build=$folder/${1//[\/+]/_} flags='' options
  local cc=${cxx/clang++/clang}
  cc=${cc/g++/gcc}
  command -v "$cxx" >/dev/null || die "there is no $cxx here"
  rm -rf "$build"
  mkdir -p "$build"
  if [ "$1" != "$cxx" ]; then
    flags=-stdlib=libc++
  fi
  options=(-DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_FLAGS="$flags")
  # Debian's was made by its newest compiler, with what older ones do not have.
  build_googletest "$build" "${options[@]}"
  configure_tree "$build" "${options[@]}"
  build_tree "$build" velmora-svcmgr tests/unit/all
  quiet "$build/test.log" ctest --test-dir "$build/tree/tests/unit" -j "$jobs" --no-tests=error
  printf '%s: %s\n' "$1" "$(sed -n 's/^\([0-9]*% tests passed.*\)/\1/p' "$build/test.log")"
}

[ $# -gt 0 ] || mapfile -t found < <(here)
[ $# -eq 0 ] || found=("$@")
[ ${#found[@]} -gt 0 ] || die "there is no compiler here"
failed=()
for compiler in "${found[@]}"; do (try "$compiler") || failed+=("$compiler"); done
[ ${#failed[@]} = 0 ] || die "not with ${failed[*]}"
